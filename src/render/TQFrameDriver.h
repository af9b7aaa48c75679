#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>

namespace widmo {

/// The display loop of a GL view: calls `onFrame` at the preferred rate while
/// not paused, and not at all while paused (an idle view costs no timer ticks).
///
/// Ticks are scheduled against absolute deadlines (start + n / rate), so the
/// rate stays at 60 Hz on average although timers fire on whole milliseconds;
/// a tick that comes late resynchronises instead of firing a burst.
///
/// Threading: main thread only.
class TQFrameDriver : public QObject {
    Q_OBJECT
public:
    explicit TQFrameDriver(std::function<void()> onFrame, QObject* parent = nullptr);

    bool isPaused() const { return paused_; }
    /// Stops or restarts the ticks; a restart ticks one frame period later.
    void setPaused(bool paused);

    /// Requested frames per second; default 60.
    int preferredFramesPerSecond() const { return preferredFramesPerSecond_; }
    void setPreferredFramesPerSecond(int fps);
    /// The rate at which the driver ticks while running.
    double framesPerSecond() const { return preferredFramesPerSecond_; }

private:
    void tick();
    void scheduleNext();

    std::function<void()> onFrame_;
    QTimer timer_;
    QElapsedTimer clock_;
    qint64 frameIndex_ = 0;
    int preferredFramesPerSecond_ = 60;
    bool paused_ = true;
};

} // namespace widmo
