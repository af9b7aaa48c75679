#pragma once

#include "charts/ChartData.h"
#include "charts/ChartGeometry.h"
#include "engine/ScrollViewInterface.h"
#include "render/GLScrollView.h"

#include <QString>

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

class QLabel;
class QGridLayout;

namespace widmo {

struct SoundLevels;

class AnalyzerDefaults;
class ChartView;
class GLTexture;
class LevelMeterView;

/// The GL view of the second chart: the spectrum curve, the oscilloscope trace
/// (with the EGG product: the normalised glottal cycle of the EGG channel)
/// or the octave-band bars of the latest interval over their grid, with a
/// measuring cursor whose read-out stands in a small panel in the corner.
///
/// The data side (display slots, level, bands and holds) is `ChartData`; this
/// view feeds the level meter from it and draws it each frame in chart
/// coordinates (x, y from 0 to 1) mapped through the pan and zoom of the
/// content transform. The chart type, the linear axis's label step and the
/// full-screen state come from the owning `ChartView`. While heterodyne
/// listening is on, the spectrum shades the tuned band (`HeterodyneBand`)
/// with its frequency above it.
///
/// Threading: main thread only.
class ChartScrollView : public GLScrollView, public ScrollViewInterface {
    Q_OBJECT
public:
    /// Measuring panel rows; 1B is the note name under the frequency.
    enum MeasureLabel { Label1 = 0, Label1B, Label2, Label3, Label4, Label5, kLabelCount };

    /// `defaults` must outlive the view; `chartView` is the owner (may be null
    /// in tests: then the chart is a full-screen spectrum).
    ChartScrollView(AnalyzerDefaults& defaults, ChartView* chartView, QWidget* parent = nullptr);
    ~ChartScrollView() override;

    ChartData& data() { return data_; }
    const ChartData& data() const { return data_; }

    /// One interval from the engine's display timer (see `ChartData::addFFTdata`);
    /// feeds the level meter (level, and with the EGG product the closed
    /// quotient, 0 when it is not a number) and draws one frame with it.
    /// The sound level meter's figures on both meters (see
    /// `ChartViewInterface::showSoundLevels`).
    void showSoundLevels(const SoundLevels& levels);
    void addFFTdata(const float* fftData, const float* fftWindowData, const float* eggWindowData);
    /// No data, level -144 dB, bands cleared, measuring off here and in the
    /// partner view; redraws.
    void clearData();
    void clearOctaveRTAValues() { data_.clearOctaveRTAValues(); }
    /// While the analyser runs the octave RTA draws every frame (its hold and
    /// decay move between intervals); the other charts draw when data comes.
    void setAnalyzerRunning(bool running);
    bool isRefreshNeeded() const override;
    void clearOctaveRTAMinMaxLevels() { data_.clearOctaveRTAMinMaxLevels(); }
    float levelDB() const { return data_.levelDB(); }
    float closedQuotient() const { return data_.closedQuotient(); }

    /// The meter fed with `levelDB`; not owned, may be null.
    void setLevelMeterView(LevelMeterView* meter);
    LevelMeterView* levelMeterView() const { return levelMeterView_; }
    /// A second meter given the same level (the spectrogram's, which measures
    /// nothing itself); not owned, may be null.
    void setSecondLevelMeterView(LevelMeterView* meter);

    // ScrollViewInterface (the engine and the spectrogram's partner view).
    void zoomOut() override { GLScrollView::zoomOut(); }
    bool measuringActivated() const override { return GLScrollView::measuringActivated(); }
    void setMeasuringActivated(bool on) override { GLScrollView::setMeasuringActivated(on); }
    void setScrollViewDelegate(ScrollViewInterface* partner) override;
    using GLScrollView::setScrollViewDelegate;

    /// With key "levelForFrequency" (Hz) in a map: the display-spectrum value at
    /// that frequency's bin. NaN without the key or without data.
    double getValueForParameters(const QVariant& parameters) override;
    /// Snaps the cursor to the nearest data point of the current chart and
    /// updates the panel's frequency, note or sample labels.
    QPointF recalculateMeasuringActualPosition(QPointF position) override;
    /// Puts the cursor on `frequency` (Hz), as the spectrogram's cursor asks.
    void updateMeasuringActualPositionWith(double frequency);
    /// Retitles the panel for the current chart type.
    void refreshMeasuringLabels();
    /// The panel as one line: "Title : value" pairs separated by four blanks.
    QString infoMeasureText() const;
    /// Current panel texts (tests and the exported image).
    QString titleText(MeasureLabel label) const;
    QString valueText(MeasureLabel label) const;
    int32_t measureIdFrequency() const { return mMeasureIdFrequency; }
    float measureFrequency() const { return mMeasureFrequency; }
    int32_t measurePointId() const { return mMeasurePointId; }

    /// 0 spectrum, 1 oscilloscope, 2 octave RTA (from the owner).
    int32_t typeOfChart() const;

protected:
    void drawGLRect(const QRectF& rect) override;
    void releaseGLResources() override;

private:
    bool pad() const;
    void drawPoints();
    void drawSpectrumPoints();
    void drawOscilloscopePoints();
    void drawEGGPoints();
    void drawOctaveRTAPoints();
    void drawSpectrumGrid();
    /// The heterodyne's band over the whole height, its label at the top.
    void drawTunedBand();
    void drawOscilloscopeGrid();
    void drawOctaveRTAGrid();
    void drawGrid();
    /// The first `count` chart points as a one-pixel line, drawn as one
    /// vertical segment per pixel column of the frame.
    void drawLineStrip(int32_t count);
    void drawMeasureLinesSpectrum();
    void drawMeasureLinesOctaveRTA();
    void drawMeasureLinesOscilloscope();
    void drawMeasureLines(double position, double levelY);
    void prepareMeasuringWindow();
    void setupMeasuringViewConstraints();
    void setValueText(MeasureLabel label, const QString& text);
    QString spectrogramTimeText() const;
    double spectrogramTime() const;

    AnalyzerDefaults& mDefaults;
    ChartData data_;
    std::vector<float> mPointsOfChart; // 65,536 (x, y) pairs
    std::vector<GridLine> mGrid;       // reused every frame
    int32_t mMeasureIdFrequency = 0;
    float mMeasureFrequency = 0.0f;
    int32_t mMeasurePointId = 0;
    ChartView* chartView_;
    LevelMeterView* levelMeterView_ = nullptr; // a sibling owned by the ChartView
    LevelMeterView* secondLevelMeterView_ = nullptr;
    QSizeF viewSize_{1.0, 1.0};
    double marginX_ = 0.0; // unit-space margins of the chart's frame (see drawGLRect)
    double marginY_ = 0.0;
    std::vector<float> columnSpans_;  // the curve's segments, one per pixel column
    std::vector<float> gridVertices_; // one run of grid lines of one width
    bool analyzerRunning_ = false;
    std::shared_ptr<GLTexture> bandLabel_; // the texture of bandLabelText_
    QString bandLabelText_;

    QWidget* measuringPanel_ = nullptr;
    std::array<QLabel*, kLabelCount> titleLabels_{};
    std::array<QLabel*, kLabelCount> valueLabels_{};
    bool soundLevelsShown_ = false;
};

} // namespace widmo
