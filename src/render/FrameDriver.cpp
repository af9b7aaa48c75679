#include "render/FrameDriver.h"

#include <algorithm>
#include <cmath>

namespace widmo {

// The one timer behind every driver. Drivers join while running and leave when
// paused or destroyed; a driver that joins during a tick first ticks in the next.
class FrameDriver::Clock {
public:
    static Clock& shared() {
        static Clock clock;
        return clock;
    }

    void join(FrameDriver* driver) {
        if (std::find(running_.begin(), running_.end(), driver) != running_.end())
            return;
        running_.push_back(driver);
        if (running_.size() == 1) {
            clock_.start();
            frameIndex_ = 0;
            scheduleNext();
        }
    }

    void leave(FrameDriver* driver) {
        const auto it = std::find(running_.begin(), running_.end(), driver);
        if (it == running_.end())
            return;
        // Inside a tick the slot is emptied, not erased: the tick is walking the list.
        if (ticking_)
            *it = nullptr;
        else
            running_.erase(it);
        if (std::none_of(running_.begin(), running_.end(), [](auto* d) { return d; }))
            timer_.stop();
    }

    qint64 ticks() const { return ticks_; }

private:
    Clock() {
        timer_.setSingleShot(true);
        timer_.setTimerType(Qt::PreciseTimer);
        QObject::connect(&timer_, &QTimer::timeout, [this] { tick(); });
    }

    void scheduleNext() {
        ++frameIndex_;
        const double periodMs = 1000.0 / kFramesPerSecond;
        double dueMs = static_cast<double>(frameIndex_) * periodMs;
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

    void tick() {
        ++ticks_;
        ticking_ = true;
        // Index loop: a driver may join (append) while its neighbours tick.
        const size_t count = running_.size();
        for (size_t k = 0; k < count; ++k)
            if (FrameDriver* driver = running_[k])
                driver->onFrame_();
        ticking_ = false;
        running_.erase(std::remove(running_.begin(), running_.end(), nullptr), running_.end());
        if (!running_.empty())
            scheduleNext();
    }

    std::vector<FrameDriver*> running_;
    QTimer timer_;
    QElapsedTimer clock_;
    qint64 frameIndex_ = 0;
    qint64 ticks_ = 0;
    bool ticking_ = false;
};

FrameDriver::FrameDriver(std::function<void()> onFrame, QObject* parent)
    : QObject(parent), onFrame_(std::move(onFrame)) {}

FrameDriver::~FrameDriver() { Clock::shared().leave(this); }

void FrameDriver::setPaused(bool paused) {
    if (paused == paused_)
        return;
    paused_ = paused;
    if (paused_)
        Clock::shared().leave(this);
    else
        Clock::shared().join(this);
}

qint64 FrameDriver::clockTicks() { return Clock::shared().ticks(); }

} // namespace widmo
