#include "audio/AudioSession.h"
#include "charts/SpectrogramView.h"
#include "render/SpectrogramScrollView.h"
#include "render/SpectrogramScrollViewSegment.h"
#include "ui/CaptureWaitBanner.h"
#include "ui/TransportControls.h"

#include "TestSignals.h"
#include "UiTestSupport.h"

#include <QApplication>
#include <QToolButton>

namespace widmo {
namespace {

class KeepRecordingUiTest : public test::AppTest {
protected:
    void SetUp() override {
        test::AppTest::SetUp();
        test::keepSinkRendering();
    }
    void launchStudio() {
        launch(AnalyzerFeatures::studioProduct(), 48000.0f);
        QApplication::setActiveWindow(app_->window()); // no window manager to do it
    }
    void TearDown() override {
        test::AppTest::TearDown();
        test::stopSinkRendering();
        if (test::virtualMicrophoneModule() < 0)
            test::loadVirtualMicrophone();
    }
    bool startPause(bool recording) {
        QTest::mouseClick(screen()->transport().recordButton(), Qt::LeftButton);
        return QTest::qWaitFor([&] { return audio_->isRecording() == recording; }, 5000);
    }
    CaptureWaitBanner* banner() const { return screen()->findChild<CaptureWaitBanner*>(); }
};

/// Columns of `image` where most pixels are the gap's hatching.
std::vector<int> gapColumns(const QImage& image) {
    const auto isGap = [](QRgb p) {
        for (int64_t phase = 0; phase < 8; ++phase) {
            const uint32_t c = SpectrogramScrollViewSegment::gapColor(phase, 0);
            const auto* rgba = reinterpret_cast<const uint8_t*>(&c);
            // Texture filtering may blend a stripe's edge: within 3 levels.
            if (std::abs(qRed(p) - rgba[0]) <= 3 && std::abs(qGreen(p) - rgba[1]) <= 3 &&
                std::abs(qBlue(p) - rgba[2]) <= 3)
                return true;
        }
        return false;
    };
    std::vector<int> columns;
    for (int x = 0; x < image.width(); ++x) {
        int hits = 0;
        for (int y = 0; y < image.height(); ++y)
            hits += isGap(image.pixel(x, y)) ? 1 : 0;
        if (hits > image.height() * 3 / 4)
            columns.push_back(x);
    }
    return columns;
}

TEST_F(KeepRecordingUiTest,
       studioMicrophoneGone_waitsInTheWindow_resumes_andTheSpectrogramShowsTheGap) {
    launchStudio();
    ASSERT_TRUE(defaults_->keepRecording().enabled()) << "on by default in the studio product";
    ASSERT_NE(banner(), nullptr);
    EXPECT_FALSE(banner()->isVisible());
    ASSERT_TRUE(startPause(true));
    QTest::qWait(1500);

    ASSERT_TRUE(test::unloadModule(test::virtualMicrophoneModule()));
    ASSERT_TRUE(QTest::qWaitFor([&] { return banner()->isVisible(); }, 3000));
    EXPECT_TRUE(banner()->text().startsWith("Waiting for WidmoTestMic… 0:0"))
        << banner()->text().toStdString();
    EXPECT_EQ(test::visibleMessage(), nullptr) << "no message while waiting";
    EXPECT_EQ(QApplication::activeWindow(), app_->window());
    QTest::qWait(1500);
    EXPECT_TRUE(banner()->text().startsWith("Waiting for WidmoTestMic… 0:01"))
        << "the time since the loss counts up: " << banner()->text().toStdString();
    ASSERT_GE(test::loadVirtualMicrophone(), 0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !banner()->isVisible(); }, 2000));
    ASSERT_TRUE(audio_->isRecording());
    QTest::qWait(300);
    ASSERT_EQ(test::visibleMessage(), nullptr)
        << test::visibleMessage()->informativeText().toStdString();
    QTest::qWait(1500);
    ASSERT_TRUE(startPause(false));

    const std::vector<CaptureGaps::Gap> gaps = defaults_->captureGaps().gaps();
    ASSERT_EQ(gaps.size(), 1u);
    EXPECT_EQ(gaps[0].cause, CaptureGaps::Cause::InputDevice);
    const double gapSeconds = double(gaps[0].frames) / 48000.0;
    EXPECT_GT(gapSeconds, 1.5);
    EXPECT_LT(gapSeconds, 4.0);

    // One band of gap columns, as wide as the gap is long on the screen's
    // time axis (within 3 columns: texture filtering at its edges), and
    // nowhere else.
    SpectrogramScrollView* scroll = screen()->spectrogramView()->scroll();
    QTest::qWait(300);
    const QImage image = scroll->grabFramebuffer();
    if (qEnvironmentVariableIsSet("WIDMO_TEST_SAVE_IMAGES"))
        image.save(qEnvironmentVariable("WIDMO_TEST_SAVE_IMAGES") + "/gap.png");
    const std::vector<int> columns = gapColumns(image);
    ASSERT_FALSE(columns.empty()) << "no gap band on the spectrogram";
    EXPECT_EQ(columns.back() - columns.front() + 1, int(columns.size())) << "more than one band";
    const double intervals = gapSeconds * 48000.0 / double(defaults_->intervalSizeInFrames());
    // Zoomed out, the view shows the spectrogram's width of intervals.
    const double pixelsPerInterval = double(image.width()) / double(defaults_->spectrogramWidth());
    EXPECT_NEAR(double(columns.size()), intervals * pixelsPerInterval, 3.0);
}

TEST_F(KeepRecordingUiTest, keepRecordingOff_theMessageLeavesTheKeyboard_firstSpaceRecordsAgain) {
    launchStudio();
    defaults_->keepRecording().setEnabled(false);
    ASSERT_TRUE(startPause(true));
    QTest::qWait(1000);
    ASSERT_TRUE(test::unloadModule(test::virtualMicrophoneModule()));
    QMessageBox* box = test::waitMessage();
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->text(), "Recording stopped.");
    EXPECT_FALSE(audio_->isRecording());
    EXPECT_FALSE(banner()->isVisible());
    EXPECT_EQ(QApplication::activeWindow(), app_->window()) << "the message took the keyboard";
    EXPECT_TRUE(box->windowFlags().testFlag(Qt::WindowDoesNotAcceptFocus));

    ASSERT_GE(test::loadVirtualMicrophone(), 0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !audio_->availableInputs().isEmpty(); }, 3000));
    QTest::keyClick(app_->window()->windowHandle(), Qt::Key_Space);
    EXPECT_TRUE(QTest::qWaitFor([&] { return audio_->isRecording(); }, 3000))
        << "the first Space did not start recording again";
    ASSERT_TRUE(startPause(false));
}

} // namespace
} // namespace widmo
