#include "core/AnalyzerDefaults.h"

#include "TempSettings.h"

#include <cmath>
#include <numeric>

namespace widmo {
namespace {

class IndexTablesTest : public test::TempSettings {
protected:
    void SetUp() override {
        test::TempSettings::SetUp();
        d = std::make_unique<AnalyzerDefaults>(AnalyzerFeatures::studioProduct(), "index-test");
    }
    void regenerate() {
        d->recalculateDocumentSettings();
        d->generateAllIndexes();
    }
    std::unique_ptr<AnalyzerDefaults> d;
};

TEST_F(IndexTablesTest, octaveBandsAreABaseTwoSeriesThrough1kHz) {
    for (int bands : {1, 3, 6, 12}) {
        d->setOctaveRTABandsPerOctave(bands);
        regenerate();
        EXPECT_FLOAT_EQ(15.625f, d->octaveRTAFrequencies()[0]);
        EXPECT_FLOAT_EQ(1000.0f, d->octaveRTAFrequencies()[6 * bands]) << bands;
        EXPECT_FLOAT_EQ(256000.0f, d->octaveRTAFrequencies()[14 * bands]) << bands;
        // The lower edge of a band is half a band below its centre.
        const int i = 6 * bands;
        const double binWidth = 22050.0 / 2048.0;
        const double edge =
            (d->octaveRTAIndexesFloor()[i] + d->octaveRTAIndexFraction()[i]) * binWidth;
        EXPECT_NEAR(1000.0 / std::pow(2.0, 0.5 / bands), edge, 1e-3);
    }
}

TEST_F(IndexTablesTest, bandRangeIsWhatTheFftResolves) {
    d->setOctaveRTABandsPerOctave(1);
    regenerate();
    // Bands 0 and 1 never count; band 2's lower edge (44.19 Hz) is above one bin.
    EXPECT_EQ(2, d->octaveRTAMinIndex());
    EXPECT_EQ(10, d->octaveRTAMaxIndex()); // 16 kHz; 32 kHz is above Nyquist

    d->setOctaveRTABandsPerOctave(3);
    d->setFftSize(256); // bins of 172 Hz: the first band above one bin is higher
    regenerate();
    const int minIndex = d->octaveRTAMinIndex();
    const double binWidth = 22050.0 / 128.0;
    EXPECT_GT(d->octaveRTAFrequencies()[minIndex] / std::pow(2.0, 0.5 / 3), binWidth);
    EXPECT_LE(d->octaveRTAFrequencies()[minIndex - 1] / std::pow(2.0, 0.5 / 3), binWidth);
    EXPECT_LT(d->octaveRTAFrequencies()[d->octaveRTAMaxIndex()], 22050.0f);
    EXPECT_GE(d->octaveRTAFrequencies()[d->octaveRTAMaxIndex() + 1], 22050.0f);
}

TEST_F(IndexTablesTest, logarithmicPointsSpanZeroToOne) {
    regenerate();
    const float* p = d->logPoints();
    EXPECT_TRUE(std::isinf(p[0]) && p[0] < 0);
    // 20 Hz sits at 0 and Nyquist at 1; bin i is at i * 10.7666 Hz.
    const int n = d->fftOutSize();
    EXPECT_NEAR(std::log2((22050.0 * (n - 1) / n) / 20.0) / std::log2(22050.0 / 20.0), p[n - 1],
                1e-6);
    EXPECT_LT(p[1], 0.0f) << "bins below the axis start are negative";
    EXPECT_GT(p[2], 0.0f);
    for (int i = 2; i < n; ++i)
        ASSERT_GT(p[i], p[i - 1]);
}

TEST_F(IndexTablesTest, logarithmicRowsStartOnceEach_skipUnreachedRows_columnTakesPeak) {
    regenerate();
    const int count = d->spectrogramLogIndexesCount();
    ASSERT_GT(count, 100);
    const int32_t* bins = d->spectrogramLogInMiddleIndexes();
    const int32_t* rows = d->spectrogramLogIndexes();
    EXPECT_GE(rows[0], 1);
    EXPECT_EQ(d->fftDisplaySize(), rows[count - 1]);
    for (int j = 1; j < count; ++j) {
        ASSERT_GT(bins[j], bins[j - 1]);
        ASSERT_GT(rows[j], rows[j - 1]);
    }
    // At the low end one bin spans many rows, so rows are skipped there.
    EXPECT_GT(rows[1] - rows[0], 1);

    // A logarithmic column takes the peak of its row's bins.
    std::vector<float> fft(2048, 0.0f);
    fft[1000] = 5.0f;
    const float* out = d->convertToLogarithmicScaleFFTData(fft.data());
    for (int j = 0; j + 1 < d->spectrogramLogIndexesCount(); ++j) {
        const bool holdsPeak = bins[j] <= 1000 && 1000 < bins[j + 1];
        ASSERT_EQ(holdsPeak ? 5.0f : 0.0f, out[j]) << j;
    }
}

// Each conversion returns one of 128 buffers in turn, so the 128 before it stay valid.
TEST_F(IndexTablesTest, interlacingSumsCopiesOrRepeatsBins_in128RotatingBuffers) {
    std::vector<float> fft(32768);
    std::iota(fft.begin(), fft.end(), 0.0f);
    const struct {
        int fftSize;
        float first, last;                   // rows 0 and 2047
    } table[] = {{4096, 0, 2047},            // 2048 bins onto 2048 rows: a copy
                 {8192, 0 + 1, 4094 + 4095}, // 4096 bins: each row sums two
                 {1024, 0, 511}};            // 512 bins: each fills four rows
    for (const auto& c : table) {
        d->setFftSize(c.fftSize);
        regenerate();
        const float* out = d->interlaceToSpectrogramFFTData(fft.data());
        EXPECT_EQ(c.first, out[0]) << c.fftSize;
        EXPECT_EQ(c.last, out[2047]) << c.fftSize;
    }
    EXPECT_EQ(0.0f, d->interlaceToSpectrogramFFTData(fft.data())[3]);
    const float* first = d->interlaceToSpectrogramFFTData(fft.data());
    EXPECT_EQ(1.0f, first[4]);
    for (int i = 1; i < 128; ++i)
        ASSERT_NE(first, d->convertToLogarithmicScaleFFTData(fft.data()));
    EXPECT_EQ(first, d->interlaceToSpectrogramFFTData(fft.data()));
}

} // namespace
} // namespace widmo
