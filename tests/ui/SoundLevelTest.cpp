#include "charts/ChartView.h"
#include "engine/AnalyzerController.h"
#include "render/LevelMeterView.h"
#include "ui/AudioInputPage.h"
#include "ui/CalibrateDialog.h"
#include "ui/MicrophoneCalibrationPanel.h"
#include "ui/SegmentedControl.h"
#include "ui/SettingsPanel.h"
#include "ui/SoundLevelPage.h"

#include "TestSignals.h"
#include "UiTestSupport.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QToolButton>

#include <cmath>
#include <numbers>
#include <random>

namespace widmo {
namespace {

/// Peak amplitude of a sine that reads `dbfs` (a full-scale sine reads 0 dBFS).
float amplitudeOf(double dbfs) { return float(std::pow(10.0, dbfs / 20.0)); }

class SoundLevelTest : public test::AppTest {
protected:
    bool startPause(bool recording) {
        QTest::mouseClick(screen()->transport().recordButton(), Qt::LeftButton);
        return QTest::qWaitFor([&] { return audio_->isRecording() == recording; }, 5000);
    }
    /// Opens the settings panel on `page`.
    SectionedPage* openPage(int page) {
        QTest::mouseClick(screen()->settingsButton(), Qt::LeftButton);
        SettingsPanel* panel = screen()->settingsPanel();
        if (panel == nullptr || !panel->isOpen())
            return nullptr;
        panel->openPage(page);
        return panel->page(page);
    }
    void closeSettings() {
        screen()->settingsPanel()->closeSettings();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !screen()->buttonsBlocked(); }, 5000));
    }
    /// A sine of `frequency` Hz at `dbfs` on the first channel for 20 s.
    static test::SinkPlayer tone(double frequency, double dbfs) {
        const float a = amplitudeOf(dbfs);
        return test::SinkPlayer(
            48000, 20.0,
            [frequency, a](double t) {
                return a * float(std::sin(2.0 * std::numbers::pi * frequency * t));
            },
            [](double) { return 0.0f; });
    }
    /// Runs "Calibrate…" from the audio input page with `level` dB SPL; the outcome.
    bool calibrate(double level, CalibrateDialog** shown = nullptr) {
        auto* page = static_cast<AudioInputPage*>(openPage(SettingsPanel::kPageAudioInput));
        if (page == nullptr)
            return false;
        page->calibrationPanel()->calibrateButton()->click();
        auto* dialog = page->calibrationPanel()->findChild<CalibrateDialog*>();
        if (dialog == nullptr)
            return false;
        if (shown != nullptr)
            *shown = dialog;
        QSignalSpy done(dialog, &CalibrateDialog::measured);
        dialog->calibratorLevel()->setValue(level);
        dialog->measureButton()->click();
        if (!done.wait(10000))
            return false;
        return done.front().front().toBool();
    }
    LevelMeterView* meter() const { return screen()->chartView()->levelMeterView(); }
};

// A 1 kHz tone at -26 dBFS from the virtual microphone, "Calibrate…" with a
// 94 dB reference: the meter reads 94.0 dB SPL afterwards, and the legend,
// the figures beside the meter, the spectrum's read-out and its CSV say dB SPL.
TEST_F(SoundLevelTest, calibrateWithA94dBReference_meterReads94_everyLevelInDbSpl) {
    launch(AnalyzerFeatures::spectrumProduct());
    test::SinkPlayer sound = tone(1000.0, -26.0);
    ASSERT_TRUE(sound.start());
    ASSERT_TRUE(startPause(true));
    ASSERT_TRUE(QTest::qWaitFor([&] { return meter()->levelDB() > -30.0f; }, 5000));
    // Without an offset nothing says dB SPL.
    EXPECT_EQ(meter()->unit(), "dBFS");

    CalibrateDialog* dialog = nullptr;
    ASSERT_TRUE(calibrate(94.0, &dialog)) << dialog->statusLabel()->text().toStdString();
    ASSERT_TRUE(defaults_->soundLevels().splOffset().has_value());
    EXPECT_NEAR(*defaults_->soundLevels().splOffset(), 94.0 + 26.0, 0.3);
    dialog->close();
    closeSettings();

    QTest::qWait(700);
    EXPECT_EQ(meter()->unit(), "dB SPL");
    EXPECT_NEAR(meter()->dbLabel()->text().toDouble(), 94.0, 0.15);
    ASSERT_TRUE(meter()->figuresLabel() != nullptr);
    const QString figures = meter()->figuresLabel()->text();
    EXPECT_TRUE(figures.contains("LZeq 94.0 dB SPL") || figures.contains("LZeq 93.9 dB SPL") ||
                figures.contains("LZeq 94.1 dB SPL"))
        << figures.toStdString();
    EXPECT_TRUE(figures.contains("LCpeak 97.")) << figures.toStdString(); // a sine's peak: +3 dB

    // The spectrum's CSV: levels in dB SPL, the tone's bin near 94.
    const QByteArray csv = screen()->chartView()->csvOfChart();
    EXPECT_TRUE(csv.startsWith("frequency_hz,level_db_spl\n")) << csv.left(40).toStdString();
    double loudest = -1e9;
    for (const QByteArray& line : csv.split('\n').mid(1))
        if (const auto fields = line.split(','); fields.size() == 2)
            loudest = std::max(loudest, fields[1].toDouble());
    EXPECT_NEAR(loudest, 94.0, 1.6); // the window's scalloping between bins
    ASSERT_TRUE(startPause(false));

    // The offset belongs to the input and comes back with it.
    quit();
    launch(AnalyzerFeatures::spectrumProduct());
    ASSERT_TRUE(defaults_->soundLevels().splOffset().has_value());
    EXPECT_NEAR(*defaults_->soundLevels().splOffset(), 120.0, 0.3);
}

// What a calibration cannot be made from: noise instead of a tone, a level
// 20 dB away from the calibrator's with an offset set, and a stopped analyser.
// Each is refused with its reason and the offset stays as it was.
TEST_F(SoundLevelTest, calibrateRefusesNoiseAFarLevelAndAStoppedAnalyser) {
    launch(AnalyzerFeatures::spectrumProduct());
    CalibrateDialog* dialog = nullptr;
    EXPECT_FALSE(calibrate(94.0, &dialog));
    EXPECT_TRUE(dialog->statusLabel()->text().contains("not running"));
    dialog->close();
    closeSettings();

    std::mt19937 random(7);
    std::normal_distribution<float> gauss(0.0f, 1.0f);
    std::vector<float> samples(48000 * 20);
    for (float& v : samples)
        v = gauss(random);
    test::SinkPlayer noise(
        48000, 20.0,
        [&samples](double t) { return 0.1f * samples[size_t(t * 48000.0) % samples.size()]; },
        [](double) { return 0.0f; });
    ASSERT_TRUE(noise.start());
    ASSERT_TRUE(startPause(true));
    EXPECT_FALSE(calibrate(94.0, &dialog));
    EXPECT_TRUE(dialog->statusLabel()->text().contains("steady"))
        << dialog->statusLabel()->text().toStdString();
    EXPECT_FALSE(defaults_->soundLevels().splOffset().has_value());
    dialog->close();
    closeSettings();
    ASSERT_TRUE(startPause(false));
    noise.stop();

    defaults_->soundLevels().setSplOffset(100.0); // -26 dBFS would read 74, not 114
    test::SinkPlayer sound = tone(1000.0, -26.0);
    ASSERT_TRUE(sound.start());
    ASSERT_TRUE(startPause(true));
    ASSERT_TRUE(QTest::qWaitFor([&] { return meter()->levelDB() > -30.0f; }, 5000));
    EXPECT_FALSE(calibrate(114.0, &dialog));
    EXPECT_TRUE(dialog->statusLabel()->text().contains("more than 20 dB"))
        << dialog->statusLabel()->text().toStdString();
    EXPECT_EQ(defaults_->soundLevels().splOffset(), 100.0);
    dialog->close();
    closeSettings();
    ASSERT_TRUE(startPause(false));
}

// A weighting chosen on the Sound level page reads the standard's weighting
// through the virtual microphone (100 Hz: -19.1 dB, class 1 ±1.0; 10 kHz:
// -2.5 dB, +2.0/-3.0), and the level log written meanwhile holds one line
// per half second with the A-weighted figures.
TEST_F(SoundLevelTest, aWeightingFromItsPage_readsTheStandard_andTheLogHasItsLines) {
    launch(AnalyzerFeatures::spectrumProduct());
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString logPath = dir.filePath("levels.csv");
    auto* page = static_cast<SoundLevelPage*>(openPage(SettingsPanel::kPageSoundLevel));
    ASSERT_TRUE(page != nullptr);
    page->weightingControl()->buttonForSegment(1)->click();
    defaults_->soundLevels().setLogPath(logPath);
    page->logSwitch()->click();
    page->logPeriod()->setValue(0.5);
    closeSettings();
    EXPECT_EQ(defaults_->soundLevels().weighting(), SoundLevelSettings::kWeightingA);

    const struct {
        double frequency, weightingDB, below, above;
    } cases[] = {{1000.0, 0.0, 0.7, 0.7}, {100.0, -19.1, 1.0, 1.0}, {10000.0, -2.5, 3.0, 2.0}};
    for (const auto& c : cases) {
        test::SinkPlayer sound = tone(c.frequency, -20.0);
        ASSERT_TRUE(sound.start());
        ASSERT_TRUE(startPause(true));
        // Three seconds of sound measured: six lines of the log.
        const SoundLevelMonitor& monitor = screen()->analyzerController().levelMonitor();
        ASSERT_TRUE(QTest::qWaitFor([&] { return monitor.levels().seconds >= 3.05; }, 8000));
        const SoundLevels levels = monitor.levels();
        const double error = levels.fast - (-20.0 + c.weightingDB);
        EXPECT_GE(error, -c.below) << c.frequency << " Hz reads " << levels.fast;
        EXPECT_LE(error, c.above) << c.frequency << " Hz reads " << levels.fast;
        EXPECT_TRUE(meter()->figuresLabel()->text().contains("LAeq")) << c.frequency;
        // Another weighting chosen while recording applies from the next start:
        // the names still say what is measured.
        defaults_->soundLevels().setWeighting(SoundLevelSettings::kWeightingC);
        QTest::qWait(200);
        EXPECT_TRUE(meter()->figuresLabel()->text().contains("LAeq")) << c.frequency;
        defaults_->soundLevels().setWeighting(SoundLevelSettings::kWeightingA);
        ASSERT_TRUE(startPause(false));
    }

    QFile log(logPath);
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = log.readAll().split('\n');
    ASSERT_GE(lines.size(), 3);
    EXPECT_EQ(lines[0], "time,start_s,LAeq_dBFS,LAFmax_dBFS,LASmax_dBFS,LCpeak_dBFS");
    // Three recordings of at least 3 s: six lines each, every half second.
    int rows = 0;
    double previous = -1.0;
    for (const QByteArray& line : lines.mid(1)) {
        const QList<QByteArray> fields = line.split(',');
        if (fields.size() != 6)
            continue;
        ++rows;
        const double start = fields[1].toDouble();
        if (start > previous && previous >= 0.0) {
            EXPECT_NEAR(start - previous, 0.5, 1e-3);
        }
        previous = start;
        EXPECT_LT(fields[2].toDouble(), -19.0); // A-weighted -20 dBFS tones, or less
    }
    EXPECT_GE(rows, 18) << lines.join('\n').toStdString();
}

// A calibration file that cannot be read is refused with its name and first
// bad line, and the input keeps the one it had; a good one with a
// sensitivity line calibrates an uncalibrated input.
TEST_F(SoundLevelTest, calibrationFiles_badOneRefusedWithItsLine_goodOneSetsTheOffset) {
    launch(AnalyzerFeatures::spectrumProduct());
    QTemporaryDir dir;
    const QString good = dir.filePath("good.txt");
    const QString bad = dir.filePath("bad.txt");
    for (const auto& [path, text] :
         {std::pair{good, QByteArray("\"Sens Factor =-20.0dB, SERNO: 1234567\"\n20 -1.5\n1000 0\n"
                                     "20000 2.0\n")},
          std::pair{bad, QByteArray("* a comment\n20 0.5\n1000 0\n900 0.2\n")}}) {
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(text);
    }
    auto* page = static_cast<AudioInputPage*>(openPage(SettingsPanel::kPageAudioInput));
    ASSERT_TRUE(page != nullptr);
    MicrophoneCalibrationPanel* panel = page->calibrationPanel();
    ASSERT_TRUE(panel->chooseFile(good));
    EXPECT_EQ(defaults_->soundLevels().calibrationFile(), good);
    ASSERT_TRUE(defaults_->soundLevels().splOffset().has_value());
    EXPECT_DOUBLE_EQ(*defaults_->soundLevels().splOffset(), 114.0); // 94 - (-20)
    EXPECT_TRUE(panel->fileLabel()->text().contains("Sens Factor =-20.0dB"));

    EXPECT_FALSE(panel->chooseFile(bad));
    QMessageBox* box = test::waitMessage();
    ASSERT_TRUE(box != nullptr);
    EXPECT_TRUE(box->text().contains("bad.txt")) << box->text().toStdString();
    EXPECT_TRUE(box->text().contains("line 4")) << box->text().toStdString();
    box->close();
    EXPECT_EQ(defaults_->soundLevels().calibrationFile(), good);
    closeSettings();
}

// A calibration file chosen for the input and A-weighted displays chosen on
// the Sound level page lower the spectrum at a 100 Hz tone by the file's
// correction (-6 dB, flat from 20 to 200 Hz) and the A weighting (-19.1 dB,
// class 1 ±1.0), from the next recording on.
TEST_F(SoundLevelTest, calibrationFileAndWeightedDisplays_lowerTheSpectrumAtTheTone) {
    launch(AnalyzerFeatures::spectrumProduct());
    QTemporaryDir dir;
    const QString mic = dir.filePath("mic.txt");
    {
        QFile f(mic);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("* reads 6 dB high below 200 Hz\n20 6\n200 6\n1000 0\n");
    }
    const auto spectrumPeak = [&] {
        double loudest = -1e9;
        for (const QByteArray& line : screen()->chartView()->csvOfChart().split('\n').mid(1))
            if (const auto fields = line.split(','); fields.size() == 2)
                loudest = std::max(loudest, fields[1].toDouble());
        return loudest;
    };
    test::SinkPlayer sound = tone(100.0, -20.0);
    ASSERT_TRUE(sound.start());
    ASSERT_TRUE(startPause(true));
    ASSERT_TRUE(QTest::qWaitFor([&] { return meter()->levelDB() > -30.0f; }, 5000));
    QTest::qWait(500);
    const double plain = spectrumPeak();
    ASSERT_TRUE(startPause(false));

    auto* input = static_cast<AudioInputPage*>(openPage(SettingsPanel::kPageAudioInput));
    ASSERT_TRUE(input != nullptr);
    ASSERT_TRUE(input->calibrationPanel()->chooseFile(mic));
    screen()->settingsPanel()->openPage(SettingsPanel::kPageSoundLevel);
    auto* levels = static_cast<SoundLevelPage*>(
        screen()->settingsPanel()->page(SettingsPanel::kPageSoundLevel));
    levels->weightingControl()->buttonForSegment(1)->click();
    levels->weightDisplaysSwitch()->click();
    closeSettings();

    ASSERT_TRUE(startPause(true));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return screen()->analyzerController().levelMonitor().levels().seconds > 1.0; },
        5000));
    const double corrected = spectrumPeak();
    ASSERT_TRUE(startPause(false));
    EXPECT_NEAR(corrected - plain, -6.0 - 19.1, 1.0) << plain << " then " << corrected;
}

} // namespace
} // namespace widmo
