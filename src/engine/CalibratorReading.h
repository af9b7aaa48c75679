#pragma once

#include "dsp/SoundLevelMeter.h"
#include "engine/SoundLevelMonitor.h"

#include <QString>

#include <optional>

namespace widmo {

/// What "Calibrate…" measures: the sound level meter's readings taken while
/// a calibrator sits on the microphone, and from them the SPL offset that
/// makes the reading equal the calibrator's level.
///
/// The level is the mean square over the whole window (about 3 s of
/// readings, one every 100 ms). The reading is refused when the input is not
/// a steady tone: the Fast level moves by more than 1 dB over the window, or
/// the peak stands more than 1.5 dB away from the 3 dB above the RMS level
/// that a sine has; and, when the input already has an offset, when the
/// reading it gives is more than 20 dB away from the calibrator's level
/// (a wrong calibrator level or another microphone).
///
/// Threading: main thread only.
class CalibratorReading {
public:
    struct Result {
        std::optional<double> offset; ///< dB SPL of 0 dBFS; empty when refused
        double measuredDB = 0.0;      ///< the window's level in dB re full scale
        QString message;              ///< why it was refused, for the user
    };

    /// The first reading opens the window.
    void add(const SoundLevelMonitor::Energy& energy, const SoundLevels& levels);
    /// Seconds of signal the window covers so far.
    double seconds(double sampleRate) const;
    /// The offset for a calibrator of `calibratorDB` dB SPL; `currentOffset`
    /// is the input's offset before this calibration, if any.
    Result result(double calibratorDB, std::optional<double> currentOffset) const;

private:
    bool started_ = false;
    SoundLevelMonitor::Energy first_;
    SoundLevelMonitor::Energy last_;
    double minFast_ = 0.0;
    double maxFast_ = 0.0;
    double maxPeak_ = -1e300;
};

} // namespace widmo
