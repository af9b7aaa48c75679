#include "batch/BatchSettings.h"

#include "core/AnalyzerDefaults.h"

namespace widmo {

BatchSettings BatchSettings::systemDefaults() {
    // A store the tool never writes: every setting keeps its built-in default.
    const AnalyzerDefaults d(AnalyzerFeatures::studioProduct(), QStringLiteral("widmo-analyze"));
    BatchSettings s;
    s.fftSize = d.fftSize();
    s.fftWindowType = d.fftWindowType();
    s.intervalSizePower = d.intervalSizePower();
    s.rows = d.fftDisplaySize();
    s.minimumLevelDB = d.spectrogramValuesInDBMinimumLevelDB();
    s.colorType = d.spectrogramColorType();
    return s;
}

} // namespace widmo
