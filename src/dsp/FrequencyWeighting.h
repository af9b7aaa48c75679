#pragma once

#include <array>
#include <cstdint>

namespace widmo {

/// The frequency weightings of a sound level meter (IEC 61672-1).
enum class Weighting : int32_t { Z = 0, A = 1, C = 2 };

/// A, C or Z frequency weighting of a sample stream as a cascade of biquad
/// sections designed for one sample rate (any rate from 8 kHz to 384 kHz), so
/// that broadband and transient sounds are weighted in the time domain as a
/// sound level meter weights them. Z passes the samples unchanged.
///
/// The sections come from the standard's analogue poles and zeros: the low
/// poles (20.6, 107.7, 737.9 Hz) by the bilinear transform with each pole
/// pre-warped, the double 12,194 Hz pole by the matched z transform with a
/// fitted second-order numerator (no zeros forced onto the Nyquist
/// frequency), so that the response stays within the standard's class 1
/// tolerances up to the rate's limit (within 0.9 dB of the formula up to
/// 20 kHz at 48 kHz); the response at 1 kHz is 0 dB.
///
/// Shape of a real-time processor: `prepare` computes the coefficients and
/// clears the state, `process` never allocates, locks or waits, `reset`
/// clears the state only.
///
/// Threading: one thread at a time; `nominalDB` from any thread.
class FrequencyWeighting {
public:
    /// Z weighting at any rate until prepared.
    FrequencyWeighting() = default;

    /// Designs the filter for `weighting` at `sampleRate` Hz and clears its state.
    void prepare(Weighting weighting, double sampleRate);
    /// Clears the filter's memory (a new stream starts).
    void reset();
    /// Weights `count` samples from `in` into `out`; `in == out` is allowed.
    void process(const float* in, float* out, int64_t count) noexcept;

    Weighting weighting() const { return weighting_; }
    /// The designed digital filter's magnitude response at `frequency` Hz, in dB.
    double responseDB(double frequency) const;
    /// The standard's nominal weighting at `frequency` Hz in dB, from its
    /// analytic formula (IEC 61672-1, annex E); 0 for Z.
    static double nominalDB(Weighting weighting, double frequency);

private:
    struct Section {
        double b0 = 1.0, b1 = 0.0, b2 = 0.0, a1 = 0.0, a2 = 0.0;
        double z1 = 0.0, z2 = 0.0; // transposed direct form II state
    };
    static constexpr int kMaxSections = 3;

    Weighting weighting_ = Weighting::Z;
    double sampleRate_ = 48000.0;
    std::array<Section, kMaxSections> sections_{};
    int sectionCount_ = 0;
};

} // namespace widmo
