#include "charts/ChartLabels.h"

#include <cmath>
#include <cstdio>

namespace widmo {

namespace {

// C's printf rounding (an exact half rounds to even: 15.625 reads "15.62"),
// which the label texts are defined by; QString::asprintf rounds halves up.
template <typename... Args> QString cformat(const char* format, Args... args) {
    char text[64];
    std::snprintf(text, sizeof text, format, args...);
    return QString::fromLatin1(text);
}

} // namespace

const char* const ChartLabels::kTitleFrequencyLinear = "Frequency (kHz)";
const char* const ChartLabels::kTitleFrequencyLogarithmic = "Frequency (Hz)";
const char* const ChartLabels::kTitleValuesInDB = "SPL (dBFS)";
const char* const ChartLabels::kTitleAmplitude = "Amplitude (1.0 = max)";
const char* const ChartLabels::kTitleRMSSPL = "RMS (dBFS)";
const char* const ChartLabels::kTitleFFTWindow = "FFT Window (points)";

QStringList ChartLabels::dbLabels(double offset) {
    QStringList labels;
    for (int i = 0; i < kDBLabelsCount; ++i)
        labels << cformat("%.0f", -144.0 * (18 - i) / 18.0 + offset + 0.0); // "0", not "-0"
    return labels;
}

QStringList ChartLabels::linearGainLabels(float gainDB) {
    const double g = std::pow(10.0, gainDB / 20.0);
    QStringList labels;
    for (int k = 0; k < kLinearGainLabelsCount; ++k)
        labels << cformat("%.4f", (k / 20.0) / g);
    return labels;
}

QStringList ChartLabels::oscilloscopeAmplitudeLabels(float gainDB, bool negative) {
    const double g = std::pow(10.0, gainDB / 20.0);
    QStringList labels;
    for (int k = 0; k < kOscilloscopeAmplitudeLabelsCount; ++k)
        labels << cformat(negative ? "-%.4f" : "%.4f", (k / 10.0) / g);
    return labels;
}

QStringList ChartLabels::oscilloscopePointsLabels(int32_t fftSize) {
    QStringList labels;
    for (int k = 0; k < kOscilloscopePointsLabelsCount; ++k)
        labels << QString::number(k == 0 ? 1 : static_cast<int64_t>(k) * fftSize / 32);
    return labels;
}

QString ChartLabels::linearFrequencyLabel(int32_t k, float minValue) {
    const double kHz = k * static_cast<double>(minValue) / 1000.0;
    return minValue < 1000.0f ? cformat("%.1f", kHz) : cformat("%.0f  ", kHz);
}

QString ChartLabels::widestLinearFrequencyLabel(int32_t count, float minValue) {
    return linearFrequencyLabel(count, minValue);
}

std::vector<int32_t> ChartLabels::logaritmicFrequencies(float maxFrequency) {
    std::vector<int32_t> frequencies;
    int64_t step = 10;
    for (int64_t f = 20; static_cast<double>(f) <= maxFrequency; f += step) {
        frequencies.push_back(static_cast<int32_t>(f));
        if (f == step * 10)
            step *= 10;
    }
    return frequencies;
}

QString ChartLabels::logaritmicLabel(int32_t frequency) {
    return frequency < 1000 ? cformat("%d ", frequency) : cformat("%dk ", frequency / 1000);
}

QStringList ChartLabels::octaveRTALabels() {
    QStringList labels;
    for (int k = 0; k < kOctaveRTALabelsCount; ++k) {
        const double f = 15.625 * std::exp2(k);
        if (k < 2)
            labels << cformat("%.2f", f);
        else if (k == 2)
            labels << cformat("%.1f", f);
        else if (f < 1000.0)
            labels << cformat("%.0f", f);
        else
            labels << cformat("%.0fk", f / 1000.0);
    }
    return labels;
}

bool GainLabelDebounce::refresh(float gainDB) {
    if (gainDB < mLastGainDB || gainDB > mLastGainDB)
        ++mRefreshCounter;
    if (mRefreshCounter < kRefreshes)
        return false;
    mLastGainDB = gainDB;
    mRefreshCounter = 0;
    return true;
}

} // namespace widmo
