#pragma once

#include "core/CaptureGaps.h"
#include "dsp/SoundLevelMeter.h"
#include "engine/LevelLog.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <vector>

namespace widmo {

class AnalyzerDefaults;

/// The sound level meter of a recording: every new sample of the document
/// goes through the weighted `SoundLevelMeter` once, and its figures are
/// published for the display, the calibration and the level log. With a
/// microphone calibration file, the meter's squared signal is corrected by
/// the calibration's broadband effect on each interval (the ratio of the
/// interval's weighted power with and without the per-bin correction), and
/// every spectrum (the chart, the RTA, the spectrogram) gets the per-bin
/// correction, with the meter's weighting too when the displays are
/// weighted.
///
/// Threading: `prepare`, `prepareSpectrumCorrection` and `requestReset` on
/// the main thread (the first two while the analysis queue is idle);
/// `measure`, `correctSpectrum`, `captureStopped`, `skipGap` and `finish` on
/// the analysis queue; `levels`,
/// `energy`, `hasLevels` and `logFailed` from any thread (atomics, each
/// figure read on its own: a display may mix figures of two neighbouring
/// intervals).
class SoundLevelMonitor {
public:
    /// Running totals for a calibration window: the mean square of the
    /// weighted signal over a stretch is the difference of two readings.
    struct Energy {
        double sumSquares = 0.0;
        int64_t samples = 0;
    };

    /// `defaults` must outlive the monitor.
    explicit SoundLevelMonitor(AnalyzerDefaults& defaults);

    /// The per-bin tables for the document's rate and FFT size: loads the
    /// device's calibration file (one that has become unreadable since it was
    /// chosen is left out, with a warning in the log) and the meter's weighting.
    void prepareSpectrumCorrection();
    /// For a new recording: the tables, the weighted meter from zero, and the
    /// level log when it is on (one that cannot be opened is left out and
    /// `logError` says why).
    void prepare();
    /// The recording ended: closes the level log (queued behind its last interval).
    void finish();
    /// Leq, the maxima and the peak start again (at the next interval).
    void requestReset() { resetRequested_.store(true, std::memory_order_release); }

    /// Feeds the `count` new samples of one live interval, whose power
    /// spectrum (`bins` values, before correction) is `power`. Analysis queue.
    void measure(const float* samples, int64_t count, const float* power, int32_t bins);
    /// Capture stopped at wall-clock `lostAtMs`: the period under way is
    /// written as it is, then a "capture stopped" line. Analysis queue.
    void captureStopped(int64_t lostAtMs, CaptureGaps::Cause cause);
    /// `count` samples of the gap `gap` stand where live samples would: they
    /// are not measured, but the log's time moves on over them; the first
    /// interval of a gap writes the "capture resumed" line. Analysis queue.
    void skipGap(int64_t count, const CaptureGaps::Gap& gap);
    /// Applies the per-bin display correction to `power` in place. Analysis queue.
    void correctSpectrum(float* power, int32_t bins) const;

    /// The newest figures in dB re full scale (add the SPL offset for dB SPL).
    SoundLevels levels() const;
    Energy energy() const;
    /// Figures are published: a recording has fed at least one interval since `prepare`.
    bool hasLevels() const { return published_.load(std::memory_order_acquire); }
    /// A write to the level log failed during this recording.
    bool logFailed() const { return logFailed_.load(std::memory_order_acquire); }
    const QString& logPath() const { return log_.path(); }
    /// Main thread, after `prepare`.
    const QString& logError() const { return logError_; }

private:
    AnalyzerDefaults& defaults_;
    SoundLevelMeter meter_;
    LevelLog log_;
    QString logError_;
    // Per-bin power factors: the calibration alone, the meter's weighting, and
    // what the displays get (empty: none).
    std::vector<float> calibrationPower_;
    std::vector<float> weightingPower_;
    std::vector<float> displayPower_;
    double logPeriodSeconds_ = 1.0;
    double logOffset_ = 0.0;
    int64_t samplesFed_ = 0;
    int64_t nextLogSample_ = 0;
    int64_t periodStartSample_ = 0;
    double stoppedAtSeconds_ = -1.0; ///< of the newest "capture stopped" line; -1: none
    int64_t loggedGapStart_ = -1;    ///< the gap whose "capture resumed" line is written
    double sampleRate_ = 48000.0;
    std::atomic<bool> resetRequested_{false};
    std::atomic<bool> published_{false};
    std::atomic<bool> logFailed_{false};
    std::atomic<double> fast_{0.0}, slow_{0.0}, leq_{0.0}, maxFast_{0.0}, maxSlow_{0.0}, peak_{0.0},
        seconds_{0.0};
    std::atomic<int32_t> weighting_{0}; // of the recording's meter, for the names shown
    std::atomic<double> sumSquares_{0.0};
    std::atomic<int64_t> samples_{0};
};

} // namespace widmo
