#include "render/ScrollGestureModel.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace widmo {

namespace {

ScrollGestureModel::Host& silentHost() {
    static ScrollGestureModel::Host host;
    return host;
}

} // namespace

ScrollGestureModel::ScrollGestureModel(Host* host) : host_(host ? host : &silentHost()) {}

void ScrollGestureModel::setHost(Host* host) { host_ = host ? host : &silentHost(); }

void ScrollGestureModel::setActualContentTransform(const AffineTransform& t) {
    mActualContentTransform = t;
    mLastContentTransform = t;
    contentTransform_ = t;
}

void ScrollGestureModel::setMaxContentZoom(QPointF zoom) {
    maxContentZoom_ = QPointF(std::max(zoom.x(), 2.0), std::max(zoom.y(), 2.0));
}

void ScrollGestureModel::zoomOut() {
    contentTransform_ = AffineTransform::identity();
    host_->scrollNeedsDisplay();
    host_->scrollContentWasChanged();
}

bool ScrollGestureModel::contentIsPanningOrZooming() const {
    return mZooming || mPanning || mCorrectionRefreshCounter > 0;
}

bool ScrollGestureModel::isRefreshNeeded() const {
    return contentIsPanningOrZooming() || mPanMeasuring || mLongPressMeasuring;
}

void ScrollGestureModel::calculateTransformStopRamp() {
    const double width = viewSize_.width();
    const double height = viewSize_.height();
    if (mPanningStopRamp) {
        const double vx = mPanningLastVelocity.x();
        const double vy = mPanningLastVelocity.y();
        contentTransform_ = contentTransform_.translatedAfter(vx / width, -vy / height);
        mPanningLastVelocity *= kFlingDecay;
        panningCorrectionWithPT1(true);
        if (std::fabs(mPanningLastVelocity.x()) < kFlingStopVelocity &&
            std::fabs(mPanningLastVelocity.y()) < kFlingStopVelocity) {
            mPanningStopRamp = false;
            panningCorrectionWithPT1(false);
        }
        mCorrectionRefreshCounter = kCorrectionFrames;
    }

    const AffineTransform& target = contentTransform_;
    const AffineTransform& last = mLastContentTransform;
    AffineTransform actual = target;
    actual.a = last.a + (target.a - last.a) * kGlideFactor;
    actual.d = last.d + (target.d - last.d) * kGlideFactor;
    actual.tx = last.tx + (target.tx - last.tx) * kGlideFactor;
    actual.ty = last.ty + (target.ty - last.ty) * kGlideFactor;
    mActualContentTransform = actual;

    // Signed on purpose: the 90 frames armed by every gesture cover a shrinking
    // component, so only a growing one needs to re-arm the counter here.
    if (target.a - last.a > 0.001 || target.d - last.d > 0.001 || target.tx - last.tx > 0.0001 ||
        target.ty - last.ty > 0.0001)
        mCorrectionRefreshCounter = kCorrectionFrames;

    mLastContentTransform = mActualContentTransform;
}

void ScrollGestureModel::frameDrawn() {
    if (mCorrectionRefreshCounter >= 1)
        --mCorrectionRefreshCounter;
}

void ScrollGestureModel::panningCorrectionWithPT1(bool pt1) {
    const double f = pt1 ? 0.3 : 1.0;
    const QPointF p0 = contentTransform_.map(QPointF(0, 0));
    const QPointF p1 = contentTransform_.map(QPointF(1, 1));
    if (p0.x() > 0.0001) {
        mCorrectionRefreshCounter = kCorrectionFrames;
        contentTransform_ = contentTransform_.translatedAfter(-p0.x() * f, 0);
    }
    if (p1.x() < 0.9999) {
        mCorrectionRefreshCounter = kCorrectionFrames;
        contentTransform_ = contentTransform_.translatedAfter((1 - p1.x()) * f, 0);
    }
    if (p0.y() > 0.0001) {
        mCorrectionRefreshCounter = kCorrectionFrames;
        contentTransform_ = contentTransform_.translatedAfter(0, -p0.y() * f);
    }
    if (p1.y() < 0.9999) {
        mCorrectionRefreshCounter = kCorrectionFrames;
        contentTransform_ = contentTransform_.translatedAfter(0, (1 - p1.y()) * f);
    }
}

void ScrollGestureModel::zoomingCorrection() {
    const QPointF p0 = contentTransform_.map(QPointF(0, 0));
    const QPointF p1 = contentTransform_.map(QPointF(1, 1));
    const double wx = std::fabs(p1.x() - p0.x());
    const double wy = std::fabs(p1.y() - p0.y());
    double sx = wx < 0.9999 ? 1.0 / wx : 1.0;
    double sy = wy < 0.9999 ? 1.0 / wy : 1.0;
    if (wx > maxContentZoom_.x())
        sx = maxContentZoom_.x() / wx;
    if (wy > maxContentZoom_.y())
        sy = maxContentZoom_.y() / wy;

    const bool zoomX = mZoomAxes.x() == 1.0;
    const bool zoomY = mZoomAxes.y() == 1.0;
    if (!((sx != 1.0 && zoomX) || (sy != 1.0 && zoomY)))
        return;
    mCorrectionRefreshCounter = kCorrectionFrames;
    double scaleX = 1.0;
    double scaleY = 1.0;
    if (zoomX && zoomY) {
        const double s = (sx <= 1.0 && sy <= 1.0) ? std::min(sx, sy) : std::max(sx, sy);
        scaleX = scaleY = s;
    } else if (zoomX) {
        scaleX = sx;
    } else {
        scaleY = sy;
    }
    const QPointF c = mZoomMemCenterPoint;
    contentTransform_ = contentTransform_.translatedAfter(-c.x(), -c.y())
                            .scaledAfter(scaleX, scaleY)
                            .translatedAfter(c.x(), c.y());
}

void ScrollGestureModel::cursorGrabTest(int touches, QPointF location) {
    if (!measuringActivated_ || mLongPressMeasuring)
        return;
    const QPointF touch = mActualContentTransform.map(convertPointToScrollContent(location));
    const QPointF cursor = mActualContentTransform.map(measuringActualPosition_);
    const double gx = std::fabs(touch.x() - cursor.x()) * viewSize_.width();
    const double gy = std::fabs(touch.y() - cursor.y()) * viewSize_.height();
    const double e = std::hypot(gx, gy);

    const double d = measureScrollType_ == 0 ? gx : measureScrollType_ == 1 ? gy : std::min(gx, gy);
    const double radius =
        (touches >= 2 && measureScrollType_ == 2) ? kGrabRadiusBothAxesMultiTouch : kGrabRadius;
    if (d >= radius)
        return;
    if (measureScrollType_ != 2 && touches != 1)
        return;
    mMeasuringNumberOfTouches = touches;
    if (measureScrollType_ != 2 || e < radius) {
        mPanMeasuring = true;
        mTypeOfContinueMeasuring = 2;
        return;
    }
    if (touches != 1)
        return;
    if (gx < radius) {
        mPanMeasuring = true;
        mTypeOfContinueMeasuring = 0;
    } else if (gy < radius) {
        mPanMeasuring = true;
        mTypeOfContinueMeasuring = 1;
    }
}

void ScrollGestureModel::handlePan(GestureState state, QPointF translation, QPointF velocity,
                                   int touches, QPointF location) {
    switch (state) {
    case GestureState::Began:
        cursorGrabTest(touches, location);
        mPanning = !mPanMeasuring && !mLongPressMeasuring;
        mPanningStopRamp = false;
        mPanningMemTransform = contentTransform_;
        [[fallthrough]];
    case GestureState::Changed:
        if (mPanning) {
            mPanningLastVelocity = velocity / framesPerSecond_;
            contentTransform_ = mPanningMemTransform.translatedAfter(
                translation.x() / viewSize_.width(), -translation.y() / viewSize_.height());
            host_->scrollRefreshStateChanged();
        }
        if (mPanMeasuring && touches == mMeasuringNumberOfTouches)
            invokeMeasuring(location);
        break;
    case GestureState::Ended:
        mPanningStopRamp = mPanning;
        mPanning = false;
        mPanMeasuring = false;
        host_->scrollRefreshStateChanged();
        break;
    case GestureState::Cancelled:
        contentTransform_ = mPanningMemTransform;
        mPanning = false;
        mPanMeasuring = false;
        host_->scrollRefreshStateChanged();
        break;
    }
}

void ScrollGestureModel::pinchTouches(int touches, QPointF touch1, QPointF touch2,
                                      double* angleDegrees) {
    *angleDegrees = 0.0;
    if (touches != 2)
        return;
    const double hx = std::fabs(touch1.x() - touch2.x());
    const double hy = std::fabs(touch1.y() - touch2.y());
    const double dist = std::hypot(hx, hy);
    if (dist > 0.0) {
        mZoomActualAxes = QPointF(hx / dist, hy / dist);
        *angleDegrees = std::asin(hy / dist) * 180.0 / std::numbers::pi;
    }
    const QPointF mid = (touch1 + touch2) / 2.0;
    mZoomActualCenterPoint =
        QPointF(mid.x() / viewSize_.width(), 1.0 - mid.y() / viewSize_.height());
}

void ScrollGestureModel::handlePinch(GestureState state, double scale, int touches, QPointF touch1,
                                     QPointF touch2) {
    double theta = 0.0;
    pinchTouches(touches, touch1, touch2, &theta);
    switch (state) {
    case GestureState::Began:
        mZooming = !mPanMeasuring && !mLongPressMeasuring;
        mZoomMemTransform = mActualContentTransform;
        mZoomMemCenterPoint = mZoomActualCenterPoint;
        mZoomLastCenterPoint = mZoomActualCenterPoint;
        if (theta < 20.0)
            mZoomAxes = QPointF(1, 0);
        else if (theta <= 70.0)
            mZoomAxes = QPointF(1, 1);
        else
            mZoomAxes = QPointF(0, 1);
        [[fallthrough]];
    case GestureState::Changed: {
        // The content under the first centre follows the fingers.
        const QPointF& w = mZoomAxes;
        const QPointF& a = mZoomActualAxes;
        double scaleX = scale;
        double scaleY = scale;
        if (!(w.x() == 1.0 && w.y() == 1.0)) {
            scaleX = (scale - 1.0) * a.x() * w.x() + 1.0;
            scaleY = (scale - 1.0) * a.y() * w.y() + 1.0;
        }
        contentTransform_ =
            mZoomMemTransform.translatedAfter(-mZoomLastCenterPoint.x(), -mZoomLastCenterPoint.y())
                .scaledAfter(scaleX, scaleY)
                .translatedAfter(mZoomActualCenterPoint.x(), mZoomActualCenterPoint.y());
        host_->scrollRefreshStateChanged();
        break;
    }
    case GestureState::Ended:
        mZoomMemCenterPoint = mZoomActualCenterPoint;
        zoomingCorrection();
        panningCorrectionWithPT1(false);
        mZooming = false;
        host_->scrollRefreshStateChanged();
        break;
    case GestureState::Cancelled:
        contentTransform_ = mZoomMemTransform;
        mZoomMemCenterPoint = mZoomActualCenterPoint;
        mZooming = false;
        host_->scrollRefreshStateChanged();
        break;
    }
}

void ScrollGestureModel::handleDoubleTap(QPointF location) {
    const QPointF p(location.x() / viewSize_.width(), 1.0 - location.y() / viewSize_.height());
    const double z = doubleTapZoom_;
    AffineTransform& t = contentTransform_;
    const bool zoomedX = t.a >= 1.01;
    const bool zoomedY = t.d >= 1.01;
    switch (doubleTapZoomType_) {
    case 0:
        if (!zoomedX) {
            t = t.translatedAfter(-p.x(), -p.y()).scaledAfter(z, 1).translatedAfter(0.5, p.y());
        } else {
            t.a = 1;
            t.tx = 0;
            t.b = t.c = 0;
        }
        break;
    case 1:
        if (!zoomedY) {
            t = t.translatedAfter(-p.x(), -p.y()).scaledAfter(1, z).translatedAfter(p.x(), 0.5);
        } else {
            t.d = 1;
            t.ty = 0;
            t.b = t.c = 0;
        }
        break;
    case 2:
        if (!(zoomedX && zoomedY)) {
            t = t.translatedAfter(-p.x(), -p.y()).scaledAfter(z, z).translatedAfter(0.5, 0.5);
        } else {
            const double m = std::min(t.a, t.d);
            t = t.translatedAfter(-p.x(), -p.y())
                    .scaledAfter(1 / m, 1 / m)
                    .translatedAfter(p.x(), p.y());
        }
        break;
    default:
        break;
    }
    panningCorrectionWithPT1(false);
    host_->scrollNeedsDisplay();
    host_->scrollContentWasChanged();
}

void ScrollGestureModel::handleOneTap(QPointF location) {
    if (measuringActivated_) {
        setMeasuringActivated(false);
        host_->scrollNeedsDisplay();
        host_->scrollMeasuringSwitchedOffByTap();
        return;
    }
    mTypeOfContinueMeasuring = 2;
    invokeMeasuring(location);
}

void ScrollGestureModel::handleLongPress(GestureState state, QPointF location) {
    switch (state) {
    case GestureState::Began:
        if (mPanMeasuring)
            break;
        mLongPressMeasuring = true;
        mTypeOfContinueMeasuring = 2;
        invokeMeasuring(location);
        break;
    case GestureState::Changed:
        if (mLongPressMeasuring)
            invokeMeasuring(location);
        break;
    case GestureState::Ended:
    case GestureState::Cancelled:
        mLongPressMeasuring = false;
        break;
    }
    host_->scrollRefreshStateChanged();
}

void ScrollGestureModel::setMeasuringActivated(bool on) {
    measuringActivated_ = on;
    host_->scrollMeasuringActivatedChanged();
}

void ScrollGestureModel::setMeasuringActualPosition(QPointF position) {
    measuringActualPosition_ = host_->scrollRecalculateMeasuringPosition(position);
    host_->scrollNeedsDisplay();
}

void ScrollGestureModel::invokeMeasuring(QPointF touchPoint) {
    setMeasuringActivated(true);
    const QPointF c = convertPointToScrollContent(touchPoint);
    switch (mTypeOfContinueMeasuring) {
    case 0:
        setMeasuringActualPosition(QPointF(c.x(), measuringActualPosition_.y()));
        break;
    case 1:
        setMeasuringActualPosition(QPointF(measuringActualPosition_.x(), c.y()));
        break;
    case 2:
        setMeasuringActualPosition(c);
        break;
    default:
        break;
    }
    host_->scrollMeasuringPositionDidChange();
}

QPointF ScrollGestureModel::convertPointToScrollContent(QPointF touchPoint) const {
    const double b = borderWidth_;
    const double width = viewSize_.width();
    const double height = viewSize_.height();
    const double x = std::clamp(touchPoint.x(), b, std::max(b, width - b));
    const double y = std::clamp(touchPoint.y(), b, std::max(b, height - b));
    const double u = (x - b) / (width - 2 * b);
    const double v = (height - y - b) / (height - 2 * b);
    return mActualContentTransform.inverted().map(QPointF(u, v));
}

} // namespace widmo
