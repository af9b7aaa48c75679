#pragma once

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "render/DeviceClass.h"

#include <QImage>
#include <QWidget>

#include <cmath>
#include <memory>
#include <numbers>
#include <optional>
#include <vector>

namespace widmo::test {

/// Every second chart and the level meter, without the spectrogram.
inline AnalyzerFeatures chartFeatures() {
    AnalyzerFeatures::Switches s;
    s.featureSpectrumEnabled = true;
    s.featureOsciloscopeEnabled = true;
    s.featureOctaveRTAEnabled = true;
    s.featureLevelMeterEnabled = true;
    s.featureSampleRatesStdEnabled = true;
    return AnalyzerFeatures(s);
}

/// A document at `sampleRate` with an FFT of `fftSize` (Hamming window) and
/// `bandsPerOctave` RTA bands, valid for drawing.
inline std::unique_ptr<AnalyzerDefaults>
makeDefaults(float sampleRate = 48000.0f, int32_t fftSize = 4096, int32_t bandsPerOctave = 6) {
    auto defaults = std::make_unique<AnalyzerDefaults>(chartFeatures(), "charts-test");
    defaults->setSampleRate(sampleRate);
    defaults->setFftSize(fftSize);
    defaults->setFftWindowType(2);
    defaults->setOctaveRTABandsPerOctave(bandsPerOctave);
    defaults->recalculateDocumentSettings();
    defaults->generateAllIndexes();
    defaults->setDataValid(true);
    defaults->setOctaveRTAValid(true);
    return defaults;
}

/// `fftSize` samples of a sine of `frequency` Hz and peak `amplitude`.
inline std::vector<float> sine(double frequency, double sampleRate, int32_t count,
                               double amplitude = 1.0) {
    std::vector<float> samples(static_cast<size_t>(count));
    for (int32_t n = 0; n < count; ++n)
        samples[static_cast<size_t>(n)] = static_cast<float>(
            amplitude * std::sin(2.0 * std::numbers::pi * frequency * n / sampleRate));
    return samples;
}

/// One interval's results from the real FFT engine.
struct Interval {
    float* window = nullptr;
    float* spectrum = nullptr;
};

inline Interval analyse(FFTManager& fft, const std::vector<float>& samples,
                        int64_t intervalIndex = 0) {
    Interval out;
    fft.przeliczFFTDlaIntervalIndex(intervalIndex, samples.data(), 0,
                                    static_cast<int32_t>(samples.size()), &out.window,
                                    &out.spectrum);
    return out;
}

/// The octave RTA bars' colour.
inline bool isBar(QRgb c) { return qBlue(c) > 150 && qBlue(c) > qRed(c) + 50 && qGreen(c) < 160; }

/// The spectrum curve's colour.
inline bool isGreen(QRgb c) { return qGreen(c) > 150 && qRed(c) < 100 && qBlue(c) < 100; }

/// Topmost row that `match` finds and the mean column of its pixels there.
inline std::optional<QPointF> topmost(const QImage& image, bool (*match)(QRgb)) {
    for (int y = 0; y < image.height(); ++y) {
        double sx = 0.0;
        int count = 0;
        for (int x = 0; x < image.width(); ++x)
            if (match(image.pixel(x, y))) {
                sx += x;
                ++count;
            }
        if (count > 0)
            return QPointF(sx / count, y);
    }
    return std::nullopt;
}

/// Content x of `frequency` on the logarithmic axis.
inline double logX(const AnalyzerDefaults& defaults, double frequency) {
    return std::log2(frequency / defaults.logStartFrequency()) / defaults.logIntervalDelta();
}

/// Line width margin of a chart's drawing (points).
inline double chartMargin(const QWidget* chart) { return DeviceClass::isPad(chart) ? 2.0 : 1.0; }

/// Pixel column of content x at zoom 1 in `chart`.
inline double chartColumn(const QWidget* chart, double x) {
    return chartMargin(chart) + x * (chart->width() - 2.0 * chartMargin(chart));
}

} // namespace widmo::test
