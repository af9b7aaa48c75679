#pragma once

#include <cstdint>

namespace widmo {

/// The listening level and a peak limiter for what the program plays: each
/// sample is multiplied by the level, then by a gain that drops at once to
/// whatever keeps the sample at the ceiling (-1 dBFS) and recovers with a time
/// constant of 50 ms. No sample leaves above the ceiling, so a bat right at
/// the microphone is loud, not clipped (a clipped float becomes a wrapped
/// integer in some sinks: a click). The ceiling is 2 dB below full scale: a
/// hard-limited signal resampled by the sound server for its sink overshoots
/// by up to 0.7 dB (measured through the test sink, 192 to 48 kHz).
///
/// Threading: one thread (the real-time render thread) after `prepare`; never
/// allocates, locks or waits.
class OutputLimiter {
public:
    static constexpr float kCeiling = 0.794f; ///< -2 dBFS
    static constexpr double kReleaseSeconds = 0.05;

    /// Sets the rate in Hz and restores full gain.
    void prepare(int32_t sampleRate);
    /// Multiplies `count` samples of `data` in place by `level` (linear) and
    /// limits them.
    void process(float* data, int32_t count, float level);
    /// The limiter's gain now (1: not limiting).
    float gain() const { return gain_; }

private:
    float release_ = 0.001f; ///< fraction of the way back to 1 per sample
    float gain_ = 1.0f;
};

} // namespace widmo
