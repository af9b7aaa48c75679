#pragma once

#include "charts/ChartFrameView.h"
#include "charts/ChartLabels.h"
#include "engine/ChartViewInterface.h"
#include "render/AffineTransform.h"
#include "render/ScrollObserver.h"

#include <QHash>
#include <QImage>
#include <QRect>
#include <QSize>
#include <QString>

#include <array>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace widmo {

class AnalyzerDefaults;
class ChartScrollView;
class LevelMeterView;
class GLTexture;

/// The second chart as the main screen places it: the GL chart
/// (`ChartScrollView`) with its axis labels and titles around it and the level
/// meter at its right (full screen), or the bare curve (picture in picture).
///
/// It forwards the engine's data calls to the chart, remembers a separate pan
/// and zoom for each chart type, limits the zoom, rebuilds the gain-dependent
/// labels while the user drags a gain slider (at most every 21st refresh), and
/// renders the chart as an image for export.
///
/// To show it: create it with the document's `AnalyzerDefaults`, set
/// `setFullScreen(true)` (labels and meter; false is the small PIP layout),
/// pick `setTypeOfChart`, hand it to `AnalyzerController::setChartViews`, and
/// call `prepareTextures` after every geometry change (the engine does at set-up).
///
/// Threading: main thread only.
class ChartView : public ChartFrameView, public ChartViewInterface, public ScrollObserver {
    Q_OBJECT
public:
    /// `defaults` must outlive the view; its product switches decide the meter.
    explicit ChartView(AnalyzerDefaults& defaults, QWidget* parent = nullptr);
    ~ChartView() override;

    // ChartViewInterface
    ScrollViewInterface* chartScrollView() override;
    void addFFTdata(const float* fftData, const float* fftWindowData,
                    const float* eggWindowData) override;
    void showSoundLevels(const SoundLevels& levels) override;
    int32_t typeOfChart() const override { return typeOfChart_; }
    /// While running the octave RTA draws every frame (its holds decay only
    /// then); the other charts draw a frame for each interval they are given.
    void setAnalyzerRunning(bool running) override;
    void setNeedsDisplayWithSubviews() override { GLView::setNeedsDisplayWithSubviews(); }
    /// Clears the chart; the meter drops to -144 dB; redraws everything.
    void clearData() override;
    /// Makes every axis text texture for the current geometry, then the zoom
    /// limits (zooming out unless the chart is the RTA). Before the GL context
    /// exists the textures are made when it does.
    void prepareTextures() override;

    // ScrollObserver: the chart's transform moved, the labels follow.
    void contentWasChanged() override;

    ChartScrollView* chart() const { return chartScrollView_; }

    void clearOctaveRTAValues();
    void clearOctaveRTAMinMaxLevels();
    float levelDB() const;

    /// Saves the chart's pan and zoom for the old type, restores the new type's,
    /// sets the zoom limits and retitles the measuring panel.
    void setTypeOfChart(int32_t type);
    /// "Spectrum", "Oscilloscope" or "Octave RTA".
    QString nameOfChart() const;

    /// Switches the chart's cursor off.
    void turnOffMeasuring();
    /// Rebuilds the gain labels when the debounce allows (full screen only).
    void refreshTextures();
    /// The chart's zoom limits for the current type; optionally zooms out.
    void calculateMaxZoomWithZoomOut(bool zoomOut);

    /// Display step of the linear frequency labels and grid lines.
    int32_t linearFrequencyLabelStep() const;
    /// Frequencies of the logarithmic labels.
    const std::vector<int32_t>& logaritmicFrequencies() const { return logaritmicFrequencies_; }

    /// The chart, labels and meter as they are on screen, framed, with the
    /// product name, a watermark, "FFT window size : N" and, while measuring,
    /// the cursor's read-out. Null image before the view has a size.
    QImage imageOfChart();
    /// `imageOfChart` as a PNG file; false when it cannot be written.
    bool writeImageOfChart(const QString& path);
    /// The data of the chart shown, as CSV with a header line: the spectrum
    /// (`frequency_hz,level_db`, or `frequency_hz,magnitude` with linear
    /// values) one line per FFT bin; the octave RTA (`centre_hz,level_db,
    /// min_db,max_db`) one line per band in use, the holds as drawn; the
    /// oscilloscope (`time_s,value`) one line per sample of the FFT window.
    /// Only the header before the first interval.
    QByteArray csvOfChart() const;
    /// `csvOfChart` written to `path` (through a temporary file, renamed when
    /// complete); false when it cannot be written.
    bool writeCsvOfChart(const QString& path) const;

    /// Text of the linear gain labels currently shown (tests).
    QStringList linearGainLabelTexts() const { return linearGainTexts_; }

    /// Product name drawn into exported images.
    static const char* const kProductName;
    static const char* const kWatermark;

protected:
    void drawGLRect(const QRectF& rect) override;
    void setupGLResources() override;
    void releaseGLResources() override;
    void resizeEvent(QResizeEvent* event) override;

private:
    using TextureList = std::vector<std::shared_ptr<GLTexture>>;
    TextureList makeTextures(const QStringList& texts, const QFont& font);
    void makeTexturesNow() override;
    void makeLinearGainTextures();
    void makeOscilloscopeAmplitudeTextures();
    /// Chart content point (through the chart's transform) to unit space of this view.
    QPointF mapFromChart(QPointF content) const;
    void drawSpectrumLabels();
    void drawOscilloscopeLabels();
    void drawOctaveRTALabels();
    /// With `taken`, a label that would overlap one already drawn is left out.
    void drawXLabel(const GLTexture* texture, double contentX,
                    std::vector<std::pair<double, double>>* taken = nullptr);
    void drawYLabel(const GLTexture* texture, double contentY);
    AffineTransform& rememberedTransform(int32_t type);

    TextureList mLinearGainTextures;
    TextureList mDbGainTextures;
    QHash<QString, std::shared_ptr<GLTexture>> mFreqLinearTexturesDictionary;
    TextureList mLogarithmicFrequencyTextures;
    std::shared_ptr<GLTexture> mWidestLinearFrequencyTexture;
    TextureList mOctaveRTATextures;
    TextureList mOscilloscopeAmplitudePlusTextures;
    TextureList mOscilloscopeAmplitudeMinusTextures;
    TextureList mOscilloscopeFFTWindowPointsTextures;
    std::shared_ptr<GLTexture> mLegendValuesInDBTexture;
    std::shared_ptr<GLTexture> mLegendAmplitudeTexture;
    std::shared_ptr<GLTexture> mLegendFrequencyTextureLinear;
    std::shared_ptr<GLTexture> mLegendFrequencyTextureLogarithmic;
    std::shared_ptr<GLTexture> mLegendRMSSPLTexture;
    std::shared_ptr<GLTexture> mLegendFFTWindowTexture;
    GainLabelDebounce mSpectrumDebounce;
    GainLabelDebounce mOscilloscopeDebounce;
    AffineTransform mSpectrumContentTransform;
    AffineTransform mOctaveDBContentTransform;
    AffineTransform mOscilloscopeContentTransform;
    std::array<float, 4> mLabelBorderClearColor{0.0f, 0.0f, 0.0f, 1.0f};
    int32_t typeOfChart_ = 0;
    ChartScrollView* chartScrollView_ = nullptr;
    std::vector<int32_t> logaritmicFrequencies_;
    bool refreshQueued_ = false;
    QStringList linearGainTexts_;
};

} // namespace widmo
