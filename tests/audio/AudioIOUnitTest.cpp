#include "audio/AudioIOUnit.h"
#include "TestSignals.h"

#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace widmo {
namespace {

using namespace test;

class AudioIOUnitTest : public ::testing::Test {
protected:
    void SetUp() override { client.unit = &unit; }

    SoundServer server;
    CaptureRecorder client;
    AudioIOUnit unit{client, server};
};

/// Level in dB of the 997 Hz tone in the 16384 frames before `end`: the loudest
/// of four 4096-frame windows, so that a dropout of the playing stream on a busy
/// machine (a gap of silence) does not read as a lower volume.
double toneLevelBefore(const std::vector<float>& interleaved, size_t end) {
    double loudest = 0.0;
    for (size_t start = end - 16384; start < end; start += 4096)
        loudest =
            std::max(loudest, toneAmplitude(interleaved.data() + start * 2, 4096, 2, 997.0, 48000));
    return toDb(loudest);
}

TEST_F(AudioIOUnitTest, captureVolumeScalesTheInput_andAppliesWhileRunning) {
    SinkPlayer player(
        48000, 20.0, [](double t) { return sineAt(997.0, t); },
        [](double t) { return sineAt(997.0, t); });
    ASSERT_TRUE(player.start());
    QTest::qWait(100);
    AudioIOUnit::Config config = captureConfig(server, 48000);
    config.inputVolume = 0.5f;
    ASSERT_TRUE(unit.start(config).ok());
    QTest::qWait(1200);
    server.lock(); // the samples grow on the server's thread
    const size_t halfAt = client.samples.size() / 2;
    server.unlock();
    unit.setInputVolume(0.25f);
    QTest::qWait(800);
    unit.stop();
    ASSERT_GT(halfAt, size_t(16384));
    const size_t frames = client.samples.size() / 2;
    ASSERT_GT(frames - halfAt, size_t(16384));
    EXPECT_NEAR(toneLevelBefore(client.samples, halfAt), -18.0, 0.5);
    EXPECT_NEAR(toneLevelBefore(client.samples, frames), -24.0, 0.5);
    EXPECT_FLOAT_EQ(unit.inputVolume(), 0.25f);
}

TEST_F(AudioIOUnitTest, startFailsCleanly_withoutDevice_orAtARateTheDeviceRefuses) {
    AudioIOUnit::Config config = captureConfig(server, 48000);
    config.input = AudioDevice();
    EXPECT_EQ(unit.start(config).failure, AudioIOFailure::NoInputDevice);
    EXPECT_FALSE(unit.isRunning());

    const AudioIOUnit::Result result = unit.start(captureConfig(server, 1000000));
    EXPECT_EQ(result.failure, AudioIOFailure::InputOpenFailed);
    EXPECT_EQ(result.deviceName, "WidmoTestMic");
    EXPECT_FALSE(unit.isRunning());

    // The unit works again afterwards.
    EXPECT_TRUE(unit.start(captureConfig(server, 48000)).ok());
    EXPECT_TRUE(unit.isRunning());
    EXPECT_EQ(unit.runningInput().description, "WidmoTestMic");
    unit.stop();
    EXPECT_FALSE(unit.isRunning());
    EXPECT_EQ(client.failure, AudioIOFailure::None);
}

} // namespace
} // namespace widmo
