#pragma once

#include "dsp/FrequencyWeighting.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace widmo {

class MicrophoneCalibration;

/// What the batch command computes for each file and with which analysis
/// settings. The defaults are the analyser's own (`systemDefaults`).
struct BatchSettings {
    // Analysis, in the analyser's own units.
    int32_t fftSize = 4096;         ///< power of two, 256..65536
    int32_t fftWindowType = 2;      ///< 0 rectangle, 1 Blackman, 2 Hamming, 3 Hann
    int32_t intervalSizePower = 4;  ///< hop = 2^power × the rate's ~1 ms interval, 0..4
    int32_t rows = 2048;            ///< spectrogram rows: 512, 1024, 2048 or 4096
    float minimumLevelDB = -107.0f; ///< level drawn in the lowest colour, < 0
    int32_t colorType = 0;          ///< 0 coloured, 1 black, 2 white
    bool logFrequency = false;      ///< logarithmic frequency axis of the spectrogram
    int32_t channel = 0;            ///< 0: mono mix of all channels; else 1-based channel

    // Outputs.
    bool spectrogram = false;   ///< PNG
    bool spectrum = false;      ///< average power spectrum CSV
    int32_t bandsPerOctave = 0; ///< band CSV with 1, 3, 6 or 12 bands per octave; 0: none
    bool summary = false;       ///< JSON line on standard output
    double levelsPeriod = 0.0;  ///< levels CSV with one line per this many seconds; 0: none
    /// Long spectrograms (with `spectrogram`): the whole recording in this
    /// many pixel columns, each the maximum (or with `poolMean` the mean
    /// power) of its FFTs; 0: one column per FFT.
    int32_t width = 0;
    bool poolMean = false;
    double tileSeconds = 0.0; ///< one image per stretch of this many seconds; 0: one image
    double ltsaSeconds = 0.0; ///< long-term spectral average per this many seconds; 0: none

    // Sound levels.
    Weighting weighting = Weighting::Z; ///< of Leq, Fast and Slow (the peak is always C)
    bool levelOptionGiven = false;      ///< --weighting, --levels, --spl-offset or --calibration
    std::optional<double> splOffsetDB;  ///< added to every level, which is then dB SPL
    /// Removed from the spectrum, bands, spectrogram and sound levels; none when null.
    std::shared_ptr<const MicrophoneCalibration> calibration;

    /// The analyser's defaults for every analysis setting (its built-in
    /// values, not a user's stored ones), no output chosen.
    static BatchSettings systemDefaults();
};

} // namespace widmo
