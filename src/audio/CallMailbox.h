#pragma once

#include <QObject>

#include <deque>
#include <functional>
#include <mutex>

namespace widmo {

/// Runs functions on the thread the mailbox lives on, in posting order.
///
/// The functions travel through a std::mutex-guarded list and Qt's event
/// queue carries only a wake-up without data. Qt's own event-queue locks are
/// invisible to thread checkers (Qt is not built for them), so a function
/// object handed over by Qt alone reads as a data race to ThreadSanitizer;
/// through the mutex the hand-over is visible and the audio path stays
/// checkable.
///
/// Threading: `post` from any thread; `postAndWait` from any thread but the
/// mailbox's own; the functions run on the mailbox's thread, inside its event
/// loop.
class CallMailbox : public QObject {
    Q_OBJECT
public:
    explicit CallMailbox(QObject* parent = nullptr);
    /// Drops calls not run yet. On the mailbox's thread, or after it ended.
    ~CallMailbox() override;

    /// Queues `call`; it runs at the next turn of the mailbox thread's loop.
    void post(std::function<void()> call);
    /// Queues `call` and returns once it has run.
    void postAndWait(std::function<void()> call);

private:
    Q_INVOKABLE void runPosted();

    std::mutex mutex_;
    std::deque<std::function<void()>> calls_;
};

} // namespace widmo
