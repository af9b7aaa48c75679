#include "batch/LevelRecorder.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace widmo {

namespace {

constexpr double kFloorDB = -144.0;

QByteArray number(double v, int decimals) { return QByteArray::number(v, 'f', decimals); }

char weightingLetter(Weighting w) {
    return w == Weighting::A ? 'a' : w == Weighting::C ? 'c' : 'z';
}

} // namespace

LevelRecorder::LevelRecorder(const BatchSettings& settings, double sampleRate)
    : settings_(settings) {
    meter_.prepare(sampleRate, settings.weighting);
    periodFrames_ = settings.levelsPeriod > 0.0
                        ? std::max<int64_t>(1, std::llround(settings.levelsPeriod * sampleRate))
                        : std::numeric_limits<int64_t>::max();
    periodEnd_ = periodFrames_;
}

void LevelRecorder::process(const float* samples, int64_t count, double correction) {
    meter_.setPowerCorrection(correction);
    while (count > 0) {
        const int64_t n = std::min(count, periodEnd_ - position_);
        meter_.process(samples, n);
        samples += n;
        count -= n;
        position_ += n;
        if (position_ == periodEnd_) {
            periods_.push_back(meter_.takePeriod());
            periodEnd_ += periodFrames_;
        }
    }
}

void LevelRecorder::finish() {
    if (settings_.levelsPeriod > 0.0 && position_ > periodEnd_ - periodFrames_)
        periods_.push_back(meter_.takePeriod());
    levels_ = meter_.levels();
}

QByteArray LevelRecorder::csv() const {
    const char w = weightingLetter(settings_.weighting);
    const bool spl = settings_.splOffsetDB.has_value();
    const double offset = settings_.splOffsetDB.value_or(0.0);
    const QByteArray unit = spl ? QByteArray("db") + w : QByteArray("dbfs_") + w;
    const QByteArray peakUnit = spl ? "dbc" : "dbfs_c";
    QByteArray out = "start_s,leq_" + unit + ",max_fast_" + unit + ",max_slow_" + unit + ",peak_" +
                     peakUnit + "\n";
    const auto level = [&](double v) { return number(std::max(kFloorDB, v) + offset, 3); };
    double start = 0.0;
    for (const PeriodLevels& p : periods_) {
        out += number(start, 3) + ',' + level(p.leq) + ',' + level(p.maxFast) + ',' +
               level(p.maxSlow) + ',' + level(p.peak) + '\n';
        start += p.seconds;
    }
    return out;
}

QByteArray LevelRecorder::json() const {
    const QByteArray w(1, weightingLetter(settings_.weighting));
    const QByteArray unit = settings_.splOffsetDB ? "_db_spl" : "_dbfs";
    const double offset = settings_.splOffsetDB.value_or(0.0);
    const auto level = [&](double v) { return number(std::max(kFloorDB, v) + offset, 3); };
    return ",\"l" + w + "eq" + unit + "\":" + level(levels_.leq) + ",\"l" + w + "fmax" + unit +
           "\":" + level(levels_.maxFast) + ",\"l" + w + "smax" + unit +
           "\":" + level(levels_.maxSlow) + ",\"lcpeak" + unit + "\":" + level(levels_.peak);
}

} // namespace widmo
