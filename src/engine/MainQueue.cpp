#include "engine/MainQueue.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <utility>

namespace widmo {

void MainQueue::async(std::function<void()> work, QObject* context) {
    QCoreApplication* app = QCoreApplication::instance();
    if (app == nullptr || !work) {
        return;
    }
    // The application object lives on the main thread, so a queued call on it
    // (or on a context object of that thread) lands in the main event loop.
    QObject* target = context != nullptr ? context : app;
    QMetaObject::invokeMethod(target, std::move(work), Qt::QueuedConnection);
}

void MainQueue::asyncAfter(std::chrono::milliseconds delay, std::function<void()> work,
                           QObject* context) {
    // A single-shot timer must be created on the thread whose loop runs it, so
    // the request first travels to the main thread.
    QPointer<QObject> guard(context);
    const bool guarded = context != nullptr;
    async(
        [delay, work = std::move(work), guard, guarded]() mutable {
            if (guarded && guard.isNull()) {
                return;
            }
            QObject* receiver = guarded ? guard.data() : QCoreApplication::instance();
            QTimer::singleShot(delay, Qt::PreciseTimer, receiver, std::move(work));
        },
        context);
}

bool MainQueue::isMainThread() {
    const QCoreApplication* app = QCoreApplication::instance();
    return app != nullptr && QThread::currentThread() == app->thread();
}

} // namespace widmo
