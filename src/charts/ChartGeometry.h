#pragma once

#include "render/AffineTransform.h"

#include <QPointF>

#include <cstdint>
#include <vector>

namespace widmo {

/// One grid line in chart content space (x, y from 0 to 1 before zoom) with
/// its width in pixels.
struct GridLine {
    QPointF p1;
    QPointF p2;
    float width = 1.0f;
};

/// Where the measuring cursor lands after snapping to the nearest data point.
struct MeasurePosition {
    double position = 0.0;  ///< x in content space
    int32_t index = 0;      ///< spectrum bin, band number or window point (from 0)
    double frequency = 0.0; ///< Hz (spectrum and RTA)
};

/// The arithmetic of the second chart's drawing: curve vertices, grid lines,
/// the cursor's snapping and the zoom limits. Plain functions, so that the
/// drawing code only hands their results to GL.
///
/// Threading: stateless; any thread.
class ChartGeometry {
public:
    ChartGeometry() = delete;

    /// Chart height of a level in dB: -144 dB at 0, 0 dB at 1.
    static double levelToY(double levelDB) { return levelDB / 144.0 + 1.0; }

    /// Pixel columns and rows of a frame: unit x lies on pixel column
    /// floor(x · perUnitX + offsetX), unit y on row floor(y · perUnitY + offsetY).
    struct PixelGrid {
        double perUnitX = 1.0;
        double offsetX = 0.0;
        double perUnitY = 1.0;
        double offsetY = 0.0;
        int32_t columns = 1; ///< columns 0 .. columns - 1 are on the frame
    };

    /// The pixels a one-pixel line strip of `count` vertices (x, y pairs in
    /// `xy`, x never decreasing) lights, as separate line segments with at most
    /// one per pixel column: in each column a vertical segment from the strip's
    /// lowest to its highest y between the column's edges, half a pixel longer
    /// at each end so that a flat run still lights its pixel; neighbouring
    /// columns that light one and the same single row become one horizontal
    /// segment. Columns off the frame are left out. Writes the segments' end
    /// points to `out`, which has room for 4 · `grid.columns` floats, and
    /// returns the vertex count. One primitive a column at most, whatever the
    /// number of points, costs a software rasterizer about half of what the
    /// strip itself does, and flat stretches cost one primitive each.
    static int32_t columnSpans(const float* xy, int32_t count, const PixelGrid& grid, float* out);

    /// Spectrum curve: `count` vertices (x, y pairs) into `xy`, mapped through
    /// `transform`. x = i / count on a linear axis, else `logPoints`[i]; y =
    /// value / 144 + 1 in dB, else `gain` · value. Vertex 0 then takes x = 0 and
    /// the y of vertex 1, so that the DC bin never shows and the curve starts at
    /// the left edge. `count` must be at least 2.
    static void spectrumPoints(const float* values, int32_t count, const float* logPoints,
                               bool linearFrequency, bool valuesInDB, float gain,
                               const AffineTransform& transform, float* xy);
    /// Oscilloscope trace: x = i / count, y = 0.5 + 0.5 · gain · sample.
    static void oscilloscopePoints(const float* samples, int32_t count, float gain,
                                   const AffineTransform& transform, float* xy);
    /// Normalised glottal cycle (values 0..1) in the middle 70 % of the height:
    /// x = k / count, y = 0.7 · value + 0.15.
    static void eggPoints(const float* cycle, int32_t count, const AffineTransform& transform,
                          float* xy);

    /// Spectrum grid, vertical lines: linear axis every `step`-th of `labelCount`
    /// labels `labelMinValue` Hz apart (a line's width decides the next line's:
    /// 2 after a whole frequency, else 1), or on the logarithmic axis 20, 30, ...,
    /// 100, 100 again (width 2), 200, ... up to `maxFrequency`; horizontal lines
    /// every 8 dB (dB mode) or every 0.05 (linear).
    static void spectrumGrid(bool linearFrequency, bool valuesInDB, double maxFrequency,
                             double logStartFrequency, double logIntervalDelta,
                             double labelMinValue, int32_t labelCount, int32_t step,
                             std::vector<GridLine>& out);
    /// Oscilloscope grid: 31 vertical lines at k/32 - 1/fftSize (even k wider),
    /// 19 horizontal at 0.05 steps (the zero line wider).
    static void oscilloscopeGrid(int32_t fftSize, std::vector<GridLine>& out);
    /// RTA grid: vertical lines at band centres (all bands with 1 or 3 bands per
    /// octave, every second with 6, every fourth with 12, none otherwise; wider
    /// at whole octaves); horizontal lines every 8 dB.
    static void octaveRTAGrid(int32_t bandsPerOctave, int32_t minIndex, int32_t maxIndex,
                              std::vector<GridLine>& out);

    /// Content coordinate along a frequency axis (spectrum x, spectrogram y)
    /// of `hz`: hz / `maxFrequency` on a linear axis, log2(hz / start) / delta
    /// on a logarithmic one (-1, below the axis, for hz <= 0). 0 without an axis.
    static double frequencyToContent(double hz, bool linearFrequency, double maxFrequency,
                                     double logStartFrequency, double logIntervalDelta);
    /// The frequency at a content coordinate (the inverse of the above).
    static double contentToFrequency(double content, bool linearFrequency, double maxFrequency,
                                     double logStartFrequency, double logIntervalDelta);

    /// Snaps a cursor at content x to the nearest spectrum bin.
    static MeasurePosition measureSpectrum(double x, bool linearFrequency, int32_t fftOutSize,
                                           double maxFrequency, double logStartFrequency,
                                           double logIntervalDelta);
    /// Snaps to the centre of the nearest band; `index` is the band number.
    static MeasurePosition measureOctaveRTA(double x, int32_t minIndex, int32_t maxIndex,
                                            const float* bandFrequencies);
    /// Snaps to the nearest window sample; `index` counts from 0.
    static MeasurePosition measureOscilloscope(double x, int32_t fftSize);

    /// Largest zoom of the chart view per axis (before the view's raise to 2):
    /// horizontal L / 3.5 on a tablet, L / 3 on a phone, with L by chart type
    /// (oscilloscope fftSize / 2048 · 33; RTA 14; spectrum: logarithmic
    /// `logLabelCount` · fftSize / 2048, linear `linearLabelCount`); vertical
    /// 90/19 on a tablet, 6 on a phone.
    static QPointF maxContentZoom(int32_t typeOfChart, bool linearFrequency, int32_t logLabelCount,
                                  int32_t linearLabelCount, int32_t fftSize, bool pad);
};

} // namespace widmo
