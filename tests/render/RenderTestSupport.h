#pragma once

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"

#include <memory>

namespace widmo::test {

/// A spectrogram document (with the spectrum and the level meter) at 48 kHz:
/// 4096-point Hamming FFT, 2048 display rows (64-column segments), an eighth
/// of the default width so that it has a dozen segments, levels in dB down to
/// -120 dB in the first colour scheme; valid for drawing.
inline std::unique_ptr<AnalyzerDefaults> spectrogramDocument(bool linearFrequency = true) {
    AnalyzerFeatures::Switches s;
    s.featureSpectrogramEnabled = true;
    s.featureSpectrumEnabled = true;
    s.featureLevelMeterEnabled = true;
    s.featureSampleRatesStdEnabled = true;
    auto d = std::make_unique<AnalyzerDefaults>(AnalyzerFeatures(s), "spectrogram-test");
    d->setSampleRate(48000.0f);
    d->setFftSize(4096);
    d->setFftWindowType(2);
    d->setFftDisplaySize(2048);
    d->setSpectrogramWidthDivisor(8);
    d->setLinearFrequency(linearFrequency);
    d->setValuesInDB(true);
    d->setSpectrogramValuesInDBMinimumLevelDB(-120.0f);
    d->setSpectrogramColorType(0);
    d->recalculateDocumentSettings();
    d->generateAllIndexes();
    d->setDataValid(true);
    return d;
}

} // namespace widmo::test
