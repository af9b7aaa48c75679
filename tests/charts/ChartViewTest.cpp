#include "charts/ChartView.h"
#include "charts/ChartScrollView.h"

#include "render/LevelMeterView.h"

#include "ChartTestSupport.h"
#include "TempSettings.h"

#include <QImage>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <optional>

namespace widmo {
namespace {

using test::isBar;
using test::isGreen;
using test::topmost;

/// Centre of the label ink inside `region`, or nothing when there is hardly any.
std::optional<QPointF> inkCentroid(const QImage& image, QRect region) {
    const test::Pixels ink = test::pixelsIn(image, region, test::isInk);
    return ink.count < 8 ? std::nullopt : std::optional<QPointF>(ink.centre);
}

class ChartViewTest : public test::TempSettings {
protected:
    void SetUp() override {
        TempSettings::SetUp();
        defaults_ = test::makeDefaults(48000.0f, 4096, 6);
        fft_ = std::make_unique<FFTManager>(*defaults_);
        view_ = std::make_unique<ChartView>(*defaults_);
        view_->resize(1000, 600);
        view_->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(view_.get()));
        view_->prepareTextures();
        showSine(997.0);
    }
    void showSine(double frequency, double amplitude = 1.0) {
        samples_ = test::sine(frequency, 48000.0, defaults_->fftSize(), amplitude);
        const test::Interval interval = test::analyse(*fft_, samples_);
        view_->addFFTdata(interval.spectrum, interval.window, nullptr);
    }

    ChartScrollView* chart() const { return view_->chart(); }
    QImage chartImage() const { return chart()->grabFramebuffer(); }
    QImage labelImage() const { return view_->grabFramebuffer(); }
    double margin() const { return test::chartMargin(chart()); }
    double column(double x) const { return test::chartColumn(chart(), x); }
    double row(double y) const { return test::chartRow(chart(), y); }
    double logX(double f) const { return test::logX(*defaults_, f); }

    std::unique_ptr<AnalyzerDefaults> defaults_;
    std::unique_ptr<FFTManager> fft_;
    std::unique_ptr<ChartView> view_;
    std::vector<float> samples_;
};

// --- Spectrum peak on both frequency axes -------------------------------------------------

// A 997 Hz sine peaks at its frequency on either axis, as high as its level on
// the 144 dB scale, or in the linear display as its magnitude times the gain.
TEST_F(ChartViewTest, sinePeak_atItsFrequencyAndLevel_logOrLinearAxisAndDisplay) {
    struct Case {
        bool linearAxis;
        double amplitude;
        bool db;
        float gainDb;
        double y;
    };
    const Case cases[] = {
        {false, 1.0, true, 30.0f, 1.0},
        {true, 1.0, true, 30.0f, 1.0},
        {false, 0.1, true, 30.0f, 1.0 - 20.0 / 144.0},     // -20 dBFS
        {false, 0.1, false, 10.0f, 0.1 * std::sqrt(10.0)}, // magnitude 0.1 at +10 dB
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "linear axis " << c.linearAxis << " amplitude "
                                        << c.amplitude << " dB " << c.db);
        defaults_->setLinearFrequency(c.linearAxis);
        defaults_->setValuesInDB(c.db);
        defaults_->setSpectrumGainDB(c.gainDb);
        view_->prepareTextures();
        showSine(997.0, c.amplitude);
        const auto peak = topmost(chartImage(), isGreen);
        ASSERT_TRUE(peak);
        const double x = c.linearAxis ? 997.0 / defaults_->maxFrequency() : logX(997.0);
        EXPECT_NEAR(peak->x(), column(x), 2.0);
        EXPECT_NEAR(peak->y(), row(c.y), 2.0);
    }
}

// The CSV export of each chart holds what the chart shows: the spectrum's bins,
// the RTA's bands with their holds, the oscilloscope's samples with their times.
TEST_F(ChartViewTest, csvOfEachChart_holdsTheShownData) {
    const auto rows = [](const QByteArray& csv) {
        std::vector<QList<QByteArray>> r;
        const QList<QByteArray> lines = csv.trimmed().split('\n');
        for (qsizetype i = 1; i < lines.size(); ++i)
            r.push_back(lines[i].split(','));
        return r;
    };
    const ChartData& data = chart()->data();
    // Levels keep 3 decimals and frequencies 4: half a unit of the last one.

    QByteArray csv = view_->csvOfChart();
    ASSERT_TRUE(csv.startsWith("frequency_hz,level_db\n"));
    auto spectrum = rows(csv);
    ASSERT_EQ(spectrum.size(), 2048u);
    size_t loudest = 0;
    for (size_t i = 0; i < spectrum.size(); ++i) {
        EXPECT_NEAR(spectrum[i][0].toDouble(), i * 48000.0 / 4096, 0.00006);
        EXPECT_NEAR(spectrum[i][1].toDouble(), data.fftOutData()[i], 0.00051);
        if (spectrum[i][1].toDouble() > spectrum[loudest][1].toDouble())
            loudest = i;
    }
    EXPECT_EQ(loudest, 85u); // 997 Hz

    view_->setTypeOfChart(2);
    chart()->data().updateOctaveRTA(false, 0.0);
    csv = view_->csvOfChart();
    ASSERT_TRUE(csv.startsWith("centre_hz,level_db,min_db,max_db\n"));
    const auto bands = rows(csv);
    ASSERT_EQ(static_cast<int32_t>(bands.size()),
              defaults_->octaveRTAMaxIndex() - defaults_->octaveRTAMinIndex() + 1);
    for (size_t i = 0; i < bands.size(); ++i) {
        const size_t b = static_cast<size_t>(defaults_->octaveRTAMinIndex()) + i;
        EXPECT_NEAR(bands[i][0].toDouble(), defaults_->octaveRTAFrequencies()[b], 0.00051);
        EXPECT_NEAR(bands[i][1].toDouble(), data.octaveRTAValues()[b], 0.00051);
        EXPECT_NEAR(bands[i][2].toDouble(), data.octaveRTAMinValues()[b], 0.00051);
        EXPECT_NEAR(bands[i][3].toDouble(), data.octaveRTAMaxValues()[b], 0.00051);
    }

    view_->setTypeOfChart(1);
    const auto trace = rows(view_->csvOfChart());
    ASSERT_EQ(trace.size(), samples_.size());
    for (size_t k = 0; k < trace.size(); k += 97) {
        EXPECT_NEAR(trace[k][0].toDouble(), k / 48000.0, 1e-7);
        EXPECT_NEAR(trace[k][1].toDouble(), samples_[k], 1e-7);
    }
}

// A one-bin peak among the ten bins that share a pixel column near 15 kHz on
// the logarithmic axis is drawn at its full height.
TEST_F(ChartViewTest, oneBinPeak_amongBinsOfOneColumn_drawnAtFullHeight) {
    const int32_t n = defaults_->fftOutSize();
    std::vector<float> power(static_cast<size_t>(n), 1e-10f); // -100 dB
    const auto bin = static_cast<int32_t>(15000.0 / defaults_->maxFrequency() * n);
    power[static_cast<size_t>(bin)] = 0.01f; // -20 dB
    view_->addFFTdata(power.data(), samples_.data(), nullptr);
    const auto peak = topmost(chartImage(), isGreen);
    ASSERT_TRUE(peak);
    EXPECT_NEAR(peak->x(), column(logX(bin * defaults_->maxFrequency() / n)), 2.0);
    EXPECT_NEAR(peak->y(), row(1.0 - 20.0 / 144.0), 1.0);
}

// While the analyser runs, the spectrum draws a frame for each interval it is
// given and none while no new interval comes.
TEST_F(ChartViewTest, runningSpectrum_drawsOnlyWhenDataComes) {
    view_->setAnalyzerRunning(true);
    ASSERT_TRUE(QTest::qWaitFor([&] { return chart()->isFrameDriverPaused(); }, 10000));
    const int64_t settled = chart()->drawnFrameCount();
    QTest::qWait(300);
    EXPECT_EQ(chart()->drawnFrameCount(), settled) << "frames without new data";
    showSine(440.0);
    QTest::qWait(100);
    EXPECT_EQ(chart()->drawnFrameCount(), settled + 1);
    view_->setAnalyzerRunning(false);
}

// --- Axis labels ------------------------------------------------------------------------------

TEST_F(ChartViewTest, axisLabels_standWhereTheirValuesAre) {
    const QRect chartRect = view_->chartRect();
    const auto checkX = [&](double contentX, int halfWidth, const char* what) {
        const QImage labels = labelImage();
        const double expected = chartRect.x() + column(contentX);
        const auto ink = inkCentroid(labels, QRect(static_cast<int>(expected) - halfWidth,
                                                   chartRect.bottom() + 2, 2 * halfWidth, 20));
        ASSERT_TRUE(ink) << what;
        EXPECT_NEAR(ink->x(), expected, 4.0) << what;
    };
    const auto checkY = [&](double contentY, const char* what) {
        const double expected = chartRect.y() + row(contentY);
        const auto ink = inkCentroid(
            labelImage(), QRect(chartRect.x() - 40, static_cast<int>(expected) - 8, 38, 16));
        ASSERT_TRUE(ink) << what;
        EXPECT_NEAR(ink->y(), expected, 3.0) << what;
    };
    // Logarithmic axis: the decade labels, and the dB axis every 8 dB.
    checkX(logX(1000.0), 14, "1k");
    checkX(logX(10000.0), 14, "10k");
    checkY(0.5, "-72");
    checkY(16.0 / 18.0, "-16");
    // No label below the chart between 1k and 2k's neighbours' reach.
    const double between = chartRect.x() + column(logX(1410.0));
    EXPECT_FALSE(inkCentroid(labelImage(),
                             QRect(static_cast<int>(between) - 3, chartRect.bottom() + 2, 6, 20)));

    // Linear axis: labels every step-th multiple of the label spacing.
    defaults_->setLinearFrequency(true);
    view_->prepareTextures();
    labelImage(); // the widest label's texture sets the step
    const int step = view_->linearFrequencyLabelStep();
    const double spacing = defaults_->spectrumFrequencyTexturesMinValue() * step;
    const double pixels = column(spacing / defaults_->maxFrequency()) - column(0.0);
    ASSERT_GT(pixels, 20.0);
    checkX(2.0 * spacing / defaults_->maxFrequency(), static_cast<int>(pixels / 2) - 1,
           "second linear label");
}

// --- Chart types -----------------------------------------------------------------------------

TEST_F(ChartViewTest, spectrumOscilloscopeSpectrum_restoresSpectrumZoom) {
    const AffineTransform zoomed{3.0, 0.0, 0.0, 1.0, -0.8, 0.0};
    chart()->setActualContentTransform(zoomed);
    view_->setTypeOfChart(1);
    EXPECT_TRUE(chart()->actualContentTransform().isIdentity());
    const AffineTransform scope{2.0, 0.0, 0.0, 2.0, -0.5, -0.5};
    chart()->setActualContentTransform(scope);
    view_->setTypeOfChart(0);
    EXPECT_EQ(chart()->actualContentTransform(), zoomed);
    view_->setTypeOfChart(1);
    EXPECT_EQ(chart()->actualContentTransform(), scope);
    // The zoomed spectrum shows its peak three times further from the left edge.
    view_->setTypeOfChart(0);
    const auto peak = topmost(chartImage(), isGreen);
    ASSERT_TRUE(peak);
    EXPECT_NEAR(peak->x(), column(3.0 * logX(997.0) - 0.8), 3.0);
    EXPECT_EQ(view_->nameOfChart(), "Spectrum");
}

TEST_F(ChartViewTest, octaveRTA_steadySineLightsItsBand) {
    defaults_->setOctaveRTABandAverageType(3);
    view_->setTypeOfChart(2);
    chartImage(); // one frame of band update
    const QImage image = chartImage();
    const auto top = topmost(image, isBar);
    ASSERT_TRUE(top);
    const int32_t minIndex = defaults_->octaveRTAMinIndex();
    const int32_t n = defaults_->octaveRTAMaxIndex() + 1 - minIndex;
    const double x = (top->x() - margin()) / (chart()->width() - 2.0 * margin());
    EXPECT_EQ(static_cast<int>(std::floor(x * n)) + minIndex, 36); // the 1 kHz band
    // The whole sine (about +1.3 dB with the window's spread) tops the chart.
    EXPECT_LT(top->y(), row(1.0 - 3.0 / 144.0));
    EXPECT_EQ(view_->nameOfChart(), "Octave RTA");
}

TEST_F(ChartViewTest, oscilloscopeCursorOnLastSample_showsPointCountAndSpectrogramTime) {
    view_->setTypeOfChart(1);
    chart()->setMeasuringActivated(true);
    chart()->setMeasuringActualPosition(QPointF(1.0, 0.5));
    chartImage();
    EXPECT_EQ(chart()->titleText(ChartScrollView::Label1), "Sample");
    EXPECT_EQ(chart()->valueText(ChartScrollView::Label1), "4096");
    EXPECT_EQ(chart()->valueText(ChartScrollView::Label2), "-00s000ms000");
    EXPECT_EQ(chart()->valueText(ChartScrollView::Label3),
              QString::asprintf("%.4f", static_cast<double>(samples_.back())));
    // 73 samples before the end at 48 kHz: 1.520833 ms.
    chart()->setMeasuringActualPosition(QPointF((4095.0 - 73.0) / 4096.0, 0.5));
    chartImage();
    EXPECT_EQ(chart()->valueText(ChartScrollView::Label1), "4023");
    EXPECT_EQ(chart()->valueText(ChartScrollView::Label2), "-00s001ms520");
}

TEST_F(ChartViewTest, spectrumCursor_readsBinAndLevel_infoText) {
    chart()->setMeasuringActivated(true);
    chart()->setMeasuringActualPosition(QPointF(logX(997.0), 0.5));
    chartImage();
    EXPECT_EQ(chart()->measureIdFrequency(), 85);
    EXPECT_EQ(chart()->valueText(ChartScrollView::Label1), "996.1 Hz");
    EXPECT_EQ(chart()->valueText(ChartScrollView::Label3), "-0.0 dB");
    EXPECT_TRUE(chart()->infoMeasureText().startsWith("Frequency : 996.1 Hz    SPL : -0.0 dB"))
        << chart()->infoMeasureText().toStdString();
    QVariantMap ask;
    ask.insert("levelForFrequency", 997.0);
    EXPECT_NEAR(chart()->getValueForParameters(ask), 0.0, 0.05);
    view_->clearData();
    EXPECT_TRUE(std::isnan(chart()->getValueForParameters(ask)));
    EXPECT_FALSE(chart()->measuringActivated());
    EXPECT_FLOAT_EQ(view_->levelMeterView()->levelDB(), -144.0f);
}

// --- Layout and image ----------------------------------------------------------------------------

TEST_F(ChartViewTest, pictureInPicture_chartFillsView_meterHidden) {
    EXPECT_TRUE(view_->levelMeterView()->isVisible());
    EXPECT_EQ(view_->levelMeterView()->geometry().right(), view_->width() - 1);
    EXPECT_LE(view_->chartRect().right(), view_->levelMeterView()->geometry().left());
    view_->setFullScreen(false);
    EXPECT_EQ(chart()->geometry(), view_->rect());
    EXPECT_FALSE(view_->levelMeterView()->isVisible());
    view_->setFullScreen(true);
    EXPECT_TRUE(view_->levelMeterView()->isVisible());
}

TEST_F(ChartViewTest, imageOfChart_writesPngShowingTheCurve) {
    QTemporaryDir dir;
    const QString path = dir.filePath("chart.png");
    ASSERT_TRUE(view_->writeImageOfChart(path));
    const QImage image(path);
    ASSERT_FALSE(image.isNull());
    EXPECT_EQ(image.size(), view_->size() * view_->devicePixelRatio());
    EXPECT_GT(test::pixelsIn(image, view_->chartRect(), test::isGreen).count, 500);
    // The level meter beside the chart shows red segments for the full-scale sine.
    const auto red = [](QRgb c) { return qRed(c) > 200 && qGreen(c) < 80; };
    EXPECT_GT(test::pixelsIn(image, view_->levelMeterView()->geometry(), red).count, 0);
}

} // namespace
} // namespace widmo
