#include "TestDoubles.h"
#include "TestSignals.h"
#include "audio/AudioSession.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "engine/AudioSessionDelegate.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTest>

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>

namespace widmo {
namespace {

using namespace test;

/// What a recording that keeps going hands its delegate: the blocks with the
/// time each arrived (the test's own clock), the gaps and the losses.
class GapDelegate : public AudioSessionDelegate {
public:
    void didGetNewAudioData(AudioBlock data) override {
        std::lock_guard lock(mutex_);
        const double now =
            std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
                .count();
        if (frames_ == 0)
            firstArrival_ = now - double(data.count) / 48000.0;
        lastArrival_ = now;
        frames_ += data.count;
        if (keepFrom_ >= 0 && frames_ > keepFrom_)
            samples_.insert(samples_.end(), data.data, data.data + 2 * data.count);
    }
    void giveNewAudioData(AudioBlock*) override {}
    void captureStopped(int64_t, CaptureGaps::Cause cause) override { stops.push_back(cause); }
    void didMissAudio(int64_t frames, int64_t, CaptureGaps::Cause cause) override {
        std::lock_guard lock(mutex_);
        gaps_.push_back({frames, cause});
    }

    int64_t frames() {
        std::lock_guard lock(mutex_);
        return frames_;
    }
    std::vector<std::pair<int64_t, CaptureGaps::Cause>> gaps() {
        std::lock_guard lock(mutex_);
        return gaps_;
    }
    /// Seconds from the start of the first block to the end of the newest.
    double seconds() {
        std::lock_guard lock(mutex_);
        return lastArrival_ - firstArrival_;
    }
    /// Keeps the samples of the blocks from now on.
    void keepSamples() {
        std::lock_guard lock(mutex_);
        keepFrom_ = frames_;
        samples_.clear();
    }
    std::vector<float> samples() {
        std::lock_guard lock(mutex_);
        return samples_;
    }

    std::vector<CaptureGaps::Cause> stops; ///< main thread

private:
    std::mutex mutex_;
    int64_t frames_ = 0;
    double firstArrival_ = 0.0, lastArrival_ = 0.0;
    std::vector<std::pair<int64_t, CaptureGaps::Cause>> gaps_;
    int64_t keepFrom_ = -1;
    std::vector<float> samples_;
};

class KeepRecordingTest : public ::testing::Test {
protected:
    void SetUp() override {
        defaults.setSampleRate(48000.0f);
        // Off by default in this product; a user switches it on.
        defaults.keepRecording().setEnabled(true);
        defaults.keepRecording().setFallbackSeconds(60);
        audio.setDelegate(&delegate);
        audio.setMainScreen(&mainScreen);
        audio.setMessages(&messages);
        keepSinkRendering();
    }
    void TearDown() override {
        audio.stop();
        audio.setDelegate(nullptr);
        defaults.keepRecording().setEnabled(false);
        stopSinkRendering();
        if (virtualMicrophoneModule() < 0)
            loadVirtualMicrophone();
    }
    bool startRecording() {
        return completes([&](auto done) { audio.startRecorder(done); }) &&
               QTest::qWaitFor([&] { return delegate.frames() > 48000 / 2; }, 3000);
    }
    /// The recording waits, the analyser was not stopped and nothing was said.
    void expectWaitingQuietly(const char* text) {
        EXPECT_TRUE(audio.isRecording());
        EXPECT_EQ(audio.waitingText(), text);
        EXPECT_EQ(mainScreen.stopsWithoutBlock + mainScreen.stopsWithRefresh, 0);
        EXPECT_TRUE(messages.shown.empty());
    }

    AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    AnalyzerDefaults defaults{features, "keep-recording-test"};
    AudioSession audio{defaults, features};
    GapDelegate delegate;
    FakeMainScreen mainScreen{&audio};
    FakeMessages messages;
};

TEST_F(KeepRecordingTest,
       microphoneUnloadedAndLoadedAgain_resumesEachTime_framesPlusGapsAreWallClock) {
    ASSERT_TRUE(startRecording());
    constexpr int kCycles = 3;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        ASSERT_TRUE(unloadModule(virtualMicrophoneModule()));
        ASSERT_TRUE(QTest::qWaitFor([&] { return audio.isWaitingForInput(); }, 3000)) << cycle;
        expectWaitingQuietly("Waiting for WidmoTestMic…");
        QTest::qWait(400 + 300 * cycle);
        ASSERT_GE(loadVirtualMicrophone(), 0);
        QElapsedTimer back;
        back.start();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !audio.isWaitingForInput(); }, 2000)) << cycle;
        std::printf("cycle %d: capture resumed %lld ms after the microphone was loaded\n", cycle,
                    static_cast<long long>(back.elapsed()));
        const int64_t frames = delegate.frames();
        ASSERT_TRUE(QTest::qWaitFor([&] { return delegate.frames() > frames + 24000; }, 2000));
    }
    audio.stop();
    audio.audioDispatchQueue().waitUntilEmpty();

    ASSERT_EQ(delegate.gaps().size(), size_t(kCycles));
    ASSERT_EQ(delegate.stops.size(), size_t(kCycles));
    int64_t missed = 0;
    for (const auto& [frames, cause] : delegate.gaps()) {
        EXPECT_EQ(cause, CaptureGaps::Cause::InputDevice);
        // Each one longer than the 0.4 s or more the microphone was away.
        EXPECT_GT(frames, int64_t{48000 * 4 / 10});
        missed += frames;
    }
    // Captured plus missed frames are the recording's wall-clock time, on
    // the test's clock: within 0.1 s (a block's arrival jitter at each end,
    // 21 ms each, and the server's scheduling).
    const double documentSeconds = double(delegate.frames() + missed) / 48000.0;
    std::printf("%.3f s captured and missed, %.3f s on the clock\n", documentSeconds,
                delegate.seconds());
    EXPECT_NEAR(documentSeconds, delegate.seconds(), 0.1);
}

TEST_F(KeepRecordingTest,
       deviceNotBack_afterTheFallbackTime_takesTheDefaultInput_evenMonoAtAnotherRate) {
    // FIXME: under PipeWire 0.3.65 the mono 22.05 kHz microphone made here is
    // taken but delivers nothing within the wait. Not explained yet.
    if (underPipeWire())
        GTEST_SKIP() << "a new mono microphone delivers nothing under PipeWire (open)";
    defaults.keepRecording().setFallbackSeconds(1);
    ASSERT_TRUE(startRecording());
    ASSERT_TRUE(unloadModule(virtualMicrophoneModule()));
    QElapsedTimer lost;
    lost.start();
    ASSERT_TRUE(QTest::qWaitFor([&] { return audio.isWaitingForInput(); }, 3000));
    // Another microphone with one channel at 22.05 kHz becomes the default input.
    const int mono = loadMicrophone(qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink"),
                                    "widmo_mono", "WidmoMonoMic", 22050, 1);
    ASSERT_GE(mono, 0);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            for (const AudioDevice& d : audio.availableInputs())
                if (d.id == "widmo_mono")
                    return true;
            return false;
        },
        3000));
    QProcess::execute("pactl", {"set-default-source", "widmo_mono"});
    // It is not the device that went away: taken only after the fallback time.
    QTest::qWait(300);
    expectWaitingQuietly("Waiting for WidmoTestMic…");
    ASSERT_TRUE(QTest::qWaitFor([&] { return !audio.isWaitingForInput(); }, 3000));
    EXPECT_GE(lost.elapsed(), 1000);
    EXPECT_EQ(audio.currentInput().id, "widmo_mono");
    ASSERT_EQ(audio.currentInput().channels, 1);

    // The tone comes through on both channels at its frequency and level.
    auto player = playTone(997.0);
    ASSERT_TRUE(player);
    QTest::qWait(500);
    delegate.keepSamples();
    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate.samples().size() >= 2 * 16384; }, 3000));
    const std::vector<float> heard = delegate.samples();
    for (int channel = 0; channel < 2; ++channel)
        EXPECT_NEAR(toDb(toneAmplitude(heard.data() + channel, 16384, 2, 997.0, 48000)), -12.0, 1.0)
            << "channel " << channel;
    audio.stop();
    unloadModule(mono);
}

} // namespace
} // namespace widmo
