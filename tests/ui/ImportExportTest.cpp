#include "ui/AppFolders.h"

#include "charts/ChartView.h"
#include "ui/SegmentedControl.h"

#include "UiTestSupport.h"

#include <QClipboard>
#include <QDir>
#include <QDropEvent>
#include <QFile>
#include <QFileDialog>
#include <QImage>
#include <QLineEdit>
#include <QMimeData>
#include <QTemporaryDir>
#include <QToolButton>

#include <sndfile.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include <cmath>
#include <cstring>
#include <functional>
#include <numbers>
#include <random>
#include <vector>

namespace widmo {
namespace {

using test::press;
using test::waitMessage;

/// Writes `frames` frames of `channels` channels, sample(frame, channel) each.
void writeFile(const QString& path, int format, int rate, int channels, size_t frames,
               const std::function<float(size_t, int)>& sample) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE* f = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr) << sf_strerror(nullptr);
    std::vector<float> s(frames * size_t(channels));
    for (size_t i = 0; i < s.size(); ++i)
        s[i] = sample(i / size_t(channels), int(i % size_t(channels)));
    sf_writef_float(f, s.data(), sf_count_t(frames));
    sf_close(f);
}

void writeSine(const QString& path, int format, int rate, int channels, double seconds,
               double frequency, double amplitude) {
    writeFile(path, format, rate, channels, size_t(seconds * rate), [&](size_t n, int) {
        return float(amplitude * std::sin(2.0 * std::numbers::pi * frequency * double(n) / rate));
    });
}

// The WAV export holds the intervals the spectrogram shows, oldest first, as
// the store's own float bits: from 0 while fewer than its width were recorded,
// across the ring's end afterwards.
TEST(ImportExportFiles, wavExportHoldsTheShownIntervalsBitForBit) {
    QTemporaryDir dir;
    AnalyzerFeatures features = AnalyzerFeatures::studioProduct();
    AnalyzerDefaults defaults(features, "import-export-test");
    defaults.recalculateDocumentSettings();
    std::vector<float>& store = defaults.audioBuffersData();
    store.assign(size_t(defaults.audioBufferByteSize()) / sizeof(float), 0.0f);
    std::mt19937 random(3);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    for (float& v : store)
        v = uniform(random);
    const int64_t frames = defaults.intervalSizeInFrames();
    const int64_t ring = frames * defaults.audioBuffersIntervalsCount();
    const int64_t width = defaults.spectrogramWidth();
    ASSERT_LE(width * frames, ring);

    for (const int64_t last : {int64_t{5}, int64_t{defaults.audioBuffersIntervalsCount()} + 3}) {
        SCOPED_TRACE(last);
        defaults.setActualInterval(last);
        const QString path = dir.filePath(QStringLiteral("out.wav"));
        ASSERT_TRUE(AppFolders::writeAudioDataToFileURL(defaults, QUrl::fromLocalFile(path), true));
        EXPECT_FALSE(
            AppFolders::writeAudioDataToFileURL(defaults, QUrl::fromLocalFile(path), false));
        SF_INFO info{};
        SNDFILE* f = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
        EXPECT_EQ(info.channels, 1);
        EXPECT_EQ(info.samplerate, int(defaults.sampleRate()));
        const int64_t first = std::max<int64_t>(last - width, 0);
        ASSERT_EQ(info.frames, (last - first) * frames);
        std::vector<float> read(size_t(info.frames));
        sf_readf_float(f, read.data(), info.frames);
        sf_close(f);
        for (int64_t k = first; k < last; ++k)
            ASSERT_EQ(std::memcmp(read.data() + (k - first) * frames,
                                  store.data() + (k * frames) % ring, size_t(frames) * 4),
                      0)
                << "interval " << k;
    }

    // A disk that fills up during the export (a file-size limit makes the
    // writes fail the same way): false with the system's reason, the file
    // exported before is kept whole, and no temporary file is left.
    const QString path = dir.filePath(QStringLiteral("out.wav"));
    const QByteArray before = [&] {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }();
    ASSERT_GT(before.size(), 1 << 16);
    struct rlimit saved {};
    getrlimit(RLIMIT_FSIZE, &saved);
    struct sigaction ignore {
    }, previous{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &previous);
    struct rlimit small = saved;
    small.rlim_cur = 1 << 16;
    setrlimit(RLIMIT_FSIZE, &small);
    QString error;
    const bool written =
        AppFolders::writeAudioDataToFileURL(defaults, QUrl::fromLocalFile(path), true, &error);
    setrlimit(RLIMIT_FSIZE, &saved);
    sigaction(SIGXFSZ, &previous, nullptr);
    EXPECT_FALSE(written);
    EXPECT_FALSE(error.isEmpty());
    QFile kept(path);
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_TRUE(kept.readAll() == before);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files), QStringList{QStringLiteral("out.wav")});
}

// The studio on the test servers, with a folder of files to import.
class ImportExportTest : public test::AppTest {
protected:
    QString file(const char* name) const { return dir_.filePath(QLatin1String(name)); }
    bool waitImported() {
        return QTest::qWaitFor([&] { return !screen()->shareSheet().importRunning(); }, 20000);
    }
    QTemporaryDir dir_;
};

// A 44.1 kHz FLAC into the 48 kHz document: the question with both rates,
// then the tone at 1 kHz and its level in the store; the document is
// read-only. The chart exported through the file dialog is a PNG of the
// chart's image, pixel for pixel.
TEST_F(ImportExportTest, studioImportsFlacAtAnotherRate_andExportsTheChartAsPng) {
    launch(AnalyzerFeatures::studioProduct(), 48000.0f);
    ASSERT_EQ(defaults_->sampleRate(), 48000.0f);
    writeSine(file("tone.flac"), SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 44100, 2, 2.0, 1000.0, 0.5);

    screen()->shareSheet().importAudioFileWithURL(QUrl::fromLocalFile(file("tone.flac")), {});
    QMessageBox* question = waitMessage();
    ASSERT_TRUE(question);
    EXPECT_EQ(question->text(),
              "File sample rate is 44100Hz. Spectrogram sample rate is 48000Hz. Do you want to "
              "convert the sample rate and import to the current spectrogram context?");
    press(question, "OK");
    ASSERT_TRUE(QTest::qWaitFor([&] { return screen()->shareSheet().importRunning(); }, 2000));
    EXPECT_TRUE(screen()->buttonsBlocked());
    EXPECT_FALSE(screen()->shareImageButton()->isEnabled());
    ASSERT_TRUE(waitImported());
    EXPECT_FALSE(screen()->buttonsBlocked());
    EXPECT_TRUE(defaults_->readOnly());
    const int64_t frames = defaults_->intervalSizeInFrames();
    EXPECT_NEAR(double(defaults_->actualInterval()), 96000.0 / double(frames), 1.0);

    const std::vector<float>& store = defaults_->audioBuffersData();
    int crossings = 0;
    double energy = 0.0;
    for (size_t i = 24000; i < 72000; ++i) {
        crossings += (store[i - 1] < 0.0f) != (store[i] < 0.0f);
        energy += double(store[i]) * store[i];
    }
    EXPECT_NEAR(crossings / 2.0, 1000.0, 1.0);
    EXPECT_NEAR(20.0 * std::log10(std::sqrt(2.0 * energy / 48000) / 0.5), 0.0, 0.1);

    // Chart full screen, then Export of the chart image through the dialog.
    QTest::mouseClick(screen()->spectrogramVsChartSegmentedControl()->buttonForSegment(1),
                      Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !screen()->arrangement().layoutAnimating(); }, 3000));
    QTest::mouseClick(screen()->shareImageButton(), Qt::LeftButton);
    QMessageBox* sheet = waitMessage();
    ASSERT_TRUE(sheet);
    EXPECT_EQ(sheet->text().toStdString(), "What do you want to import or export?");
    EXPECT_EQ(test::buttonTexts(sheet), "Audio file|Cancel|Chart data CSV|Chart image PNG");
    press(sheet, "Chart image PNG");
    sheet = waitMessage();
    ASSERT_TRUE(sheet);
    EXPECT_EQ(sheet->text().toStdString(), "Chart image PNG");
    press(sheet, "Export");
    QFileDialog* dialog = nullptr;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            dialog = screen()->findChild<QFileDialog*>();
            return dialog != nullptr && dialog->isVisible();
        },
        3000));
    EXPECT_EQ(dialog->windowTitle(), "Export chart (PNG)");
    const QString png = file("picture.png");
    auto* name = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
    ASSERT_TRUE(name);
    name->setText(png);
    QTest::keyClick(name, Qt::Key_Return);
    ASSERT_TRUE(QTest::qWaitFor([&] { return QFile::exists(png); }, 3000));
    const QImage written(png);
    const QImage expected = screen()->chartView()->imageOfChart();
    ASSERT_FALSE(expected.isNull());
    EXPECT_EQ(written.size(), expected.size());
    EXPECT_EQ(written.convertToFormat(QImage::Format_ARGB32),
              expected.convertToFormat(QImage::Format_ARGB32));
}

// A file longer than the spectrogram is cut at its width with the message
// naming both lengths; a file at the document's rate asks nothing.
TEST_F(ImportExportTest, studioCutsALongFileWithItsMessage) {
    launch(AnalyzerFeatures::studioProduct(), 48000.0f);
    defaults_->recalculateDocumentSettings();
    const double maxTime = defaults_->spectrogramDuration();
    writeSine(file("long.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 1, maxTime + 2.0, 440.0,
              0.25);
    screen()->shareSheet().importAudioFileWithURL(QUrl::fromLocalFile(file("long.wav")), {});
    ASSERT_TRUE(waitImported());
    QMessageBox* message = waitMessage();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->text().toStdString(),
              QString::asprintf(ShareSheet::kImportShortenedMessage,
                                double(int64_t((maxTime + 2.0) * 48000)) / 48000, maxTime)
                  .toStdString());
    EXPECT_EQ(defaults_->actualInterval(), defaults_->spectrogramWidth());
}

// Staging failures end in their message and leave the document as it was.
TEST_F(ImportExportTest, studioBadFilesLeaveTheDocumentAlone) {
    launch(AnalyzerFeatures::studioProduct(), 48000.0f);
    writeSine(file("good.wav"), SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 1, 0.5, 440.0, 0.25);
    screen()->shareSheet().importAudioFileWithURL(QUrl::fromLocalFile(file("good.wav")), {});
    ASSERT_TRUE(waitImported());
    const int64_t intervals = defaults_->actualInterval();
    ASSERT_GT(intervals, 0);
    const std::vector<float> before = defaults_->audioBuffersData();

    QFile good(file("good.wav"));
    ASSERT_TRUE(good.open(QIODevice::ReadOnly));
    const QByteArray bytes = good.readAll();
    const auto put = [&](const char* name, const QByteArray& content) {
        QFile f(file(name));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(content);
    };
    put("empty.wav", {});
    put("truncated.wav", bytes.left(20));
    std::mt19937 random(11);
    QByteArray noise(8192, '\0');
    for (char& c : noise)
        c = char(random());
    put("noise.wav", noise);
    put("text.mp3", "not audio at all, only a few words\n");
    QDir(dir_.path()).mkdir("folder.wav");
    put("locked.wav", bytes);
    QFile::setPermissions(file("locked.wav"), QFileDevice::WriteOwner);

    const char* unreadable = "This file cannot be read.";
    const char* refused = "This file cannot be imported.";
    std::vector<std::pair<const char*, const char*>> cases = {{"empty.wav", unreadable},
                                                              {"truncated.wav", unreadable},
                                                              {"noise.wav", unreadable},
                                                              {"text.mp3", unreadable},
                                                              {"folder.wav", refused}};
    if (geteuid() != 0) // the superuser reads whatever the permissions say
        cases.emplace_back("locked.wav", refused);
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        screen()->shareSheet().importAudioFileWithURL(QUrl::fromLocalFile(file(name)), {});
        QMessageBox* message = waitMessage();
        ASSERT_TRUE(message);
        EXPECT_EQ(message->text().toStdString(), text);
        message->close();
        (void)QTest::qWaitFor([&] { return test::visibleMessage() == nullptr; }, 1000);
        EXPECT_FALSE(screen()->shareSheet().importRunning());
        EXPECT_EQ(defaults_->actualInterval(), intervals);
        EXPECT_TRUE(defaults_->audioBuffersData() == before);
    }
}

// A six-channel file dropped on the window: the question, then the mean of
// its channels in the store.
TEST_F(ImportExportTest, studioImportsADroppedFileMixedToMono) {
    launch(AnalyzerFeatures::studioProduct(), 48000.0f);
    writeFile(file("six.wav"), SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 6, 24000,
              [](size_t, int channel) { return 0.1f * float(channel + 1); });

    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(file("six.wav"))});
    QDropEvent drop(QPointF(screen()->rect().center()), Qt::CopyAction, &mime, Qt::LeftButton,
                    Qt::NoModifier);
    // Straight to the widget's handler: a synthetic drop has no drag behind
    // it for the application's drag-and-drop routing.
    static_cast<QObject*>(screen())->event(&drop);
    QMessageBox* question = waitMessage();
    ASSERT_TRUE(question);
    EXPECT_EQ(question->text().toStdString(),
              "Do you want to import the file into the current spectrogram context?");
    press(question, "Yes");
    ASSERT_TRUE(QTest::qWaitFor([&] { return screen()->shareSheet().importRunning(); }, 2000));
    ASSERT_TRUE(waitImported());
    // The read-only document is as long as the whole intervals of the file.
    const int64_t frames = defaults_->intervalSizeInFrames();
    EXPECT_EQ(defaults_->actualInterval(), 24000 / frames);
    const std::vector<float>& store = defaults_->audioBuffersData();
    for (size_t i = 0; i < size_t(defaults_->actualInterval() * frames); ++i)
        ASSERT_NEAR(store[i], 0.35f, 1e-6f) << i;
    EXPECT_TRUE(QFile::exists(file("six.wav"))); // the user's file stays
}

// The spectrum product offers the chart's image and data, not audio; an
// empty document has nothing to share.
TEST_F(ImportExportTest, spectrumProductOffersOnlyTheChartImageAndData) {
    launch(AnalyzerFeatures::spectrumProduct(), 48000.0f);
    QTest::mouseClick(screen()->shareImageButton(), Qt::LeftButton);
    QMessageBox* sheet = waitMessage();
    ASSERT_TRUE(sheet);
    EXPECT_EQ(test::buttonTexts(sheet), "Cancel|Chart data CSV|Chart image PNG");
    press(sheet, "Chart data CSV");
    sheet = waitMessage();
    ASSERT_TRUE(sheet);
    EXPECT_EQ(test::buttonTexts(sheet), "Cancel|Export|Send a copy");
    press(sheet, "Send a copy");
    ASSERT_TRUE(QTest::qWaitFor(
        [] { return QApplication::clipboard()->text().startsWith("frequency_hz,level_db"); },
        2000));

    QTest::mouseClick(screen()->shareImageButton(), Qt::LeftButton);
    sheet = waitMessage();
    ASSERT_TRUE(sheet);
    press(sheet, "Chart image PNG");
    sheet = waitMessage();
    ASSERT_TRUE(sheet);
    EXPECT_EQ(sheet->text().toStdString(), "Chart image PNG");
    EXPECT_EQ(test::buttonTexts(sheet), "Cancel|Export|Open in another app|Send a copy");
    defaults_->setActualInterval(0);
    press(sheet, "Send a copy");
    QMessageBox* notice = waitMessage();
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->text().toStdString(), "Nothing to share!");
    notice->close();

    // Files handed to it are ignored.
    app_->importIntoApp(QUrl::fromLocalFile(file("any.wav")));
    QTest::qWait(300);
    EXPECT_EQ(test::visibleMessage(), nullptr);
}

} // namespace
} // namespace widmo
