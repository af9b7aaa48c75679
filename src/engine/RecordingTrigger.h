#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <vector>

namespace widmo {

class AnalyzerDefaults;
class FFTManager;

/// The armed recording trigger: keeps the input in a pre-trigger ring,
/// measures the energy of a frequency band about 60 times a second and fires
/// when it exceeds `trigLevel`. After it fired, the engine writes the last
/// (up to) `preTriggerIntervals` intervals of the ring into the document, so
/// the document starts before the sound that fired it.
///
/// Ring: M = max(intervalSizeInFrames × (P + 2), 2 × fftSize) mono samples,
/// already gained, P = `preTriggerIntervals` (100; 20 in the ultrasonic product
/// on a 32-bit CPU). A measurement follows the first block that makes the
/// samples since the previous one exceed sampleRate / 60; it is the FFT of the
/// newest fftSize samples, computed into the FFT engine's slot of the
/// measurement's index (1, 2, ...), so the display timer can show it.
///
/// Threading: `arm` runs on the main thread while no block is
/// delivered (before the audio object starts); it allocates and makes the FFT
/// plan of the current size (waiting for the planner if it must). `addBlock` and
/// `preTriggerChunks` run on the intake context (the audio object's delivery queue)
/// only, and neither allocates nor locks nor waits: a measurement uses the plan
/// made at arming and never the planner's lock (the scratch block grows only for
/// a block larger than any before, as the engine's own does). The FFT engine is used from the
/// intake context only while the trigger waits: the analysis queue has no work then (the engine
/// drains it before arming, and gives it work only once the trigger fired).
/// The threshold and the band are atomic copies of the settings, refreshed on
/// the main thread. `measurementCount` is an atomic with release/acquire
/// ordering: the display timer reads it on the main thread and then the slot
/// of the measurement it names, complete by then.
class RecordingTrigger {
public:
    /// `defaults` and `fftManager` must outlive the trigger.
    RecordingTrigger(AnalyzerDefaults& defaults, FFTManager& fftManager);

    /// Resets every counter, allocates a zero-filled ring for the current
    /// settings and plans the current FFT size. Main thread, no block being
    /// delivered.
    void arm();
    /// Takes `trigLevel`, `trigMinFrequency` and `trigMaxFrequency` from the
    /// settings (which the settings page changes while the trigger waits).
    /// Main thread; the intake reads the copies, which are atomics.
    void refreshSettings();

    /// One interleaved stereo block of `count` frames: channel `channel` (0 or
    /// 1) times `gain` goes into the ring; a measurement follows when one is
    /// due (none while the FFT size has no plan, which only happens when
    /// planning it failed at arming). True when this block fired the trigger
    /// (only once per arming; a fired trigger takes no more blocks). Intake
    /// context.
    bool addBlock(const float* interleaved, int32_t count, int32_t channel, float gain);

    /// After firing: calls `sink(samples, count)` for the pre-trigger audio in
    /// order, at most P intervals that end with the firing block, starting on
    /// an interval boundary counted from the first sample the ring received.
    /// Every sample is passed exactly once, in calls of at most one interval
    /// (one interval crossing the ring's end is passed as two calls). Returns
    /// the number of intervals passed.
    /// Intake context.
    template <class Sink> int64_t preTriggerChunks(Sink&& sink) const;

    /// 10·log10 of the sum of `fftData[lo .. hi-1]`, lo = trunc(minFraction ×
    /// fftOutSize), hi = trunc(maxFraction × fftOutSize): the band's power in
    /// dB; minus infinity for an empty band or a zero sum. Any thread.
    static float trigRMSLevelForFFTData(const float* fftData, int32_t fftOutSize, float minFraction,
                                        float maxFraction);

    /// Intervals replayed into the document at firing (P).
    static int32_t preTriggerIntervals(const AnalyzerDefaults& defaults);

    bool fired() const { return fired_.load(std::memory_order_acquire); }
    /// Measurements made since arming; the newest is in the FFT engine's slot
    /// of this index. Any thread (acquire).
    int64_t measurementCount() const { return mTrigIndexCounter.load(std::memory_order_acquire); }
    /// Samples the ring received since arming. Intake context, or any thread
    /// once the trigger fired.
    int64_t framesWriteCount() const { return mTrigFramesWriteCount; }
    /// Ring length M in samples (0 before the first arming).
    int64_t ringSize() const { return static_cast<int64_t>(mTrigBuffer.size()); }

private:
    AnalyzerDefaults& defaults_;
    FFTManager& fftManager_;
    std::vector<float> mTrigBuffer;
    std::vector<float> scratch_;
    int64_t mTrigFramesWriteCount = 0;
    int64_t mTrigDataCounter = 0;
    std::atomic<int64_t> mTrigIndexCounter{0};
    std::atomic<bool> fired_{false};
    std::atomic<float> level_{0.0f};
    std::atomic<float> minFraction_{0.0f};
    std::atomic<float> maxFraction_{0.0f};
    int64_t preTriggerFrames_ = 0; // P × intervalSizeInFrames, at arming
    int64_t intervalFrames_ = 0;
};

template <class Sink> int64_t RecordingTrigger::preTriggerChunks(Sink&& sink) const {
    const int64_t m = ringSize();
    const int64_t n = intervalFrames_;
    if (m <= 0 || n <= 0) {
        return 0;
    }
    const int64_t end = mTrigFramesWriteCount;
    // At most P intervals back, and on an interval boundary of the stream the
    // ring received (end mod N is the partial interval at its start).
    const int64_t from = std::max(end - preTriggerFrames_, end % n);
    for (int64_t at = from; at < end;) {
        const int64_t position = at % m;
        const int64_t count = std::min({end - at, m - position, n});
        sink(mTrigBuffer.data() + position, static_cast<int32_t>(count));
        at += count;
    }
    return (end - from) / n;
}

} // namespace widmo
