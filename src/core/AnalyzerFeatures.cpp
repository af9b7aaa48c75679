#include "core/AnalyzerFeatures.h"

#include <optional>

namespace widmo {

namespace {

std::optional<AnalyzerFeatures>& chosenRecord() {
    static std::optional<AnalyzerFeatures> record;
    return record;
}

bool sharedRecordCreated = false;

} // namespace

AnalyzerFeatures AnalyzerFeatures::spectrumProduct() {
    Switches s;
    s.featureSpectrumEnabled = true;
    s.featureLevelMeterEnabled = true;
    s.featureSampleRatesStdEnabled = true;
    s.featureSampleRate96Enabled = true;
    return AnalyzerFeatures(s);
}

AnalyzerFeatures AnalyzerFeatures::studioProduct() {
    Switches s;
    s.featureOscilloscopeEnabled = true;
    s.featureSpectrumEnabled = true;
    s.featureOctaveRTAEnabled = true;
    s.featureSpectrogramEnabled = true;
    s.featureLevelMeterEnabled = true;
    s.featurePlayback = true;
    s.featureRecordTrig = true;
    s.featureImportExportAudio = true;
    s.featureTranspositionEnabled = true;
    s.featureSampleRatesStdEnabled = true;
    s.featureSampleRate96Enabled = true;
    s.featureUltrasonicEnabled = true;
    s.featureResolutionEnabled = true;
    s.featureHighResolution = true;
    return AnalyzerFeatures(s);
}

AnalyzerFeatures AnalyzerFeatures::voiceProduct() {
    Switches s;
    s.featureOscilloscopeEnabled = true;
    s.featureSpectrumEnabled = true;
    s.featureLevelMeterEnabled = true;
    s.featureSampleRatesStdEnabled = true;
    s.featureSampleRate96Enabled = true;
    s.featureVoiceEGG = true;
    return AnalyzerFeatures(s);
}

bool AnalyzerFeatures::selectProduct(const AnalyzerFeatures& features) {
    if (sharedRecordCreated)
        return false;
    chosenRecord() = features;
    return true;
}

const AnalyzerFeatures& AnalyzerFeatures::sharedFeatures() {
    auto& record = chosenRecord();
    if (!record)
        record = spectrumProduct();
    sharedRecordCreated = true;
    return *record;
}

bool AnalyzerFeatures::featureSecondChartEnabled() const {
    return s_.featureSpectrumEnabled || s_.featureOscilloscopeEnabled || s_.featureOctaveRTAEnabled;
}

bool AnalyzerFeatures::featureSecondChartSelectionEnabled() const {
    if (s_.featureSpectrumEnabled && s_.featureOscilloscopeEnabled)
        return true;
    if (s_.featureOscilloscopeEnabled && s_.featureOctaveRTAEnabled)
        return true;
    return s_.featureSpectrumEnabled && s_.featureOctaveRTAEnabled;
}

bool AnalyzerFeatures::featurePIPEnabled() const {
    return s_.featureSpectrogramEnabled && featureSecondChartEnabled();
}

bool AnalyzerFeatures::featureSampleRatesEnabled() const {
    return s_.featureSampleRatesStdEnabled || s_.featureUltrasonicEnabled;
}

} // namespace widmo
