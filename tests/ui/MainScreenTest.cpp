#include "charts/ChartScrollView.h"
#include "charts/ChartView.h"
#include "charts/SpectrogramView.h"
#include "core/SettingsStore.h"
#include "dsp/FFTPlanCache.h"
#include "render/LevelMeterView.h"
#include "render/SpectrogramScrollView.h"
#include "ui/ChartTypePopover.h"
#include "ui/GainInfoPopover.h"
#include "ui/GeneralSettingsPage.h"
#include "ui/HelpWindow.h"
#include "ui/SegmentedControl.h"
#include "ui/SettingsPanel.h"
#include "ui/TriggerSettingsPage.h"

#include "ChartTestSupport.h"
#include "TestSignals.h"
#include "UiTestSupport.h"

#include <QCheckBox>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QSlider>
#include <QToolButton>

#include <climits>
#include <cmath>

namespace widmo {
namespace {

using test::kMinus12dBFS;

class MainScreenTest : public test::AppTest {
protected:
    /// Clicks Start/Pause and waits for the audio object to be `recording`.
    bool startPause(bool recording) {
        QTest::mouseClick(screen()->transport().recordButton(), Qt::LeftButton);
        return QTest::qWaitFor([&] { return audio_->isRecording() == recording; }, 5000);
    }
    /// Closes the settings with `change` made to the preferred settings, and
    /// waits for the rebuilt document.
    template <typename F> bool rebuildWith(F change) {
        defaults_->copyCurrentToPreferred();
        change(*defaults_);
        screen()->settingsWillClose();
        return QTest::qWaitFor([&] { return !screen()->buttonsBlocked(); }, 10000);
    }
    /// A -12 dBFS 997 Hz tone into the test sink, on the first channel only.
    static test::SinkPlayer toneOnFirstChannel() {
        return test::SinkPlayer(
            48000, 20.0, [](double t) { return test::sineAt(997.0, t); },
            [](double) { return 0.0f; });
    }
    /// While analysing the tone: the level rises and the curve peaks at 997 Hz
    /// on the logarithmic axis (3 px: the curve's width and the bin spacing).
    void expectToneOnChart() {
        ChartView* chart = screen()->chartView();
        ASSERT_TRUE(QTest::qWaitFor([&] { return chart->levelDB() > -30.0f; }, 5000));
        QTest::qWait(300);
        const auto peak = test::topmost(chart->chart()->grabFramebuffer(), test::isGreen);
        ASSERT_TRUE(peak);
        EXPECT_NEAR(peak->x(), test::chartColumn(chart->chart(), test::logX(*defaults_, 997.0)),
                    3.0);
    }
};

// --- Products ----------------------------------------------------------------------------------

// Each product's toolbar offers its buttons, and its popups open inside the
// window and the screen with the window away from the screen's edges: the
// settings panel (it opened 207 px past the window's right edge) and the
// chart-type list (it opened below the window).
TEST_F(MainScreenTest, eachProductOffersItsButtons_popupsOpenInsideTheWindow) {
    using Meaning = GainPanel::Meaning;
    struct Case {
        AnalyzerFeatures features;
        bool chartTypeButton;
        bool startTitle;  // green "Start"; products with playback show the record image
        bool spectrogram; // its view and controls (play, clear, recalculate, PIP)
        Meaning gain;     // of the view that fills the screen at a first start
    };
    const Case cases[] = {
        {AnalyzerFeatures::spectrumProduct(), false, true, false, Meaning::Spectrum},
        {AnalyzerFeatures::studioProduct(), true, false, true, Meaning::SpectrogramMinimum},
        {AnalyzerFeatures::voiceProduct(), true, true, false, Meaning::Spectrum}};
    for (const Case& c : cases) {
        launch(c.features);
        MainScreen* s = screen();
        EXPECT_EQ(s->typeOfChartButton() != nullptr, c.chartTypeButton);
        EXPECT_EQ(s->transport().recordButton()->text() == "Start", c.startTitle);
        EXPECT_EQ(s->transport().recordButton()->icon().isNull(), c.startTitle);
        EXPECT_TRUE(s->transport().recordButton()->isEnabled());
        EXPECT_TRUE(s->settingsButton()->isEnabled());
        const std::initializer_list<QWidget*> spectrogramControls = {
            s->transport().playButton(), s->clearSpectrogramButton(), s->recalculateButton(),
            s->pipButton(), s->spectrogramVsChartSegmentedControl()};
        for (QWidget* w : spectrogramControls)
            EXPECT_EQ(w != nullptr && w->isVisibleTo(s), c.spectrogram);
        EXPECT_TRUE(s->gainPanel().button()->isEnabled());
        EXPECT_EQ(s->gainPanel().meaning(), c.gain);
        EXPECT_FALSE(s->arrangement().waitView()->isVisible());

        QMainWindow* window = app_->window();
        window->setGeometry(60, 40, 1000, 640);
        ASSERT_TRUE(
            QTest::qWaitFor([&] { return window->geometry().topLeft() == QPoint(60, 40); }));
        const QRect inside = window->geometry() & window->screen()->availableGeometry();
        const auto expectInside = [&](QWidget* popup) {
            ASSERT_TRUE(popup != nullptr && popup->isVisible());
            EXPECT_TRUE(inside.contains(popup->frameGeometry()))
                << popup->metaObject()->className() << " at "
                << QDebug::toString(popup->frameGeometry()).toStdString() << ", window "
                << QDebug::toString(inside).toStdString();
            popup->close();
        };
        QTest::mouseClick(s->settingsButton(), Qt::LeftButton);
        expectInside(s->settingsPanel());
        if (QToolButton* chartType = s->typeOfChartButton()) {
            QTest::mouseClick(chartType, Qt::LeftButton);
            expectInside(s->chartTypePopover());
        }
        release();
    }
}

// --- Gain panel and the min/max reset ---------------------------------------------------------

TEST_F(MainScreenTest, gainButtonFollowsTheViewOnScreen) {
    launch(AnalyzerFeatures::studioProduct());
    MainScreen* s = screen();
    QToolButton* button = s->gainPanel().button();

    // The spectrogram fills the screen: its minimum level, or its gain when
    // it shows linear values; the information popover offers a recalculation.
    QTest::mouseClick(button, Qt::LeftButton);
    ASSERT_TRUE(s->gainPanel().view()->isVisible());
    EXPECT_EQ(s->gainPanel().descriptionLabel()->text(), "Spectrogram minimum level (dB)");
    EXPECT_EQ(s->gainPanel().slider()->minimum(), -144);
    EXPECT_EQ(s->gainPanel().slider()->maximum(), -10);
    s->gainPanel().slider()->setValue(-90);
    EXPECT_EQ(defaults_->spectrogramValuesInDBMinimumLevelDB(), -90.0f);
    QTest::mouseClick(s->gainPanel().infoButton(), Qt::LeftButton);
    GainInfoPopover* info = s->gainPanel().infoPopover();
    ASSERT_TRUE(info != nullptr && info->isVisible());
    EXPECT_EQ(info->textLabel()->text(), "Spectrogram minimum level");
    EXPECT_EQ(info->valueLabel()->text(), "-90dB");
    ASSERT_TRUE(info->recalculateButton()->isVisible() && info->recalculateButton()->isEnabled());
    QTest::mouseClick(info->recalculateButton(), Qt::LeftButton);
    EXPECT_TRUE(s->buttonsBlocked()); // the document is computed again behind the wait view
    ASSERT_TRUE(QTest::qWaitFor([&] { return !s->buttonsBlocked(); }, 5000));
    defaults_->setValuesInDB(false);
    s->gainPanel().refresh();
    EXPECT_EQ(s->gainPanel().descriptionLabel()->text(), "Spectrogram level gain (dB)");
    EXPECT_EQ(s->gainPanel().slider()->maximum(), 70);
    defaults_->setValuesInDB(true);

    s->spectrogramVsChartChanged(1);
    QTest::mouseClick(button, Qt::LeftButton);
    ASSERT_TRUE(s->gainPanel().view()->isVisible());
    EXPECT_EQ(s->gainPanel().descriptionLabel()->text(), "Spectrum level gain (dB)");
    EXPECT_EQ(s->gainPanel().slider()->maximum(), 70);
    s->gainPanel().slider()->setValue(20);
    EXPECT_EQ(defaults_->spectrumGainDB(), 20.0f);
    EXPECT_EQ(s->gainPanel().valueLabel()->text(), "20dB");
    s->gainPanel().closeAll();

    s->typeOfChartOscilloscopeSelected();
    EXPECT_EQ(s->gainPanel().descriptionLabel()->text(), "Oscilloscope input level gain (dB)");
    s->gainPanel().slider()->setValue(35);
    EXPECT_EQ(defaults_->oscilloscopeGainDB(), 35.0f);
    EXPECT_EQ(defaults_->spectrumGainDB(), 20.0f);

    // The octave RTA has no gain: the button resets its holds, or is off without any.
    defaults_->setOctaveRTAMaxValuesEnabled(false);
    defaults_->setOctaveRTAMinValuesEnabled(false);
    s->typeOfChartOctaveRTASelected();
    EXPECT_FALSE(button->isEnabled());
    defaults_->setOctaveRTAMaxValuesEnabled(true);
    s->refreshSecondChartMeasuringView();
    EXPECT_TRUE(button->isEnabled());
    EXPECT_TRUE(s->gainPanel().resetEnabled());
    QTest::mouseClick(button, Qt::LeftButton);
    EXPECT_FALSE(s->gainPanel().view()->isVisible());
}

// --- Live analysis -------------------------------------------------------------------------------

TEST_F(MainScreenTest, startWithTone_chartPeaksAtToneAndMeterMoves_pauseStops) {
    launch(AnalyzerFeatures::spectrumProduct());
    test::SinkPlayer tone = toneOnFirstChannel();
    ASSERT_TRUE(tone.start());

    ASSERT_TRUE(startPause(true));
    EXPECT_TRUE(screen()->transport().recordButton()->text().isEmpty()); // the pause image
    EXPECT_FALSE(screen()->transport().recordButton()->icon().isNull());

    expectToneOnChart();
    // The meter glides towards the level it is given.
    LevelMeterView* meter = screen()->chartView()->levelMeterView();
    EXPECT_TRUE(QTest::qWaitFor([&] { return meter->levelDB() > -30.0f; }, 3000));

    // The help is read beside the running analysis; Esc or Ctrl+W closes it.
    QApplication::setActiveWindow(app_->window()); // no window manager to do it
    QTest::keyClick(app_->window(), Qt::Key_F1);
    HelpWindow* help = screen()->helpWindow();
    ASSERT_TRUE(help != nullptr);
    for (const QKeySequence& keys :
         {QKeySequence(Qt::Key_Escape), QKeySequence(Qt::CTRL | Qt::Key_W)}) {
        if (!help->isVisible())
            QTest::mouseClick(screen()->helpButton(), Qt::LeftButton);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(help));
        const float before = screen()->chartView()->levelDB();
        EXPECT_TRUE(
            QTest::qWaitFor([&] { return screen()->chartView()->levelDB() != before; }, 2000));
        EXPECT_TRUE(audio_->isRecording());
        QApplication::setActiveWindow(help);
        QTest::keySequence(help, keys);
        EXPECT_FALSE(help->isVisible()) << keys.toString().toStdString();
    }

    // Space pauses, as the button does, and the meter falls empty at once.
    QApplication::setActiveWindow(app_->window());
    QTest::keyClick(app_->window(), Qt::Key_Space);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !audio_->isRecording(); }, 5000));
    EXPECT_EQ(screen()->transport().recordButton()->text(), "Start");
    EXPECT_TRUE(screen()->transport().recordButton()->isEnabled());
    QTest::qWait(200);
    const auto lit = [](QRgb c) { return qRed(c) > 200 && qGreen(c) < 60; };
    EXPECT_FALSE(test::topmost(meter->grabFramebuffer(), +lit)) << "red segments while stopped";
    EXPECT_EQ(meter->dbLabel()->text(), "-144.0");
}

TEST_F(MainScreenTest, voiceProduct_eggOnSecondChannel_meterReadsQuotient_chartDrawsCycle) {
    launch(AnalyzerFeatures::voiceProduct());
    // The application's planning thread makes these ahead; here only the size in use.
    const int32_t n = defaults_->fftSize();
    ASSERT_NE(FFTPlanCache::shared().complexPlan(n, FFTW_FORWARD), nullptr);
    ASSERT_NE(FFTPlanCache::shared().complexPlan(n, FFTW_BACKWARD), nullptr);

    // A tone for the voice, and on the second channel a contact signal at
    // 220 Hz that is closed for 40 % of each cycle (above its 40 % level for
    // 0.4085 of it).
    constexpr double f0 = 220.0;
    constexpr double cq = 0.4;
    const double expected = 100.0 * (cq + 3.85e-5 * f0);
    test::SinkPlayer signal(
        48000, 20.0, [](double t) { return test::sineAt(f0, t); },
        [](double t) { return test::eggContact(f0, cq, t); });
    ASSERT_TRUE(signal.start());
    ASSERT_TRUE(startPause(true));

    // The meter's read-out, in per cent. Tolerance: the measure's (the index
    // step of 1.4 / 100 points and 0.015 for the band limit, 0.029 in all) and
    // the rounding of the read-out.
    LevelMeterView* meter = screen()->chartView()->levelMeterView();
    const auto readout = [&] { return meter->dbLabel()->text().toDouble(); };
    EXPECT_TRUE(QTest::qWaitFor([&] { return std::abs(readout() - expected) <= 3.4; }, 5000))
        << "read-out " << meter->dbLabel()->text().toStdString();
    QTest::qWait(500);
    EXPECT_NEAR(readout(), expected, 3.4);

    // The oscilloscope shows the normalised cycle in the middle 70 % of the
    // chart's height (0.15 to 0.85): per pixel column the mean row of the
    // green trace, whose upward passes through the middle count the contacts
    // in n / 4 points at 22,050 per second.
    screen()->typeOfChartOscilloscopeSelected();
    ChartScrollView* chart = screen()->chartView()->chart();
    QTest::qWait(300);
    const QImage frame = chart->grabFramebuffer();
    const auto rowOf = [&](double y) { return test::chartRow(chart, y); };
    const auto top = test::topmost(frame, test::isGreen);
    const auto bottom = test::topmost(frame.mirrored(), test::isGreen);
    ASSERT_TRUE(top && bottom);
    int contacts = 0;
    int columnsWithTrace = 0;
    bool high = false;
    for (int x = 0; x < frame.width(); ++x) {
        const test::Pixels trace =
            test::pixelsIn(frame, QRect(x, 0, 1, frame.height()), test::isGreen);
        if (trace.count == 0)
            continue;
        const bool nowHigh = trace.centre.y() < rowOf(0.5);
        contacts += (nowHigh && !high && columnsWithTrace > 0) ? 1 : 0;
        ++columnsWithTrace;
        high = nowHigh;
    }
    EXPECT_GT(columnsWithTrace, frame.width() * 9 / 10);
    // The extremes of the whole window may lie outside the cycle drawn, so
    // its contacts and openings reach into the outer tenths of that band.
    EXPECT_GE(top->y(), rowOf(0.85) - 3.0);
    EXPECT_LE(top->y(), rowOf(0.78));
    const double bottomRow = frame.height() - 1 - bottom->y();
    EXPECT_LE(bottomRow, rowOf(0.15) + 3.0);
    EXPECT_GE(bottomRow, rowOf(0.22));
    EXPECT_NEAR(contacts, n / 4 * f0 / 22050.0, 1.0);
}

TEST_F(MainScreenTest, startWithoutInputDevice_showsMessage_buttonsStayUsable) {
    launch(AnalyzerFeatures::spectrumProduct());
    const int mic = test::virtualMicrophoneModule();
    ASSERT_GE(mic, 0);
    ASSERT_TRUE(test::unloadModule(mic));
    ASSERT_TRUE(QTest::qWaitFor([&] { return audio_->availableInputs().isEmpty(); }, 3000));

    QTest::mouseClick(screen()->transport().recordButton(), Qt::LeftButton);
    QMessageBox* shown = test::waitMessage(5000);
    test::loadVirtualMicrophone();
    ASSERT_TRUE(shown);
    EXPECT_TRUE(shown->text().contains("Recording disabled."));
    EXPECT_FALSE(audio_->isRecording());
    EXPECT_EQ(screen()->transport().recordButton()->text(), "Start");
    EXPECT_TRUE(screen()->transport().recordButton()->isEnabled());
    EXPECT_TRUE(screen()->settingsButton()->isEnabled());
}

// --- The studio's spectrogram ------------------------------------------------------------------

/// The level (0 at the minimum level, 1 at 0 dB) that the coloured scheme
/// gives a pixel: black up to 0.01, blue to 0.27, green to 0.54, red to 0.99.
double levelOfPixel(QRgb c) {
    if (qRed(c) > 0)
        return 0.54 + 0.45 * qRed(c) / 255.0;
    if (qGreen(c) > 0)
        return 0.27 + 0.27 * qGreen(c) / (0.9 * 255.0);
    return 0.01 + 0.26 * qBlue(c) / (0.8 * 255.0);
}

/// Cells of a grabbed spectrogram frame above 0.6 of the level scale (-43 dB
/// at the default minimum of -107 dB: a -12 dBFS tone's row, far above its
/// window's leakage): the count per image row, and the columns that have one.
struct BrightCells {
    explicit BrightCells(const QImage& frame) : rows(size_t(frame.height()), 0) {
        for (int x = 0; x < frame.width(); ++x) {
            const int before = total;
            for (int y = 0; y < frame.height(); ++y)
                if (levelOfPixel(frame.pixel(x, y)) > 0.6) {
                    ++rows[size_t(y)];
                    ++total;
                }
            if (total > before)
                columns.push_back(x);
        }
    }
    int brightestRow() const {
        return int(std::max_element(rows.begin(), rows.end()) - rows.begin());
    }
    std::vector<int> rows;
    std::vector<int> columns;
    int total = 0;
};

// The studio as its users meet it: a recorded tone lights its row of the
// spectrogram at the tone's height on a linear frequency axis and nothing far
// from it; playback sends the recording to the sink (heard back on the
// virtual microphone); a recalculation with another FFT size draws the same
// document; clearing empties it.
TEST_F(MainScreenTest, studioSpectrogram_showsPlaysRecalculatesAndClearsTheRecording) {
    launch(AnalyzerFeatures::studioProduct());
    MainScreen* s = screen();
    ASSERT_TRUE(s->spectrogramView() != nullptr);
    EXPECT_EQ(s->arrangement().segment(), 0);
    ASSERT_TRUE(rebuildWith([](AnalyzerDefaults& d) { d.setPreferredLinearFrequency(true); }));
    ASSERT_TRUE(defaults_->linearFrequency());

    test::SinkPlayer tone = toneOnFirstChannel();
    ASSERT_TRUE(tone.start());
    // The recording starts after the tone's onset, whose click would light
    // every row of its column: pacat needs a moment on a loaded machine.
    QTest::qWait(500);
    ASSERT_TRUE(startPause(true));
    EXPECT_FALSE(s->clearSpectrogramButton()->isEnabled());
    EXPECT_FALSE(s->transport().playButton()->isEnabled());
    ASSERT_TRUE(QTest::qWaitFor([&] { return defaults_->actualInterval() >= 200; }, 10000));
    ASSERT_TRUE(startPause(false));
    tone.stop();
    const int64_t intervals = defaults_->actualInterval();

    SpectrogramScrollView* scroll = s->spectrogramView()->scroll();
    QTest::qWait(200);
    const QImage recorded = scroll->grabFramebuffer();
    const BrightCells before(recorded);
    ASSERT_GT(before.total, 0) << "nothing bright on the spectrogram";
    const double toneY = (1.0 - 997.0 / (defaults_->sampleRate() / 2.0)) * recorded.height();
    EXPECT_NEAR(before.brightestRow(), toneY, 3.0);
    for (size_t y = 0; y < before.rows.size(); ++y)
        EXPECT_TRUE(before.rows[y] == 0 || std::abs(double(y) - toneY) <= 6.0)
            << "bright pixels at row " << y;
    // The recording ends at the right edge.
    EXPECT_GE(before.columns.back(), recorded.width() - 3);

    // Playback: the play line runs and the sink plays the recorded tone at its level.
    test::CaptureRecorder listener;
    AudioStreams listening(listener, audio_->soundServer());
    listener.unit = &listening;
    ASSERT_TRUE(listening.start(test::captureConfig(audio_->soundServer(), 48000)).ok());
    ASSERT_TRUE(s->transport().playButton()->isEnabled());
    QTest::mouseClick(s->transport().playButton(), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return audio_->isPlaying(); }, 5000));
    EXPECT_FALSE(s->transport().recordButton()->isEnabled());
    EXPECT_TRUE(QTest::qWaitFor([&] { return scroll->playLineVisible(); }, 2000));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !audio_->isPlaying(); }, 8000))
        << "playback did not end at the newest interval";
    listening.stop();
    const std::vector<float>& heard = listener.samples;
    ASSERT_GT(heard.size(), size_t(2 * 48000));
    // The loudest of a few 0.1 s stretches: a loaded machine may drop a block.
    double heardDb = -200.0;
    for (size_t frame = 12000; (frame + 4800) * 2 < heard.size(); frame += 9600)
        heardDb = std::max(heardDb, test::toDb(test::toneAmplitude(heard.data() + frame * 2, 4800,
                                                                   2, 997.0, 48000.0)));
    EXPECT_NEAR(heardDb, test::toDb(kMinus12dBFS) + defaults_->outputGainValue(), 1.0);
    EXPECT_TRUE(s->transport().recordButton()->isEnabled());

    // Recalculated with a four times longer FFT: the same row and the same columns.
    ASSERT_TRUE(rebuildWith([](AnalyzerDefaults& d) { d.setPreferredFftSize(d.fftSize() * 4); }));
    EXPECT_EQ(defaults_->actualInterval(), intervals);
    QTest::qWait(200);
    const BrightCells after(scroll->grabFramebuffer());
    ASSERT_GT(after.total, 0) << "the recalculated document is not drawn";
    EXPECT_NEAR(after.brightestRow(), toneY, 3.0);
    EXPECT_NEAR(double(after.columns.size()), double(before.columns.size()), 3.0);
    EXPECT_NEAR(after.columns.back(), before.columns.back(), 2.0);

    // Clear, after its question: nothing is left.
    QTest::mouseClick(s->clearSpectrogramButton(), Qt::LeftButton);
    QMessageBox* question = test::waitMessage();
    ASSERT_TRUE(question);
    EXPECT_EQ(question->text(), "Do you want to clear the spectrogram?");
    test::press(question, "Yes");
    ASSERT_TRUE(QTest::qWaitFor([&] { return !s->buttonsBlocked(); }, 5000));
    EXPECT_EQ(defaults_->actualInterval(), 0);
    QTest::qWait(200);
    EXPECT_EQ(BrightCells(scroll->grabFramebuffer()).total, 0);
}

// The picture-in-picture follows the segmented control: the other view in a
// corner clear of the full-screen view's meter, and back.
TEST_F(MainScreenTest, studioPictureInPicture_followsTheViewOnScreen) {
    launch(AnalyzerFeatures::studioProduct());
    MainScreen* s = screen();
    SpectrogramView* spectrogram = s->spectrogramView();
    ChartView* chart = s->chartView();
    EXPECT_TRUE(spectrogram->isVisible() && spectrogram->fullScreen());
    EXPECT_FALSE(chart->isVisible());

    QTest::mouseClick(s->pipButton(), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !s->arrangement().layoutAnimating(); }, 3000));
    ASSERT_TRUE(chart->isVisible());
    EXPECT_FALSE(chart->fullScreen());
    const QRect area = spectrogram->geometry();
    EXPECT_TRUE(area.contains(chart->geometry()));
    EXPECT_LT(chart->width(), area.width() / 2);
    // Top right: the spectrogram's meter and labels are at its left.
    EXPECT_GT(chart->geometry().left(), area.center().x());

    // Switched, and the picture-in-picture asked for before the switch has
    // finished animating: each view still ends where it belongs.
    QTest::mouseClick(s->spectrogramVsChartSegmentedControl()->buttonForSegment(1), Qt::LeftButton);
    EXPECT_FALSE(spectrogram->fullScreen());
    EXPECT_EQ(s->gainPanel().meaning(), GainPanel::Meaning::Spectrum);
    QTest::mouseClick(s->pipButton(), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !s->arrangement().layoutAnimating(); }, 3000));
    EXPECT_TRUE(chart->fullScreen());
    EXPECT_EQ(chart->geometry(), area);
    ASSERT_TRUE(spectrogram->isVisible());
    // Top left, clear of the chart's meter at its right.
    EXPECT_LT(spectrogram->geometry().right(), area.center().x());
    EXPECT_GT(spectrogram->width(), area.width() / 4);

    // Off, with a rebuild right behind it: gone, and the chart keeps the area.
    QTest::mouseClick(s->pipButton(), Qt::LeftButton);
    ASSERT_TRUE(rebuildWith([](AnalyzerDefaults& d) { d.setPreferredSpectrogramColorType(1); }));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !s->arrangement().layoutAnimating(); }, 5000));
    EXPECT_FALSE(spectrogram->isVisible());
    EXPECT_EQ(chart->geometry(), area);
}

// A fresh start as a user makes it: the octave RTA shows the tone's band
// without any change of its settings first.
TEST_F(MainScreenTest, freshStudio_octaveRTA_toneLightsItsBars) {
    launch(AnalyzerFeatures::studioProduct());
    test::SinkPlayer tone = toneOnFirstChannel();
    ASSERT_TRUE(tone.start());
    screen()->spectrogramVsChartChanged(1);
    screen()->typeOfChartOctaveRTASelected();
    ASSERT_TRUE(startPause(true));
    ChartScrollView* chart = screen()->chartView()->chart();
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return test::topmost(chart->grabFramebuffer(), test::isBar).has_value(); }, 5000));
}

// Settings damaged since the last run (a display size that divided by zero,
// a rate that left Start failing): the program starts and analyses a tone.
TEST_F(MainScreenTest, damagedSettings_startAWorkingProgram) {
    {
        SettingsStore store(kTag);
        store.writeString(AnalyzerDefaults::kVersionKey, AnalyzerDefaults::kVersionTag);
        store.writeInt("analyzerDefaults.fftDisplaySize", INT_MIN);
        store.writeFloat("analyzerDefaults.sampleRate", 0.0f);
        store.writeInt("analyzerDefaults.fftSize", 1000);
        ASSERT_TRUE(store.sync());
    }
    launch(AnalyzerFeatures::spectrumProduct());
    test::SinkPlayer tone = toneOnFirstChannel();
    ASSERT_TRUE(tone.start());
    ASSERT_TRUE(startPause(true));
    expectToneOnChart();
}

// --- Lifecycle and state across runs ------------------------------------------------------------

TEST_F(MainScreenTest, leavingForeground_stopsAnalyser_comingBackKeepsTheDocument) {
    launch(AnalyzerFeatures::spectrumProduct());
    ASSERT_TRUE(startPause(true));

    app_->leaveForeground();
    EXPECT_FALSE(audio_->isRecording());
    EXPECT_FALSE(audio_->sessionActivated());
    EXPECT_EQ(screen()->transport().recordButton()->text(), "Start");

    // Coming back does not prepare the document again: what it holds stays.
    defaults_->setActualInterval(7);
    app_->enterForeground();
    QTest::qWait(100);
    EXPECT_FALSE(screen()->buttonsBlocked());
    EXPECT_EQ(defaults_->actualInterval(), 7);
}

// Armed through the trigger page, the studio waits through silence with the
// record button blinking; a tone in the band (3 to 15 kHz) starts the document,
// which begins with the silence before the tone.
TEST_F(MainScreenTest, studioTrigger_armedThroughItsPage_toneInTheBandStartsTheDocument) {
    launch(AnalyzerFeatures::studioProduct());
    QTest::mouseClick(screen()->settingsButton(), Qt::LeftButton);
    SettingsPanel* panel = screen()->settingsPanel();
    ASSERT_TRUE(panel != nullptr && panel->isOpen());
    panel->openPage(SettingsPanel::kPageTrigger);
    static_cast<TriggerSettingsPage*>(panel->page(SettingsPanel::kPageTrigger))
        ->trigSwitch()
        ->click();
    panel->closeSettings();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !screen()->buttonsBlocked(); }, 5000));

    // Two seconds of silence, then the tone.
    test::SinkPlayer sound(
        48000, 20.0, [](double t) { return t < 2.0 ? 0.0f : test::sineAt(5000.0, t); },
        [](double) { return 0.0f; });
    ASSERT_TRUE(sound.start());
    ASSERT_TRUE(startPause(true));
    QTest::qWait(1000);
    EXPECT_TRUE(screen()->transport().blinking());
    EXPECT_EQ(defaults_->actualInterval(), 0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return defaults_->actualInterval() > 0; }, 5000));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !screen()->transport().blinking(); }, 2000));
    QTest::qWait(500);
    ASSERT_TRUE(startPause(false));
    const std::vector<float>& store = defaults_->audioBuffersData();
    const auto n = size_t(defaults_->intervalSizeInFrames());
    const auto loudest = [&](size_t interval) {
        const auto [lo, hi] =
            std::minmax_element(store.begin() + std::ptrdiff_t(interval * n),
                                store.begin() + std::ptrdiff_t((interval + 1) * n));
        return std::max(-*lo, *hi);
    };
    const auto last = size_t(defaults_->actualInterval()) - 1;
    EXPECT_LT(loudest(0), 0.001f);
    EXPECT_GT(loudest(last), 0.5f * kMinus12dBFS);
}

// --- Settings ------------------------------------------------------------------------------------

TEST_F(MainScreenTest, settingsCloseWithNewFftSizeOrRate_rebuildsDocumentAndChart) {
    launch(AnalyzerFeatures::spectrumProduct());
    ASSERT_EQ(defaults_->fftSize(), 4096);

    // Through the panel: the choice waits until the panel closes.
    QTest::mouseClick(screen()->settingsButton(), Qt::LeftButton);
    SettingsPanel* panel = screen()->settingsPanel();
    ASSERT_TRUE(panel != nullptr && panel->isOpen());
    panel->openPage(SettingsPanel::kPageGeneral);
    auto* general = static_cast<GeneralSettingsPage*>(panel->page(SettingsPanel::kPageGeneral));
    QTest::mouseClick(general->fftSizeSegmentedControl()->buttonForSegment(6), Qt::LeftButton);
    EXPECT_EQ(defaults_->fftSize(), 4096);
    panel->closeSettings();
    // Blocked behind the wait view until the document is rebuilt.
    EXPECT_TRUE(screen()->buttonsBlocked());
    EXPECT_TRUE(screen()->arrangement().waitView()->isVisible());
    EXPECT_FALSE(defaults_->dataValid());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !screen()->buttonsBlocked(); }, 5000));
    EXPECT_EQ(defaults_->fftSize(), 16384);
    EXPECT_EQ(defaults_->fftOutSize(), 8192);
    EXPECT_TRUE(defaults_->dataValid());

    ASSERT_TRUE(rebuildWith([](AnalyzerDefaults& d) { d.setPreferredSampleRate(96000.0f); }));
    EXPECT_EQ(defaults_->sampleRate(), 96000.0f);
    EXPECT_EQ(defaults_->audioBuffersData().size() * 4, size_t(defaults_->audioBufferByteSize()));

    // The new document analyses: a tone peaks where it should on the new axis.
    test::SinkPlayer tone = toneOnFirstChannel();
    ASSERT_TRUE(tone.start());
    ASSERT_TRUE(startPause(true));
    expectToneOnChart();
    ASSERT_TRUE(startPause(false));
}

TEST_F(MainScreenTest, quitAndStartAgain_restoresSettingsAndChartType_onlyFromItsOwnTag) {
    launch(AnalyzerFeatures::studioProduct());
    screen()->typeOfChartOctaveRTASelected();
    ASSERT_TRUE(rebuildWith([](AnalyzerDefaults& d) { d.setPreferredFftWindowType(1); }));
    quit();

    launch(AnalyzerFeatures::studioProduct());
    EXPECT_EQ(screen()->chartView()->typeOfChart(), 2);
    EXPECT_EQ(screen()->typeOfChartButton()->text(), "Octave RTA");
    EXPECT_EQ(defaults_->fftWindowType(), 1);
    quit();

    // A record with another tag restores nothing of the screen.
    AppLifecycle::restorationStore()->setValue(AnalyzerDefaults::kVersionKey, "another-format");
    launch(AnalyzerFeatures::studioProduct());
    EXPECT_EQ(screen()->chartView()->typeOfChart(), 0);
    quit();

    // The screen's keys as earlier versions wrote them: the oscilloscope full
    // screen with the spectrogram as a picture-in-picture.
    {
        auto store = AppLifecycle::restorationStore();
        store->clear();
        store->setValue("VersionKey", "kzr4410pwmq2093xa");
        store->setValue("mainViewController.typeOfChart", 1);
        store->setValue("mainViewController.spectrogramPIP", true);
        store->setValue("mainViewController.chartPIP", false);
        store->setValue("mainViewController.spectrogramVsChartSegmentedControl", 1);
    }
    launch(AnalyzerFeatures::studioProduct());
    EXPECT_EQ(screen()->chartView()->typeOfChart(), 1);
    EXPECT_EQ(screen()->arrangement().segment(), 1);
    EXPECT_TRUE(screen()->chartView()->fullScreen());
    EXPECT_TRUE(screen()->arrangement().spectrogramPIP());
    EXPECT_TRUE(screen()->spectrogramView()->isVisible());
}

} // namespace
} // namespace widmo
