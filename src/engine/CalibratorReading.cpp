#include "engine/CalibratorReading.h"

#include <algorithm>
#include <cmath>

namespace widmo {
namespace {

constexpr double kMaxFastSpreadDB = 1.0;
// A sine's peak stands 3.01 dB above its RMS level.
constexpr double kSineCrestDB = 3.0103;
constexpr double kCrestToleranceDB = 1.5;
constexpr double kMaxDistanceDB = 20.0;

} // namespace

void CalibratorReading::add(const SoundLevelMonitor::Energy& energy, const SoundLevels& levels) {
    if (!started_) {
        started_ = true;
        first_ = energy;
        minFast_ = maxFast_ = levels.fast;
    }
    last_ = energy;
    minFast_ = std::min(minFast_, levels.fast);
    maxFast_ = std::max(maxFast_, levels.fast);
    maxPeak_ = std::max(maxPeak_, levels.peak);
}

double CalibratorReading::seconds(double sampleRate) const {
    if (!started_ || sampleRate <= 0.0)
        return 0.0;
    return static_cast<double>(last_.samples - first_.samples) / sampleRate;
}

CalibratorReading::Result CalibratorReading::result(double calibratorDB,
                                                    std::optional<double> currentOffset) const {
    Result r;
    const int64_t samples = last_.samples - first_.samples;
    const double sum = last_.sumSquares - first_.sumSquares;
    if (!started_ || samples <= 0 || !(sum > 0.0)) {
        r.message = QStringLiteral("No sound was measured. Put the calibrator on the microphone, "
                                   "start the analyser and try again.");
        return r;
    }
    r.measuredDB = 10.0 * std::log10(sum / static_cast<double>(samples) / 0.5);
    if (!(maxFast_ - minFast_ <= kMaxFastSpreadDB)) {
        r.message = QStringLiteral("The level was not steady (it moved by %1 dB). Calibrate with "
                                   "the calibrator's steady tone only.")
                        .arg(maxFast_ - minFast_, 0, 'f', 1);
        return r;
    }
    const double crest = maxPeak_ - r.measuredDB;
    if (!(std::abs(crest - kSineCrestDB) <= kCrestToleranceDB)) {
        r.message = QStringLiteral("The input is not a steady tone (its peak stands %1 dB above "
                                   "its level; a tone's stands 3 dB above). Calibrate with the "
                                   "calibrator's tone only.")
                        .arg(crest, 0, 'f', 1);
        return r;
    }
    if (currentOffset && std::abs(r.measuredDB + *currentOffset - calibratorDB) > kMaxDistanceDB) {
        r.message = QStringLiteral("The input reads %1 dB SPL, more than 20 dB away from the "
                                   "calibrator's %2 dB. Check the calibrator's level and that it "
                                   "sits on this input's microphone.")
                        .arg(r.measuredDB + *currentOffset, 0, 'f', 1)
                        .arg(calibratorDB, 0, 'f', 1);
        return r;
    }
    r.offset = calibratorDB - r.measuredDB;
    return r;
}

} // namespace widmo
