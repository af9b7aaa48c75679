#pragma once

#include "engine/SpectrogramScrollViewInterface.h"
#include "render/AffineTransform.h"
#include "render/GLScrollView.h"
#include "render/SpectrogramScrollViewSegment.h"

#include <QElapsedTimer>
#include <QString>
#include <QTimer>

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QLabel;

namespace widmo {

class AnalyzerDefaults;
class ChartViewInterface;
class FFTManager;
class GLTexture;

/// The scrolling spectrogram: a row of texture segments
/// (`SpectrogramScrollViewSegment`) laid side by side along the time axis,
/// with an optional grid, a play-position line and a measuring cursor whose
/// read-out names time, frequency, note and level of the cell under it.
///
/// Content space: x from 0 to 1 spans the last `spectrogramWidth` intervals up
/// to the right edge, y from 0 to 1 the display rows (frequency, linear or
/// logarithmic as the document says). While the analyser runs the right edge
/// follows the newest interval smoothly: it slides from one interval to the
/// next over one interval's duration, timed from the moment the newest
/// interval count was seen, so the picture moves every frame rather than by
/// whole columns. When stopped the right edge is the newest interval and the
/// user pans and zooms over what the sample store still holds.
///
/// The segments are created once per geometry (`prepareData`) and used as a
/// ring: the engine's analysis queue writes each column into `currentToWrite`;
/// when that segment is full, the oldest one (the last of `segmentsToWrite`)
/// is reset and moved to the front, and `segmentOffset` counts one more full
/// segment. `segmentsToShow` keeps the order of creation and never changes
/// while the engine runs.
///
/// Threading: main thread, except `addFFTdata` and `setCurrentSegmentToWrite`
/// (the analysis queue, one writer, while the geometry holds: they touch only
/// the write list, the current segment and atomics), `setPlayLinePosition`
/// and `raiseNeedsDisplay` (any thread including the real-time one: each
/// stores an atomic that the main thread reads at its next frame or poll).
class SpectrogramScrollView : public GLScrollView, public SpectrogramScrollViewInterface {
    Q_OBJECT
public:
    /// Level floor added before the dB conversion of a column (about 10^-14.4).
    static constexpr float kDecibelFloor = 3.981075e-15f;

    /// What the measuring cursor reads at one content point.
    struct MeasureReading {
        bool valid = false; ///< a column with data lies under the point
        int64_t intervalIndex = -1;
        int32_t row = -1;         ///< display row, 0 at the bottom
        double secondsBack = 0.0; ///< time from the newest column (s, >= 0)
        double frequency = 0.0;   ///< Hz at the point's height
        QString note;             ///< note name of `frequency`
        bool hasLevel = false;    ///< the interval's samples are still stored
        double level = 0.0;       ///< dB with valuesInDB, else linear magnitude
    };

    /// `defaults` must outlive the view.
    explicit SpectrogramScrollView(AnalyzerDefaults& defaults, QWidget* parent = nullptr);
    ~SpectrogramScrollView() override;

    // --- Colours (main thread) ---------------------------------------------------------

    const SpectrogramColorRamp& colorRamp() const { return ramp_; }
    /// Scheme from `spectrogramColorType`: 0 coloured, 1 black, 2 white; any
    /// other value keeps the current scheme.
    void setColorForSpectrogram();
    void setColoredSpectrogram();
    void setBlackSpectrogram();
    void setWhiteSpectrogram();
    const std::array<float, 4>& gridColor() const { return gridColor_; }
    const std::array<float, 4>& measureLineColor() const { return measureLineColor_; }

    // --- Segments (main thread, engine stopped) -------------------------------------------

    /// Replaces the segments by `segmentCount` new ones for the current
    /// geometry (colour scheme chosen first), placed from time 0.
    void prepareData();
    /// One new segment at the front of both lists.
    void addSegment();
    /// Segment i of the show list at position i × `segmentSize`.
    void setupStartPositions();
    /// Every segment empty and uploaded, the write list back in show order,
    /// the first one current, `segmentOffset` 0.
    void clearData();
    const std::deque<SpectrogramScrollViewSegment*>& segmentsToWrite() const {
        return segmentsToWrite_;
    }
    const std::deque<SpectrogramScrollViewSegment*>& segmentsToShow() const {
        return segmentsToShow_;
    }
    SpectrogramScrollViewSegment* currentToWrite() const {
        return currentToWrite_.load(std::memory_order_acquire);
    }
    /// Full segments since the last clear.
    int64_t segmentOffset() const { return segmentOffset_.load(std::memory_order_acquire); }

    // --- Columns (analysis queue) -------------------------------------------------------

    /// One interval's power spectrum (`fftOutSize` values): reduced to the
    /// display rows or logarithmic points, scaled to dB (floor added) or to
    /// magnitudes, written as one column; then the ring moves on if the
    /// segment is full. Nothing without the spectrogram product switch or
    /// before `prepareData`. Null `fftData`: a capture gap's column (see
    /// `SpectrogramScrollViewSegment::addFFTdata`). No allocation.
    void addFFTdata(const float* fftData, int64_t intervalIndex);
    /// When the current segment is full: the oldest one is reset, moved to the
    /// front and made current, placed after the one just filled.
    void setCurrentSegmentToWrite();

    // --- Scrolling (main thread) ------------------------------------------------------------

    /// Follow the newest column; places the segments from time 0 when nothing
    /// has been written yet.
    void startScrolling();
    /// Stop following: the right edge stays at the newest interval.
    void pauseScrolling();
    /// While running the view draws every frame (smooth scrolling).
    void setAnalyzerRunning(bool running);
    bool isScrolling() const { return following_; }
    /// The interval coordinate at content x = 1 as of the last frame (the newest
    /// interval count when stopped).
    double rightEdgeInterval() const { return rightEdge_; }
    /// Heights (content y) of the horizontal grid lines, from the axis view.
    void setHorizontalGridLines(std::vector<float> contentY) { gridY_ = std::move(contentY); }
    /// Any thread: ask for frames (the play line moved); taken by a main-thread
    /// poll that runs while a play line is shown.
    void raiseNeedsDisplay() { needsDisplayFlag_.store(true, std::memory_order_release); }
    /// Whether the play line is drawn (it moved within the last half second).
    bool playLineVisible() const;

    // --- Shaded band (main thread) ------------------------------------------------------

    /// A band of frequencies shaded across the whole spectrogram, with a label
    /// at its right end (the heterodyne's tuned band).
    /// The band's colour (the spectrum chart's band too): cyan stands apart
    /// from every colour scheme's ramp and from the spectrum's green curve.
    static constexpr std::array<float, 3> kBandColor{0.35f, 0.95f, 1.0f};
    struct ShadedBand {
        double low = 0.0;  ///< content y of its lower edge (may lie off the content)
        double high = 0.0; ///< content y of its upper edge
        QString label;
        bool operator==(const ShadedBand&) const = default;
    };
    using ShadedBandSource = std::function<std::optional<ShadedBand>()>;
    /// Asked at every frame for the band to shade (none: nothing shaded); a
    /// change of its answer draws a new frame. An empty function shades nothing.
    void setShadedBandSource(ShadedBandSource source) { shadedBandSource_ = std::move(source); }
    /// The band the last frame showed.
    const std::optional<ShadedBand>& shadedBand() const { return drawnKey_.band; }

    // --- Measuring (main thread) ----------------------------------------------------------

    /// The reading at a content point; the level is recomputed from the sample
    /// store (only while the analyser is stopped; else `hasLevel` is false).
    MeasureReading measureAt(QPointF content);
    /// The read-out panel's text for the cursor.
    QString measuringText() const { return measuringText_; }
    /// The chart that `computeFFTInDelegateChart` feeds; not owned, may be null.
    void setDelegateChart(ChartViewInterface* chart) { delegateChart_ = chart; }

    // SpectrogramScrollViewInterface
    int64_t getIntervalIndexForSpectrogramPosition(float position) const override;
    int64_t getIntervalIndexForSpectrogramActualPosition() const override;
    void setMeasureScrollType(int32_t type) override { GLScrollView::setMeasureScrollType(type); }
    QPointF measuringActualPosition() const override {
        return GLScrollView::measuringActualPosition();
    }
    void setMeasuringActualPosition(QPointF position) override {
        GLScrollView::setMeasuringActualPosition(position);
    }
    /// Any thread; see Threading.
    void setPlayLinePosition(float intervalsBeforeNewest) override;
    void computeFFTInDelegateChart() override;
    void setNeedsPanningStopRamp() override { GLScrollView::setNeedsPanningStopRamp(); }
    void zoomOut() override { GLScrollView::zoomOut(); }
    bool measuringActivated() const override { return GLScrollView::measuringActivated(); }
    void setMeasuringActivated(bool on) override { GLScrollView::setMeasuringActivated(on); }
    void setScrollViewDelegate(ScrollViewInterface* partner) override;
    using GLScrollView::setScrollViewDelegate;

    /// "time": seconds back from the newest column to the cursor.
    double getValueForKey(const QString& key) override;
    /// Clamps the cursor to the content and updates the read-out.
    QPointF recalculateMeasuringActualPosition(QPointF position) override;
    /// Told the frequency under the cursor after each move of the user's own
    /// cursor (the owner passes it to the partner chart); may be empty.
    void setMeasuredFrequencyObserver(std::function<void(double frequency)> observer) {
        measuredFrequencyObserver_ = std::move(observer);
    }
    /// The partner chart's cursor means frequency and level, not time and
    /// frequency: positions are not mirrored as they stand; the frequency goes
    /// to the observer instead.
    void measuringActualPositionDidChanged() override;

    /// Frames drawn in a row by sliding the last one (software path); 0 after
    /// a frame drawn whole.
    int framesDrawnFromTheLast() const { return scrolledFrames_; }

protected:
    void drawGLRect(const QRectF& rect) override;
    void releaseGLResources() override;
    /// While the analyser runs, a frame is drawn when the columns have slid by
    /// a whole device pixel, or the view, the cursor or the play line moved;
    /// every other frame would repeat the last one. At the defaults the
    /// columns move about 14 pixels a second, so most of the 60 frames would.
    /// Columns uploaded between two such frames appear with the next one (at
    /// most one pixel's worth of time later), not with a frame of their own.
    bool frameWouldChange() override;

private:
    /// What a frame shows, for telling whether the next one would differ.
    struct FrameKey {
        int64_t edgePixel = 0;
        AffineTransform transform;
        bool measuring = false;
        QPointF measure;
        uint32_t playLine = 0;
        std::optional<ShadedBand> band;
        bool operator==(const FrameKey&) const = default;
    };
    FrameKey frameKey() const;
    /// Software path: how far (pixels, negative: to the left) the shown frame
    /// can be moved to start the next one, when only the columns slid since
    /// it was drawn; none when the frame must be drawn whole.
    std::optional<int> scrollShift(const FrameKey& key) const;
    /// The interval after the newest uploaded column of the shown segments:
    /// a frame slid from the last one redraws from there, since columns
    /// uploaded after it was drawn may already lie left of the new edge.
    int64_t uploadedEnd() const;

    void updateRightEdge();
    void drawSegments(double left, double width);
    void drawGrid(double left, double width);
    void drawPlayLine(double left, double width);
    void drawMeasureLines();
    void drawShadedBand(const ShadedBand& band);
    void pollNeedsDisplay();
    /// Interval under content x (floor), from the last frame's right edge.
    int64_t intervalAtContentX(double x) const;
    /// The interval's spectrum recomputed from the store; null when it is gone.
    const float* recomputeSpectrum(int64_t intervalIndex, float** windowData);

    AnalyzerDefaults& mDefaults;
    SpectrogramColorRamp ramp_;
    std::array<float, 4> gridColor_{0.12f, 0.12f, 0.12f, 1.0f};
    std::array<float, 4> measureLineColor_{1.0f, 1.0f, 1.0f, 1.0f};

    std::vector<std::unique_ptr<SpectrogramScrollViewSegment>> segments_;
    std::deque<SpectrogramScrollViewSegment*> segmentsToWrite_;
    std::deque<SpectrogramScrollViewSegment*> segmentsToShow_;
    std::atomic<SpectrogramScrollViewSegment*> currentToWrite_{nullptr};
    std::atomic<int64_t> segmentOffset_{0};
    std::vector<float> columnScratch_; // analysis queue: one scaled column

    FrameKey drawnKey_;
    uint64_t drawnRedrawRequests_ = 0;
    int scrolledFrames_ = 0; ///< frames drawn from the last one in a row
    int64_t drawnUploadedEnd_ = 0;
    bool following_ = false;
    bool analyzerRunning_ = false;
    double rightEdge_ = 0.0;
    int64_t lastSeenInterval_ = -1;
    QElapsedTimer intervalClock_;
    std::vector<float> gridY_;
    std::vector<float> gridVertices_; // reused every frame

    std::atomic<float> playLinePosition_{0.0f};
    std::atomic<uint32_t> playLineUpdates_{0};
    uint32_t playLineUpdatesSeen_ = 0;
    QElapsedTimer playLineClock_;
    std::atomic<bool> needsDisplayFlag_{false};
    QTimer needsDisplayPoll_;

    ShadedBandSource shadedBandSource_;
    std::shared_ptr<GLTexture> bandLabel_; // the texture of bandLabelText_
    QString bandLabelText_;

    ChartViewInterface* delegateChart_ = nullptr;
    std::function<void(double)> measuredFrequencyObserver_;
    double measuredFrequency_ = 0.0;
    std::unique_ptr<FFTManager> measureFFT_;
    std::vector<float> measureColumn_;
    QString measuringText_;
    QLabel* measuringPanel_ = nullptr;
    double measuredSecondsBack_ = 0.0;
};

} // namespace widmo
