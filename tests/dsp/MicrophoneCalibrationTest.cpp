#include "dsp/MicrophoneCalibration.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace widmo {
namespace {

TEST(MicrophoneCalibration, badFilesAreRefusedWithTheirFirstBadLine) {
    QByteArray tooLong;
    for (int i = 1; i <= 100001; ++i)
        tooLong += QByteArray::number(i) + " 0.0\n";
    struct Case {
        QByteArray bytes;
        QString message;
    };
    const Case cases[] = {
        {"* only a comment\n\n", "mic.txt: no calibration points (no line holds a frequency and "
                                 "a level)"},
        {"", "mic.txt: no calibration points (no line holds a frequency and a level)"},
        {"* x\n20 0.1\n1000 0.0\n900 0.2\n",
         "mic.txt, line 4: frequency 900 is not above the previous 1000 (\"900 0.2\")"},
        {"20 0.1\n20 0.2\n", "mic.txt, line 2: frequency 20 is not above the previous 20 "
                             "(\"20 0.2\")"},
        {"0 0.1\n", "mic.txt, line 1: frequency 0 is not positive (\"0 0.1\")"},
        {"20\t0.1\n30\tNaN\n", "mic.txt, line 2: NaN is not a finite number (\"30\tNaN\")"},
        {"20 1e999\n", "mic.txt, line 1: 1e999 is not a finite number (\"20 1e999\")"},
        {"20 0.1\n100 -60.5\n", "mic.txt, line 2: level -60.5 dB is beyond ±60 dB (\"100 -60.5\")"},
        {tooLong, "mic.txt, line 100001: more than 100000 lines"},
        {QByteArray("20 0.1\n\x89PNG\0\x01\n", 14), "mic.txt, line 2: not text (a NUL byte)"},
        {"20 0.1\n30 \xff\xfe\n", "mic.txt, line 2: not text (invalid UTF-8)"},
        {"20 0.1\nhello world\n", "mic.txt, line 2: neither a point (frequency, level[, phase]) "
                                  "nor a comment (\"hello world\")"},
        {"20,,0.1\n", "mic.txt, line 1: neither a point (frequency, level[, phase]) nor a "
                      "comment (\"20,,0.1\")"},
        {"20 0.1 3 4\n", "mic.txt, line 1: neither a point (frequency, level[, phase]) nor a "
                         "comment (\"20 0.1 3 4\")"},
    };
    for (const Case& c : cases) {
        QString error;
        EXPECT_FALSE(MicrophoneCalibration::parse(c.bytes, QStringLiteral("mic.txt"), &error))
            << c.message.toStdString();
        EXPECT_EQ(error, c.message);
    }
    QString error;
    EXPECT_FALSE(MicrophoneCalibration::load(QStringLiteral("/nonexistent/mic.txt"), &error));
    EXPECT_TRUE(error.startsWith(QStringLiteral("/nonexistent/mic.txt: cannot read: ")))
        << error.toStdString();
}

TEST(MicrophoneCalibration, goodFile_PointsSensitivityAndInterpolation) {
    const QByteArray file = "\xEF\xBB\xBF\"Sens Factor =-1.23dB, SERNO: 1234567\"\r\n"
                            "* measured 2024\r\n"
                            "# Hz dB phase\r\n"
                            "\r\n"
                            "  100\t-2.0\t5.1\r\n"
                            "1000, 0.0\r\n"
                            "10000 ,4.0,-12\r\n"
                            "20000 6";
    QString error;
    const auto c = MicrophoneCalibration::parse(file, QStringLiteral("mic.txt"), &error);
    ASSERT_TRUE(c) << error.toStdString();
    ASSERT_EQ(c->points().size(), 4u);
    EXPECT_EQ(c->points()[2].frequency, 10000.0);
    EXPECT_EQ(c->points()[2].levelDB, 4.0);
    EXPECT_EQ(c->sensitivityText(), QStringLiteral("Sens Factor =-1.23dB, SERNO: 1234567"));
    ASSERT_TRUE(c->sensitivityDBFS());
    EXPECT_DOUBLE_EQ(*c->sensitivityDBFS(), -1.23);

    // Hand-computed: the correction is minus the response, linear in dB over
    // log frequency; held outside 100 Hz..20 kHz.
    struct Point {
        double f, correction;
    };
    const Point expected[] = {
        {10.0, 2.0},        {100.0, 2.0},
        {316.227766, 1.0},  {1000.0, 0.0},
        {3162.27766, -2.0}, {5000.0, -2.0 - 4.0 * std::log10(5000.0 / 3162.27766)},
        {14142.1356, -5.0}, {20000.0, -6.0},
        {40000.0, -6.0},
    };
    for (const Point& p : expected)
        EXPECT_NEAR(c->correctionDB(p.f), p.correction, 1e-6) << p.f;

    float factors[4];
    c->fillPowerFactors(factors, 4, 1000.0); // 0, 1, 2, 3 kHz
    EXPECT_NEAR(factors[0], std::pow(10.0, 0.2), 1e-5);
    EXPECT_NEAR(factors[1], 1.0, 1e-6);
    EXPECT_NEAR(factors[2], std::pow(10.0, -0.4 * std::log10(2.0)), 1e-5);
}

} // namespace
} // namespace widmo
