#include "engine/MainQueue.h"

#include "engine/TaskList.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <utility>

namespace widmo {

namespace {

/// One piece of posted work, with the context whose destruction cancels it.
class MainJob final : public TaskList::Node {
public:
    MainJob(std::function<void()> work, QObject* context)
        : work_(std::move(work)), context_(context), guarded_(context != nullptr) {}
    void run() override {
        if (!guarded_ || !context_.isNull()) {
            work_();
        }
        delete this;
    }

private:
    std::function<void()> work_;
    QPointer<QObject> context_;
    bool guarded_;
};

// The work itself travels through this lock-free list, whose atomics order the
// poster's writes before the main thread's reads; the Qt event only wakes the
// main thread. (The event queue's own lock is invisible to ThreadSanitizer.)
TaskList& pendingJobs() {
    static TaskList jobs;
    return jobs;
}

void runPendingJobs() {
    while (TaskList::Node* job = pendingJobs().pop()) {
        job->run();
    }
}

} // namespace

void MainQueue::async(std::function<void()> work, QObject* context) {
    QCoreApplication* app = QCoreApplication::instance();
    if (app == nullptr || !work) {
        return;
    }
    pendingJobs().push(new MainJob(std::move(work), context));
    // Queued, so that even a post from the main thread runs later, never inline.
    QMetaObject::invokeMethod(
        app, [] { runPendingJobs(); }, Qt::QueuedConnection);
}

void MainQueue::asyncAfter(std::chrono::milliseconds delay, std::function<void()> work,
                           QObject* context) {
    // A single-shot timer must be created on the thread whose loop runs it, so
    // the request first travels to the main thread.
    QPointer<QObject> guard(context);
    const bool guarded = context != nullptr;
    async(
        [delay, work = std::move(work), guard, guarded]() mutable {
            QObject* receiver = guarded ? guard.data() : QCoreApplication::instance();
            if (receiver == nullptr) {
                return;
            }
            QTimer::singleShot(delay, Qt::PreciseTimer, receiver, std::move(work));
        },
        context);
}

bool MainQueue::isMainThread() {
    const QCoreApplication* app = QCoreApplication::instance();
    return app != nullptr && QThread::currentThread() == app->thread();
}

} // namespace widmo
