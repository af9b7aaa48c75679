#pragma once

#include "dsp/FrequencyWeighting.h"

#include <array>
#include <cstdint>

namespace widmo {

/// The figures of a sound level meter for one sample stream, in dB relative to
/// full scale with the analyser's convention: a full-scale sine reads 0 dB as
/// an RMS level (Fast, Slow, Leq), so its peak reads +3.01 dB. Adding the SPL
/// offset of a calibrated microphone turns each into dB SPL. Levels of silence
/// are -infinity.
struct SoundLevels {
    double fast = 0.0;    ///< exponential time-weighted level, time constant 125 ms
    double slow = 0.0;    ///< exponential time-weighted level, time constant 1 s
    double leq = 0.0;     ///< equivalent continuous level since the start or reset
    double maxFast = 0.0; ///< highest Fast level since the start or reset
    double maxSlow = 0.0; ///< highest Slow level since the start or reset
    double peak = 0.0;    ///< highest |sample| of the C-weighted stream since the start or reset
    double seconds = 0.0; ///< stream time the integrated figures cover
    Weighting weighting = Weighting::Z; ///< of fast, slow, leq and the maxima (the peak is C)
};

/// The figures of one logging period (`SoundLevelMeter::takePeriod`).
struct PeriodLevels {
    double leq = 0.0;     ///< equivalent level over the period
    double maxFast = 0.0; ///< highest Fast level within the period
    double maxSlow = 0.0; ///< highest Slow level within the period
    double peak = 0.0;    ///< C-weighted peak within the period
    double seconds = 0.0; ///< length of the period
};

/// A sound level meter in software: the stream is frequency-weighted (A, C or
/// Z) for the time-weighted and integrated levels, and separately C-weighted
/// for the peak, as IEC 61672-1 describes the instrument. Fast and Slow are
/// exponential averages of the squared weighted signal updated every sample;
/// Leq is the mean square since the start (or `resetIntegration`).
///
/// An optional power factor (`setPowerCorrection`) scales the squared signal
/// of the next blocks: the broadband effect of a microphone's calibration
/// curve, measured by the caller from the blocks' spectrum.
///
/// Shape of a real-time processor: `prepare` designs the filters and clears
/// everything; `process` never allocates, locks or waits.
///
/// Threading: one thread at a time (the analysis thread); the owner publishes
/// `levels()` to other threads itself.
class SoundLevelMeter {
public:
    /// Designs the filters for `sampleRate` Hz with `weighting` for the
    /// time-weighted and integrated levels, and clears every figure.
    void prepare(double sampleRate, Weighting weighting);
    /// Clears Leq, the maxima, the peak and the current period; the Fast and
    /// Slow levels keep running.
    void resetIntegration();
    /// Feeds `count` samples (full scale ±1).
    void process(const float* samples, int64_t count) noexcept;
    /// Multiplies the squared weighted signal of the following samples by
    /// `factor` (> 0); 1 means none. Not applied to the peak.
    void setPowerCorrection(double factor) { powerCorrection_ = factor; }

    /// The figures after the last sample fed.
    SoundLevels levels() const;
    /// The figures of the period since the last call (or since `prepare` /
    /// `resetIntegration`), and a new period begins.
    PeriodLevels takePeriod();

    Weighting weighting() const { return weighting_.weighting(); }
    double sampleRate() const { return sampleRate_; }

private:
    /// Samples weighted per pass through the filters (the scratch arrays' size).
    static constexpr int64_t kChunk = 256;

    FrequencyWeighting weighting_;
    FrequencyWeighting peakWeighting_; // always C
    double sampleRate_ = 48000.0;
    double fastCoefficient_ = 0.0; // per-sample decay exp(-1 / (rate × 0.125 s))
    double slowCoefficient_ = 0.0; // per-sample decay exp(-1 / (rate × 1 s))
    double powerCorrection_ = 1.0;
    double fastMeanSquare_ = 0.0;
    double slowMeanSquare_ = 0.0;
    double sumSquares_ = 0.0;
    int64_t samples_ = 0;
    double maxFastMeanSquare_ = 0.0;
    double maxSlowMeanSquare_ = 0.0;
    double peakAbs_ = 0.0;
    double periodSumSquares_ = 0.0;
    int64_t periodSamples_ = 0;
    double periodMaxFast_ = 0.0;
    double periodMaxSlow_ = 0.0;
    double periodPeakAbs_ = 0.0;
    std::array<float, kChunk> weighted_{};  // the chunk through weighting_
    std::array<float, kChunk> cWeighted_{}; // the chunk through peakWeighting_
};

} // namespace widmo
