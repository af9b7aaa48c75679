#include "engine/DisplayTimer.h"

#include <utility>

namespace widmo {

DisplayTimer::DisplayTimer() {
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer_, &QTimer::timeout, [this] { tick(); });
}

DisplayTimer::~DisplayTimer() { invalidate(); }

void DisplayTimer::start(std::function<void()> action) {
    action_ = std::move(action);
    active_ = true;
    nextDeadline_ = std::chrono::steady_clock::now() + kPeriod;
    armNext();
}

void DisplayTimer::invalidate() {
    active_ = false;
    timer_.stop();
}

void DisplayTimer::armNext() {
    using namespace std::chrono;
    const auto wait = nextDeadline_ - steady_clock::now();
    // Round up: firing a little late keeps the average rate, firing early would
    // run a tick before its deadline.
    const auto ms = wait <= nanoseconds::zero() ? milliseconds::zero() : ceil<milliseconds>(wait);
    timer_.start(ms);
}

void DisplayTimer::tick() {
    if (!active_) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    nextDeadline_ += kPeriod;
    if (nextDeadline_ <= now) {
        nextDeadline_ = now + kPeriod;
    }
    // Armed before the action so that the action may invalidate the timer.
    armNext();
    // A copy, so that the action may restart the timer with another action.
    const std::function<void()> action = action_;
    if (action) {
        action();
    }
}

} // namespace widmo
