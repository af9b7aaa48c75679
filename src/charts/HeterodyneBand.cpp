#include "charts/HeterodyneBand.h"

#include "charts/ChartGeometry.h"

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/Heterodyne.h"

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

constexpr int32_t kHeterodyneMode = 1; // listeningMode: 0 transposition, 1 heterodyne

} // namespace

bool HeterodyneBand::isOn(const AnalyzerDefaults& defaults) {
    return defaults.features().featureTranspositionEnabled() &&
           defaults.recordingTranspositionOn() && defaults.listeningMode() == kHeterodyneMode;
}

double HeterodyneBand::clampTuning(const AnalyzerDefaults& defaults, double hz) {
    const double highest = Heterodyne::highestTuning(static_cast<int32_t>(defaults.sampleRate()),
                                                     defaults.heterodyneBandHz());
    // Rounded down at the top, so that the band still fits.
    const double top = std::floor(highest / kFineStepHz) * kFineStepHz;
    return std::clamp(std::round(hz / kFineStepHz) * kFineStepHz, 0.0, top);
}

double HeterodyneBand::setTuning(AnalyzerDefaults& defaults, double hz) {
    const double tuning = clampTuning(defaults, hz);
    defaults.setHeterodyneTuningHz(static_cast<float>(tuning));
    return tuning;
}

double HeterodyneBand::contentOfFrequency(const AnalyzerDefaults& defaults, double hz) {
    return ChartGeometry::frequencyToContent(hz, defaults.linearFrequency(),
                                             defaults.maxFrequency(), defaults.logStartFrequency(),
                                             defaults.logIntervalDelta());
}

double HeterodyneBand::frequencyOfContent(const AnalyzerDefaults& defaults, double content) {
    return ChartGeometry::contentToFrequency(content, defaults.linearFrequency(),
                                             defaults.maxFrequency(), defaults.logStartFrequency(),
                                             defaults.logIntervalDelta());
}

std::optional<HeterodyneBand::Span> HeterodyneBand::span(const AnalyzerDefaults& defaults) {
    if (!isOn(defaults) || defaults.maxFrequency() <= 0.0f)
        return std::nullopt;
    const double tuning = clampTuning(defaults, defaults.heterodyneTuningHz());
    const double band = defaults.heterodyneBandHz();
    return Span{contentOfFrequency(defaults, tuning - band),
                contentOfFrequency(defaults, tuning + band), label(tuning)};
}

QString HeterodyneBand::label(double hz) { return QString::asprintf("%.1f kHz", hz / 1000.0); }

} // namespace widmo
