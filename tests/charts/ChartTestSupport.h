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
    s.featureOscilloscopeEnabled = true;
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
    fft.computeFFTForInterval(intervalIndex, samples.data(), 0,
                              static_cast<int32_t>(samples.size()), &out.window, &out.spectrum);
    return out;
}

/// The octave RTA bars' colour.
inline bool isBar(QRgb c) { return qBlue(c) > 150 && qBlue(c) > qRed(c) + 50 && qGreen(c) < 160; }

/// The spectrum curve's colour.
inline bool isGreen(QRgb c) { return qGreen(c) > 150 && qRed(c) < 100 && qBlue(c) < 100; }

/// The pixels of `region` (clipped to the image) that `match` finds: how many,
/// and their centre.
struct Pixels {
    int count = 0;
    QPointF centre;
};
template <typename Match> Pixels pixelsIn(const QImage& image, QRect region, Match match) {
    region = region.intersected(image.rect());
    Pixels p;
    double sx = 0.0;
    double sy = 0.0;
    for (int y = region.top(); y <= region.bottom(); ++y)
        for (int x = region.left(); x <= region.right(); ++x)
            if (match(image.pixel(x, y))) {
                sx += x;
                sy += y;
                ++p.count;
            }
    if (p.count > 0)
        p.centre = QPointF(sx / p.count, sy / p.count);
    return p;
}

/// Topmost row that `match` finds and the mean column of its pixels there.
inline std::optional<QPointF> topmost(const QImage& image, bool (*match)(QRgb)) {
    for (int y = 0; y < image.height(); ++y)
        if (const Pixels row = pixelsIn(image, QRect(0, y, image.width(), 1), match); row.count > 0)
            return row.centre;
    return std::nullopt;
}

/// Label ink: any light pixel.
inline bool isInk(QRgb c) { return qRed(c) > 40 && qGreen(c) > 40 && qBlue(c) > 40; }

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

/// Pixel row of content y at zoom 1 in `chart`.
inline double chartRow(const QWidget* chart, double y) {
    return chartMargin(chart) + (1.0 - y) * (chart->height() - 2.0 * chartMargin(chart));
}

} // namespace widmo::test
