#include "audio/AudioSession.h"
#include "TestDoubles.h"
#include "TestSignals.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "engine/AudioSessionDelegate.h"

#include <QElapsedTimer>
#include <QTest>

#include <gtest/gtest.h>

#include <mutex>

namespace widmo {
namespace {

using namespace test;

/// Records the blocks that reach the delegate, on the delivery queue.
class RecordingDelegate : public AudioSessionDelegate {
public:
    explicit RecordingDelegate(AudioSession& audio) : audio_(audio) {}

    void didGetNewAudioData(AudioBlock data) override {
        std::lock_guard lock(mutex_);
        received_.allOnQueue = received_.allOnQueue && audio_.audioDispatchQueue().isCurrent();
        received_.pointers.push_back(data.data);
        received_.samples.insert(received_.samples.end(), data.data, data.data + 2 * data.count);
    }
    void giveNewAudioData(AudioBlock*) override {}

    struct Received {
        std::vector<float*> pointers; ///< each block's data, in arrival order
        std::vector<float> samples;   ///< interleaved stereo
        bool allOnQueue = true;
    };
    Received received(bool clear = false) {
        std::lock_guard lock(mutex_);
        return clear ? std::exchange(received_, {}) : received_;
    }
    size_t blocks() { return received().pointers.size(); }

private:
    AudioSession& audio_;
    std::mutex mutex_;
    Received received_;
};

class AudioSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        defaults.setSampleRate(48000.0f);
        audio.setDelegate(&delegate);
        audio.setMainScreen(&mainScreen);
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
    AudioSession audio{defaults, features};
    RecordingDelegate delegate{audio};
    FakeMainScreen mainScreen{&audio};
    FakeMessages messages;
};

TEST_F(AudioSessionTest, recording_deliversBlocksInRingOrderOnTheQueue_afterTheStartupSkip) {
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
        ASSERT_EQ(slot, ptrdiff_t(i % AudioSession::kCaptureBufferCount)) << "block " << i;
    }
    EXPECT_EQ(audio.actualBuffer(),
              int32_t((pointers.size() - 1) % AudioSession::kCaptureBufferCount));
    // The first eight cycles (counter 0..7) were dropped, every later one delivered.
    EXPECT_NEAR(double(audio.renderCycleCounter()) - double(pointers.size()), 8.0, 1.0);
    // About 1.5 s of 48 kHz audio arrived.
    EXPECT_GT(double(received.samples.size()), 2 * 48000 * 1.2);
    EXPECT_LT(double(received.samples.size()), 2 * 48000 * 1.7);
    EXPECT_TRUE(messages.shown.empty());

    // Stopped means stopped: nothing more arrives.
    QTest::qWait(200);
    EXPECT_EQ(delegate.blocks(), pointers.size());
}

TEST_F(AudioSessionTest,
       inputRemovedOrRefusingTheRate_stopsOrFailsTheStartOnceSayingWhy_untilFixed) {
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

TEST_F(AudioSessionTest, soundServerRestartedWhileRecording_saysSo_andStartWorksAgainWithin3s) {
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
    delegate.received(true);
    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate.received().samples.size() >= 16384; }, 3000));
    const std::vector<float> heard = delegate.received().samples;
    EXPECT_NEAR(toDb(toneAmplitude(heard.data() + heard.size() - 16384, 8192, 2, 997.0, 48000)),
                -12.0, 1.0);
}

} // namespace
} // namespace widmo
