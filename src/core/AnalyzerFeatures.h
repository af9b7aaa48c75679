#pragma once

namespace widmo {

/// The product switches: which capabilities this executable offers.
///
/// A record is fixed at construction and never changes. Each application's
/// `main` chooses its record once with `selectProduct` before anything calls
/// `sharedFeatures`; the library itself is the same for every product.
///
/// Threading: immutable after construction, so any thread may read it.
class AnalyzerFeatures {
public:
    /// The raw switch values, in declaration order.
    struct Switches {
        bool featureOscilloscopeEnabled = false;
        bool featureSpectrumEnabled = false;
        bool featureOctaveRTAEnabled = false;
        bool featureSpectrogramEnabled = false;
        bool featureLevelMeterEnabled = false;
        bool featurePlayback = false;
        bool featureRecordTrig = false;
        bool featureImportExportAudio = false;
        bool featureTranspositionEnabled = false;
        bool featureSampleRatesStdEnabled = false;
        bool featureSampleRate96Enabled = false;
        bool featureUltrasonicEnabled = false;
        bool featureResolutionEnabled = false;
        bool featureHighResolution = false;
        bool featureVoiceEGG = false;
    };

    explicit AnalyzerFeatures(const Switches& switches) : s_(switches) {}

    /// `widmo`: spectrum chart and level meter, standard rates and 96 kHz.
    static AnalyzerFeatures spectrumProduct();
    /// `widmo-studio`: every capability except the EGG mode.
    static AnalyzerFeatures studioProduct();
    /// `widmo-voice`: the EGG product.
    static AnalyzerFeatures voiceProduct();

    /// Chooses the record that `sharedFeatures` returns. Must be called from `main`
    /// before the first `sharedFeatures` call; a later call has no effect and
    /// returns false.
    static bool selectProduct(const AnalyzerFeatures& features);

    /// The process's product record; the `widmo` record unless `selectProduct`
    /// chose another first. The first call must come from the main thread.
    static const AnalyzerFeatures& sharedFeatures();

    bool featureOscilloscopeEnabled() const { return s_.featureOscilloscopeEnabled; }
    bool featureSpectrumEnabled() const { return s_.featureSpectrumEnabled; }
    bool featureOctaveRTAEnabled() const { return s_.featureOctaveRTAEnabled; }
    bool featureSpectrogramEnabled() const { return s_.featureSpectrogramEnabled; }
    bool featureLevelMeterEnabled() const { return s_.featureLevelMeterEnabled; }
    bool featurePlayback() const { return s_.featurePlayback; }
    bool featureRecordTrig() const { return s_.featureRecordTrig; }
    bool featureImportExportAudio() const { return s_.featureImportExportAudio; }
    bool featureTranspositionEnabled() const { return s_.featureTranspositionEnabled; }
    bool featureSampleRatesStdEnabled() const { return s_.featureSampleRatesStdEnabled; }
    bool featureSampleRate96Enabled() const { return s_.featureSampleRate96Enabled; }
    bool featureUltrasonicEnabled() const { return s_.featureUltrasonicEnabled; }
    bool featureResolutionEnabled() const { return s_.featureResolutionEnabled; }
    bool featureHighResolution() const { return s_.featureHighResolution; }
    bool featureVoiceEGG() const { return s_.featureVoiceEGG; }

    /// Spectrum, oscilloscope or octave RTA is available as the second chart.
    bool featureSecondChartEnabled() const;
    /// The user can choose between at least two second charts.
    bool featureSecondChartSelectionEnabled() const;
    /// Spectrogram and second chart can be shown together.
    bool featurePIPEnabled() const;
    /// Some sample rate can be chosen.
    bool featureSampleRatesEnabled() const;

private:
    Switches s_;
};

} // namespace widmo
