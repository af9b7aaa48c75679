#pragma once

#include "render/AffineTransform.h"

#include <QPointF>
#include <QSizeF>

#include <cstdint>

namespace widmo {

/// Phase of a continuous gesture.
enum class GestureState { Began, Changed, Ended, Cancelled };

/// The pan, zoom and measuring arithmetic of a scrolling GL view, free of GL
/// and of events: gestures come in as plain calls (touch points in points,
/// origin at the top left of the view, y down) and the view draws with
/// `actualContentTransform`, which maps content space to unit view space
/// (origin bottom left, y up).
///
/// `contentTransform` is the target that gestures set; once per frame
/// `calculateTransformStopRamp` runs the gliding stop of a fling and glides the
/// drawn transform 15 % of the way toward the target. After a transform change
/// `correctionRefreshCounter` keeps the view drawing for 90 more frames.
///
/// Side effects on the view (redraw, refresh state, the chart owner's axis
/// labels, the measuring panel and the partner view) go through `Host`.
///
/// Threading: main thread only.
class ScrollGestureModel {
public:
    /// What the model asks of its view. Every call comes from inside a model call.
    class Host {
    public:
        virtual ~Host() = default;
        /// Keep drawing for the next 60 frames.
        virtual void scrollNeedsDisplay() {}
        /// Refresh needs may have changed: pause or resume the frame loop.
        virtual void scrollRefreshStateChanged() {}
        /// The content transform changed by a double tap or zoom-out (tell the
        /// chart's owner so that it redraws its axis labels).
        virtual void scrollContentWasChanged() {}
        /// Snaps a new cursor position; the position unchanged by default.
        virtual QPointF scrollRecalculateMeasuringPosition(QPointF position) { return position; }
        /// `measuringActivated` was written.
        virtual void scrollMeasuringActivatedChanged() {}
        /// A tap switched measuring off: switch it off in the partner view too.
        virtual void scrollMeasuringSwitchedOffByTap() {}
        /// The user moved the cursor: mirror it into the partner view.
        virtual void scrollMeasuringPositionDidChange() {}
    };

    static constexpr int32_t kCorrectionFrames = 90;
    static constexpr double kGlideFactor = 0.15;
    static constexpr double kFlingDecay = 0.93;
    static constexpr double kFlingStopVelocity = 0.1;
    static constexpr double kGrabRadius = 40.0;
    static constexpr double kGrabRadiusBothAxesMultiTouch = 50.0;

    explicit ScrollGestureModel(Host* host = nullptr);
    void setHost(Host* host);

    // --- Geometry ------------------------------------------------------------

    /// View size in points; both components must be positive before gestures arrive.
    void setViewSize(QSizeF size) { viewSize_ = size; }
    QSizeF viewSize() const { return viewSize_; }
    /// Inset in points around the drawable area, used by touch conversion.
    float borderWidth() const { return borderWidth_; }
    void setBorderWidth(float points) { borderWidth_ = points; }
    /// Frame rate that turns a pan velocity (points per second) into points per frame.
    void setFramesPerSecond(double fps) { framesPerSecond_ = fps > 0 ? fps : 60.0; }

    // --- Transforms ------------------------------------------------------------

    /// The target transform that gestures set.
    const AffineTransform& contentTransform() const { return contentTransform_; }
    void setContentTransform(const AffineTransform& t) { contentTransform_ = t; }
    /// The transform drawn this frame.
    const AffineTransform& actualContentTransform() const { return mActualContentTransform; }
    /// Jumps without gliding: sets the drawn, the previous and the target transform.
    void setActualContentTransform(const AffineTransform& t);
    /// Largest zoom per axis; each component is raised to at least 2.0.
    QPointF maxContentZoom() const { return maxContentZoom_; }
    void setMaxContentZoom(QPointF zoom);
    /// 0 = horizontal, 1 = vertical, 2 = both axes.
    int32_t doubleTapZoomType() const { return doubleTapZoomType_; }
    void setDoubleTapZoomType(int32_t type) { doubleTapZoomType_ = type; }
    /// Zoom factor of a double tap; default 3.
    float doubleTapZoom() const { return doubleTapZoom_; }
    void setDoubleTapZoom(float zoom) { doubleTapZoom_ = zoom; }

    /// Zoom to the full view (target identity), redraw, tell the owner.
    void zoomOut();
    /// Starts the gliding stop with the last pan velocity.
    void setNeedsPanningStopRamp() { mPanningStopRamp = true; }

    // --- Per frame ---------------------------------------------------------------

    /// Before drawing: the fling's gliding stop, then the glide of the drawn
    /// transform toward the target.
    void calculateTransformStopRamp();
    /// After drawing: counts down the frames kept after a transform change.
    void frameDrawn();
    /// A pinch or pan runs, or the transform is still settling.
    bool contentIsPanningOrZooming() const;
    /// The view must keep drawing for the model's sake.
    bool isRefreshNeeded() const;

    /// Moves content that leaves a gap at an edge back: 30 % of the gap with
    /// `pt1` (a spring, once per frame), all of it without.
    void panningCorrectionWithPT1(bool pt1);
    /// End of a pinch: zoom below 1 back to the full view and beyond
    /// `maxContentZoom` back to the limit, about the last pinch centre, on the
    /// axes the pinch zoomed.
    void zoomingCorrection();

    // --- Gestures ----------------------------------------------------------------

    /// Pan with `translation` (total, points) and `velocity` (points per second)
    /// of `touches` fingers at `location`.
    void handlePan(GestureState state, QPointF translation, QPointF velocity, int touches,
                   QPointF location);
    /// Pinch of recognizer scale `scale`; with two touches their locations set
    /// the axis choice and the centre.
    void handlePinch(GestureState state, double scale, int touches, QPointF touch1, QPointF touch2);
    /// Double tap at `location` (on its end).
    void handleDoubleTap(QPointF location);
    /// Single tap at `location` (on its end).
    void handleOneTap(QPointF location);
    /// Long press at `location`.
    void handleLongPress(GestureState state, QPointF location);

    // --- Measuring -----------------------------------------------------------------

    bool measuringActivated() const { return measuringActivated_; }
    void setMeasuringActivated(bool on);
    /// Cursor position in content space.
    QPointF measuringActualPosition() const { return measuringActualPosition_; }
    /// Stores the host's snapped version of `position`, then redraws.
    void setMeasuringActualPosition(QPointF position);
    /// 0 = grabbed by x distance, 1 = by y distance, 2 = by either.
    int32_t measureScrollType() const { return measureScrollType_; }
    void setMeasureScrollType(int32_t type) { measureScrollType_ = type; }
    /// Puts the cursor under `touchPoint` along the axes of the current grab.
    void invokeMeasuring(QPointF touchPoint);
    /// Touch point (points, origin top left) to content space.
    QPointF convertPointToScrollContent(QPointF touchPoint) const;

    // --- State, read-only ----------------------------------------------------------

    bool isZooming() const { return mZooming; }
    bool isPanning() const { return mPanning; }
    bool isPanMeasuring() const { return mPanMeasuring; }
    bool isLongPressMeasuring() const { return mLongPressMeasuring; }
    bool isPanningStopRamp() const { return mPanningStopRamp; }
    int32_t correctionRefreshCounter() const { return mCorrectionRefreshCounter; }
    int32_t typeOfContinueMeasuring() const { return mTypeOfContinueMeasuring; }
    QPointF panningLastVelocity() const { return mPanningLastVelocity; }
    /// Axes of the current pinch: x, y each 1 or 0.
    QPointF zoomAxes() const { return mZoomAxes; }

private:
    void cursorGrabTest(int touches, QPointF location);
    void pinchTouches(int touches, QPointF touch1, QPointF touch2, double* angleDegrees);

    Host* host_;
    QSizeF viewSize_{1.0, 1.0};
    double framesPerSecond_ = 60.0;

    bool mZooming = false;
    bool mPanning = false;
    bool mPanMeasuring = false;
    bool mLongPressMeasuring = false;
    bool mPanningStopRamp = false;
    int32_t mCorrectionRefreshCounter = 0;
    AffineTransform mActualContentTransform;
    AffineTransform mLastContentTransform;
    AffineTransform mPanningMemTransform;
    QPointF mPanningLastVelocity;
    int32_t mMeasuringNumberOfTouches = 0;
    int32_t mTypeOfContinueMeasuring = 2;
    AffineTransform mZoomMemTransform;
    QPointF mZoomMemCenterPoint;
    QPointF mZoomAxes{1.0, 1.0};
    QPointF mZoomActualCenterPoint;
    QPointF mZoomLastCenterPoint;
    QPointF mZoomActualAxes{1.0, 0.0};

    bool measuringActivated_ = false;
    float borderWidth_ = 0.0f;
    int32_t doubleTapZoomType_ = 0;
    float doubleTapZoom_ = 3.0f;
    int32_t measureScrollType_ = 0;
    QPointF maxContentZoom_{20.0, 20.0};
    QPointF measuringActualPosition_;
    AffineTransform contentTransform_;
};

} // namespace widmo
