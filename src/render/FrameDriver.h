#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>
#include <vector>

namespace widmo {

/// The display loop of a GL view: calls `onFrame` once per display frame while
/// not paused, and not at all while paused (an idle view costs no timer ticks).
///
/// Every driver of the process ticks from one shared clock: in one tick all
/// running drivers call their `onFrame` one after the other, so the views of a
/// window ask for their repaint in the same turn of the event loop and the
/// window is composed once per frame, not once per view. The clock runs only
/// while at least one driver runs.
///
/// Ticks are scheduled against absolute deadlines (start + n / rate), so the
/// rate stays at 60 Hz on average although timers fire on whole milliseconds;
/// a tick that comes late resynchronises instead of firing a burst.
///
/// Threading: main thread only.
class FrameDriver : public QObject {
    Q_OBJECT
public:
    explicit FrameDriver(std::function<void()> onFrame, QObject* parent = nullptr);
    ~FrameDriver() override;

    bool isPaused() const { return paused_; }
    /// Stops or restarts the ticks; a restart joins the shared clock, whose
    /// next tick comes at most one frame period later.
    void setPaused(bool paused);

    /// Frames per second of the shared clock: 60.
    int preferredFramesPerSecond() const { return kFramesPerSecond; }
    /// The rate at which the driver ticks while running.
    double framesPerSecond() const { return kFramesPerSecond; }

    /// Ticks of the shared clock since the process started; a view that counts
    /// frames against it can tell one display frame from the next.
    static qint64 clockTicks();

private:
    static constexpr int kFramesPerSecond = 60;

    class Clock;
    std::function<void()> onFrame_;
    bool paused_ = true;
};

} // namespace widmo
