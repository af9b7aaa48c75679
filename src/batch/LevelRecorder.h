#pragma once

#include "batch/BatchSettings.h"
#include "dsp/SoundLevelMeter.h"

#include <QByteArray>

#include <cstdint>
#include <vector>

namespace widmo {

/// The batch command's sound levels: a `SoundLevelMeter` fed the whole
/// signal in order, cut into periods of `levelsPeriod` seconds (the last one
/// may be shorter), and the levels CSV and summary keys made from them.
///
/// Threading: one thread at a time, samples in stream order.
class LevelRecorder {
public:
    LevelRecorder(const BatchSettings& settings, double sampleRate);

    /// The next `count` samples, their power scaled by `correction` (a
    /// calibration's factor on the weighted power; 1 without one).
    void process(const float* samples, int64_t count, double correction);
    /// After the last sample: ends the last period.
    void finish();

    /// "start_s" and the period's Leq, maximum Fast and Slow and C peak, one
    /// line per period; column names carry the unit and weighting.
    QByteArray csv() const;
    /// The summary's level keys, each preceded by a comma: LWeq, LWFmax,
    /// LWSmax and LCpeak over the whole signal.
    QByteArray json() const;

private:
    BatchSettings settings_;
    SoundLevelMeter meter_;
    int64_t position_ = 0;
    int64_t periodFrames_ = 0;
    int64_t periodEnd_ = 0;
    std::vector<PeriodLevels> periods_;
    SoundLevels levels_;
};

} // namespace widmo
