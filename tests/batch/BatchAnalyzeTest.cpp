#include "batch/BatchAnalysis.h"
#include "batch/BatchSettings.h"
#include "charts/ChartData.h"
#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <numbers>
#include <vector>

using namespace widmo;

namespace {

constexpr int kRate = 48000;
// Bin width at FFT 4096 and 48 kHz: tones on bins read their exact level.
constexpr double kBin = kRate / 4096.0;
constexpr double kTone1 = 85 * kBin;  // 996.09 Hz at 0.5 (-6.02 dB)
constexpr double kTone2 = 427 * kBin; // 5003.91 Hz at 0.1 (-20 dB)

std::vector<float> twoTones(double seconds) {
    std::vector<float> s(static_cast<size_t>(seconds * kRate));
    for (size_t k = 0; k < s.size(); ++k) {
        const double t = static_cast<double>(k) / kRate;
        s[k] = static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * kTone1 * t) +
                                  0.1 * std::sin(2 * std::numbers::pi * kTone2 * t));
    }
    return s;
}

// A linear sweep from 1 kHz to 9 kHz over 4 s at 0.5.
double sweepFrequency(double t) { return 1000.0 + 2000.0 * t; }
std::vector<float> sweep() {
    std::vector<float> s(4 * kRate);
    for (size_t k = 0; k < s.size(); ++k) {
        const double t = static_cast<double>(k) / kRate;
        s[k] = static_cast<float>(0.5 *
                                  std::sin(2 * std::numbers::pi * (1000.0 * t + 1000.0 * t * t)));
    }
    return s;
}

void writeWav(const QString& path, const std::vector<float>& samples) {
    SF_INFO info{};
    info.samplerate = kRate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* sf = sf_open(path.toLocal8Bit().constData(), SFM_WRITE, &info);
    ASSERT_NE(sf, nullptr) << sf_strerror(nullptr);
    sf_writef_float(sf, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(sf);
}

struct CommandRun {
    int status = -1;
    QByteArray out, err;
};

CommandRun analyze(const QStringList& arguments) {
    QProcess p;
    p.start(QStringLiteral(WIDMO_ANALYZE_PATH), arguments);
    p.waitForFinished(120000);
    return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, p.readAllStandardOutput(),
            p.readAllStandardError()};
}

// CSV rows as numbers, header dropped.
std::vector<std::vector<double>> csvRows(const QByteArray& csv) {
    std::vector<std::vector<double>> rows;
    const QList<QByteArray> lines = csv.trimmed().split('\n');
    for (qsizetype i = 1; i < lines.size(); ++i) {
        std::vector<double> row;
        for (const QByteArray& cell : lines[i].split(','))
            row.push_back(cell.toDouble());
        rows.push_back(row);
    }
    return rows;
}

QByteArray readAll(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

} // namespace

// Spectrum peaks at the tones with their levels; every band as the RTA chart
// shows it for the same sound (no averaging, so one frame is the steady level).
TEST(BatchAnalysisTest, twoBinCentredTones_spectrumPeaksAtTones_bandsAsTheRtaChart) {
    BatchSettings s = BatchSettings::systemDefaults();
    s.spectrum = true;
    s.bandsPerOctave = 3;
    FFTPlanCache::shared();
    BatchAnalysis a(s, twoTones(3.0), kRate, 1);
    ASSERT_TRUE(a.valid());
    const auto worker = a.makeWorker();
    for (int32_t c = a.chunkCount() - 1; c >= 0; --c) // any order gives the same sums
        a.analyseChunk(c, *worker);
    a.finish();

    const auto spectrum = csvRows(a.spectrumCsv());
    ASSERT_EQ(spectrum.size(), 2048u);
    std::vector<std::vector<double>> peaks;
    for (size_t i = 1; i + 1 < spectrum.size(); ++i) {
        if (spectrum[i][1] > spectrum[i - 1][1] && spectrum[i][1] > spectrum[i + 1][1] &&
            spectrum[i][1] > -60.0)
            peaks.push_back(spectrum[i]);
    }
    ASSERT_EQ(peaks.size(), 2u);
    // The CSV keeps 3 decimals; a bin-centred sine reads A² exactly but for float rounding.
    EXPECT_NEAR(peaks[0][0], kTone1, 0.001);
    EXPECT_NEAR(peaks[0][1], -6.0206, 0.01);
    EXPECT_NEAR(peaks[1][0], kTone2, 0.001);
    EXPECT_NEAR(peaks[1][1], -20.0, 0.01);
    EXPECT_NEAR(a.strongestFrequency(), kTone1, 0.001);

    AnalyzerDefaults d(AnalyzerFeatures::studioProduct(), QStringLiteral("batch-test"));
    d.setSampleRate(kRate);
    d.setFftSize(s.fftSize);
    d.setFftWindowType(s.fftWindowType);
    d.setOctaveRTABandsPerOctave(3);
    d.setOctaveRTABandAverageType(3);
    d.recalculateDocumentSettings();
    d.generateAllIndexes();
    d.setOctaveRTAValid(true);
    FFTManager fft(d, FFTPlanCache::shared());
    ChartData chart(d);
    const std::vector<float> sound = twoTones(1.0);
    std::vector<float> power(2048 + 2, 0.0f);
    fft.powerSpectrumOfWindow(sound.data() + 10000, power.data());
    chart.addFFTdata(power.data(), sound.data() + 10000, nullptr);
    chart.updateOctaveRTA(false, 0.0);

    const auto bands = csvRows(a.bandsCsv());
    ASSERT_EQ(static_cast<int32_t>(bands.size()),
              d.octaveRTAMaxIndex() - d.octaveRTAMinIndex() + 1);
    for (size_t i = 0; i < bands.size(); ++i) {
        const auto b = static_cast<size_t>(d.octaveRTAMinIndex()) + i;
        EXPECT_NEAR(bands[i][0], d.octaveRTAFrequencies()[b], 0.001) << b;
        // Levels below -100 dB are window leakage whose phase moves from
        // interval to interval; the tones' bands and their neighbours are steady.
        if (bands[i][1] > -100.0) {
            EXPECT_NEAR(bands[i][1], chart.octaveRTAValues()[b], 0.02) << bands[i][0] << " Hz";
            EXPECT_NEAR(bands[i][2], bands[i][1], 0.05) << bands[i][0] << " Hz";
            EXPECT_NEAR(bands[i][3], bands[i][1], 0.05) << bands[i][0] << " Hz";
        }
    }
}

// The built command on real files: the image shows the tones and the sweep
// where they are, and one thread and four write the same bytes.
TEST(BatchCommandTest, toneAndSweepFiles_pngRowsAtTheirFrequencies_sameBytesForOneAndFourJobs) {
    QTemporaryDir dir;
    const QString tones = dir.filePath(QStringLiteral("tones.wav"));
    const QString swept = dir.filePath(QStringLiteral("sweep.wav"));
    writeWav(tones, twoTones(6.0));
    writeWav(swept, sweep());

    QStringList names;
    QByteArray summaries[2];
    for (int run = 0; run < 2; ++run) {
        const QString out = dir.filePath(run == 0 ? QStringLiteral("one") : QStringLiteral("four"));
        const CommandRun r =
            analyze({QStringLiteral("--spectrogram"), QStringLiteral("--spectrum"),
                     QStringLiteral("--bands"), QStringLiteral("6"), QStringLiteral("--summary"),
                     QStringLiteral("--jobs"), run == 0 ? QStringLiteral("1") : QStringLiteral("4"),
                     QStringLiteral("-o"), out, tones, swept});
        ASSERT_EQ(r.status, 0) << r.err.constData();
        summaries[run] = r.out;
        names = QDir(out).entryList(QDir::Files, QDir::Name);
    }
    ASSERT_EQ(names.size(), 6) << names.join(QLatin1Char(' ')).toStdString();
    for (const QString& name : names)
        EXPECT_EQ(readAll(dir.filePath(QStringLiteral("one/") + name)),
                  readAll(dir.filePath(QStringLiteral("four/") + name)))
            << name.toStdString();
    EXPECT_EQ(summaries[0], summaries[1]);
    EXPECT_TRUE(summaries[0].startsWith("{\"path\":\"" + tones.toUtf8() +
                                        "\",\"sample_rate\":48000,\"channels\":1,"
                                        "\"duration_s\":6.000000,"))
        << summaries[0].constData();
    EXPECT_TRUE(summaries[0].contains("\"strongest_hz\":996.094}")) << summaries[0].constData();

    // Linear axis, 2048 rows at 48 kHz and FFT 4096: row r shows bin r.
    constexpr int kRows = 2048;
    const auto brightestRow = [&](const QImage& image, int column, int skipNear) {
        int best = -1;
        int bestRed = -1;
        for (int r = 0; r < kRows - 1; ++r) {
            if (skipNear >= 0 && std::abs(r - skipNear) < 20)
                continue;
            const int y = BatchAnalysis::kTopMargin + kRows - 1 - r;
            const int red = qRed(image.pixel(BatchAnalysis::kLeftMargin + column, y));
            if (red > bestRed) {
                bestRed = red;
                best = r;
            }
        }
        return best;
    };
    const QImage tonesImage(dir.filePath(QStringLiteral("one/tones.wav.png")));
    ASSERT_FALSE(tonesImage.isNull());
    const int columns = (6 * kRate + 511) / 512; // the last, partial interval too
    EXPECT_EQ(tonesImage.width(),
              columns + BatchAnalysis::kLeftMargin + BatchAnalysis::kRightMargin);
    const int loud = brightestRow(tonesImage, columns / 2, -1);
    EXPECT_EQ(loud, 85);
    EXPECT_EQ(brightestRow(tonesImage, columns / 2, loud), 427);

    const QImage sweepImage(dir.filePath(QStringLiteral("one/sweep.wav.png")));
    ASSERT_FALSE(sweepImage.isNull());
    for (const double t : {1.0, 2.0, 3.0}) {
        // Column i analyses the window that ends at (i + 1) × 512 samples:
        // its centre, 2048 samples earlier, is where the sweep is read.
        const int column = static_cast<int>((t * kRate + 2048) / 512) - 1;
        EXPECT_NEAR(brightestRow(sweepImage, column, -1), sweepFrequency(t) / kBin, 2.0)
            << t << " s";
    }
}

// Every kind of bad input: one line naming the file, the others still done,
// status 1; nothing partial left; a resumed run leaves finished files alone;
// a wrong option is status 2.
TEST(BatchCommandTest, badInputs_oneLineEachOthersDone_statusOne_wrongOptionTwo) {
    QTemporaryDir dir;
    const QString good = dir.filePath(QStringLiteral("good.wav"));
    writeWav(good, twoTones(0.5));
    const QString missing = dir.filePath(QStringLiteral("missing.wav"));
    const QString folder = dir.filePath(QStringLiteral("folder.wav"));
    QDir(dir.path()).mkdir(QStringLiteral("folder.wav"));
    const QString empty = dir.filePath(QStringLiteral("empty.wav"));
    const QString text = dir.filePath(QStringLiteral("text.wav"));
    {
        QFile e(empty);
        ASSERT_TRUE(e.open(QIODevice::WriteOnly));
        QFile t(text);
        ASSERT_TRUE(t.open(QIODevice::WriteOnly));
        t.write("this is not sound\n");
    }
    const QString out = dir.filePath(QStringLiteral("out"));
    const QStringList bad = {missing, folder, empty, text};
    const CommandRun r = analyze({QStringLiteral("--spectrum"), QStringLiteral("--spectrogram"),
                                  QStringLiteral("--jobs"), QStringLiteral("3"),
                                  QStringLiteral("-o"), out, missing, folder, good, empty, text});
    EXPECT_EQ(r.status, 1);
    const QList<QByteArray> lines = r.err.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 4) << r.err.constData();
    for (qsizetype i = 0; i < 4; ++i)
        EXPECT_TRUE(lines[i].startsWith("widmo-analyze: " + bad[i].toLocal8Bit() + ": "))
            << lines[i].constData();
    EXPECT_EQ(
        QDir(out).entryList(QDir::Files | QDir::Hidden, QDir::Name),
        QStringList({QStringLiteral("good.wav.png"), QStringLiteral("good.wav.spectrum.csv")}));

    // Resumed: a file whose outputs exist is left as it is.
    const QString csv = dir.filePath(QStringLiteral("out/good.wav.spectrum.csv"));
    {
        QFile f(csv);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("kept");
    }
    EXPECT_EQ(analyze({QStringLiteral("--spectrum"), QStringLiteral("--spectrogram"),
                       QStringLiteral("--skip-existing"), QStringLiteral("-o"), out, good})
                  .status,
              0);
    EXPECT_EQ(readAll(csv), QByteArray("kept"));

    EXPECT_EQ(analyze({QStringLiteral("--spectrum"), QStringLiteral("--bogus"), good}).status, 2);
    EXPECT_EQ(analyze({QStringLiteral("--spectrum"), QStringLiteral("--fft-size"),
                       QStringLiteral("1000"), good})
                  .status,
              2);
    EXPECT_EQ(analyze({good}).status, 2);
}
