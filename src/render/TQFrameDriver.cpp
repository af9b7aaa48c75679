#include "render/TQFrameDriver.h"

#include <algorithm>
#include <cmath>

namespace widmo {

TQFrameDriver::TQFrameDriver(std::function<void()> onFrame, QObject* parent)
    : QObject(parent), onFrame_(std::move(onFrame)) {
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer);
    connect(&timer_, &QTimer::timeout, this, &TQFrameDriver::tick);
}

void TQFrameDriver::setPaused(bool paused) {
    if (paused == paused_)
        return;
    paused_ = paused;
    if (paused_) {
        timer_.stop();
        return;
    }
    clock_.start();
    frameIndex_ = 0;
    scheduleNext();
}

void TQFrameDriver::setPreferredFramesPerSecond(int fps) {
    preferredFramesPerSecond_ = std::max(1, fps);
}

void TQFrameDriver::scheduleNext() {
    ++frameIndex_;
    const double periodMs = 1000.0 / preferredFramesPerSecond_;
    double dueMs = frameIndex_ * periodMs;
    const double nowMs = static_cast<double>(clock_.nsecsElapsed()) / 1e6;
    if (dueMs < nowMs) {
        // Late (a long frame or a busy event loop): start counting again from now.
        clock_.start();
        frameIndex_ = 1;
        dueMs = periodMs;
        timer_.start(static_cast<int>(std::lround(dueMs)));
        return;
    }
    timer_.start(static_cast<int>(std::lround(dueMs - nowMs)));
}

void TQFrameDriver::tick() {
    if (paused_)
        return;
    scheduleNext();
    onFrame_();
}

} // namespace widmo
