#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace widmo {

/// Heterodyne listening, as a bat detector does it: the input is multiplied by
/// a cosine at the tuned frequency f0 (times two, so that a tone keeps its
/// level) and low-passed to the audio band B, at the input's own rate. A tone
/// at f0 ± d comes out at d when d < B; everything farther from f0, and the
/// sum frequency f + f0, is removed by the low-pass.
///
/// The low-pass is an 8th-order Butterworth (four biquads, bilinear transform
/// prewarped at B, in double precision so that a 2.5 kHz band at 384 kHz keeps
/// its poles): 3 dB down at B, 48 dB an octave beyond it, so a component 4 B
/// from the tuning is 96 dB down. Its group delay is under 0.3 ms for B = 2.5
/// kHz, so the mode adds no audible latency. An IIR was chosen over a
/// polyphase FIR with decimation because the output plays at the input's
/// rate: the cascade costs 20 multiplications a sample and needs no
/// interpolation back up.
///
/// The oscillator is a complex phasor turned by e^(i 2 pi f0 / rate) each
/// sample and put back on the unit circle once a block; a retuning changes the
/// turn at the next block and keeps the phase, so it does not click.
///
/// Threading: `process` and `reset` run on one thread (the real-time render
/// thread); `setTuning` and `setBandwidth` on any thread (atomics, read at the
/// start of each `process`). `prepare` runs while `process` does not.
class Heterodyne {
public:
    static constexpr double kDefaultTuningHz = 40000.0;
    static constexpr double kDefaultBandHz = 5000.0;
    /// The band widths the listener can choose, Hz.
    static constexpr std::array<double, 3> kBands{2500.0, 5000.0, 10000.0};

    /// Sets the input rate in Hz (> 0) and clears the state. Any thread while
    /// `process` does not run; no allocation.
    void prepare(int32_t sampleRate);
    /// Clears the filter and restarts the oscillator at phase 0. Processing thread.
    void reset();

    /// The tuned frequency in Hz, clamped to 0..`highestTuning`. Any thread.
    void setTuning(double hz);
    double tuning() const { return tuningHz_.load(std::memory_order_acquire); }
    /// The audio band B in Hz (clamped to 500..rate/4). Any thread.
    void setBandwidth(double hz);
    double bandwidth() const { return bandHz_.load(std::memory_order_acquire); }

    /// The highest tuning whose whole band lies below half the rate.
    static double highestTuning(int32_t sampleRate, double bandHz);

    /// Writes `count` heterodyned samples of `in` to `out` (may be the same
    /// buffer). Processing thread; never allocates, locks or waits.
    void process(const float* in, float* out, int32_t count);

private:
    struct Biquad {
        double b0 = 0, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
        double z1 = 0, z2 = 0;
    };
    static constexpr int kSections = 4;
    void design(double bandHz);

    int32_t sampleRate_ = 48000;
    std::atomic<double> tuningHz_{kDefaultTuningHz};
    std::atomic<double> bandHz_{kDefaultBandHz};
    double designedBand_ = 0.0; ///< the band the biquads are designed for
    std::array<Biquad, kSections> sections_{};
    double re_ = 1.0, im_ = 0.0; ///< the oscillator's phasor
};

} // namespace widmo
