#include "charts/SpectrogramView.h"

#include "charts/ChartScrollView.h"
#include "charts/ChartView.h"
#include "render/LevelMeterView.h"
#include "render/SpectrogramScrollView.h"

#include "../render/RenderTestSupport.h"
#include "ChartTestSupport.h"
#include "TempSettings.h"

#include <QCoreApplication>
#include <QImage>
#include <QTest>

#include <vector>

namespace widmo {
namespace {

using SpectrogramViewLayout = test::TempSettings;

// Full screen: the meter at the left edge, the frequency labels between it and
// the spectrogram, the time labels below; the exported image holds the
// spectrogram's columns where the spectrogram stands. Bare: the spectrogram
// fills the view.
TEST_F(SpectrogramViewLayout, meterLeftLabelsAroundAndImageShowsColumns) {
    const auto document = test::spectrogramDocument();
    AnalyzerDefaults& d = *document;
    SpectrogramView view(d);
    view.resize(700, 360);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    view.prepareData();
    view.clearData();
    view.prepareTextures();

    const QRect meter = view.levelMeterView()->geometry();
    const QRect chart = view.scroll()->geometry();
    EXPECT_TRUE(view.levelMeterView()->isVisible());
    EXPECT_FALSE(view.levelMeterView()->onTheRight());
    EXPECT_EQ(meter.left(), 0);
    EXPECT_GE(chart.left(), meter.right() + 20) << "no room for the frequency labels";
    EXPECT_LE(chart.bottom(), view.height() - 20) << "no room for the time labels";

    std::vector<float> spectrum(static_cast<size_t>(d.fftOutSize()), 0.0f);
    for (size_t k = 0; k < spectrum.size() / 4; ++k)
        spectrum[k] = 1.0f;
    const int32_t size = d.segmentSize();
    for (int64_t i = 0; i < size; ++i)
        view.addFFTdata(spectrum.data(), i);
    d.setActualInterval(size);
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();

    const QImage image = view.imageOfChart();
    ASSERT_FALSE(image.isNull());
    const QRgb column = image.pixel(chart.right() - 2, chart.bottom() - chart.height() / 8);
    EXPECT_GT(qRed(column), 200);
    EXPECT_LT(qGreen(column), 40);
    const auto ink = [&](QRect r) { return test::pixelsIn(image, r, test::isInk).count; };
    EXPECT_GT(ink(QRect(meter.right() + 1, chart.top(), chart.left() - meter.right() - 1,
                        chart.height())),
              50)
        << "frequency labels";
    EXPECT_GT(ink(QRect(chart.left(), chart.bottom() + 1, chart.width(),
                        view.height() - chart.bottom() - 1)),
              50)
        << "time labels";

    view.setFullScreen(false);
    EXPECT_EQ(view.scroll()->geometry(), view.rect());
    EXPECT_FALSE(view.levelMeterView()->isVisible());
}

// The user's cursor on the spectrogram moves the partner chart's cursor to
// the same frequency, and the chart's coordinates do not come back.
TEST_F(SpectrogramViewLayout, cursorFrequencyReachesThePartnerChart) {
    const auto document = test::spectrogramDocument();
    AnalyzerDefaults& d = *document;
    d.setActualInterval(100);
    SpectrogramView spectrogram(d);
    ChartView chart(d);
    spectrogram.resize(600, 300);
    chart.resize(600, 300);
    spectrogram.scroll()->setScrollViewDelegate(chart.chartScrollView());
    chart.chart()->setScrollViewDelegate(static_cast<ScrollViewInterface*>(spectrogram.scroll()));
    spectrogram.prepareData();

    SpectrogramScrollView* scroll = spectrogram.scroll();
    scroll->grabFramebuffer(); // the gesture model learns the view's size
    scroll->model().invokeMeasuring(QPointF(scroll->width() * 0.75, scroll->height() * 0.25));
    const QPointF cursor = scroll->measuringActualPosition();
    ASSERT_GT(cursor.y(), 0.5);
    EXPECT_TRUE(chart.chart()->measuringActivated());
    EXPECT_NEAR(chart.chart()->measureFrequency(), cursor.y() * 24000.0, 24000.0 / 2048.0);
    EXPECT_EQ(scroll->measuringActualPosition(), cursor) << "the chart's position came back";
}

} // namespace
} // namespace widmo
