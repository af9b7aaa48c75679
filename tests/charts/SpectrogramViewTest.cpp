#include "charts/SpectrogramView.h"

#include "charts/ChartScrollView.h"
#include "charts/ChartView.h"

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "render/LevelMeterView.h"
#include "render/SpectrogramScrollView.h"

#include <QCoreApplication>
#include <QImage>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace widmo {
namespace {

bool isInk(QRgb c) { return qRed(c) > 40 && qGreen(c) > 40 && qBlue(c) > 40; }

int inkIn(const QImage& image, QRect region) {
    region = region.intersected(image.rect());
    int count = 0;
    for (int y = region.top(); y <= region.bottom(); ++y)
        for (int x = region.left(); x <= region.right(); ++x)
            count += isInk(image.pixel(x, y)) ? 1 : 0;
    return count;
}

// Full screen: the meter at the left edge, the frequency labels between it and
// the spectrogram, the time labels below; the exported image holds the
// spectrogram's columns where the spectrogram stands. Bare: the spectrogram
// fills the view.
TEST(SpectrogramViewLayout, meterLeftLabelsAroundAndImageShowsColumns) {
    AnalyzerFeatures::Switches s;
    s.featureSpectrogramEnabled = true;
    s.featureLevelMeterEnabled = true;
    s.featureSampleRatesStdEnabled = true;
    const AnalyzerFeatures features(s);
    AnalyzerDefaults d(features, "spectrogram-view-test");
    d.setSampleRate(48000.0f);
    d.setFftSize(4096);
    d.setFftDisplaySize(2048);
    d.setSpectrogramWidthMianownik(8);
    d.setLinearFrequency(true);
    d.setValuesInDB(true);
    d.setSpectrogramColorType(0);
    d.recalculateDocumentSettings();
    d.generateAllIndexes();
    d.setDataValid(true);

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
    EXPECT_GT(inkIn(image, QRect(meter.right() + 1, chart.top(), chart.left() - meter.right() - 1,
                                 chart.height())),
              50)
        << "frequency labels";
    EXPECT_GT(inkIn(image, QRect(chart.left(), chart.bottom() + 1, chart.width(),
                                 view.height() - chart.bottom() - 1)),
              50)
        << "time labels";

    view.setFullScreen(false);
    EXPECT_EQ(view.scroll()->geometry(), view.rect());
    EXPECT_FALSE(view.levelMeterView()->isVisible());
}

// The user's cursor on the spectrogram moves the partner chart's cursor to
// the same frequency, and the chart's coordinates do not come back.
TEST(SpectrogramViewLayout, cursorFrequencyReachesThePartnerChart) {
    AnalyzerFeatures::Switches s;
    s.featureSpectrogramEnabled = true;
    s.featureSpectrumEnabled = true;
    s.featureSampleRatesStdEnabled = true;
    const AnalyzerFeatures features(s);
    AnalyzerDefaults d(features, "spectrogram-view-test");
    d.setSampleRate(48000.0f);
    d.setFftSize(4096);
    d.setLinearFrequency(true);
    d.recalculateDocumentSettings();
    d.generateAllIndexes();
    d.setDataValid(true);
    d.setActualInterval(100);

    SpectrogramView spectrogram(d);
    ChartView chart(d);
    spectrogram.resize(600, 300);
    chart.resize(600, 300);
    spectrogram.scroll()->setScrollViewDelegate(chart.chartScrollView());
    chart.chart()->setScrollViewDelegate(
        static_cast<TQGLScrollViewInterface*>(spectrogram.scroll()));
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
