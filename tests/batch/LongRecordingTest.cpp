// widmo-analyze on long recordings, as a user runs it: streams through
// standard input, long spectrograms (--width, --tile), the long-term spectral
// average, faults in streams, and GNU parallel over a folder.

#include "batch/SpectrogramCanvas.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <numbers>
#include <vector>

using namespace widmo;

namespace {

struct CommandRun {
    int status = -1;
    QByteArray out, err;
    int64_t peakKiB = 0; ///< the largest VmHWM seen while it ran
};

// Runs the command with `input` written to its standard input in pieces
// (`input` is called until it returns an empty piece), watching its memory.
CommandRun analyze(const QStringList& arguments, const std::function<QByteArray()>& input = {}) {
    QProcess p;
    p.start(QStringLiteral(WIDMO_ANALYZE_PATH), arguments);
    p.waitForStarted();
    CommandRun r;
    const auto sampleMemory = [&] {
        QFile status(QStringLiteral("/proc/%1/status").arg(p.processId()));
        if (!status.open(QIODevice::ReadOnly))
            return;
        for (const QByteArray& line : status.readAll().split('\n'))
            if (line.startsWith("VmHWM:"))
                r.peakKiB =
                    std::max<int64_t>(r.peakKiB, line.mid(6).trimmed().split(' ')[0].toLongLong());
    };
    if (input) {
        for (QByteArray piece = input(); !piece.isEmpty(); piece = input()) {
            p.write(piece);
            while (p.bytesToWrite() > (1 << 20))
                p.waitForBytesWritten(10000);
            sampleMemory();
        }
        p.waitForBytesWritten(10000);
    }
    p.closeWriteChannel();
    p.waitForFinished(300000);
    r.status = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = p.readAllStandardOutput();
    r.err = p.readAllStandardError();
    return r;
}

QByteArray readAll(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// A 16-bit mono WAV header; `dataBytes` 0xFFFFFFFF as streaming writers put
// it when they cannot know the length.
QByteArray wavHeader(int rate, uint32_t dataBytes) {
    QByteArray h;
    const auto u32 = [&](uint32_t v) { h.append(reinterpret_cast<const char*>(&v), 4); };
    const auto u16 = [&](uint16_t v) { h.append(reinterpret_cast<const char*>(&v), 2); };
    h += "RIFF";
    u32(dataBytes == 0xFFFFFFFFu ? dataBytes : dataBytes + 36);
    h += "WAVEfmt ";
    u32(16);
    u16(1);
    u16(1);
    u32(static_cast<uint32_t>(rate));
    u32(static_cast<uint32_t>(rate * 2));
    u16(2);
    u16(16);
    h += "data";
    u32(dataBytes);
    return h;
}

// Sine segments of (frequency, seconds) at amplitude `a`, 16-bit samples.
QByteArray pcm16(const std::vector<std::pair<double, double>>& segments, int rate, double a) {
    QByteArray out;
    for (const auto& [f, seconds] : segments) {
        const auto n = static_cast<int64_t>(seconds * rate);
        QByteArray piece(static_cast<qsizetype>(n * 2), Qt::Uninitialized);
        auto* s = reinterpret_cast<int16_t*>(piece.data());
        for (int64_t k = 0; k < n; ++k)
            s[k] = static_cast<int16_t>(
                std::lround(32767.0 * a * std::sin(2 * std::numbers::pi * f * double(k) / rate)));
        out += piece;
    }
    return out;
}

void writeFloatWav(const QString& path, int rate, const std::vector<float>& samples) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* sf = sf_open(path.toLocal8Bit().constData(), SFM_WRITE, &info);
    ASSERT_NE(sf, nullptr) << sf_strerror(nullptr);
    sf_writef_float(sf, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(sf);
}

// (frequency, seconds, amplitude) segments as float samples at 48 kHz.
std::vector<float> tones(const std::vector<std::array<double, 3>>& segments) {
    std::vector<float> s;
    for (const auto& [f, seconds, a] : segments) {
        const auto n = static_cast<size_t>(seconds * 48000);
        for (size_t k = 0; k < n; ++k)
            s.push_back(
                static_cast<float>(a * std::sin(2 * std::numbers::pi * f * double(k) / 48000)));
    }
    return s;
}

// The plot row (0 = lowest frequency) with the most red in plot column `x`.
int brightestRow(const QImage& image, int x, int rows) {
    int best = -1, bestRed = -1;
    for (int r = 0; r < rows - 1; ++r) {
        const int red = qRed(image.pixel(SpectrogramCanvas::kLeftMargin + x,
                                         SpectrogramCanvas::kTopMargin + rows - 1 - r));
        if (red > bestRed) {
            bestRed = red;
            best = r;
        }
    }
    return best;
}

QRgb plotPixel(const QImage& image, int x, int row, int rows) {
    return image.pixel(SpectrogramCanvas::kLeftMargin + x,
                       SpectrogramCanvas::kTopMargin + rows - 1 - row);
}

} // namespace

// More than two hours of 8 kHz sound that exists only as a pipe, its tone
// moving every 10 minutes: each LTSA row peaks at its stretch's tone with the
// tone's power (a bin-centred sine of amplitude 0.5 reads 20 lg 0.5 =
// -6.02 dB), the NumPy file holds the same rows, and the process never holds
// more than 256 MB, whatever the stream's length.
TEST(LongRecordingTest, twoHourStdinStream_ltsaRowsFollowTheTone_memoryBounded) {
    QTemporaryDir dir;
    constexpr int kRate = 8000;
    constexpr double kBin = kRate / 1024.0;
    constexpr int kSegments = 13; // 12 of 10 minutes, then one of 1 minute
    const auto binOf = [](int segment) { return 40 + 30 * segment; };
    int segment = 0;
    int64_t secondsInSegment = 0;
    bool headerSent = false;
    const CommandRun r =
        analyze({QStringLiteral("--ltsa"), QStringLiteral("600"), QStringLiteral("--summary"),
                 QStringLiteral("--fft-size"), QStringLiteral("1024"), QStringLiteral("--jobs"),
                 QStringLiteral("2"), QStringLiteral("--name"), QStringLiteral("night"),
                 QStringLiteral("-o"), dir.path(), QStringLiteral("-")},
                [&]() -> QByteArray {
                    if (!headerSent) {
                        headerSent = true;
                        return wavHeader(kRate, 0xFFFFFFFFu);
                    }
                    const int64_t length = segment < 12 ? 600 : 60;
                    if (segment >= kSegments)
                        return {};
                    // 20 s at a time; whole periods of every bin-centred tone, so
                    // the pieces join without a step.
                    const QByteArray piece = pcm16({{binOf(segment) * kBin, 20.0}}, kRate, 0.5);
                    secondsInSegment += 20;
                    if (secondsInSegment >= length) {
                        secondsInSegment = 0;
                        ++segment;
                    }
                    return piece;
                });
    ASSERT_EQ(r.status, 0) << r.err.constData();
    EXPECT_TRUE(r.out.startsWith("{\"path\":\"night\",\"sample_rate\":8000,\"channels\":1,"
                                 "\"duration_s\":7260.000000,"))
        << r.out.constData();
    EXPECT_GT(r.peakKiB, 0);
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
    // (A sanitizer's shadow memory is several times the program's own: the
    // bound holds for the program as users run it.)
    EXPECT_LT(r.peakKiB, 256 * 1024);
#endif

    const QList<QByteArray> lines =
        readAll(dir.filePath(QStringLiteral("night.ltsa.csv"))).trimmed().split('\n');
    ASSERT_EQ(lines.size(), 1 + kSegments);
    const QByteArray npy = readAll(dir.filePath(QStringLiteral("night.ltsa.npy")));
    ASSERT_EQ(npy.size(), 128 + kSegments * 512 * 4);
    EXPECT_TRUE(npy.contains("'shape': (13, 512)"));
    for (int s = 0; s < kSegments; ++s) {
        const QList<QByteArray> cells = lines[s + 1].split(',');
        ASSERT_EQ(cells.size(), 1 + 512);
        EXPECT_DOUBLE_EQ(cells[0].toDouble(), 600.0 * s);
        int best = 1;
        for (int b = 2; b < 512; ++b)
            if (cells[1 + b].toDouble() > cells[1 + best].toDouble())
                best = b;
        EXPECT_EQ(best, binOf(s)) << "stretch " << s;
        // 16-bit rounding and the few windows across a change: 0.05 dB.
        EXPECT_NEAR(cells[1 + best].toDouble(), 20.0 * std::log10(0.5), 0.05) << "stretch " << s;
        float level = 0.0f;
        std::memcpy(&level, npy.constData() + 128 + (s * 512 + best) * 4, 4);
        EXPECT_NEAR(level, cells[1 + best].toDouble(), 0.0006);
    }
    const QByteArray json = readAll(dir.filePath(QStringLiteral("night.ltsa.json")));
    EXPECT_TRUE(json.contains("\"start_s\":[0.000,600.000,1200.000,"))
        << json.left(200).constData();
    EXPECT_TRUE(json.contains("\"frequencies_hz\":[0.0000,7.8125,15.6250,"));
    const QImage image(dir.filePath(QStringLiteral("night.ltsa.png")));
    EXPECT_EQ(image.width(),
              kSegments + SpectrogramCanvas::kLeftMargin + SpectrogramCanvas::kRightMargin);
}

// A 40 s file, 996 Hz then 5004 Hz: drawn into 400 columns, and as 10 s
// tiles, the tone's row is where each half has it; any --jobs writes the
// same bytes. A tone present in a tenth of each column: --pool max draws it
// as loud as the steady tone, --pool mean as loud as a steady tone 10 dB
// lower (a mean of power).
TEST(LongRecordingTest, widthAndTiles_toneRowsAtTheirTimes_poolMeanIsMeanPower) {
    QTemporaryDir dir;
    constexpr double kBin = 48000 / 4096.0;
    const QString file = dir.filePath(QStringLiteral("halves.wav"));
    writeFloatWav(file, 48000, tones({{85 * kBin, 20.0, 0.5}, {427 * kBin, 20.0, 0.5}}));
    QByteArray outputs[2];
    for (int run = 0; run < 2; ++run) {
        const QString out = dir.filePath(QStringLiteral("out%1").arg(run));
        for (const QStringList& options :
             {QStringList{QStringLiteral("--width"), QStringLiteral("400")},
              QStringList{QStringLiteral("--tile"), QStringLiteral("10")}}) {
            const CommandRun r = analyze(options + QStringList{QStringLiteral("--jobs"),
                                                               QString::number(run == 0 ? 1 : 3),
                                                               QStringLiteral("-o"), out, file});
            ASSERT_EQ(r.status, 0) << r.err.constData();
        }
        for (const QString& name : QDir(out).entryList(QDir::Files, QDir::Name))
            outputs[run] += name.toUtf8() + readAll(out + QLatin1Char('/') + name);
    }
    EXPECT_EQ(outputs[0], outputs[1]);

    constexpr int kRows = 2048; // row r shows bin r
    const QImage wide(dir.filePath(QStringLiteral("out0/halves.wav.png")));
    ASSERT_EQ(wide.width(), 400 + SpectrogramCanvas::kLeftMargin + SpectrogramCanvas::kRightMargin);
    for (const int x : {10, 100, 190})
        EXPECT_EQ(brightestRow(wide, x, kRows), 85) << x;
    for (const int x : {210, 300, 390})
        EXPECT_EQ(brightestRow(wide, x, kRows), 427) << x;

    // 10 s of 512-sample hops: 937.5 columns, so tiles of 938 and 937.
    const int widths[] = {938, 937, 938, 937};
    for (int t = 0; t < 4; ++t) {
        const QImage tile(dir.filePath(
            QStringLiteral("out0/halves.wav.%1.png").arg(t + 1, 4, 10, QLatin1Char('0'))));
        ASSERT_FALSE(tile.isNull()) << t;
        EXPECT_EQ(tile.width(),
                  widths[t] + SpectrogramCanvas::kLeftMargin + SpectrogramCanvas::kRightMargin);
        EXPECT_EQ(brightestRow(tile, 400, kRows), t < 2 ? 85 : 427) << t;
    }
    EXPECT_FALSE(QFile::exists(dir.filePath(QStringLiteral("out0/halves.wav.0005.png"))));

    // Each 2.5 s column holds a 0.25 s burst (steady within it).
    std::vector<std::array<double, 3>> bursts;
    for (int k = 0; k < 16; ++k) {
        bursts.push_back({85 * kBin, 1.125, 0.0});
        bursts.push_back({85 * kBin, 0.25, 0.5});
        bursts.push_back({85 * kBin, 1.125, 0.0});
    }
    writeFloatWav(dir.filePath(QStringLiteral("bursts.wav")), 48000, tones(bursts));
    writeFloatWav(dir.filePath(QStringLiteral("loud.wav")), 48000, tones({{85 * kBin, 40.0, 0.5}}));
    writeFloatWav(dir.filePath(QStringLiteral("quiet.wav")), 48000,
                  tones({{85 * kBin, 40.0, 0.5 / std::sqrt(10.0)}}));
    const auto colourAtTone = [&](const char* name, const char* pool) {
        const QString out = dir.filePath(QStringLiteral("pool-") + QLatin1String(pool));
        const CommandRun r = analyze(
            {QStringLiteral("--width"), QStringLiteral("16"), QStringLiteral("--pool"),
             QLatin1String(pool), QStringLiteral("-o"), out, dir.filePath(QLatin1String(name))});
        EXPECT_EQ(r.status, 0) << r.err.constData();
        return plotPixel(
            QImage(out + QLatin1Char('/') + QLatin1String(name) + QStringLiteral(".png")), 1, 85,
            kRows);
    };
    const QRgb loud = colourAtTone("loud.wav", "max");
    const QRgb quiet = colourAtTone("quiet.wav", "max");
    const QRgb burstMax = colourAtTone("bursts.wav", "max");
    const QRgb burstMean = colourAtTone("bursts.wav", "mean");
    ASSERT_NE(loud, quiet);
    EXPECT_EQ(burstMax, loud);
    // Within about 1 dB: the colour ramp moves about 5 steps a dB here.
    EXPECT_NEAR(qRed(burstMean), qRed(quiet), 6);
    EXPECT_NEAR(qGreen(burstMean), qGreen(quiet), 6);
    EXPECT_NEAR(qBlue(burstMean), qBlue(quiet), 6);
}

// Faults in what a user pipes in or asks for: one message each, naming the
// input, exit status 1 (2 for a wrong option), the other files still done.
// (The truncated stream: half of 16000 frames less the 44 header bytes is
// 7989 frames.)
TEST(LongRecordingTest, streamFaults_oneMessageEach_otherFilesDone) {
    QTemporaryDir dir;
    const QString good = dir.filePath(QStringLiteral("good.wav"));
    writeFloatWav(good, 48000, tones({{1000.0, 1.0, 0.5}}));
    const QByteArray sound = pcm16({{1000.0, 2.0}}, 8000, 0.5);
    const QByteArray whole = wavHeader(8000, static_cast<uint32_t>(sound.size())) + sound;
    const auto once = [](const QByteArray& bytes) {
        return [bytes, sent = false]() mutable -> QByteArray {
            if (sent)
                return {};
            sent = true;
            return bytes;
        };
    };
    const QString out = dir.filePath(QStringLiteral("out"));
    const QStringList common = {QStringLiteral("--spectrum"), QStringLiteral("-o"), out};

    const CommandRun truncated = analyze(common + QStringList{QStringLiteral("-"), good},
                                         once(whole.left(whole.size() / 2)));
    EXPECT_EQ(truncated.status, 1);
    EXPECT_TRUE(truncated.err.startsWith(
        "widmo-analyze: -: is truncated: it ends after 7989 of the 16000 frames"))
        << truncated.err.constData();
    EXPECT_EQ(truncated.err.count('\n'), 1);
    EXPECT_TRUE(QFile::exists(out + QStringLiteral("/good.wav.spectrum.csv")));
    EXPECT_FALSE(QFile::exists(out + QStringLiteral("/stdin.spectrum.csv")));

    const CommandRun wrongHeader = analyze(common + QStringList{good, QStringLiteral("-")},
                                           once("RIFF\x24\x00\x00\x00WAVEjunk and more junk"));
    EXPECT_EQ(wrongHeader.status, 1);
    EXPECT_TRUE(wrongHeader.err.startsWith("widmo-analyze: -: standard input is not audio"))
        << wrongHeader.err.constData();
    EXPECT_EQ(wrongHeader.err.count('\n'), 1);

    QFile::remove(out + QStringLiteral("/good.wav.spectrum.csv"));
    const CommandRun twice =
        analyze(common + QStringList{QStringLiteral("-"), good, QStringLiteral("-")}, once(whole));
    EXPECT_EQ(twice.status, 1);
    EXPECT_EQ(twice.err,
              "widmo-analyze: -: standard input is read once, and an earlier '-' reads it\n");
    EXPECT_TRUE(QFile::exists(out + QStringLiteral("/good.wav.spectrum.csv")));
    EXPECT_TRUE(QFile::exists(out + QStringLiteral("/stdin.spectrum.csv")));

    const CommandRun zeroTile = analyze({QStringLiteral("--tile"), QStringLiteral("0"), good});
    EXPECT_EQ(zeroTile.status, 2);
    EXPECT_TRUE(
        zeroTile.err.startsWith("widmo-analyze: --tile takes 0.1 to 86400 seconds, not '0'\n"))
        << zeroTile.err.constData();

    // Too wide for one image at 4096 rows (16384 columns of 128 samples at
    // 8 kHz): the message names both ways out; the short file is still drawn.
    const QString longFile = dir.filePath(QStringLiteral("long.wav"));
    {
        QFile f(longFile);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        const QByteArray tone = pcm16({{1000.0, 270.0}}, 8000, 0.5);
        f.write(wavHeader(8000, static_cast<uint32_t>(tone.size())) + tone);
    }
    const CommandRun wide =
        analyze({QStringLiteral("--spectrogram"), QStringLiteral("--rows"), QStringLiteral("4096"),
                 QStringLiteral("-o"), out, longFile, good});
    EXPECT_EQ(wide.status, 1);
    EXPECT_TRUE(wide.err.startsWith("widmo-analyze: " + longFile.toLocal8Bit() +
                                    ": a spectrogram of 16875 columns is too wide for one image; "
                                    "use --width PX"))
        << wide.err.constData();
    EXPECT_TRUE(wide.err.contains("--tile SECONDS"));
    EXPECT_TRUE(QFile::exists(out + QStringLiteral("/good.wav.png")));
}

// GNU parallel, one process per file, writes what one process writes for
// the whole folder, byte for byte.
TEST(LongRecordingTest, gnuParallelOverAFolder_sameOutputsAsOneProcess) {
    const QString parallel = QStandardPaths::findExecutable(QStringLiteral("parallel"));
    ASSERT_FALSE(parallel.isEmpty()) << "GNU parallel is missing (scripts/install-deps.sh)";
    QTemporaryDir dir;
    QDir(dir.path()).mkdir(QStringLiteral("in"));
    QStringList files;
    for (int k = 0; k < 4; ++k) {
        files << dir.filePath(QStringLiteral("in/f%1.wav").arg(k));
        writeFloatWav(files.back(), 48000,
                      tones({{500.0 + 700.0 * k, 3.0, 0.3}, {4000.0, 2.0, 0.1}}));
    }
    const QStringList options = {QStringLiteral("--spectrum"), QStringLiteral("--bands"),
                                 QStringLiteral("3"),          QStringLiteral("--ltsa"),
                                 QStringLiteral("1"),          QStringLiteral("--width"),
                                 QStringLiteral("200")};
    const CommandRun one = analyze(
        options + QStringList{QStringLiteral("-o"), dir.filePath(QStringLiteral("one"))} + files);
    ASSERT_EQ(one.status, 0) << one.err.constData();
    QProcess p;
    p.setWorkingDirectory(dir.filePath(QStringLiteral("in")));
    p.start(parallel,
            QStringList{QStringLiteral("--will-cite"), QStringLiteral("-j"), QStringLiteral("2"),
                        QStringLiteral(WIDMO_ANALYZE_PATH)} +
                options +
                QStringList{QStringLiteral("-o"), dir.filePath(QStringLiteral("many")),
                            QStringLiteral("{}"), QStringLiteral(":::")} +
                QDir(dir.filePath(QStringLiteral("in"))).entryList(QDir::Files, QDir::Name));
    ASSERT_TRUE(p.waitForFinished(120000));
    ASSERT_EQ(p.exitCode(), 0) << p.readAllStandardError().constData();
    const QStringList names =
        QDir(dir.filePath(QStringLiteral("one"))).entryList(QDir::Files, QDir::Name);
    EXPECT_EQ(names.size(), 4 * 7);
    EXPECT_EQ(QDir(dir.filePath(QStringLiteral("many"))).entryList(QDir::Files, QDir::Name), names);
    for (const QString& name : names)
        EXPECT_EQ(readAll(dir.filePath(QStringLiteral("one/") + name)),
                  readAll(dir.filePath(QStringLiteral("many/") + name)))
            << name.toStdString();
}

// sox piping FLAC whose header gives no length, as a recorder's stream does:
// --width, which needs the length, is refused with a message that offers
// --tile; --tile draws the stream, and --summary reads all of it.
TEST(LongRecordingTest, soxFlacPipeOfUnknownLength_widthRefusedTileDrawn) {
    QTemporaryDir dir;
    const auto pipeline = [&](const QStringList& options) {
        QProcess sox, analyzer;
        sox.setStandardOutputProcess(&analyzer);
        analyzer.start(QStringLiteral(WIDMO_ANALYZE_PATH),
                       options +
                           QStringList{QStringLiteral("-o"), dir.path(), QStringLiteral("-")});
        sox.start(QStringLiteral("sox"),
                  {QStringLiteral("-V1"), QStringLiteral("-n"), QStringLiteral("-r"),
                   QStringLiteral("48000"), QStringLiteral("-b"), QStringLiteral("16"),
                   QStringLiteral("-t"), QStringLiteral("flac"), QStringLiteral("-"),
                   QStringLiteral("synth"), QStringLiteral("25"), QStringLiteral("sine"),
                   QStringLiteral("3000")});
        sox.waitForFinished(60000);
        analyzer.waitForFinished(60000);
        return CommandRun{analyzer.exitCode(), analyzer.readAllStandardOutput(),
                          analyzer.readAllStandardError(), 0};
    };
    const CommandRun width = pipeline({QStringLiteral("--width"), QStringLiteral("100")});
    EXPECT_EQ(width.status, 1);
    EXPECT_EQ(width.err, "widmo-analyze: -: its length is not known beforehand, which --width "
                         "needs; use --tile SECONDS instead\n");
    const CommandRun tiles =
        pipeline({QStringLiteral("--tile"), QStringLiteral("10"), QStringLiteral("--summary")});
    ASSERT_EQ(tiles.status, 0) << tiles.err.constData();
    EXPECT_TRUE(tiles.out.contains("\"duration_s\":25.000000,")) << tiles.out.constData();
    // 25 s in tiles of 10 s: the last one holds 5 s (469 columns of 512 samples).
    const QImage last(dir.filePath(QStringLiteral("stdin.0003.png")));
    ASSERT_FALSE(last.isNull());
    EXPECT_EQ(last.width(), 469 + SpectrogramCanvas::kLeftMargin + SpectrogramCanvas::kRightMargin);
    EXPECT_EQ(brightestRow(last, 200, 2048),
              static_cast<int>(std::lround(3000 / (48000 / 4096.0))));
    EXPECT_FALSE(QFile::exists(dir.filePath(QStringLiteral("stdin.0004.png"))));
}

// An interrupted run resumed with --skip-existing: a file whose outputs
// (first tile, LTSA files) all exist is left alone; one missing any output
// is done again.
TEST(LongRecordingTest, skipExistingWithTilesAndLtsa_redoesOnlyIncompleteFiles) {
    QTemporaryDir dir;
    const QString a = dir.filePath(QStringLiteral("a.wav"));
    const QString b = dir.filePath(QStringLiteral("b.wav"));
    writeFloatWav(a, 48000, tones({{1000.0, 3.0, 0.5}}));
    writeFloatWav(b, 48000, tones({{2000.0, 3.0, 0.5}}));
    const QString out = dir.filePath(QStringLiteral("out"));
    const QStringList options = {QStringLiteral("--tile"), QStringLiteral("2"),
                                 QStringLiteral("--ltsa"), QStringLiteral("1"),
                                 QStringLiteral("-o"),     out};
    ASSERT_EQ(analyze(options + QStringList{a, b}).status, 0);
    const QStringList made = QDir(out).entryList(QDir::Files, QDir::Name);
    EXPECT_EQ(made.size(), 2 * (2 + 4)); // two tiles and four LTSA files each
    for (const char* kept : {"a.wav.0001.png", "b.wav.ltsa.csv"}) {
        QFile f(out + QLatin1Char('/') + QLatin1String(kept));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("kept");
    }
    QFile::remove(out + QStringLiteral("/b.wav.ltsa.json"));
    ASSERT_EQ(analyze(options + QStringList{QStringLiteral("--skip-existing"), a, b}).status, 0);
    EXPECT_EQ(readAll(out + QStringLiteral("/a.wav.0001.png")), QByteArray("kept"));
    EXPECT_TRUE(readAll(out + QStringLiteral("/b.wav.ltsa.csv")).startsWith("start_s,"));
    EXPECT_EQ(QDir(out).entryList(QDir::Files, QDir::Name), made);
}
