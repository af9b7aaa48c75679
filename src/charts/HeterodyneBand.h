#pragma once

#include <QString>

#include <optional>

namespace widmo {

class AnalyzerDefaults;

/// The band a heterodyne listener hears, as the charts show it and the mouse
/// over the spectrogram tunes it: a tone at f heard at |f - f0| when it lies
/// within the audio band B of the tuning f0, so the band drawn is f0 - B to
/// f0 + B.
///
/// Tuning steps: a wheel notch moves the tuning by 1 kHz, with Shift by 100 Hz.
/// 1 kHz is under half the narrowest band (2.5 kHz), so a call being listened
/// to stays in the band while the tuning moves through it; 100 Hz is the
/// resolution of the "Tuned to" field and a pitch step of the heard tone that
/// the ear still tells apart. A click sets the tuning to the nearest 100 Hz for
/// the same reason. Tunings stay between 0 and half the rate less the band,
/// as the settings field allows, so the band never reaches past the Nyquist
/// frequency (with B = 5 kHz: 91 kHz at 192 kHz, 43 kHz at 96 kHz).
///
/// Threading: stateless; main thread (it reads the document's settings).
class HeterodyneBand {
public:
    HeterodyneBand() = delete;

    static constexpr double kCoarseStepHz = 1000.0;
    static constexpr double kFineStepHz = 100.0;

    /// Heterodyne listening is on: the product listens, the listening switch
    /// is on and its mode is the heterodyne.
    static bool isOn(const AnalyzerDefaults& defaults);
    /// `hz` clamped to 0 .. rate / 2 - band and rounded to `kFineStepHz`.
    static double clampTuning(const AnalyzerDefaults& defaults, double hz);
    /// Stores `hz` (clamped) as the tuning; returns the tuning stored.
    static double setTuning(AnalyzerDefaults& defaults, double hz);

    /// Content coordinate (0 .. 1 along the frequency axis, linear or
    /// logarithmic as the document's axis is) of `hz`; the axis runs from 0
    /// (logarithmic: from its start frequency) to the document's top frequency.
    static double contentOfFrequency(const AnalyzerDefaults& defaults, double hz);
    /// The frequency at content coordinate `content` (inverse of the above).
    static double frequencyOfContent(const AnalyzerDefaults& defaults, double content);

    /// The band in content coordinates, and its label.
    struct Span {
        double low = 0.0;  ///< content coordinate of f0 - B (may lie below 0)
        double high = 0.0; ///< content coordinate of f0 + B (may lie above 1)
        QString label;     ///< the tuning, "45.0 kHz"
    };
    /// The band to draw; none while heterodyne listening is off or the
    /// document has no frequency axis yet.
    static std::optional<Span> span(const AnalyzerDefaults& defaults);
    static QString label(double hz);
};

} // namespace widmo
