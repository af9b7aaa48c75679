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
    }
    void renderOutput(int32_t frames, float* out) override { std::fill(out, out + frames, 0.0f); }
    void unitFailed(AudioIOFailure f, const QString&) override { failure = f; }

    AudioIOUnit* unit = nullptr;
    std::vector<float> samples;
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

    RecordingClient client;
    AudioIOUnit unit{client};
};

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
