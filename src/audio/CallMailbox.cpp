#include "audio/CallMailbox.h"

#include <QMetaObject>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#define WIDMO_TSAN_RELEASE(addr) __tsan_release(addr)
#define WIDMO_TSAN_ACQUIRE(addr) __tsan_acquire(addr)
#else
#define WIDMO_TSAN_RELEASE(addr)
#define WIDMO_TSAN_ACQUIRE(addr)
#endif

namespace widmo {

CallMailbox::CallMailbox(QObject* parent) : QObject(parent) {}

CallMailbox::~CallMailbox() {
    // Taking the lock orders this after the last run of the mailbox's thread
    // also for the thread checker, which does not see Qt's thread join.
    std::lock_guard lock(mutex_);
    calls_.clear();
}

void CallMailbox::post(std::function<void()> call) {
    {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
        // Spelled out for the thread checker as well: it has been seen to lose
        // this mutex's first lock when that came from a Qt callback.
        WIDMO_TSAN_RELEASE(&calls_);
    }
    QMetaObject::invokeMethod(this, "runPosted", Qt::QueuedConnection);
}

void CallMailbox::postAndWait(std::function<void()> call) {
    // Waits on an atomic rather than a future or a condition variable: the
    // library code behind those is not visible to the thread checker. The
    // callers (stopping and tearing down streams) are rare and short.
    std::atomic<bool> done{false};
    post([&] {
        call();
        done.store(true, std::memory_order_release);
    });
    while (!done.load(std::memory_order_acquire))
        std::this_thread::sleep_for(std::chrono::microseconds(100));
}

void CallMailbox::runPosted() {
    for (;;) {
        std::function<void()> call;
        {
            std::lock_guard lock(mutex_);
            WIDMO_TSAN_ACQUIRE(&calls_);
            if (calls_.empty())
                return;
            call = std::move(calls_.front());
            calls_.pop_front();
        }
        call();
    }
}

} // namespace widmo
