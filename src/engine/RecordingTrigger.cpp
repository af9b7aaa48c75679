#include "engine/RecordingTrigger.h"

#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"

#include <cmath>
#include <limits>

namespace widmo {

RecordingTrigger::RecordingTrigger(AnalyzerDefaults& defaults, FFTManager& fftManager)
    : defaults_(defaults), fftManager_(fftManager) {}

int32_t RecordingTrigger::preTriggerIntervals(const AnalyzerDefaults& defaults) {
    // A 32-bit device cannot keep 100 ultrasonic intervals; it keeps 20.
    return defaults.features().featureUltrasonicEnabled() && !defaults.cpu64bit() ? 20 : 100;
}

void RecordingTrigger::arm() {
    const int64_t n = defaults_.intervalSizeInFrames();
    const int64_t p = preTriggerIntervals(defaults_);
    const int64_t m = std::max(n * (p + 2), 2 * int64_t{defaults_.fftSize()});
    std::vector<float>().swap(mTrigBuffer);
    mTrigBuffer.assign(static_cast<size_t>(m), 0.0f);
    if (scratch_.size() < 4096) {
        scratch_.assign(4096, 0.0f); // larger than any block the audio object delivers
    }
    mTrigFramesWriteCount = 0;
    mTrigDataCounter = 0;
    mTrigIndexCounter.store(0, std::memory_order_release);
    fired_.store(false, std::memory_order_release);
    preTriggerFrames_ = p * n;
    intervalFrames_ = n;
    refreshSettings();
    // The measurements run on the delivery queue, which must never wait for the
    // planner (another thread may hold its lock for seconds while it plans the
    // large sizes): the size they use is planned here, on the main thread.
    fftManager_.preparePlan();
}

void RecordingTrigger::refreshSettings() {
    level_.store(defaults_.trigLevel(), std::memory_order_relaxed);
    minFraction_.store(defaults_.trigMinFrequency(), std::memory_order_relaxed);
    maxFraction_.store(defaults_.trigMaxFrequency(), std::memory_order_relaxed);
}

float RecordingTrigger::trigRMSLevelForFFTData(const float* fftData, int32_t fftOutSize,
                                               float minFraction, float maxFraction) {
    const auto lo = static_cast<int32_t>(minFraction * static_cast<float>(fftOutSize));
    const auto hi =
        std::min(static_cast<int32_t>(maxFraction * static_cast<float>(fftOutSize)), fftOutSize);
    float sum = 0.0f;
    for (int32_t k = std::max(lo, 0); k < hi; ++k) {
        sum += fftData[k];
    }
    return 10.0f * std::log10(sum);
}

bool RecordingTrigger::addBlock(const float* interleaved, int32_t count, int32_t channel,
                                float gain) {
    const int64_t m = ringSize();
    if (count <= 0 || interleaved == nullptr || m == 0 || fired_.load(std::memory_order_relaxed)) {
        return false;
    }
    if (static_cast<size_t>(count) > scratch_.size()) {
        scratch_.assign(static_cast<size_t>(count), 0.0f); // a block larger than any before
    }
    const float* src = interleaved + (channel == 1 ? 1 : 0);
    for (int32_t k = 0; k < count; ++k) {
        scratch_[static_cast<size_t>(k)] = gain * src[2 * static_cast<int64_t>(k)];
    }
    int64_t position = mTrigFramesWriteCount % m;
    for (int64_t done = 0; done < count;) {
        const int64_t chunk = std::min<int64_t>(count - done, m - position);
        std::copy_n(scratch_.data() + done, chunk, mTrigBuffer.data() + position);
        done += chunk;
        position = 0;
    }
    mTrigFramesWriteCount += count;

    // One measurement per 1/60 s of input: the first block that takes the count
    // past sampleRate / 60 (736 samples or more at 44.1 kHz).
    mTrigDataCounter += count;
    if (!(static_cast<float>(mTrigDataCounter) > defaults_.sampleRate() / 60.0f)) {
        return false;
    }
    mTrigDataCounter = 0;
    const int64_t fftSize = defaults_.fftSize();
    const int64_t start = (mTrigFramesWriteCount + m - fftSize % m) % m;
    const int64_t index = mTrigIndexCounter.load(std::memory_order_relaxed) + 1;
    float* windowData = nullptr;
    float* dataOut = nullptr;
    if (!fftManager_.computeFFTForIntervalIfPlanned(
            index, mTrigBuffer.data(), static_cast<int32_t>(start), static_cast<int32_t>(m),
            &windowData, &dataOut)) {
        return false; // no plan for this size (it failed at arming): no measurement
    }
    const float level = dataOut != nullptr ? trigRMSLevelForFFTData(dataOut, defaults_.fftOutSize(),
                                                                    defaults_.trigMinFrequency(),
                                                                    defaults_.trigMaxFrequency())
                                           : -std::numeric_limits<float>::infinity();
    // Publishes the slot: the display timer reads it after an acquire load.
    mTrigIndexCounter.store(index, std::memory_order_release);
    if (level > level_.load(std::memory_order_relaxed)) {
        fired_.store(true, std::memory_order_release);
        return true;
    }
    return false;
}

} // namespace widmo
