#include "dsp/SoundLevelMeter.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace widmo {

namespace {

// 10 log10(meanSquare / 0.5): a full-scale sine (mean square 0.5) reads 0 dB.
double levelDB(double meanSquare) {
    return meanSquare > 0.0 ? 10.0 * std::log10(2.0 * meanSquare)
                            : -std::numeric_limits<double>::infinity();
}

// 20 log10(|x| sqrt 2): a full-scale sine's peak reads +3.01 dB.
double peakDB(double absolute) {
    return absolute > 0.0 ? 20.0 * std::log10(absolute * std::numbers::sqrt2)
                          : -std::numeric_limits<double>::infinity();
}

} // namespace

void SoundLevelMeter::prepare(double sampleRate, Weighting weighting) {
    sampleRate_ = sampleRate;
    weighting_.prepare(weighting, sampleRate);
    peakWeighting_.prepare(Weighting::C, sampleRate);
    fastCoefficient_ = std::exp(-1.0 / (sampleRate * 0.125));
    slowCoefficient_ = std::exp(-1.0 / (sampleRate * 1.0));
    powerCorrection_ = 1.0;
    fastMeanSquare_ = 0.0;
    slowMeanSquare_ = 0.0;
    resetIntegration();
}

void SoundLevelMeter::resetIntegration() {
    sumSquares_ = 0.0;
    samples_ = 0;
    maxFastMeanSquare_ = 0.0;
    maxSlowMeanSquare_ = 0.0;
    peakAbs_ = 0.0;
    periodSumSquares_ = 0.0;
    periodSamples_ = 0;
    periodMaxFast_ = 0.0;
    periodMaxSlow_ = 0.0;
    periodPeakAbs_ = 0.0;
}

void SoundLevelMeter::process(const float* samples, int64_t count) noexcept {
    // C weighting serves both paths when it is the chosen one.
    const bool sharedC = weighting_.weighting() == Weighting::C;
    const double af = fastCoefficient_;
    const double as = slowCoefficient_;
    const double correction = powerCorrection_;
    for (int64_t start = 0; start < count; start += kChunk) {
        const int64_t n = std::min(kChunk, count - start);
        weighting_.process(samples + start, weighted_.data(), n);
        const float* c = weighted_.data();
        if (!sharedC) {
            peakWeighting_.process(samples + start, cWeighted_.data(), n);
            c = cWeighted_.data();
        }
        double fast = fastMeanSquare_;
        double slow = slowMeanSquare_;
        double maxFast = periodMaxFast_;
        double maxSlow = periodMaxSlow_;
        double sum = 0.0;
        float peak = 0.0f;
        for (int64_t i = 0; i < n; ++i) {
            const double y = weighted_[static_cast<size_t>(i)];
            const double e = y * y * correction;
            sum += e;
            fast = e + af * (fast - e);
            slow = e + as * (slow - e);
            maxFast = std::max(maxFast, fast);
            maxSlow = std::max(maxSlow, slow);
            peak = std::max(peak, std::abs(c[i]));
        }
        fastMeanSquare_ = fast;
        slowMeanSquare_ = slow;
        periodMaxFast_ = maxFast;
        periodMaxSlow_ = maxSlow;
        periodSumSquares_ += sum;
        periodSamples_ += n;
        periodPeakAbs_ = std::max(periodPeakAbs_, static_cast<double>(peak));
        // The whole-run figures follow the period's: the period never spans a reset.
        sumSquares_ += sum;
        samples_ += n;
        maxFastMeanSquare_ = std::max(maxFastMeanSquare_, maxFast);
        maxSlowMeanSquare_ = std::max(maxSlowMeanSquare_, maxSlow);
        peakAbs_ = std::max(peakAbs_, periodPeakAbs_);
    }
}

SoundLevels SoundLevelMeter::levels() const {
    SoundLevels l;
    l.fast = levelDB(fastMeanSquare_);
    l.slow = levelDB(slowMeanSquare_);
    l.leq = levelDB(samples_ > 0 ? sumSquares_ / static_cast<double>(samples_) : 0.0);
    l.maxFast = levelDB(maxFastMeanSquare_);
    l.maxSlow = levelDB(maxSlowMeanSquare_);
    l.peak = peakDB(peakAbs_);
    l.seconds = static_cast<double>(samples_) / sampleRate_;
    l.weighting = weighting_.weighting();
    return l;
}

PeriodLevels SoundLevelMeter::takePeriod() {
    PeriodLevels p;
    p.leq =
        levelDB(periodSamples_ > 0 ? periodSumSquares_ / static_cast<double>(periodSamples_) : 0.0);
    p.maxFast = levelDB(periodMaxFast_);
    p.maxSlow = levelDB(periodMaxSlow_);
    p.peak = peakDB(periodPeakAbs_);
    p.seconds = static_cast<double>(periodSamples_) / sampleRate_;
    periodSumSquares_ = 0.0;
    periodSamples_ = 0;
    periodMaxFast_ = 0.0;
    periodMaxSlow_ = 0.0;
    periodPeakAbs_ = 0.0;
    return p;
}

} // namespace widmo
