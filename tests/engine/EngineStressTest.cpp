#include "EngineFixture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace widmo {
namespace {

using test::EngineFixture;
using test::runEventsUntil;

class EngineStressTest : public EngineFixture {};

// A producer thread delivers a minute of 48 kHz audio in blocks of random size
// while the main thread runs the display timer. Afterwards every interval still
// held in the result slots must have exactly the spectrum of its own samples,
// and every interval must have reached the spectrogram once, in order.
TEST_F(EngineStressTest, randomBlocksWithLiveDisplay_resultsMatchDirectComputation) {
    build(Options{.sampleRate = 48000.0f, .withSpectrogram = true});
    ASSERT_EQ(n(), 512);
    constexpr int64_t kFrames = 60 * 48000 + 12345;

    const std::vector<float> mono = test::noise(kFrames, 20240611); // the produced channel 0

    int64_t shown = 0;
    std::vector<float> shownCopy(static_cast<size_t>(defaults_->fftOutSize()));
    chart_.onData = [&](const float* data) {
        // Read the whole slot, as a chart converting it would.
        std::copy_n(data, shownCopy.size(), shownCopy.begin());
        ++shown;
    };
    chart_.shownData.reserve(100000);
    chart_.shownWindows.reserve(100000);
    chart_.shownEgg.reserve(100000);
    startRecording();
    ASSERT_TRUE(engine_->displayTimerActive());

    const int64_t fftSize = defaults_->fftSize();
    const int64_t ringCapacity = capacity();
    std::atomic<bool> produced{false};
    std::thread producer([&] {
        std::mt19937 sizes(7);
        std::uniform_int_distribution<int32_t> blockSize(1, 4096);
        std::vector<float> stereo(2 * 4096);
        int64_t written = 0;
        // About 30 times real time, so that the display timer ticks all along.
        const auto start = std::chrono::steady_clock::now();
        while (written < kFrames) {
            const double elapsed =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (written > static_cast<int64_t>(elapsed * 48000.0 * 30.0)) {
                std::this_thread::sleep_for(std::chrono::microseconds(500));
                continue;
            }
            const int32_t count =
                static_cast<int32_t>(std::min<int64_t>(blockSize(sizes), kFrames - written));
            // Like real input, never lap the analysis: the oldest sample still
            // needed is the start of the next interval's window.
            while (written + count > defaults_->actualInterval() * n() - fftSize + ringCapacity)
                std::this_thread::yield();
            for (int32_t k = 0; k < count; ++k) {
                stereo[2 * static_cast<size_t>(k)] = mono[static_cast<size_t>(written + k)];
                stereo[2 * static_cast<size_t>(k) + 1] = -1.0f;
            }
            engine_->didGetNewAudioData(AudioBlock{count, stereo.data()});
            written += count;
        }
        produced = true;
    });
    const bool finished = runEventsUntil([&] { return produced.load(); }, 300000);
    producer.join();
    ASSERT_TRUE(finished);
    drain();
    engine_->stopRecorder();

    const int64_t end = kFrames / n();
    EXPECT_EQ(defaults_->actualInterval(), end);
    EXPECT_EQ(engine_->computedIntervalIndex(), end - 1);
    EXPECT_GT(shown, 30); // the timer ran during the whole minute, not just at its end
    ASSERT_EQ(static_cast<int64_t>(spectrogram_.columns.size()), end);
    for (int64_t i = 0; i < end; ++i)
        ASSERT_EQ(spectrogram_.columns[static_cast<size_t>(i)], i);
    for (int64_t i = end - FFTManager::kSlotsCount; i < end; ++i)
        expectSlotHolds(mono, i);
}

} // namespace
} // namespace widmo
