#include "charts/ChartGeometry.h"
#include "charts/ChartLabels.h"

#include "ChartTestSupport.h"
#include "TempSettings.h"

#include <cmath>
#include <random>
#include <vector>

namespace widmo {
namespace {

// --- Curve vertices ------------------------------------------------------------------

TEST(ChartGeometryTest, spectrumCurve_dcVertexTakesLeftEdgeAndLevelOfBin1) {
    const std::vector<float> db{-20.0f, -72.0f, -36.0f, -144.0f};
    const std::vector<float> logPoints{-INFINITY, 0.1f, 0.5f, 0.9f};
    std::vector<float> xy(8);
    // Zoomed twice and panned: the rule holds in content space, before the transform.
    const AffineTransform t{2.0, 0.0, 0.0, 1.0, -0.5, 0.0};
    for (bool linear : {false, true}) {
        ChartGeometry::spectrumPoints(db.data(), 4, logPoints.data(), linear, true, 1.0f, t,
                                      xy.data());
        EXPECT_FLOAT_EQ(xy[0], -0.5f) << linear;
        EXPECT_FLOAT_EQ(xy[1], 0.5f) << linear;
        EXPECT_FLOAT_EQ(xy[3], 0.5f) << linear;
        EXPECT_FLOAT_EQ(xy[2], linear ? 2.0f * 0.25f - 0.5f : 2.0f * 0.1f - 0.5f);
        EXPECT_FLOAT_EQ(xy[7], 0.0f); // -144 dB at the bottom
    }
    // Linear display: the gain scales the curve.
    const std::vector<float> magnitude{0.9f, 0.01f, 0.02f, 0.5f};
    ChartGeometry::spectrumPoints(magnitude.data(), 4, logPoints.data(), true, false, 10.0f,
                                  AffineTransform(), xy.data());
    EXPECT_FLOAT_EQ(xy[1], 0.1f);
    EXPECT_FLOAT_EQ(xy[5], 0.2f);
}

// --- Grids -----------------------------------------------------------------------------------

// A strip becomes at most one segment per pixel column (10 columns and 100 rows
// to a unit here): ten points a column keep their extremes, so a one-point spike
// keeps its height; a segment over several columns is cut at their edges; and
// neighbouring columns lighting one and the same row become one horizontal line.
TEST(ChartGeometryTest, columnSpans_atMostOneSegmentPerColumnCoveringTheStrip) {
    std::vector<float> xy;
    for (int i = 0; i < 100; ++i) // columns 0..9, ten points each, on row 50
        xy.insert(xy.end(), {(static_cast<float>(i) + 0.5f) / 100.0f, i == 37 ? 0.905f : 0.505f});
    xy.insert(xy.end(), {2.5f, 0.705f}); // then on to column 25, rising 20 rows
    const ChartGeometry::PixelGrid grid{10.0, 0.0, 100.0, 0.0, 40};
    std::vector<float> out(4 * 40);
    const int32_t n = ChartGeometry::columnSpans(xy.data(), 101, grid, out.data());
    // Columns 0..2 on row 50; column 3 from row 50 up to the spike's row 90;
    // columns 4..9 on row 50 again; then one vertical segment per column.
    ASSERT_EQ(n, 2 * (3 + 16));
    const auto expectSegment = [&](int k, std::array<float, 4> expected) {
        for (size_t i = 0; i < 4; ++i)
            EXPECT_NEAR(out[4 * size_t(k) + i], expected[i], 1e-6f) << "segment " << k;
    };
    expectSegment(0, {0.0f, 0.505f, 0.3f, 0.505f});
    expectSegment(1, {0.35f, 0.5f, 0.35f, 0.91f});
    expectSegment(2, {0.4f, 0.505f, 1.0f, 0.505f});
    // From (9.95, 0.505) to (25, 0.705): column 17 holds x 17..18.
    const float at17 = 0.505f + 0.2f * (17.0f - 9.95f) / 15.05f;
    const float at18 = 0.505f + 0.2f * (18.0f - 9.95f) / 15.05f;
    expectSegment(3 + 7, {1.75f, at17 - 0.005f, 1.75f, at18 + 0.005f});
}

TEST(ChartGeometryTest, rtaGrid_verticalLinesByBandsPerOctave) {
    std::vector<GridLine> lines;
    const auto verticals = [&] {
        int count = 0;
        for (const GridLine& l : lines)
            count += l.p1.x() == l.p2.x() ? 1 : 0;
        return count;
    };
    ChartGeometry::octaveRTAGrid(24, 10, 300, lines);
    EXPECT_EQ(verticals(), 0);
    EXPECT_EQ(lines.size(), 17u); // only the 8 dB lines

    // 12 bands per octave, bands 20..59: every fourth band, wider at octaves.
    ChartGeometry::octaveRTAGrid(12, 20, 59, lines);
    EXPECT_EQ(verticals(), 10);
    EXPECT_DOUBLE_EQ(lines[0].p1.x(), 0.5 / 40.0);
    EXPECT_FLOAT_EQ(lines[0].width, 1.0f); // band 20
    EXPECT_FLOAT_EQ(lines[1].width, 2.0f); // band 24, a whole octave
    EXPECT_DOUBLE_EQ(lines[1].p1.x(), 4.5 / 40.0);
}

TEST(ChartGeometryTest, logGrid_decadeLineRepeatedWider) {
    std::vector<GridLine> lines;
    ChartGeometry::spectrumGrid(false, true, 24000.0, 20.0, std::log2(24000.0 / 20.0), 0.0, 0, 1,
                                lines);
    const double x100 = std::log2(100.0 / 20.0) / std::log2(1200.0);
    int at100 = 0;
    float widest = 0.0f;
    int wide = 0;
    for (const GridLine& l : lines) {
        if (l.p1.x() == l.p2.x() && std::abs(l.p1.x() - x100) < 1e-12) {
            ++at100;
            widest = std::max(widest, l.width);
        }
        wide += l.width > 1.5f ? 1 : 0;
    }
    EXPECT_EQ(at100, 2);
    EXPECT_FLOAT_EQ(widest, 2.0f);
    EXPECT_EQ(wide, 3); // 100, 1000, 10000 Hz
    // The last vertical line is 20 kHz; 17 horizontal lines every 8 dB follow.
    EXPECT_NEAR(lines[lines.size() - 18].p1.x(), std::log2(1000.0) / std::log2(1200.0), 1e-12);
}

// --- Measuring --------------------------------------------------------------------------------

class ChartMeasureTest : public test::TempSettings {};

TEST_F(ChartMeasureTest, logCursor_snapsOntoTheDrawnBin) {
    const auto defaults = test::makeDefaults(44100.0f, 8192);
    const int32_t n = defaults->fftOutSize();
    std::mt19937 random(7);
    std::uniform_real_distribution<double> position(0.0, 1.0);
    for (int i = 0; i < 200; ++i) {
        const MeasurePosition m = ChartGeometry::measureSpectrum(
            position(random), false, n, defaults->maxFrequency(), defaults->logStartFrequency(),
            defaults->logIntervalDelta());
        ASSERT_GE(m.index, 1);
        ASSERT_LT(m.index, n);
        // The cursor stands exactly on the curve's vertex of its bin.
        EXPECT_NEAR(m.position, defaults->logPoints()[m.index], 1e-5);
        EXPECT_NEAR(m.frequency, m.index * defaults->maxFrequency() / n, 1e-3);
    }
}

// The oscilloscope's last point is read on the chart (ChartViewTest).
TEST(ChartGeometryTest, cursorClampedToLastPoint) {
    const MeasurePosition bin =
        ChartGeometry::measureSpectrum(1.2, true, 2048, 22050.0, 20.0, 10.0);
    EXPECT_EQ(bin.index, 2047);
    const std::vector<float> bands(169, 1.0f);
    const MeasurePosition band = ChartGeometry::measureOctaveRTA(0.99, 2, 41, bands.data());
    EXPECT_EQ(band.index, 41);
    EXPECT_DOUBLE_EQ(band.position, 1.0 - 0.5 / 40.0);
}

// --- Labels ----------------------------------------------------------------------------------

TEST(ChartLabelsTest, axisLabelTexts) {
    const std::vector<int32_t> log = ChartLabels::logaritmicFrequencies(48000.0f);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), 40000);
    EXPECT_EQ(ChartLabels::logaritmicLabel(log.back()), "40k ");
    EXPECT_EQ(ChartLabels::logaritmicLabel(900), "900 ");
    EXPECT_TRUE(ChartLabels::logaritmicFrequencies(19.0f).empty());

    const QStringList db = ChartLabels::dbLabels();
    EXPECT_EQ(db.front(), "-144");
    EXPECT_EQ(db[9], "-72");
    EXPECT_EQ(db.back(), "0");

    // At +20 dB gain the top of the linear axis shows an amplitude of 0.1.
    EXPECT_EQ(ChartLabels::linearGainLabels(20.0f).back(), "0.1000");
    EXPECT_EQ(ChartLabels::oscilloscopeAmplitudeLabels(0.0f, true)[10], "-1.0000");
    const QStringList points = ChartLabels::oscilloscopePointsLabels(4096);
    EXPECT_EQ(points.front(), "1");
    EXPECT_EQ(points[1], "128");
    EXPECT_EQ(points.back(), "4096");
    EXPECT_EQ(ChartLabels::octaveRTALabels(),
              QStringList({"15.62", "31.25", "62.5", "125", "250", "500", "1k", "2k", "4k", "8k",
                           "16k", "32k", "64k", "128k"}));
    EXPECT_EQ(ChartLabels::widestLinearFrequencyLabel(12, 2000.0f), "24  ");
    EXPECT_EQ(ChartLabels::widestLinearFrequencyLabel(12, 500.0f), "6.0");
}

TEST(ChartLabelsTest, gainDebounce_rebuildsOnlyEvery21stRefresh) {
    GainLabelDebounce debounce(30.0f);
    for (int i = 0; i < 20; ++i)
        EXPECT_FALSE(debounce.refresh(24.0f + 0.1f * static_cast<float>(i)));
    EXPECT_FLOAT_EQ(debounce.lastGainDB(), 30.0f);
    EXPECT_TRUE(debounce.refresh(26.0f));
    EXPECT_FLOAT_EQ(debounce.lastGainDB(), 26.0f);
    // An unchanged gain never rebuilds.
    for (int i = 0; i < 100; ++i)
        EXPECT_FALSE(debounce.refresh(26.0f));
    // A gain moved away and back before the 21st refresh leaves the labels.
    for (int i = 0; i < 10; ++i)
        debounce.refresh(10.0f);
    for (int i = 0; i < 100; ++i)
        EXPECT_FALSE(debounce.refresh(26.0f));
}

} // namespace
} // namespace widmo
