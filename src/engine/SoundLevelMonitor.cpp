#include "engine/SoundLevelMonitor.h"

#include "core/AnalyzerDefaults.h"
#include "dsp/MicrophoneCalibration.h"

#include <cmath>
#include <limits>

namespace widmo {

SoundLevelMonitor::SoundLevelMonitor(AnalyzerDefaults& defaults) : defaults_(defaults) {}

void SoundLevelMonitor::prepareSpectrumCorrection() {
    const SoundLevelSettings& settings = defaults_.soundLevels();
    sampleRate_ = static_cast<double>(defaults_.sampleRate());
    const auto weighting = static_cast<Weighting>(settings.weighting());
    const int32_t bins = defaults_.fftOutSize();
    const double binHz = sampleRate_ / static_cast<double>(defaults_.fftSize());
    calibrationPower_.clear();
    if (!settings.calibrationFile().isEmpty()) {
        QString error;
        const auto calibration = MicrophoneCalibration::load(settings.calibrationFile(), &error);
        if (!calibration)
            qWarning("%s", qPrintable(error));
        else if (bins > 0) {
            calibrationPower_.resize(static_cast<size_t>(bins));
            calibration->fillPowerFactors(calibrationPower_.data(), bins, binHz);
        }
    }
    weightingPower_.assign(static_cast<size_t>(std::max(bins, 0)), 1.0f);
    for (int32_t i = 0; i < bins; ++i) {
        const double db = FrequencyWeighting::nominalDB(weighting, i * binHz);
        weightingPower_[size_t(i)] = std::isfinite(db) ? float(std::pow(10.0, db / 10.0)) : 0.0f;
    }
    displayPower_.clear();
    const bool weighted = settings.weightDisplays() && weighting != Weighting::Z;
    if (!calibrationPower_.empty() || weighted) {
        displayPower_.assign(static_cast<size_t>(bins), 1.0f);
        for (size_t i = 0; i < displayPower_.size(); ++i) {
            if (!calibrationPower_.empty())
                displayPower_[i] *= calibrationPower_[i];
            if (weighted)
                displayPower_[i] *= weightingPower_[i];
        }
    }
}

void SoundLevelMonitor::prepare() {
    prepareSpectrumCorrection();
    const SoundLevelSettings& settings = defaults_.soundLevels();
    meter_.prepare(sampleRate_, static_cast<Weighting>(settings.weighting()));
    weighting_.store(settings.weighting(), std::memory_order_relaxed);
    samplesFed_ = 0;
    periodStartSample_ = 0;
    stoppedAtSeconds_ = -1.0;
    loggedGapStart_ = -1;
    resetRequested_.store(false, std::memory_order_release);
    published_.store(false, std::memory_order_release);
    logFailed_.store(false, std::memory_order_release);
    sumSquares_.store(0.0, std::memory_order_release);
    samples_.store(0, std::memory_order_release);
    // Nothing measured yet: silence, for anyone reading before the first interval.
    const double silence = -std::numeric_limits<double>::infinity();
    for (std::atomic<double>* figure : {&fast_, &slow_, &leq_, &maxFast_, &maxSlow_, &peak_})
        figure->store(silence, std::memory_order_relaxed);
    seconds_.store(0.0, std::memory_order_relaxed);

    logError_.clear();
    log_.close();
    const auto offset = settings.splOffset();
    logOffset_ = offset.value_or(0.0);
    logPeriodSeconds_ = settings.logPeriod();
    nextLogSample_ = std::max<int64_t>(1, std::llround(logPeriodSeconds_ * sampleRate_));
    if (settings.logEnabled() && !settings.logPath().isEmpty()) {
        const QString unit = settings.unit();
        const QString peakUnit = offset ? QStringLiteral("dBC") : QStringLiteral("dBFS");
        log_.open(settings.logPath(), settings.weightingLetter(), unit, peakUnit, &logError_);
    }
}

void SoundLevelMonitor::finish() { log_.close(); }

void SoundLevelMonitor::captureStopped(int64_t lostAtMs, CaptureGaps::Cause cause) {
    if (!log_.isOpen())
        return;
    // The period under way ends here: what was measured of it is kept.
    const double start = static_cast<double>(periodStartSample_) / sampleRate_;
    bool ok =
        samplesFed_ <= periodStartSample_ || log_.write(start, meter_.takePeriod(), logOffset_);
    stoppedAtSeconds_ = static_cast<double>(samplesFed_) / sampleRate_;
    ok = ok && log_.writeEvent(lostAtMs, stoppedAtSeconds_,
                               cause == CaptureGaps::Cause::SoundServer
                                   ? QStringLiteral("capture stopped: the sound server went away")
                                   : QStringLiteral("capture stopped: the input device went away"));
    periodStartSample_ = samplesFed_;
    nextLogSample_ = samplesFed_ + std::llround(logPeriodSeconds_ * sampleRate_);
    if (!ok) {
        logFailed_.store(true, std::memory_order_release);
        log_.close();
    }
}

void SoundLevelMonitor::skipGap(int64_t count, const CaptureGaps::Gap& gap) {
    if (gap.startFrame != loggedGapStart_) {
        loggedGapStart_ = gap.startFrame;
        const double seconds = static_cast<double>(gap.frames) / sampleRate_;
        const double stoppedAt = stoppedAtSeconds_ >= 0.0
                                     ? stoppedAtSeconds_
                                     : static_cast<double>(samplesFed_) / sampleRate_;
        stoppedAtSeconds_ = -1.0;
        if (log_.isOpen() &&
            !log_.writeEvent(
                gap.lostAtMs + std::llround(seconds * 1000.0), stoppedAt + seconds,
                QStringLiteral("capture resumed after %1 s").arg(seconds, 0, 'f', 3))) {
            logFailed_.store(true, std::memory_order_release);
            log_.close();
        }
    }
    samplesFed_ += count;
    periodStartSample_ = samplesFed_;
    nextLogSample_ = samplesFed_ + std::llround(logPeriodSeconds_ * sampleRate_);
}

void SoundLevelMonitor::measure(const float* samples, int64_t count, const float* power,
                                int32_t bins) {
    if (resetRequested_.exchange(false, std::memory_order_acq_rel)) {
        meter_.resetIntegration();
        periodStartSample_ = samplesFed_;
        nextLogSample_ = samplesFed_ + std::llround(logPeriodSeconds_ * sampleRate_);
    }
    if (!calibrationPower_.empty() && power != nullptr &&
        static_cast<size_t>(bins) == calibrationPower_.size()) {
        // The calibration's effect on this interval's weighted power.
        double plain = 0.0;
        double corrected = 0.0;
        for (int32_t i = 0; i < bins; ++i) {
            const double p = double(power[i]) * double(weightingPower_[size_t(i)]);
            plain += p;
            corrected += p * double(calibrationPower_[size_t(i)]);
        }
        meter_.setPowerCorrection(plain > 0.0 ? corrected / plain : 1.0);
    }
    // The log's periods end on sample boundaries inside the interval.
    int64_t done = 0;
    while (log_.isOpen() && samplesFed_ + (count - done) >= nextLogSample_) {
        const int64_t part = nextLogSample_ - samplesFed_;
        meter_.process(samples + done, part);
        done += part;
        samplesFed_ += part;
        const double start = static_cast<double>(periodStartSample_) / sampleRate_;
        if (!log_.write(start, meter_.takePeriod(), logOffset_)) {
            logFailed_.store(true, std::memory_order_release);
            log_.close();
        }
        periodStartSample_ = samplesFed_;
        nextLogSample_ = samplesFed_ + std::llround(logPeriodSeconds_ * sampleRate_);
    }
    meter_.process(samples + done, count - done);
    samplesFed_ += count - done;

    const SoundLevels l = meter_.levels();
    fast_.store(l.fast, std::memory_order_relaxed);
    slow_.store(l.slow, std::memory_order_relaxed);
    leq_.store(l.leq, std::memory_order_relaxed);
    maxFast_.store(l.maxFast, std::memory_order_relaxed);
    maxSlow_.store(l.maxSlow, std::memory_order_relaxed);
    peak_.store(l.peak, std::memory_order_relaxed);
    seconds_.store(l.seconds, std::memory_order_relaxed);
    const double meanSquare = std::isfinite(l.leq) ? 0.5 * std::pow(10.0, l.leq / 10.0) : 0.0;
    const auto n = static_cast<int64_t>(std::llround(l.seconds * sampleRate_));
    sumSquares_.store(meanSquare * static_cast<double>(n), std::memory_order_relaxed);
    samples_.store(n, std::memory_order_release);
    published_.store(true, std::memory_order_release);
}

void SoundLevelMonitor::correctSpectrum(float* power, int32_t bins) const {
    if (displayPower_.empty() || static_cast<size_t>(bins) != displayPower_.size())
        return;
    const float* factor = displayPower_.data();
    for (int32_t i = 0; i < bins; ++i)
        power[i] *= factor[i];
}

SoundLevels SoundLevelMonitor::levels() const {
    SoundLevels l;
    l.fast = fast_.load(std::memory_order_relaxed);
    l.slow = slow_.load(std::memory_order_relaxed);
    l.leq = leq_.load(std::memory_order_relaxed);
    l.maxFast = maxFast_.load(std::memory_order_relaxed);
    l.maxSlow = maxSlow_.load(std::memory_order_relaxed);
    l.peak = peak_.load(std::memory_order_relaxed);
    l.seconds = seconds_.load(std::memory_order_relaxed);
    l.weighting = static_cast<Weighting>(weighting_.load(std::memory_order_relaxed));
    return l;
}

SoundLevelMonitor::Energy SoundLevelMonitor::energy() const {
    Energy e;
    e.samples = samples_.load(std::memory_order_acquire);
    e.sumSquares = sumSquares_.load(std::memory_order_relaxed);
    return e;
}

} // namespace widmo
