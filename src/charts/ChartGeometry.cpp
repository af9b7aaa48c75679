#include "charts/ChartGeometry.h"

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

inline void store(const AffineTransform& t, double x, double y, float* xy) {
    xy[0] = static_cast<float>(t.a * x + t.c * y + t.tx);
    xy[1] = static_cast<float>(t.b * x + t.d * y + t.ty);
}

void verticalLine(double x, float width, std::vector<GridLine>& out) {
    out.push_back({QPointF(x, 0.0), QPointF(x, 1.0), width});
}

void horizontalLine(double y, float width, std::vector<GridLine>& out) {
    out.push_back({QPointF(0.0, y), QPointF(1.0, y), width});
}

} // namespace

void ChartGeometry::spectrumPoints(const float* values, int32_t count, const float* logPoints,
                                   bool linearFrequency, bool valuesInDB, float gain,
                                   const AffineTransform& t, float* xy) {
    if (count < 2)
        return;
    const double invCount = 1.0 / count;
    // The two axis choices are hoisted out of the loop: this runs for up to
    // 32,768 bins every frame.
    if (valuesInDB) {
        for (int32_t i = 0; i < count; ++i) {
            const double x = linearFrequency ? i * invCount : static_cast<double>(logPoints[i]);
            store(t, x, values[i] * (1.0 / 144.0) + 1.0, xy + 2 * i);
        }
    } else {
        for (int32_t i = 0; i < count; ++i) {
            const double x = linearFrequency ? i * invCount : static_cast<double>(logPoints[i]);
            store(t, x, static_cast<double>(gain) * values[i], xy + 2 * i);
        }
    }
    // Bin 0 (DC) never shows: the curve starts at the left edge with the level
    // of the first real bin. On the logarithmic axis bin 0 lies at minus infinity.
    const double y1 =
        valuesInDB ? values[1] * (1.0 / 144.0) + 1.0 : static_cast<double>(gain) * values[1];
    store(t, 0.0, y1, xy);
}

int32_t ChartGeometry::columnSpans(const float* xy, int32_t count, const PixelGrid& grid,
                                   float* out) {
    const double perUnitX = grid.perUnitX;
    const double pixelOffset = grid.offsetX;
    const int32_t columns = grid.columns;
    if (count < 1 || perUnitX <= 0.0 || grid.perUnitY <= 0.0 || columns < 1)
        return 0;
    const double halfPixelY = 0.5 / grid.perUnitY;
    const auto unitX = [&](double pixel) {
        return static_cast<float>((pixel - pixelOffset) / perUnitX);
    };
    const auto rowOf = [&](double y) {
        return static_cast<int64_t>(std::floor(y * grid.perUnitY + grid.offsetY));
    };
    int32_t written = 0;
    const auto segment = [&](float x0, float y0, float x1, float y1) {
        float* v = out + 2 * written;
        v[0] = x0;
        v[1] = y0;
        v[2] = x1;
        v[3] = y1;
        written += 2;
    };
    // A run of neighbouring columns that each light only `runRow`, drawn as one
    // horizontal segment through the row's centre when it ends.
    int64_t runFirst = -1;
    int64_t runLast = -1;
    int64_t runRow = 0;
    const auto endRun = [&] {
        if (runFirst < 0)
            return;
        const auto y =
            static_cast<float>((static_cast<double>(runRow) + 0.5 - grid.offsetY) / grid.perUnitY);
        segment(unitX(static_cast<double>(runFirst)), y, unitX(static_cast<double>(runLast + 1)),
                y);
        runFirst = -1;
    };
    int64_t current = -2; // the column being gathered; -2: none yet
    double lo = 0.0;
    double hi = 0.0;
    const auto flush = [&] {
        if (current < 0 || current >= columns)
            return;
        const int64_t row = rowOf(lo);
        if (row == rowOf(hi)) {
            if (runFirst >= 0 && (runLast + 1 != current || runRow != row))
                endRun();
            if (runFirst < 0) {
                runFirst = current;
                runRow = row;
            }
            runLast = current;
            return;
        }
        endRun();
        const float x = unitX(static_cast<double>(current) + 0.5);
        segment(x, static_cast<float>(lo - halfPixelY), x, static_cast<float>(hi + halfPixelY));
    };
    const auto add = [&](int64_t column, double ya, double yb) {
        if (column != current) {
            flush();
            current = column;
            lo = std::min(ya, yb);
            hi = std::max(ya, yb);
        } else {
            lo = std::min({lo, ya, yb});
            hi = std::max({hi, ya, yb});
        }
    };
    const auto pixelX = [&](int32_t k) {
        return static_cast<double>(xy[2 * k]) * perUnitX + pixelOffset;
    };
    if (count == 1)
        add(static_cast<int64_t>(std::floor(pixelX(0))), xy[1], xy[1]);
    for (int32_t i = 0; i + 1 < count; ++i) {
        const double p0 = pixelX(i);
        const double p1 = pixelX(i + 1);
        const double y0 = xy[2 * i + 1];
        const double y1 = xy[2 * i + 3];
        const auto c0 = static_cast<int64_t>(std::floor(p0));
        const auto c1 = static_cast<int64_t>(std::floor(p1));
        if (c0 >= c1) {
            add(c0, y0, y1);
            continue;
        }
        // A segment across columns lights, in each, its part between the
        // column's edges; columns off the frame are passed over.
        const int64_t first = std::max<int64_t>(c0, -1);
        const int64_t last = std::min<int64_t>(c1, columns);
        const double slope = (y1 - y0) / (p1 - p0);
        for (int64_t c = first; c <= last; ++c) {
            const double xa = std::max(p0, static_cast<double>(c));
            const double xb = std::min(p1, static_cast<double>(c + 1));
            add(c, y0 + slope * (xa - p0), y0 + slope * (xb - p0));
        }
    }
    flush();
    endRun();
    return written;
}

void ChartGeometry::oscilloscopePoints(const float* samples, int32_t count, float gain,
                                       const AffineTransform& t, float* xy) {
    if (count < 1)
        return;
    const double invCount = 1.0 / count;
    for (int32_t i = 0; i < count; ++i)
        store(t, i * invCount, 0.5 + 0.5 * static_cast<double>(gain) * samples[i], xy + 2 * i);
}

void ChartGeometry::eggPoints(const float* cycle, int32_t count, const AffineTransform& t,
                              float* xy) {
    if (count < 1)
        return;
    const double invCount = 1.0 / count;
    for (int32_t k = 0; k < count; ++k)
        store(t, k * invCount, 0.7 * static_cast<double>(cycle[k]) + 0.15, xy + 2 * k);
}

void ChartGeometry::spectrumGrid(bool linearFrequency, bool valuesInDB, double maxFrequency,
                                 double logStartFrequency, double logIntervalDelta,
                                 double labelMinValue, int32_t labelCount, int32_t step,
                                 std::vector<GridLine>& out) {
    out.clear();
    if (linearFrequency) {
        if (maxFrequency > 0.0 && step >= 1) {
            // The width chosen at one line is the width of the following one.
            float width = 1.0f;
            for (int32_t i = 0; i < labelCount; i += step) {
                const double f = i * labelMinValue;
                verticalLine(f / maxFrequency, width, out);
                width = std::floor(f) < f ? 1.0f : 2.0f;
            }
        }
    } else if (maxFrequency >= 20.0 && logStartFrequency > 0.0 && logIntervalDelta > 0.0) {
        const auto xOf = [&](double f) {
            return std::log2(f / logStartFrequency) / logIntervalDelta;
        };
        int64_t stepHz = 10;
        for (int64_t f = 20; static_cast<double>(f) <= maxFrequency; f += stepHz) {
            verticalLine(xOf(static_cast<double>(f)), 1.0f, out);
            if (f == stepHz * 10) {
                // The decade line again, wider, as the first line of the next decade.
                verticalLine(xOf(static_cast<double>(f)), 2.0f, out);
                stepHz *= 10;
            }
        }
    }
    const double yStep = valuesInDB ? 1.0 / 18.0 : 0.05;
    for (int k = 1; k * yStep < 1.0; ++k)
        horizontalLine(k * yStep, 1.0f, out);
}

void ChartGeometry::oscilloscopeGrid(int32_t fftSize, std::vector<GridLine>& out) {
    out.clear();
    const double shift = fftSize > 0 ? 1.0 / fftSize : 0.0;
    for (int k = 1; k <= 31; ++k)
        verticalLine(k / 32.0 - shift, k % 2 == 0 ? 2.0f : 1.0f, out);
    for (int k = 1; k <= 19; ++k)
        horizontalLine(0.05 * k, k == 10 ? 2.0f : 1.0f, out);
}

void ChartGeometry::octaveRTAGrid(int32_t bandsPerOctave, int32_t minIndex, int32_t maxIndex,
                                  std::vector<GridLine>& out) {
    out.clear();
    const int32_t n = maxIndex + 1 - minIndex;
    int32_t every = 0;
    switch (bandsPerOctave) {
    case 1:
    case 3:
        every = 1;
        break;
    case 6:
        every = 2;
        break;
    case 12:
        every = 4;
        break;
    default:
        break; // no vertical lines
    }
    if (every > 0 && n > 0) {
        for (int32_t b = 0; b < n; ++b) {
            const int32_t band = b + minIndex;
            if (band % every != 0)
                continue;
            verticalLine((b + 0.5) / n, band % bandsPerOctave == 0 ? 2.0f : 1.0f, out);
        }
    }
    for (int k = 1; k / 18.0 < 1.0; ++k)
        horizontalLine(k / 18.0, 1.0f, out);
}

double ChartGeometry::frequencyToContent(double hz, bool linearFrequency, double maxFrequency,
                                         double logStartFrequency, double logIntervalDelta) {
    if (linearFrequency)
        return maxFrequency > 0.0 ? hz / maxFrequency : 0.0;
    if (logStartFrequency <= 0.0 || logIntervalDelta <= 0.0)
        return 0.0;
    return hz > 0.0 ? std::log2(hz / logStartFrequency) / logIntervalDelta : -1.0;
}

double ChartGeometry::contentToFrequency(double content, bool linearFrequency, double maxFrequency,
                                         double logStartFrequency, double logIntervalDelta) {
    if (linearFrequency)
        return content * maxFrequency;
    return logStartFrequency * std::exp2(content * logIntervalDelta);
}

MeasurePosition ChartGeometry::measureSpectrum(double x, bool linearFrequency, int32_t fftOutSize,
                                               double maxFrequency, double logStartFrequency,
                                               double logIntervalDelta) {
    MeasurePosition m;
    if (fftOutSize < 1 || maxFrequency <= 0.0)
        return m;
    const double n = fftOutSize;
    double f = 0.0;
    if (linearFrequency) {
        m.position = std::clamp(std::round(x * n) / n, 0.0, 1.0 - 1.0 / n);
        f = m.position * maxFrequency;
    } else {
        const double w = maxFrequency / n;
        f = std::exp2(x * logIntervalDelta) * logStartFrequency;
        // Bins 1 .. n-1: bin 0 has no place on a logarithmic axis.
        f = std::clamp(std::round(f / w), 1.0, n - 1.0) * w;
        m.position = std::log2(f / logStartFrequency) / logIntervalDelta;
    }
    m.frequency = f;
    m.index = static_cast<int32_t>(std::lround(f * n / maxFrequency));
    return m;
}

MeasurePosition ChartGeometry::measureOctaveRTA(double x, int32_t minIndex, int32_t maxIndex,
                                                const float* bandFrequencies) {
    MeasurePosition m;
    const int32_t n = maxIndex + 1 - minIndex;
    if (n < 1 || minIndex < 0)
        return m;
    const double h = 0.5 / n;
    m.position = std::clamp(h + std::round((x - h) * n) / n, h, 1.0 - h);
    m.index = std::min(static_cast<int32_t>(std::floor(n * m.position)), n - 1) + minIndex;
    m.frequency = bandFrequencies != nullptr ? bandFrequencies[m.index] : 0.0;
    return m;
}

MeasurePosition ChartGeometry::measureOscilloscope(double x, int32_t fftSize) {
    MeasurePosition m;
    if (fftSize < 1)
        return m;
    const double n = fftSize;
    m.position = std::clamp(std::round(x * n) / n, 0.0, 1.0 - 1.0 / n);
    m.index = static_cast<int32_t>(std::lround(n * m.position));
    return m;
}

QPointF ChartGeometry::maxContentZoom(int32_t typeOfChart, bool linearFrequency,
                                      int32_t logLabelCount, int32_t linearLabelCount,
                                      int32_t fftSize, bool pad) {
    double limit = 0.0;
    switch (typeOfChart) {
    case 1:
        limit = fftSize / 2048.0 * 33.0;
        break;
    case 2:
        limit = 14.0;
        break;
    default:
        limit = linearFrequency ? linearLabelCount : logLabelCount * (fftSize / 2048.0);
        break;
    }
    return pad ? QPointF(limit / 3.5, 90.0 / 19.0) : QPointF(limit / 3.0, 6.0);
}

} // namespace widmo
