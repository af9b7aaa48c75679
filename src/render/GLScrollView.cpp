#include "render/GLScrollView.h"

#include "render/ScrollObserver.h"

#include <QApplication>
#include <QMouseEvent>
#include <QNativeGestureEvent>
#include <QTapAndHoldGesture>
#include <QTouchEvent>
#include <QWheelEvent>

#include <cmath>
#include <numbers>

namespace widmo {

namespace {

// Half the distance between the two imagined fingers of a wheel or trackpad
// pinch; only their angle matters.
constexpr double kSyntheticFingerRadius = 50.0;
// Wheel notches (120 units each) that double the zoom.
constexpr double kWheelUnitsPerDoubling = 480.0;
// Quiet time after which a wheel pinch ends and the zoom correction runs.
constexpr int kWheelPinchEndMs = 250;
// Motion older than this does not count towards the release velocity.
constexpr qint64 kVelocityWindowMs = 100;

} // namespace

GLScrollView::GLScrollView(QWidget* parent) : GLView(parent) {
    setAttribute(Qt::WA_AcceptTouchEvents);
    model_.setHost(this);
    model_.setViewSize(QSizeF(std::max(1, width()), std::max(1, height())));
    model_.setFramesPerSecond(framesPerSecond());

    holdTimer_.setSingleShot(true);
    holdTimer_.setInterval(QTapAndHoldGesture::timeout());
    connect(&holdTimer_, &QTimer::timeout, this, &GLScrollView::holdTimeout);
    // A single tap waits until a double tap can no longer follow.
    tapTimer_.setSingleShot(true);
    tapTimer_.setInterval(QApplication::doubleClickInterval());
    connect(&tapTimer_, &QTimer::timeout, this, [this] { model_.handleOneTap(tapPos_); });
    wheelEndTimer_.setSingleShot(true);
    wheelEndTimer_.setInterval(kWheelPinchEndMs);
    connect(&wheelEndTimer_, &QTimer::timeout, this, &GLScrollView::endSyntheticPinch);
    pointerClock_.start();
}

GLScrollView::~GLScrollView() {
    // A measuring view that is a child dies later, in the widget base's
    // destructor; its destruction must not call back into this half-destroyed view.
    if (measuringView_ != nullptr)
        disconnect(measuringView_, &QObject::destroyed, this, nullptr);
    model_.setHost(nullptr);
}

void GLScrollView::setFullScreen(bool on) {
    fullScreen_ = on;
    showMeasuringWindowIfNeeded();
}

void GLScrollView::setMeasuringView(QWidget* view) {
    if (measuringView_ != nullptr)
        disconnect(measuringView_, &QObject::destroyed, this, nullptr);
    measuringView_ = view;
    if (view != nullptr)
        connect(view, &QObject::destroyed, this, [this] { measuringView_ = nullptr; });
    showMeasuringWindowIfNeeded();
}

bool GLScrollView::isRefreshNeeded() const {
    return GLView::isRefreshNeeded() || model_.isRefreshNeeded();
}

void GLScrollView::changeRefreshStateIfNeeded() {
    GLView::changeRefreshStateIfNeeded();
    if (model_.contentIsPanningOrZooming() && delegateRefresh_ != nullptr)
        delegateRefresh_->contentWasChanged();
}

void GLScrollView::zoomOut() { model_.zoomOut(); }

double GLScrollView::getValueForParameters(const QVariant& /*parameters*/) { return 0.0; }

double GLScrollView::getValueForKey(const QString& /*key*/) { return 0.0; }

void GLScrollView::measuringActualPositionDidChanged() {
    if (scrollViewDelegate_.isNull())
        return;
    scrollViewDelegate_->setMeasuringActivated(true);
    scrollViewDelegate_->setMeasuringActualPosition(model_.measuringActualPosition());
}

void GLScrollView::scrollContentWasChanged() {
    if (delegateRefresh_ != nullptr)
        delegateRefresh_->contentWasChanged();
}

void GLScrollView::scrollMeasuringSwitchedOffByTap() {
    if (scrollViewDelegate_.isNull())
        return;
    scrollViewDelegate_->setMeasuringActivated(false);
    scrollViewDelegate_->setNeedsDisplay();
}

void GLScrollView::showMeasuringWindowIfNeeded() {
    // Queued with this view as context: dropped if the view goes first.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (measuringView_ != nullptr)
                measuringView_->setVisible(model_.measuringActivated() && fullScreen_);
        },
        Qt::QueuedConnection);
}

void GLScrollView::drawRect(const QRectF& rect) {
    model_.setViewSize(rect.size());
    model_.calculateTransformStopRamp();
    GLView::drawRect(rect);
    clearBorder();
    model_.frameDrawn();
}

void GLScrollView::clearBorder() {
    GLPainter* e = effect();
    if (e == nullptr)
        return;
    const QPointF p0 = model_.actualContentTransform().map(QPointF(0, 0));
    const QPointF p1 = model_.actualContentTransform().map(QPointF(1, 1));
    e->prepareToDrawWithConstantColor(0.06f, 0.06f, 0.06f, 1.0f);
    if (p0.y() > 0)
        e->drawRectangle(QPointF(0, 0), QPointF(p1.x(), p0.y()));
    if (p1.x() < 1)
        e->drawRectangle(QPointF(1, 0), QPointF(p1.x(), p1.y()));
    if (p1.y() < 1)
        e->drawRectangle(QPointF(1, 1), QPointF(p0.x(), p1.y()));
    if (p0.x() > 0)
        e->drawRectangle(QPointF(0, 1), QPointF(p0.x(), p0.y()));
}

void GLScrollView::resizeEvent(QResizeEvent* event) {
    model_.setViewSize(QSizeF(std::max(1, width()), std::max(1, height())));
    GLView::resizeEvent(event);
}

// --- One pointer -------------------------------------------------------------------

void GLScrollView::pointerPress(QPointF pos, bool secondClick) {
    if (secondClick || (tapTimer_.isActive() &&
                        QLineF(pos, tapPos_).length() < QApplication::startDragDistance() * 4)) {
        tapTimer_.stop();
        doubleTapPending_ = true;
    }
    pointerState_ = PointerState::Pressed;
    pressPos_ = pos;
    pointerTrail_.clear();
    pointerTrail_.emplace_back(pointerClock_.elapsed(), pos);
    if (!doubleTapPending_)
        holdTimer_.start();
}

QPointF GLScrollView::pointerVelocity() const {
    const qint64 now = pointerClock_.elapsed();
    const std::pair<qint64, QPointF>* first = nullptr;
    for (const auto& sample : pointerTrail_) {
        if (now - sample.first <= kVelocityWindowMs) {
            first = &sample;
            break;
        }
    }
    if (first == nullptr || pointerTrail_.empty())
        return {};
    const auto& last = pointerTrail_.back();
    const qint64 dt = std::max<qint64>(now - first->first, 1);
    return (last.second - first->second) * (1000.0 / static_cast<double>(dt));
}

void GLScrollView::pointerMove(QPointF pos) {
    const qint64 now = pointerClock_.elapsed();
    pointerTrail_.emplace_back(now, pos);
    while (pointerTrail_.size() > 2 && now - pointerTrail_.front().first > kVelocityWindowMs)
        pointerTrail_.pop_front();

    switch (pointerState_) {
    case PointerState::Pressed:
        if (QLineF(pos, pressPos_).length() < QApplication::startDragDistance())
            return;
        holdTimer_.stop();
        doubleTapPending_ = false;
        pointerState_ = PointerState::Panning;
        model_.handlePan(GestureState::Began, pos - pressPos_, pointerVelocity(), 1, pressPos_);
        return;
    case PointerState::Panning:
        model_.handlePan(GestureState::Changed, pos - pressPos_, pointerVelocity(), 1, pos);
        return;
    case PointerState::LongPress:
        model_.handleLongPress(GestureState::Changed, pos);
        return;
    case PointerState::Idle:
        return;
    }
}

void GLScrollView::pointerRelease(QPointF pos) {
    holdTimer_.stop();
    switch (pointerState_) {
    case PointerState::Panning:
        // The velocity at release decides the fling: a pointer held still
        // before letting go does not glide.
        model_.handlePan(GestureState::Changed, pos - pressPos_, pointerVelocity(), 1, pos);
        model_.handlePan(GestureState::Ended, pos - pressPos_, pointerVelocity(), 1, pos);
        break;
    case PointerState::LongPress:
        model_.handleLongPress(GestureState::Ended, pos);
        break;
    case PointerState::Pressed:
        if (doubleTapPending_) {
            doubleTapPending_ = false;
            model_.handleDoubleTap(pos);
        } else {
            tapPos_ = pos;
            tapTimer_.start();
        }
        break;
    case PointerState::Idle:
        break;
    }
    pointerState_ = PointerState::Idle;
}

void GLScrollView::pointerCancel() {
    holdTimer_.stop();
    if (pointerState_ == PointerState::Panning)
        model_.handlePan(GestureState::Cancelled, {}, {}, 1, pressPos_);
    else if (pointerState_ == PointerState::LongPress)
        model_.handleLongPress(GestureState::Cancelled, pressPos_);
    pointerState_ = PointerState::Idle;
    doubleTapPending_ = false;
}

void GLScrollView::holdTimeout() {
    if (pointerState_ != PointerState::Pressed)
        return;
    pointerState_ = PointerState::LongPress;
    model_.handleLongPress(GestureState::Began, pressPos_);
}

void GLScrollView::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::RightButton) {
        // A right-button drag measures like a long press, without the wait.
        pointerCancel();
        pointerState_ = PointerState::LongPress;
        model_.handleLongPress(GestureState::Began, event->position());
    } else if (event->button() == Qt::LeftButton) {
        pointerPress(event->position(), false);
    }
    event->accept();
}

void GLScrollView::mouseDoubleClickEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton)
        pointerPress(event->position(), true);
    event->accept();
}

void GLScrollView::mouseMoveEvent(QMouseEvent* event) {
    pointerMove(event->position());
    event->accept();
}

void GLScrollView::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton || event->button() == Qt::RightButton)
        pointerRelease(event->position());
    event->accept();
}

// --- Pinch from the wheel and the trackpad -------------------------------------------

std::pair<QPointF, QPointF> GLScrollView::syntheticFingers() const {
    const double rad = syntheticAngle_ * std::numbers::pi / 180.0;
    const QPointF offset(kSyntheticFingerRadius * std::cos(rad),
                         kSyntheticFingerRadius * std::sin(rad));
    return {syntheticCentre_ - offset, syntheticCentre_ + offset};
}

void GLScrollView::beginSyntheticPinch(QPointF centre, double angleDegrees) {
    syntheticPinching_ = true;
    syntheticCentre_ = centre;
    syntheticAngle_ = angleDegrees;
    syntheticScale_ = 1.0;
    const auto [f1, f2] = syntheticFingers();
    model_.handlePinch(GestureState::Began, 1.0, 2, f1, f2);
}

void GLScrollView::updateSyntheticPinch(double scale) {
    syntheticScale_ = scale;
    const auto [f1, f2] = syntheticFingers();
    model_.handlePinch(GestureState::Changed, scale, 2, f1, f2);
}

void GLScrollView::endSyntheticPinch() {
    if (!syntheticPinching_)
        return;
    syntheticPinching_ = false;
    wheelEndTimer_.stop();
    const auto [f1, f2] = syntheticFingers();
    model_.handlePinch(GestureState::Ended, syntheticScale_, 2, f1, f2);
}

void GLScrollView::wheelEvent(QWheelEvent* event) {
    int delta = event->angleDelta().y();
    if (delta == 0)
        delta = event->angleDelta().x(); // Shift+wheel arrives as horizontal on some systems
    if (delta == 0)
        delta = event->pixelDelta().y() != 0 ? event->pixelDelta().y() : event->pixelDelta().x();
    if (delta == 0) {
        event->ignore();
        return;
    }
    const Qt::KeyboardModifiers mods =
        event->modifiers() & (Qt::ShiftModifier | Qt::ControlModifier);
    if (syntheticPinching_ && mods != wheelModifiers_)
        endSyntheticPinch();
    if (!syntheticPinching_) {
        wheelModifiers_ = mods;
        const double angle = (mods & Qt::ControlModifier) ? 45.0
                             : (mods & Qt::ShiftModifier) ? 90.0
                                                          : 0.0;
        beginSyntheticPinch(event->position(), angle);
    }
    updateSyntheticPinch(syntheticScale_ * std::exp2(delta / kWheelUnitsPerDoubling));
    wheelEndTimer_.start();
    event->accept();
}

bool GLScrollView::handleNativeGesture(QNativeGestureEvent* event) {
    switch (event->gestureType()) {
    case Qt::BeginNativeGesture:
        endSyntheticPinch();
        beginSyntheticPinch(event->position(), 45.0);
        return true;
    case Qt::ZoomNativeGesture:
        if (!syntheticPinching_)
            beginSyntheticPinch(event->position(), 45.0);
        updateSyntheticPinch(syntheticScale_ * (1.0 + event->value()));
        return true;
    case Qt::EndNativeGesture:
        endSyntheticPinch();
        return true;
    default:
        return false;
    }
}

// --- Touch ----------------------------------------------------------------------------

bool GLScrollView::handleTouch(QEvent* event) {
    auto* touch = static_cast<QTouchEvent*>(event);
    if (event->type() == QEvent::TouchCancel) {
        pointerCancel();
        if (touchPinching_) {
            touchPinching_ = false;
            model_.handlePinch(GestureState::Cancelled, 1.0, 0, {}, {});
        }
        return true;
    }
    QList<QPointF> down;
    QPointF released;
    bool anyReleased = false;
    for (const QEventPoint& p : touch->points()) {
        if (p.state() == QEventPoint::Released) {
            released = p.position();
            anyReleased = true;
        } else {
            down.append(p.position());
        }
    }

    if (down.size() >= 2) {
        // A second finger turns whatever one finger did into a pinch.
        if (pointerState_ != PointerState::Idle) {
            holdTimer_.stop();
            if (pointerState_ == PointerState::Panning)
                model_.handlePan(GestureState::Ended, down[0] - pressPos_, {}, 1, down[0]);
            else if (pointerState_ == PointerState::LongPress)
                model_.handleLongPress(GestureState::Ended, down[0]);
            pointerState_ = PointerState::Idle;
            doubleTapPending_ = false;
        }
        const double dist = QLineF(down[0], down[1]).length();
        if (!touchPinching_) {
            touchPinching_ = true;
            touchPinchStartDistance_ = std::max(dist, 1.0);
            model_.handlePinch(GestureState::Began, 1.0, 2, down[0], down[1]);
        } else {
            model_.handlePinch(GestureState::Changed, dist / touchPinchStartDistance_, 2, down[0],
                               down[1]);
        }
        return true;
    }
    if (touchPinching_) {
        // The pinch ends with its first lifted finger; the other one does nothing.
        touchPinching_ = false;
        model_.handlePinch(GestureState::Ended, 1.0, static_cast<int>(down.size()), {}, {});
        return true;
    }
    if (event->type() == QEvent::TouchBegin && down.size() == 1) {
        pointerPress(down[0], false);
    } else if (down.size() == 1) {
        pointerMove(down[0]);
    } else if (anyReleased) {
        pointerRelease(released);
    }
    return true;
}

bool GLScrollView::event(QEvent* event) {
    // A hidden widget gets its resize event only when shown; gestures and
    // programmatic input may come before that.
    model_.setViewSize(QSizeF(std::max(1, width()), std::max(1, height())));
    switch (event->type()) {
    case QEvent::TouchBegin:
    case QEvent::TouchUpdate:
    case QEvent::TouchEnd:
    case QEvent::TouchCancel:
        return handleTouch(event);
    case QEvent::NativeGesture:
        if (handleNativeGesture(static_cast<QNativeGestureEvent*>(event)))
            return true;
        break;
    default:
        break;
    }
    return GLView::event(event);
}

} // namespace widmo
