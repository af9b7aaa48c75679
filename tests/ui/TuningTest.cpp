#include "charts/ChartScrollView.h"
#include "charts/ChartView.h"
#include "charts/SpectrogramView.h"
#include "render/SpectrogramScrollView.h"
#include "ui/AudioInputPage.h"
#include "ui/SegmentedControl.h"
#include "ui/SettingsPanel.h"
#include "ui/TransportControls.h"

#include "ChartTestSupport.h"
#include "TestSignals.h"
#include "UiTestSupport.h"

#include <QCheckBox>
#include <QSettings>
#include <QToolButton>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <vector>

namespace widmo {
namespace {

constexpr float kRate = 192000.0f;
constexpr double kNyquist = 96000.0;

/// Rows (or columns) where two frames of the same size differ, in `region`.
std::vector<int> differingLines(const QImage& a, const QImage& b, QRect region, bool rows) {
    std::vector<int> lines;
    const int count = rows ? region.height() : region.width();
    for (int i = 0; i < count; ++i) {
        bool differs = false;
        const int other = rows ? region.width() : region.height();
        for (int j = 0; j < other && !differs; ++j) {
            const QPoint p = rows ? QPoint(region.x() + j, region.y() + i)
                                  : QPoint(region.x() + i, region.y() + j);
            differs = a.pixel(p) != b.pixel(p);
        }
        if (differs)
            lines.push_back((rows ? region.y() : region.x()) + i);
    }
    return lines;
}

class TuningTest : public test::AppTest {
protected:
    /// The studio at 192 kHz with a linear frequency axis (as the display page sets it).
    void launchLinear() {
        launch(AnalyzerFeatures::studioProduct(), kRate);
        switchToLinearAxis();
    }
    void switchToLinearAxis() {
        defaults_->copyCurrentToPreferred();
        defaults_->setPreferredLinearFrequency(true);
        screen()->settingsWillClose();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !screen()->buttonsBlocked(); }, 10000));
        ASSERT_TRUE(defaults_->linearFrequency());
        show(0);
    }
    /// The spectrogram (0) or the chart (1) full screen, once it stands still.
    void show(int segment) {
        screen()->spectrogramVsChartChanged(segment);
        ASSERT_TRUE(
            QTest::qWaitFor([&] { return !screen()->arrangement().layoutAnimating(); }, 3000));
        QTest::qWait(100);
    }
    SpectrogramScrollView* scroll() const { return screen()->spectrogramView()->scroll(); }

    /// Heterodyne listening on or off on the audio page, as a user sets it.
    void setHeterodyneListening(bool on) {
        QTest::mouseClick(screen()->settingsButton(), Qt::LeftButton);
        SettingsPanel* panel = screen()->settingsPanel();
        ASSERT_TRUE(panel != nullptr && panel->isOpen());
        panel->openPage(SettingsPanel::kPageAudioInput);
        auto* page = static_cast<AudioInputPage*>(panel->page(SettingsPanel::kPageAudioInput));
        if (page->transpositionSwitch()->isChecked() != on)
            page->transpositionSwitch()->click();
        page->listeningModeControl()->buttonForSegment(1)->click();
        panel->closeSettings();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !screen()->buttonsBlocked(); }, 5000));
        QTest::qWait(100);
    }

    /// One turn of the wheel over the middle of the spectrogram.
    void wheel(int angle, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        const QPointF at(scroll()->width() / 2.0, scroll()->height() / 2.0);
        QWheelEvent event(at, scroll()->mapToGlobal(at), QPoint(), QPoint(0, angle), Qt::NoButton,
                          modifiers, Qt::NoScrollPhase, false);
        QApplication::sendEvent(scroll(), &event);
    }
    void ctrlClick(QPoint at) {
        QTest::mouseClick(scroll(), Qt::LeftButton, Qt::ControlModifier, at);
        QTest::qWait(50);
    }
    float tuning() const { return defaults_->heterodyneTuningHz(); }

    /// Device-pixel row of `hz` on the unzoomed linear axis of the spectrogram.
    double spectrogramRow(double hz, const QImage& frame) const {
        return (1.0 - hz / kNyquist) * frame.height();
    }
    /// The shaded rows must be those from f0 + B down to f0 - B (within a
    /// pixel: the band's edges are drawn on the pixel they fall in), checked
    /// left of the label.
    void expectSpectrogramBand(const QImage& on, const QImage& off, double tunedHz) {
        const QRect left(0, 0, on.width() / 2, on.height());
        const std::vector<int> rows = differingLines(on, off, left, true);
        ASSERT_FALSE(rows.empty()) << "no band drawn";
        EXPECT_NEAR(rows.front(), spectrogramRow(tunedHz + 5000.0, on), 1.5);
        EXPECT_NEAR(rows.back(), spectrogramRow(tunedHz - 5000.0, on), 1.5);
        EXPECT_EQ(int(rows.size()), rows.back() - rows.front() + 1) << "the band has gaps";
    }
};

// On the logarithmic axis (the default) Ctrl+click tunes to the frequency at
// that height: the axis runs from its start frequency at the bottom to 96 kHz
// at the top, evenly in log frequency (tolerance: the 100 Hz rounding and half
// a pixel's worth of frequency at that height).
TEST_F(TuningTest, logarithmicAxis_ctrlClickTunesToTheHeightsFrequency) {
    launch(AnalyzerFeatures::studioProduct(), kRate);
    ASSERT_FALSE(defaults_->linearFrequency());
    show(0);
    setHeterodyneListening(true);
    const double start = defaults_->logStartFrequency();
    for (const double share : {0.1, 0.25, 0.6}) {
        const int y = int(scroll()->height() * share);
        ctrlClick(QPoint(scroll()->width() / 2, y));
        const double expected =
            start * std::pow(kNyquist / start, 1.0 - double(y) / scroll()->height());
        const double halfPixel = 0.5 * expected * std::log(kNyquist / start) / scroll()->height();
        EXPECT_NEAR(tuning(), std::min(expected, 91000.0), 50.0 + halfPixel) << "at row " << y;
    }
}

// Heterodyne listening at 192 kHz: the tuned band (f0 ± 5 kHz) is shaded on
// the spectrogram and the spectrum exactly where their axes put those
// frequencies, and only while listening is on; the wheel tunes by 1 kHz a
// notch (Shift 100 Hz, parts of a notch add up) instead of zooming; Ctrl+click
// tunes to the frequency under the pointer, up to half the rate less the
// band; the tuning is kept after a restart. With listening off the wheel zooms
// and Ctrl+click tunes nothing.
TEST_F(TuningTest, heterodyneBand_drawnWhereTuned_wheelAndCtrlClickTune_onlyWhileListening) {
    launchLinear();
    const QImage plain = scroll()->grabFramebuffer();
    ChartScrollView* chart = screen()->chartView()->chart();
    show(1);
    const QImage plainChart = chart->grabFramebuffer();

    setHeterodyneListening(true);
    ASSERT_EQ(tuning(), 40000.0f);
    const QImage chartOn = chart->grabFramebuffer();
    // On the spectrum the band spans the columns of 35 to 45 kHz at mid height
    // (below the label).
    const int mid = chartOn.height() / 2;
    const std::vector<int> columns =
        differingLines(chartOn, plainChart, QRect(0, mid, chartOn.width(), 1), false);
    ASSERT_FALSE(columns.empty()) << "no band on the spectrum";
    EXPECT_NEAR(columns.front(), test::chartColumn(chart, 35000.0 / kNyquist), 1.5);
    EXPECT_NEAR(columns.back(), test::chartColumn(chart, 45000.0 / kNyquist), 1.5);
    show(0);
    expectSpectrogramBand(scroll()->grabFramebuffer(), plain, 40000.0);

    // The wheel tunes; the view does not zoom.
    const AffineTransform view = scroll()->actualContentTransform();
    wheel(120);
    EXPECT_EQ(tuning(), 41000.0f);
    wheel(-120, Qt::ShiftModifier);
    EXPECT_EQ(tuning(), 40900.0f);
    wheel(360);
    EXPECT_EQ(tuning(), 43900.0f);
    wheel(60);
    EXPECT_EQ(tuning(), 43900.0f);
    wheel(60);
    EXPECT_EQ(tuning(), 44900.0f);
    EXPECT_TRUE(scroll()->actualContentTransform() == view);
    expectSpectrogramBand(scroll()->grabFramebuffer(), plain, 44900.0);

    // Ctrl+click: the frequency of that height on the linear axis, to the
    // nearest 100 Hz (tolerance: that rounding and half a pixel).
    const int y = scroll()->height() * 3 / 10;
    ctrlClick(QPoint(scroll()->width() / 3, y));
    const double expected = (1.0 - double(y) / scroll()->height()) * kNyquist;
    EXPECT_NEAR(tuning(), expected, 50.0 + 0.5 * kNyquist / scroll()->height());
    EXPECT_FALSE(scroll()->measuringActivated()); // no tap
    expectSpectrogramBand(scroll()->grabFramebuffer(), plain, tuning());
    // Near the top: as high as the band still fits below 96 kHz.
    ctrlClick(QPoint(scroll()->width() / 3, 2));
    EXPECT_EQ(tuning(), 91000.0f);

    // Zoomed (Ctrl+wheel still zooms both axes): a click tunes to the height
    // clicked, where the band then stands centred.
    wheel(240, Qt::ControlModifier);
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return !(scroll()->actualContentTransform() == view); }, 2000));
    QTest::qWait(600); // the wheel's pinch ends and settles
    const double zoomedY = scroll()->height() * 0.4;
    ctrlClick(QPoint(scroll()->width() / 3, int(zoomedY)));
    const QImage zoomed = scroll()->grabFramebuffer();
    scroll()->zoomOut();
    const float zoomedTuning = tuning();

    // Off: no band, the wheel zooms and Ctrl+click tunes nothing.
    setHeterodyneListening(false);
    QTest::qWait(300);
    EXPECT_TRUE(differingLines(scroll()->grabFramebuffer(), plain, plain.rect(), true).empty())
        << "a band without listening";
    wheel(120);
    ctrlClick(QPoint(scroll()->width() / 3, scroll()->height() / 2));
    EXPECT_EQ(tuning(), zoomedTuning);
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return !(scroll()->actualContentTransform() == view); }, 2000));

    // The band's edges in the zoomed frame lie on either side of the click,
    // equally far (within a pixel and the 100 Hz rounding).
    int top = -1;
    int bottom = -1;
    const int x = zoomed.width() / 4;
    for (int row = 0; row < zoomed.height(); ++row) {
        const QRgb c = zoomed.pixel(x, row);
        if (qBlue(c) > 180 && qGreen(c) > 160 && qRed(c) < 160) {
            top = top < 0 ? row : top;
            bottom = row;
        }
    }
    ASSERT_GE(top, 0) << "no band edge in the zoomed frame";
    const double clickedRow = zoomedY * zoomed.height() / scroll()->height();
    EXPECT_NEAR((top + bottom) / 2.0, clickedRow, 2.0);

    // Kept after a restart.
    quit();
    AnalyzerDefaults again(AnalyzerFeatures::studioProduct(), kTag);
    EXPECT_EQ(again.heterodyneTuningHz(), zoomedTuning);
}

// Through the sound path: listening by heterodyne tuned to 40 kHz while the
// studio records a 42 kHz call from a 192 kHz microphone, the call is heard
// at 2 kHz; one notch of the wheel over the spectrogram while recording
// retunes to 41 kHz and the call is heard at 1 kHz. (Each heard line against
// the other: 40 dB apart at least; a heard line reads about -12 dBFS.)
TEST_F(TuningTest, wheelWhileRecording_movesTheHeardCall) {
    if (test::underPipeWire())
        GTEST_SKIP() << "listening output not heard under PipeWire (open)";
    test::UltrasonicMicrophone microphone;
    ASSERT_TRUE(microphone.isLoaded());
    launchLinear();
    auto call = test::playTone(42000.0, 192000, test::UltrasonicMicrophone::sinkName());
    ASSERT_TRUE(call);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            for (const AudioDevice& d : audio_->availableInputs())
                if (d.id == test::UltrasonicMicrophone::kSourceName)
                    audio_->setPreferredInput(d);
            return audio_->preferredInput().id == test::UltrasonicMicrophone::kSourceName;
        },
        5000));
    setHeterodyneListening(true);
    QTest::mouseClick(screen()->transport().recordButton(), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return audio_->isRecording(); }, 5000));
    QTest::qWait(1000);
    // The last 16,384 frames (0.34 s) of the sink's left channel; a capture
    // stream that starts late on a loaded machine is listened to again.
    const auto heard = [&](double hz) {
        constexpr size_t kFrames = 16384;
        for (int attempt = 0; attempt < 3; ++attempt) {
            test::SinkListener listener(audio_->soundServer());
            EXPECT_TRUE(listener.started);
            QTest::qWait(1000);
            const std::vector<float>& x = listener.stop();
            if (x.size() >= 2 * kFrames)
                return test::toDb(test::toneAmplitude(x.data() + x.size() - 2 * kFrames, kFrames, 2,
                                                      hz, 48000.0));
        }
        ADD_FAILURE() << "the sink's monitor delivered too little";
        return -200.0;
    };
    const double at2k = heard(2000.0);
    const double at1k = heard(1000.0);
    EXPECT_GT(at2k, -20.0);
    EXPECT_LT(at1k, at2k - 40.0);

    wheel(120);
    EXPECT_EQ(tuning(), 41000.0f);
    QTest::qWait(300);
    const double now1k = heard(1000.0);
    const double now2k = heard(2000.0);
    EXPECT_GT(now1k, -20.0);
    EXPECT_LT(now2k, now1k - 40.0);
    QTest::mouseClick(screen()->transport().recordButton(), Qt::LeftButton);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !audio_->isRecording(); }, 5000));
}

} // namespace
} // namespace widmo
