#pragma once

#include <QTimer>

#include <chrono>
#include <functional>

namespace widmo {

/// A repeating 60 Hz timer on the main thread's event loop (precise timer).
///
/// Qt timers count whole milliseconds; a plain 16 ms or 17 ms interval would
/// run at 62.5 Hz or 58.8 Hz. This timer keeps its own schedule of deadlines
/// k/60 s after the start and arms a single-shot precise timer for the next
/// one, so it ticks 60 times a second on average without drift. When the main
/// thread falls behind by more than a period, missed ticks are skipped, not
/// bunched up.
///
/// Threading: main thread only (it lives on the thread that created it).
class DisplayTimer {
public:
    /// 1/60 s.
    static constexpr std::chrono::nanoseconds kPeriod{16'666'667};

    DisplayTimer();
    ~DisplayTimer();
    DisplayTimer(const DisplayTimer&) = delete;
    DisplayTimer& operator=(const DisplayTimer&) = delete;

    /// Starts (or restarts) ticking; the first tick comes one period from now.
    void start(std::function<void()> action);
    /// Stops ticking; no further call of the action follows.
    void invalidate();
    bool isActive() const { return active_; }

private:
    void armNext();
    void tick();

    QTimer timer_;
    std::function<void()> action_;
    std::chrono::steady_clock::time_point nextDeadline_{};
    bool active_ = false;
};

} // namespace widmo
