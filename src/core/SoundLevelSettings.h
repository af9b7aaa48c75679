#pragma once

#include <QString>
#include <QVariant>

#include <atomic>
#include <cstdint>
#include <optional>

namespace widmo {

/// The settings of sound-level measurement: the meter's frequency weighting
/// (Z, A or C) and time weighting (Fast or Slow), whether the spectrum, RTA
/// and spectrogram show the weighting too, the level log, and per input
/// device its microphone calibration file and SPL offset (the dB SPL that
/// 0 dBFS stands for), remembered by device name.
///
/// Stored in the settings store under keys of their own ("soundLevels.…";
/// per device "soundLevels.device.<name>.…"); values a user cannot set fall
/// back to their defaults.
///
/// Threading: the main thread sets values; the engine copies what it needs
/// when a recording starts. The SPL offset is an atomic because the display
/// and the level log read it while a calibration may change it.
class SoundLevelSettings {
public:
    /// Frequency weighting values, as `Weighting` in the DSP library.
    static constexpr int32_t kWeightingZ = 0;
    static constexpr int32_t kWeightingA = 1;
    static constexpr int32_t kWeightingC = 2;
    static constexpr double kMinLogPeriod = 0.1;
    static constexpr double kMaxLogPeriod = 60.0;

    /// Reads the stored values of the store `storeName` (see `SettingsStore`).
    explicit SoundLevelSettings(const QString& storeName = QString());

    int32_t weighting() const { return weighting_; }
    void setWeighting(int32_t weighting);
    /// False: Fast (125 ms); true: Slow (1 s).
    bool slow() const { return slow_; }
    void setSlow(bool slow);
    /// The spectrum, RTA and spectrogram show the meter's weighting per bin.
    bool weightDisplays() const { return weightDisplays_; }
    void setWeightDisplays(bool on);

    bool logEnabled() const { return logEnabled_; }
    void setLogEnabled(bool on);
    /// Seconds per line of the level log, 0.1 to 60.
    double logPeriod() const { return logPeriod_; }
    void setLogPeriod(double seconds);
    QString logPath() const { return logPath_; }
    void setLogPath(const QString& path);

    /// The input device whose calibration applies; loads its stored values.
    QString device() const { return device_; }
    void setDevice(const QString& device);
    /// The device's calibration file; empty for none.
    QString calibrationFile() const { return calibrationFile_; }
    void setCalibrationFile(const QString& path);
    /// dB SPL of 0 dBFS for the device; empty while not calibrated.
    std::optional<double> splOffset() const;
    void setSplOffset(std::optional<double> offset);
    /// The calibrator's level in dB SPL that "Calibrate…" offers (94 by default).
    double calibratorLevel() const { return calibratorLevel_; }
    void setCalibratorLevel(double level);

    /// The unit of a level with the meter's weighting: "dBFS" without an
    /// offset; "dB SPL", "dBA" or "dBC" with one.
    QString unit() const;
    /// The unit of the spectrum's, RTA's and spectrogram's levels: "dBFS"
    /// without an offset; with one "dBA" or "dBC" when the displays are
    /// weighted, else "dB SPL".
    QString spectrumUnit() const;
    /// The offset the spectrum's levels take (0 without one).
    double spectrumOffset() const { return splOffset().value_or(0.0); }
    /// "%.1f <spectrumUnit>" of a spectrum level in dB re full scale, or
    /// "%.1f dB" without an offset (as the analyser always wrote it).
    QString spectrumLevelText(double levelDB) const;
    /// The letter of the weighting in level names: "Z", "A" or "C".
    QString weightingLetter() const;
    /// The same two for a given weighting, with or without an offset.
    static QString unitFor(int32_t weighting, bool calibrated);
    static QString letterFor(int32_t weighting);

private:
    void save(const QString& key, const QVariant& value) const;
    /// The stored values of `device`, without saving it as the current one.
    void loadDevice(const QString& device);
    QString deviceKey(const char* name) const;

    QString storeName_;
    int32_t weighting_ = kWeightingZ;
    bool slow_ = false;
    bool weightDisplays_ = false;
    bool logEnabled_ = false;
    double logPeriod_ = 1.0;
    QString logPath_;
    QString device_;
    QString calibrationFile_;
    std::atomic<bool> hasOffset_{false};
    std::atomic<double> offset_{0.0};
    double calibratorLevel_ = 94.0;
};

} // namespace widmo
