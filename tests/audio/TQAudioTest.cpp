#include "audio/TQAudio.h"
#include "TestDoubles.h"
#include "TestSignals.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "engine/TQAudioDelegate.h"

#include <QElapsedTimer>
#include <QTest>

#include <gtest/gtest.h>

#include <mutex>

namespace widmo {
namespace {

using namespace test;

/// Records the blocks that reach the delegate (delivery queue) and serves
/// playback samples from `source` (audio thread).
class RecordingDelegate : public TQAudioDelegate {
public:
    explicit RecordingDelegate(TQAudio& audio) : audio_(audio) {}

    void didGetNewAudioData(TQAudioData data) override {
        std::lock_guard lock(mutex_);
        received_.allOnQueue = received_.allOnQueue && audio_.audioDispatchQueue().isCurrent();
        received_.pointers.push_back(data.data);
        received_.frames += size_t(data.count);
        std::vector<float>& tail = received_.tail;
        tail.insert(tail.end(), data.data, data.data + 2 * data.count);
        if (tail.size() > kTailSamples)
            tail.erase(tail.begin(), tail.end() - std::ptrdiff_t(kTailSamples));
    }
    void giveNewAudioData(TQAudioData* data) override {
        for (int32_t i = 0; i < data->count; ++i)
            data->data[i] = source ? source(played_ + i) : 0.0f;
        played_ += data->count;
        renderCalls.fetch_add(1, std::memory_order_relaxed);
    }

    struct Received {
        std::vector<float*> pointers; ///< each block's data, in arrival order
        size_t frames = 0;
        bool allOnQueue = true;
        std::vector<float> tail; ///< the newest interleaved samples, up to kTailSamples
    };
    static constexpr size_t kTailSamples = 2 * 8192;
    void clear() {
        std::lock_guard lock(mutex_);
        received_ = {};
    }
    Received received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }
    size_t blocks() const { return received().pointers.size(); }

    std::function<float(int64_t)> source; ///< playback sample at frame index
    std::atomic<int> renderCalls{0};

private:
    TQAudio& audio_;
    mutable std::mutex mutex_;
    Received received_;
    int64_t played_ = 0;
};

class TQAudioTest : public ::testing::Test {
protected:
    void SetUp() override {
        defaults.setSampleRate(48000.0f);
        audio.setDelegate(&delegate);
        audio.setMainViewController(&mainScreen);
        audio.setMessages(&messages);
    }
    void TearDown() override {
        audio.stop();
        audio.setDelegate(nullptr); // no block in flight reaches the delegate being destroyed
        if (virtualMicrophoneModule() < 0)
            loadVirtualMicrophone();
    }

    /// Starts recording and waits for the outcome; counts completion calls.
    bool startRecording(int* calls) {
        return completes([&](auto done) { audio.startRecorder(done); }, calls);
    }
    /// The last message shown is `title` and contains `text`.
    void expectLastMessage(const char* title, const char* text) {
        ASSERT_FALSE(messages.shown.empty());
        EXPECT_EQ(messages.shown.back().title, title);
        EXPECT_TRUE(messages.shown.back().message.contains(text))
            << messages.shown.back().message.toStdString();
        EXPECT_EQ(messages.shown.back().button, "OK");
    }

    AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    AnalyzerDefaults defaults{features, "audio-test"};
    TQAudio audio{defaults, features};
    RecordingDelegate delegate{audio};
    FakeMainScreen mainScreen{&audio};
    FakeMessages messages;
};

TEST_F(TQAudioTest, recording_deliversBlocksInRingOrderOnTheQueue_afterTheStartupSkip) {
    int calls = 0, ignoredCalls = 0;
    bool outcome = false;
    audio.startRecorder([&](bool ok) {
        ++calls;
        outcome = ok;
    });
    EXPECT_TRUE(audio.isSetupInProgress());
    // Further starts while one is pending are ignored and never complete.
    audio.startRecorder([&](bool) { ++ignoredCalls; });
    audio.startPlayer([&](bool) { ++ignoredCalls; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return calls > 0; }, 5000));
    EXPECT_TRUE(outcome);
    EXPECT_TRUE(audio.isRecording());
    EXPECT_FALSE(audio.isSetupInProgress());
    EXPECT_EQ(audio.startupSkipThreshold(), 7);
    audio.startRecorder([&](bool) { ++ignoredCalls; });

    QTest::qWait(1500);
    audio.stop();
    EXPECT_FALSE(audio.isRecording());
    audio.audioDispatchQueue().waitUntilEmpty();
    QTest::qWait(100);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(ignoredCalls, 0);

    const RecordingDelegate::Received received = delegate.received();
    const std::vector<float*>& pointers = received.pointers;
    ASSERT_GT(pointers.size(), 20u);
    EXPECT_TRUE(received.allOnQueue);
    // Every block sits in the ring slot after the previous one, from slot 0.
    for (size_t i = 0; i < pointers.size(); ++i) {
        const ptrdiff_t slot = (pointers[i] - pointers[0]) / (CaptureBufferRing::kBufferFrames * 2);
        ASSERT_EQ(slot, ptrdiff_t(i % TQAudio::kCaptureBufferCount)) << "block " << i;
    }
    EXPECT_EQ(audio.actualBuffer(), int32_t((pointers.size() - 1) % TQAudio::kCaptureBufferCount));
    // The first eight cycles (counter 0..7) were dropped, every later one delivered.
    EXPECT_NEAR(double(audio.renderCycleCounter()) - double(pointers.size()), 8.0, 1.0);
    // About 1.5 s of 48 kHz audio arrived.
    EXPECT_GT(double(received.frames), 48000 * 1.2);
    EXPECT_LT(double(received.frames), 48000 * 1.7);
    EXPECT_TRUE(messages.shown.empty());

    // Stopped means stopped: nothing more arrives.
    QTest::qWait(200);
    EXPECT_EQ(delegate.blocks(), pointers.size());
}

TEST_F(TQAudioTest, inputRemovedOrRefusingTheRate_stopsOrFailsTheStartOnceSayingWhy_untilFixed) {
    int calls = 0;
    ASSERT_TRUE(startRecording(&calls));
    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate.blocks() > 10; }, 3000));

    ASSERT_TRUE(unloadModule(virtualMicrophoneModule()));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !audio.isRecording(); }, 5000));
    EXPECT_EQ(mainScreen.stopsWithoutBlock, 1);
    ASSERT_EQ(messages.shown.size(), 1u);
    expectLastMessage("Recording stopped.", "\"WidmoTestMic\" was disconnected");
    audio.audioDispatchQueue().waitUntilEmpty();
    const size_t blocks = delegate.blocks();

    // With no input at all a start completes once with NO and says why (once
    // the server's device list, which comes separately, has lost the device).
    ASSERT_TRUE(QTest::qWaitFor([&] { return audio.availableInputs().isEmpty(); }, 3000));
    calls = 0;
    EXPECT_FALSE(startRecording(&calls));
    QTest::qWait(100);
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(audio.isRecording());
    EXPECT_FALSE(audio.isSetupInProgress());
    EXPECT_EQ(mainScreen.stopsWithRefresh, 1);
    EXPECT_TRUE(mainScreen.lastRefreshEnable);
    ASSERT_EQ(messages.shown.size(), 2u);
    expectLastMessage("Recording disabled.", "No audio input was found.");
    EXPECT_EQ(delegate.blocks(), blocks);

    // The device back, a rate it cannot open ends the start the same way.
    ASSERT_GE(loadVirtualMicrophone(), 0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !audio.availableInputs().isEmpty(); }, 3000));
    defaults.setSampleRate(1000000.0f);
    calls = 0;
    EXPECT_FALSE(startRecording(&calls));
    QTest::qWait(100);
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(audio.isRecording());
    ASSERT_EQ(messages.shown.size(), 3u);
    expectLastMessage("Recording disabled.", "\"WidmoTestMic\" could not be opened at 1000000 Hz");

    // The failures leave nothing behind: the next start at a rate the device takes records.
    defaults.setSampleRate(48000.0f);
    EXPECT_TRUE(startRecording(&calls));
    EXPECT_TRUE(QTest::qWaitFor([&] { return delegate.blocks() > blocks + 10; }, 3000));
    EXPECT_EQ(messages.shown.size(), 3u);
}

TEST_F(TQAudioTest, soundServerRestartedWhileRecording_saysSo_andStartWorksAgainWithin3s) {
    int calls = 0;
    ASSERT_TRUE(startRecording(&calls));
    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate.blocks() > 10; }, 3000));

    ASSERT_TRUE(restartSoundServer(4000));
    QElapsedTimer sinceBack;
    sinceBack.start();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !audio.isRecording(); }, 3000));
    ASSERT_FALSE(messages.shown.empty());
    EXPECT_EQ(messages.shown[0].title, "Recording stopped.");
    EXPECT_TRUE(messages.shown[0].message.contains("connection to the sound server was lost"));

    // A user pressing Start again and again: one start within 3 s of the
    // server's return records, and what it records is the tone played.
    auto player = playTone(997.0);
    ASSERT_TRUE(player);
    bool started = false;
    while (!started && sinceBack.elapsed() < 3000)
        if (!(started = startRecording(&calls)))
            QTest::qWait(250);
    ASSERT_TRUE(started) << "no start worked within 3 s of the server's return";
    std::printf("first working start %lld ms after the server's return\n",
                static_cast<long long>(sinceBack.elapsed()));
    audio.audioDispatchQueue().waitUntilEmpty();
    delegate.clear();
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return delegate.received().tail.size() == RecordingDelegate::kTailSamples; }, 3000));
    const std::vector<float> tail = delegate.received().tail;
    EXPECT_NEAR(toDb(toneAmplitude(tail.data(), tail.size() / 2, 2, 997.0, 48000)), -12.0, 1.0);
}

TEST_F(TQAudioTest, playback_pullsFromTheDelegateEveryCycle_andRestoresThePreferredInput) {
    delegate.source = [](int64_t frame) { return 0.001f * float(frame % 100); };
    const AudioDevice mic = audio.soundServer().defaultInput();
    audio.setPreferredInput(mic);
    int calls = 0;
    ASSERT_TRUE(completes([&](auto done) { audio.startPlayer(done); }, &calls));
    EXPECT_TRUE(audio.isPlaying());
    EXPECT_EQ(audio.lastPortBeforePlaying().id, mic.id);
    EXPECT_TRUE(audio.preferredInput().isNull()); // the built-in input during playback
    QTest::qWait(1000);
    audio.stop();
    EXPECT_FALSE(audio.isPlaying());
    EXPECT_EQ(audio.preferredInput().id, mic.id);
    // About 48,000 samples a second in cycles of at most 20 ms, and no
    // capture: the delegate received no input block.
    EXPECT_GT(delegate.renderCalls.load(), 40);
    EXPECT_GT(audio.renderCycleCounter(), 40);
    EXPECT_EQ(delegate.blocks(), 0u);
    EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace widmo
