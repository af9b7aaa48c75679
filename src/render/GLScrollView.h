#pragma once

#include "render/GLView.h"
#include "render/ScrollGestureModel.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>
#include <QVariant>

#include <deque>

class QNativeGestureEvent;

namespace widmo {

class ScrollObserver;

/// A GL view whose content the user pans and zooms, with spring-back at the
/// edges, a gliding stop after a fling, double-tap zoom and a measuring cursor
/// that can be mirrored into a partner view.
///
/// Subclasses draw their content in `drawGLRect` through
/// `actualContentTransform()` (content space to unit view space); after that the
/// view covers everything outside the mapped content square with the border
/// colour. The arithmetic lives in `ScrollGestureModel`; this class binds it
/// to input:
/// - touch: one finger drags (pan), taps, double taps and long-presses; two
///   fingers pinch, the angle between them choosing the axes;
/// - mouse: drag = pan; click = tap; double click = double tap; press and hold
///   or right-button drag = long press; wheel = pinch about the pointer (plain
///   wheel zooms x, Shift+wheel y, Ctrl+wheel both); a trackpad's native zoom
///   gesture zooms both axes.
///
/// Threading: main thread only.
class GLScrollView : public GLView, private ScrollGestureModel::Host {
    Q_OBJECT
public:
    explicit GLScrollView(QWidget* parent = nullptr);
    ~GLScrollView() override;

    /// The gesture arithmetic and its state.
    ScrollGestureModel& model() { return model_; }
    const ScrollGestureModel& model() const { return model_; }

    const AffineTransform& contentTransform() const { return model_.contentTransform(); }
    void setContentTransform(const AffineTransform& t) { model_.setContentTransform(t); }
    const AffineTransform& actualContentTransform() const {
        return model_.actualContentTransform();
    }
    /// Jumps to `t` without gliding.
    void setActualContentTransform(const AffineTransform& t) {
        model_.setActualContentTransform(t);
    }
    QPointF maxContentZoom() const { return model_.maxContentZoom(); }
    void setMaxContentZoom(QPointF zoom) { model_.setMaxContentZoom(zoom); }
    int32_t doubleTapZoomType() const { return model_.doubleTapZoomType(); }
    void setDoubleTapZoomType(int32_t type) { model_.setDoubleTapZoomType(type); }
    float doubleTapZoom() const { return model_.doubleTapZoom(); }
    void setDoubleTapZoom(float zoom) { model_.setDoubleTapZoom(zoom); }
    int32_t measureScrollType() const { return model_.measureScrollType(); }
    void setMeasureScrollType(int32_t type) { model_.setMeasureScrollType(type); }
    float borderWidth() const { return model_.borderWidth(); }
    void setBorderWidth(float points) { model_.setBorderWidth(points); }

    bool measuringActivated() const { return model_.measuringActivated(); }
    /// Stores, then shows or hides `measuringView`.
    void setMeasuringActivated(bool on) { model_.setMeasuringActivated(on); }
    QPointF measuringActualPosition() const { return model_.measuringActualPosition(); }
    /// Stores `recalculateMeasuringActualPosition` of `position`, then redraws.
    void setMeasuringActualPosition(QPointF position) {
        model_.setMeasuringActualPosition(position);
    }
    bool fullScreen() const { return fullScreen_; }
    /// Stores, then shows or hides `measuringView`.
    void setFullScreen(bool on);

    /// Told about content transform changes; not owned, may be null. The
    /// delegate must outlive the view or be cleared first.
    void setDelegateRefresh(ScrollObserver* delegate) { delegateRefresh_ = delegate; }
    /// Partner view that mirrors the measuring cursor; may be null.
    void setScrollViewDelegate(GLScrollView* partner) { scrollViewDelegate_ = partner; }
    GLScrollView* scrollViewDelegate() const { return scrollViewDelegate_.data(); }
    /// The subclass's measuring info panel, shown only while measuring in full
    /// screen; not owned (normally a child widget).
    void setMeasuringView(QWidget* view);
    QWidget* measuringView() const { return measuringView_; }

    bool contentIsPanningOrZooming() const { return model_.contentIsPanningOrZooming(); }
    bool isRefreshNeeded() const override;
    void changeRefreshStateIfNeeded() override;
    /// Full view, redraw, tell `delegateRefresh`.
    void zoomOut();
    void setNeedsPanningStopRamp() { model_.setNeedsPanningStopRamp(); }
    /// Touch point (points, origin top left) to content space.
    QPointF convertPointToScrollContent(QPointF point) const {
        return model_.convertPointToScrollContent(point);
    }

    /// Values shown in the measuring panel; 0 here.
    virtual double getValueForParameters(const QVariant& parameters);
    virtual double getValueForKey(const QString& key);
    /// Snaps a cursor position; unchanged here.
    virtual QPointF recalculateMeasuringActualPosition(QPointF position) { return position; }
    /// Mirrors the cursor into `scrollViewDelegate`.
    virtual void measuringActualPositionDidChanged();

protected:
    void drawRect(const QRectF& rect) override;
    /// Covers what the content drew outside its mapped square.
    void clearBorder();

    bool event(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;

private:
    // ScrollGestureModel::Host
    void scrollNeedsDisplay() override { setNeedsDisplay(); }
    void scrollRefreshStateChanged() override { changeRefreshStateIfNeeded(); }
    void scrollContentWasChanged() override;
    QPointF scrollRecalculateMeasuringPosition(QPointF position) override {
        return recalculateMeasuringActualPosition(position);
    }
    void scrollMeasuringActivatedChanged() override { showMeasuringWindowIfNeeded(); }
    void scrollMeasuringSwitchedOffByTap() override;
    void scrollMeasuringPositionDidChange() override { measuringActualPositionDidChanged(); }

    void showMeasuringWindowIfNeeded();

    // One-pointer gestures shared by the mouse and a single finger.
    enum class PointerState { Idle, Pressed, Panning, LongPress };
    void pointerPress(QPointF pos, bool secondClick);
    void pointerMove(QPointF pos);
    void pointerRelease(QPointF pos);
    void pointerCancel();
    void holdTimeout();
    QPointF pointerVelocity() const;
    void beginSyntheticPinch(QPointF centre, double angleDegrees);
    void updateSyntheticPinch(double scale);
    void endSyntheticPinch();
    std::pair<QPointF, QPointF> syntheticFingers() const;
    bool handleTouch(QEvent* event);
    bool handleNativeGesture(QNativeGestureEvent* event);

    ScrollGestureModel model_;
    bool fullScreen_ = false;
    ScrollObserver* delegateRefresh_ = nullptr;
    QPointer<GLScrollView> scrollViewDelegate_;
    QWidget* measuringView_ = nullptr;

    PointerState pointerState_ = PointerState::Idle;
    QPointF pressPos_;
    bool doubleTapPending_ = false;
    QTimer holdTimer_;
    QTimer tapTimer_;
    QPointF tapPos_;
    QElapsedTimer pointerClock_;
    std::deque<std::pair<qint64, QPointF>> pointerTrail_;

    // Pinch from two fingers, the wheel or a trackpad.
    bool touchPinching_ = false;
    double touchPinchStartDistance_ = 0.0;
    bool syntheticPinching_ = false;
    QPointF syntheticCentre_;
    double syntheticAngle_ = 0.0;
    double syntheticScale_ = 1.0;
    Qt::KeyboardModifiers wheelModifiers_;
    QTimer wheelEndTimer_;
};

} // namespace widmo
