#include "audio/AudioIOUnit.h"
#include "TestSignals.h"
#include "audio/AudioIOUnitClient.h"

#include <QMediaDevices>
#include <QTest>

#include <gtest/gtest.h>

#include <numbers>

namespace widmo {
namespace {

using test::kMinus12dBFS;
using test::toDb;
using test::toneAmplitude;

// Records what the unit delivers, on the thread the unit lives on.
class RecordingClient : public AudioIOUnitClient {
public:
    void inputAvailable(int32_t frames) override {
        const size_t at = samples.size();
        samples.resize(at + size_t(frames) * 2);
        const int32_t got = unit->renderInput(samples.data() + at, frames);
        samples.resize(at + size_t(got) * 2);
        largestBlock = std::max(largestBlock, frames);
        ++cycles;
    }
    void renderOutput(int32_t frames, float* out) override { std::fill(out, out + frames, 0.0f); }
    void unitFailed(AudioIOFailure f, const QString&) override { failure = f; }

    AudioIOUnit* unit = nullptr;
    std::vector<float> samples;
    int32_t largestBlock = 0;
    int cycles = 0;
    AudioIOFailure failure = AudioIOFailure::None;
};

float sine(double frequency, double t) {
    return kMinus12dBFS * float(std::sin(2.0 * std::numbers::pi * frequency * t));
}

class AudioIOUnitTest : public ::testing::Test {
protected:
    void SetUp() override { client.unit = &unit; }

    AudioIOUnit::Config captureConfig(int rate) {
        AudioIOUnit::Config config;
        config.enableInput = true;
        config.input = QMediaDevices::defaultAudioInput();
        config.sampleRate = rate;
        return config;
    }

    // Captures for `seconds` while `player` plays; returns frames captured.
    size_t capture(const AudioIOUnit::Config& config, double seconds) {
        const AudioIOUnit::Result result = unit.start(config);
        EXPECT_TRUE(result.ok()) << int(result.failure);
        QTest::qWait(int(seconds * 1000));
        unit.stop();
        return client.samples.size() / 2;
    }

    RecordingClient client;
    AudioIOUnit unit{client};
};

TEST_F(AudioIOUnitTest, captureCarriesEachChannelsToneAtItsLevel_inRealTime) {
    test::SinkPlayer player(
        48000, 20.0, [](double t) { return sine(997.0, t); },
        [](double t) { return sine(1499.0, t); });
    ASSERT_TRUE(player.start());
    QTest::qWait(100);
    const size_t frames = capture(captureConfig(48000), 2.0);

    // Real time, give or take the stream's start-up and the last device buffer.
    EXPECT_GT(frames, size_t(48000 * 1.4));
    EXPECT_LT(frames, size_t(48000 * 2.3));
    EXPECT_LE(client.largestBlock, AudioIOUnit::kMaxInputFrames);
    ASSERT_GT(frames, size_t(24000));

    const float* tail = client.samples.data() + (frames - 16384) * 2;
    EXPECT_NEAR(toDb(toneAmplitude(tail, 16384, 2, 997.0, 48000)), -12.0, 0.5);
    EXPECT_NEAR(toDb(toneAmplitude(tail + 1, 16384, 2, 1499.0, 48000)), -12.0, 0.5);
    // The channels stay apart: no tone of one channel in the other.
    EXPECT_LT(toDb(toneAmplitude(tail, 16384, 2, 1499.0, 48000)), -60.0);
    EXPECT_LT(toDb(toneAmplitude(tail + 1, 16384, 2, 997.0, 48000)), -60.0);
}

TEST_F(AudioIOUnitTest, captureVolumeScalesTheInput_andAppliesWhileRunning) {
    test::SinkPlayer player(
        48000, 20.0, [](double t) { return sine(997.0, t); },
        [](double t) { return sine(997.0, t); });
    ASSERT_TRUE(player.start());
    QTest::qWait(100);
    AudioIOUnit::Config config = captureConfig(48000);
    config.inputVolume = 0.5f;
    ASSERT_TRUE(unit.start(config).ok());
    QTest::qWait(1200);
    const size_t halfAt = client.samples.size() / 2;
    unit.setInputVolume(0.25f);
    QTest::qWait(800);
    unit.stop();
    ASSERT_GT(halfAt, size_t(16384));
    const size_t frames = client.samples.size() / 2;
    ASSERT_GT(frames - halfAt, size_t(16384));
    EXPECT_NEAR(
        toDb(toneAmplitude(client.samples.data() + (halfAt - 16384) * 2, 16384, 2, 997.0, 48000)),
        -18.0, 0.5);
    EXPECT_NEAR(
        toDb(toneAmplitude(client.samples.data() + (frames - 16384) * 2, 16384, 2, 997.0, 48000)),
        -24.0, 0.5);
    EXPECT_FLOAT_EQ(unit.inputVolume(), 0.25f);
}

TEST_F(AudioIOUnitTest, startFailsCleanly_withoutDevice_orAtARateTheDeviceRefuses) {
    AudioIOUnit::Config config = captureConfig(48000);
    config.input = QAudioDevice();
    EXPECT_EQ(unit.start(config).failure, AudioIOFailure::NoInputDevice);
    EXPECT_FALSE(unit.isRunning());

    config = captureConfig(1000000);
    const AudioIOUnit::Result result = unit.start(config);
    EXPECT_EQ(result.failure, AudioIOFailure::InputOpenFailed);
    EXPECT_EQ(result.deviceName, "WidmoTestMic");
    EXPECT_FALSE(unit.isRunning());

    // The unit works again afterwards.
    EXPECT_TRUE(unit.start(captureConfig(48000)).ok());
    EXPECT_TRUE(unit.isRunning());
    EXPECT_EQ(unit.runningInput().description(), "WidmoTestMic");
    unit.stop();
    EXPECT_FALSE(unit.isRunning());
    EXPECT_EQ(client.failure, AudioIOFailure::None);
}

} // namespace
} // namespace widmo
