#include "batch/BatchAnalysis.h"
#include "batch/BatchSettings.h"
#include "batch/SpectrogramCanvas.h"
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

#include <fftw3.h>

#include <cmath>
#include <numbers>
#include <random>
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
// The signal is given in blocks, as the command reads it, and each block's
// chunks are analysed last to first: the merge still adds them in order.
TEST(BatchAnalysisTest, twoBinCentredTones_spectrumPeaksAtTones_bandsAsTheRtaChart) {
    BatchSettings s = BatchSettings::systemDefaults();
    s.spectrum = true;
    s.bandsPerOctave = 3;
    FFTPlanCache::shared();
    const std::vector<float> sound = twoTones(50.0); // more than two blocks
    BatchAnalysis a(s, kRate, 1, static_cast<int64_t>(sound.size()), QStringLiteral("t"),
                    QStringLiteral("t"));
    ASSERT_TRUE(a.valid());
    const auto worker = a.makeWorker();
    size_t at = 0;
    bool complete = false;
    int blocks = 0;
    for (bool end = false; !end; ++blocks) {
        const auto block = a.newBlock();
        const auto n = std::min<size_t>(sound.size() - at, static_cast<size_t>(a.blockFrames()));
        std::copy_n(sound.begin() + static_cast<std::ptrdiff_t>(at), n,
                    BatchAnalysis::input(*block));
        at += n;
        end = n < static_cast<size_t>(a.blockFrames());
        const int32_t chunks = a.commitBlock(block, static_cast<int64_t>(n), end);
        ASSERT_GE(chunks, 0);
        for (int32_t c = chunks - 1; c >= 0; --c)
            complete = a.analyseChunk(block, c, *worker) || complete;
    }
    EXPECT_GE(blocks, 3);
    ASSERT_TRUE(complete || a.takeCompletion());
    ASSERT_TRUE(a.finish());

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
            const int y = SpectrogramCanvas::kTopMargin + kRows - 1 - r;
            const int red = qRed(image.pixel(SpectrogramCanvas::kLeftMargin + column, y));
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
              columns + SpectrogramCanvas::kLeftMargin + SpectrogramCanvas::kRightMargin);
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

namespace {

/// 1 kHz (or `f`) sine segments of given levels (dB re full-scale sine) and durations.
std::vector<float> toneSegments(const std::vector<std::pair<double, double>>& segments,
                                double f = 1000.0) {
    std::vector<float> s;
    for (const auto& [levelDB, seconds] : segments) {
        const double amplitude = std::pow(10.0, levelDB / 20.0);
        const auto n = static_cast<size_t>(seconds * kRate);
        for (size_t k = 0; k < n; ++k)
            s.push_back(static_cast<float>(amplitude *
                                           std::sin(2 * std::numbers::pi * f * double(k) / kRate)));
    }
    return s;
}

/// The number after `"key":` in a JSON line, NaN when missing.
double jsonValue(const QByteArray& line, const char* key) {
    const QByteArray k = QByteArray("\"") + key + "\":";
    const qsizetype at = line.indexOf(k);
    if (at < 0)
        return std::nan("");
    qsizetype end = at + k.size();
    while (end < line.size() && line[end] != ',' && line[end] != '}')
        ++end;
    return line.mid(at + k.size(), end - at - k.size()).toDouble();
}

QString path(const QTemporaryDir& dir, const char* name) {
    return dir.filePath(QString::fromLatin1(name));
}

} // namespace

// Levels of known tone segments, per second and for the whole file, against
// their energy means and the exponential responses of Fast and Slow.
TEST(BatchCommandTest, levels_knownToneSegments_periodLinesAndSummary) {
    QTemporaryDir dir;
    const QString wav = path(dir, "steps.wav");
    writeWav(wav, toneSegments({{-10.0, 2.0}, {-30.0, 1.0}, {-20.0, 2.0}}));
    const CommandRun r =
        analyze({QStringLiteral("--levels"), QStringLiteral("1"), QStringLiteral("--summary"),
                 QStringLiteral("--no-progress"), wav});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QByteArray csv = readAll(wav + QStringLiteral(".levels.csv"));
    ASSERT_TRUE(csv.startsWith("start_s,leq_dbfs_z,max_fast_dbfs_z,max_slow_dbfs_z,peak_dbfs_c\n"));
    const auto rows = csvRows(csv);
    ASSERT_EQ(rows.size(), 5u);
    const double leq[] = {-10.0, -10.0, -30.0, -20.0, -20.0};
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_NEAR(rows[i][0], double(i), 1e-9);
        EXPECT_NEAR(rows[i][1], leq[i], 0.1) << i;
    }
    // Fast: settled by the end of second 1, and still at -10 as second 2 starts.
    EXPECT_NEAR(rows[1][2], -10.0, 0.1);
    EXPECT_NEAR(rows[2][2], -10.0, 0.1);
    // Slow after 2 s of -10 dB from silence: -10 + 10 lg(1 - e^-2).
    EXPECT_NEAR(rows[1][3], -10.0 + 10.0 * std::log10(1.0 - std::exp(-2.0)), 0.1);
    // C peak of a 1 kHz sine: +3.01 dB over its level; 0.4 dB more allowed in
    // the first second for the onset's overshoot (the 20.6 Hz poles settling).
    EXPECT_NEAR(rows[1][4], -10.0 + 3.01, 0.1);
    EXPECT_NEAR(rows[4][4], -20.0 + 3.01, 0.1);
    EXPECT_NEAR(rows[0][4], -10.0 + 3.01 + 0.2, 0.2);

    const double energy = 2.0 * 0.1 + 1.0 * 0.001 + 2.0 * 0.01;
    EXPECT_NEAR(jsonValue(r.out, "lzeq_dbfs"), 10.0 * std::log10(energy / 5.0), 0.1);
    EXPECT_NEAR(jsonValue(r.out, "lzfmax_dbfs"), -10.0, 0.1);
    EXPECT_NEAR(jsonValue(r.out, "lzsmax_dbfs"), -10.0 + 10.0 * std::log10(1.0 - std::exp(-2.0)),
                0.1);
    EXPECT_NEAR(jsonValue(r.out, "lcpeak_dbfs"), -10.0 + 3.01 + 0.2, 0.2);
}

// A 100 Hz tone reads the A weighting's -19.1 dB (class 1: +-1.0) against Z.
TEST(BatchCommandTest, weightingA_100HzTone_readsMinus19Point1AgainstZ) {
    QTemporaryDir dir;
    const QString wav = path(dir, "low.wav");
    writeWav(wav, toneSegments({{-6.0, 3.0}}, 100.0));
    double laeq = 0.0, lzeq = 0.0;
    for (const char* w : {"A", "Z"}) {
        const CommandRun r = analyze(
            {QStringLiteral("--summary"), QStringLiteral("--weighting"), QLatin1String(w), wav});
        ASSERT_EQ(r.status, 0) << r.err.toStdString();
        (w[0] == 'A' ? laeq : lzeq) = jsonValue(r.out, w[0] == 'A' ? "laeq_dbfs" : "lzeq_dbfs");
    }
    EXPECT_NEAR(lzeq, -6.0, 0.05);
    EXPECT_NEAR(laeq - lzeq, -19.1, 1.0);
    EXPECT_NEAR(laeq - lzeq, -19.1, 0.1); // the design's own accuracy
}

// --spl-offset adds its dB to every level of every output and renames the units.
TEST(BatchCommandTest, splOffset_shiftsEveryLevel_unitsSaySo) {
    QTemporaryDir dir;
    const QString wav = path(dir, "t.wav");
    writeWav(wav, twoTones(2.5));
    const QStringList common = {QStringLiteral("--spectrum"),  QStringLiteral("--bands"),
                                QStringLiteral("3"),           QStringLiteral("--levels"),
                                QStringLiteral("0.5"),         QStringLiteral("--summary"),
                                QStringLiteral("--weighting"), QStringLiteral("A")};
    const CommandRun plain =
        analyze(common + QStringList{QStringLiteral("-o"), path(dir, "plain"), wav});
    const CommandRun spl =
        analyze(common + QStringList{QStringLiteral("--spl-offset=94"), QStringLiteral("-o"),
                                     path(dir, "spl"), wav});
    ASSERT_EQ(plain.status, 0) << plain.err.toStdString();
    ASSERT_EQ(spl.status, 0) << spl.err.toStdString();
    const struct {
        const char* file;
        const char* header;
        size_t firstLevelColumn;
    } outputs[] = {
        {"t.wav.spectrum.csv", "frequency_hz,level_db_spl\n", 1},
        {"t.wav.bands3.csv", "centre_hz,level_db_spl,min_db_spl,max_db_spl\n", 1},
        {"t.wav.levels.csv", "start_s,leq_dba,max_fast_dba,max_slow_dba,peak_dbc\n", 1},
    };
    for (const auto& o : outputs) {
        const QByteArray a = readAll(path(dir, "plain/") + QLatin1String(o.file));
        const QByteArray b = readAll(path(dir, "spl/") + QLatin1String(o.file));
        EXPECT_TRUE(b.startsWith(o.header)) << o.file;
        const auto ra = csvRows(a), rb = csvRows(b);
        ASSERT_EQ(ra.size(), rb.size());
        ASSERT_FALSE(ra.empty());
        for (size_t i = 0; i < ra.size(); ++i)
            for (size_t c = 0; c < ra[i].size(); ++c)
                EXPECT_NEAR(rb[i][c] - ra[i][c], c < o.firstLevelColumn ? 0.0 : 94.0, 0.0011)
                    << o.file << " row " << i << " column " << c;
    }
    for (const char* key : {"peak", "rms", "laeq", "lafmax", "lasmax", "lcpeak"}) {
        const double a = jsonValue(plain.out, (std::string(key) + "_dbfs").c_str());
        const double b = jsonValue(spl.out, (std::string(key) + "_db_spl").c_str());
        EXPECT_NEAR(b - a, 94.0, 0.0011) << key;
    }
}

// A calibration file's response is removed from the spectrum and the levels,
// the same for any --jobs; a bad one stops the run before anything is written.
TEST(BatchCommandTest, calibration_correctsSpectrumAndLevels_badFileStatusTwo) {
    QTemporaryDir dir;
    const QString wav = path(dir, "c.wav");
    writeWav(wav, twoTones(3.0));
    const QString mic = path(dir, "mic.txt");
    {
        QFile f(mic);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        // +10 dB per decade from 0 dB at 100 Hz: at 996 Hz the microphone
        // reads 9.98 dB high, at 5004 Hz 16.99 dB.
        f.write("\"Sens Factor =-1.23dB, SERNO: 1234567\"\n100 0\n10000\t20\t0\n");
    }
    const auto run = [&](const QString& out, const QStringList& extra) {
        return analyze(QStringList{QStringLiteral("--spectrum"), QStringLiteral("--levels"),
                                   QStringLiteral("1"), QStringLiteral("--summary"),
                                   QStringLiteral("-o"), out} +
                       extra + QStringList{wav});
    };
    const CommandRun plain = run(path(dir, "plain"), {});
    const CommandRun cal1 = run(path(dir, "cal1"), {QStringLiteral("--calibration"), mic,
                                                    QStringLiteral("--jobs"), QStringLiteral("1")});
    const CommandRun cal3 = run(path(dir, "cal3"), {QStringLiteral("--calibration"), mic,
                                                    QStringLiteral("--jobs"), QStringLiteral("3")});
    ASSERT_EQ(cal1.status, 0) << cal1.err.toStdString();
    for (const char* file : {"c.wav.spectrum.csv", "c.wav.levels.csv"})
        EXPECT_EQ(readAll(path(dir, "cal1/") + QLatin1String(file)),
                  readAll(path(dir, "cal3/") + QLatin1String(file)))
            << file;
    const auto a = csvRows(readAll(path(dir, "plain/c.wav.spectrum.csv")));
    const auto b = csvRows(readAll(path(dir, "cal1/c.wav.spectrum.csv")));
    EXPECT_NEAR(b[85][1] - a[85][1], -10.0 * std::log10(kTone1 / 100.0), 0.01);
    EXPECT_NEAR(b[427][1] - a[427][1], -10.0 * std::log10(kTone2 / 100.0), 0.01);
    // Broadband: the tones' powers 0.25 and 0.01 (mean squares 0.125, 0.005),
    // each lowered by its own correction.
    const double corrected = 0.125 * 100.0 / kTone1 + 0.005 * 100.0 / kTone2;
    EXPECT_NEAR(jsonValue(cal1.out, "lzeq_dbfs") - jsonValue(plain.out, "lzeq_dbfs"),
                10.0 * std::log10(corrected / 0.130), 0.05);

    QFile bad(path(dir, "bad.txt"));
    ASSERT_TRUE(bad.open(QIODevice::WriteOnly));
    bad.write("* mic\n20 0.1\n1000 0\n900 0.5\n");
    bad.close();
    const CommandRun r = run(path(dir, "none"), {QStringLiteral("--calibration"), bad.fileName()});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "widmo-analyze: " + bad.fileName().toLocal8Bit() +
                         ", line 4: frequency 900 is not above the previous 1000 (\"900 0.5\")\n");
    EXPECT_FALSE(QFileInfo::exists(path(dir, "none")));
}

// White noise as a microphone with a known response would deliver it (coloured
// here by the test's own FFT filter, the curve interpolated in dB over log
// frequency), analysed with that response as the calibration file: the
// third-octave band levels are those of the uncoloured noise within 0.2 dB.
TEST(BatchCommandTest, calibration_whiteNoiseThroughTheCurve_comesBackFlat) {
    const std::vector<std::pair<double, double>> curve = {
        {20.0, 0.0}, {100.0, -3.0}, {1000.0, 0.0}, {5000.0, 4.0}, {16000.0, -6.0}};
    const auto curveDB = [&](double f) {
        if (f <= curve.front().first)
            return curve.front().second;
        for (size_t i = 1; i < curve.size(); ++i) {
            const auto [f1, d1] = curve[i];
            if (f <= f1) {
                const auto [f0, d0] = curve[i - 1];
                return d0 + (d1 - d0) * std::log(f / f0) / std::log(f1 / f0);
            }
        }
        return curve.back().second;
    };
    constexpr size_t n = size_t{1} << 20; // 21.8 s
    std::vector<float> white(n);
    std::mt19937 random(11);
    std::normal_distribution<float> gauss(0.0f, 0.05f);
    for (float& v : white)
        v = gauss(random);
    std::vector<float> coloured = white;
    std::vector<fftwf_complex> spectrum(n / 2 + 1);
    fftwf_plan forward =
        fftwf_plan_dft_r2c_1d(int(n), coloured.data(), spectrum.data(), FFTW_ESTIMATE);
    fftwf_plan backward =
        fftwf_plan_dft_c2r_1d(int(n), spectrum.data(), coloured.data(), FFTW_ESTIMATE);
    fftwf_execute(forward);
    for (size_t k = 0; k < spectrum.size(); ++k) {
        const auto g =
            float(std::pow(10.0, curveDB(double(k) * kRate / double(n)) / 20.0) / double(n));
        spectrum[k][0] *= g;
        spectrum[k][1] *= g;
    }
    fftwf_execute(backward);
    fftwf_destroy_plan(forward);
    fftwf_destroy_plan(backward);

    QTemporaryDir dir;
    writeWav(path(dir, "white.wav"), white);
    writeWav(path(dir, "mic.wav"), coloured);
    const QString mic = path(dir, "mic.txt");
    {
        QFile f(mic);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        for (const auto& [frequency, db] : curve)
            f.write(QByteArray::number(frequency) + ' ' + QByteArray::number(db) + '\n');
    }
    const CommandRun a = analyze({QStringLiteral("--bands"), QStringLiteral("3"),
                                  QStringLiteral("-o"), path(dir, "a"), path(dir, "white.wav")});
    const CommandRun b =
        analyze({QStringLiteral("--bands"), QStringLiteral("3"), QStringLiteral("--calibration"),
                 mic, QStringLiteral("-o"), path(dir, "b"), path(dir, "mic.wav")});
    ASSERT_EQ(a.status, 0) << a.err.toStdString();
    ASSERT_EQ(b.status, 0) << b.err.toStdString();
    const auto flat = csvRows(readAll(path(dir, "a/white.wav.bands3.csv")));
    const auto corrected = csvRows(readAll(path(dir, "b/mic.wav.bands3.csv")));
    ASSERT_EQ(flat.size(), corrected.size());
    int compared = 0;
    for (size_t i = 0; i < flat.size(); ++i) {
        const double centre = flat[i][0];
        if (centre < 25.0 || centre > 16000.0)
            continue;
        ++compared;
        EXPECT_NEAR(corrected[i][1], flat[i][1], 0.2) << centre << " Hz";
    }
    EXPECT_GE(compared, 25);
}
