#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>
#include <vector>

namespace widmo {

/// The texts of the second chart's axis labels and titles, and where each
/// label stands along its axis; `ChartView` turns them into textures.
///
/// Threading: stateless; any thread.
class ChartLabels {
public:
    ChartLabels() = delete;

    static constexpr int32_t kDBLabelsCount = 19;
    static constexpr int32_t kLinearGainLabelsCount = 21;
    static constexpr int32_t kOscilloscopeAmplitudeLabelsCount = 11;
    static constexpr int32_t kOscilloscopePointsLabelsCount = 33;
    static constexpr int32_t kOctaveRTALabelsCount = 14;

    static const char* const kTitleFrequencyLinear;      ///< "Frequency (kHz)"
    static const char* const kTitleFrequencyLogarithmic; ///< "Frequency (Hz)"
    static const char* const kTitleValuesInDB;           ///< "SPL (dBFS)"
    static const char* const kTitleAmplitude;            ///< "Amplitude (1.0 = max)"
    static const char* const kTitleRMSSPL;               ///< "RMS (dBFS)"
    static const char* const kTitleFFTWindow;            ///< "FFT Window (points)"

    /// -144 at index 0 up to 0 at index 18, one every 8 dB; label i stands at
    /// chart height i / 18.
    /// The level axis in dB; `offset` is added to each (dB SPL with a calibrated input).
    static QStringList dbLabels(double offset = 0.0);
    /// Amplitudes of the linear spectrum axis at heights k / 20 for a display
    /// gain of `gainDB`: (k / 20) / 10^(gainDB / 20), four decimals.
    static QStringList linearGainLabels(float gainDB);
    /// Oscilloscope amplitudes at heights 0.5 ± 0.05 k (k = 0..10):
    /// (k / 10) / 10^(gainDB / 20), with a leading "-" for the negative side.
    static QStringList oscilloscopeAmplitudeLabels(float gainDB, bool negative);
    /// Sample numbers at x = k / 32: k · fftSize / 32, except 1 at k = 0
    /// (samples are counted from 1).
    static QStringList oscilloscopePointsLabels(int32_t fftSize);
    /// Label k of the linear frequency axis (k · `minValue` Hz, shown in kHz:
    /// one decimal when `minValue` is below 1000 Hz, else whole kHz and two blanks).
    static QString linearFrequencyLabel(int32_t k, float minValue);
    /// The widest of those labels, the one for k = `count`.
    static QString widestLinearFrequencyLabel(int32_t count, float minValue);
    /// Frequencies of the logarithmic axis: 20, 30, ..., 100, 200, ..., 1000,
    /// 2000, ... while not above `maxFrequency` (none below 20 Hz).
    static std::vector<int32_t> logaritmicFrequencies(float maxFrequency);
    /// "%d " below 1000 Hz, "%dk " from 1000 Hz (whole kilohertz).
    static QString logaritmicLabel(int32_t frequency);
    /// Octave centres 15.625 · 2^k Hz, k = 0..13: "15.62", "31.25", "62.5",
    /// "125", "250", "500", "1k", ..., "128k".
    static QStringList octaveRTALabels();
};

/// Rebuilding the gain-dependent labels at most every 21st refresh while the
/// gain keeps changing (the user drags its slider), and once more after it
/// settles.
///
/// Threading: main thread only.
class GainLabelDebounce {
public:
    static constexpr int32_t kRefreshes = 21;

    /// `gainDB` is the gain the current labels were made for.
    explicit GainLabelDebounce(float gainDB = 0.0f) : mLastGainDB(gainDB) {}

    /// One refresh with the current gain: true when the labels must be made
    /// again now (the gain is then remembered and the count starts over).
    bool refresh(float gainDB);
    /// The labels were made for `gainDB` outside the debounce.
    void reset(float gainDB) {
        mLastGainDB = gainDB;
        mRefreshCounter = 0;
    }
    float lastGainDB() const { return mLastGainDB; }
    int32_t refreshCounter() const { return mRefreshCounter; }

private:
    float mLastGainDB;
    int32_t mRefreshCounter = 0;
};

} // namespace widmo
