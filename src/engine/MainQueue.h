#pragma once

#include <chrono>
#include <functional>

class QObject;

namespace widmo {

/// Work for the main thread's event loop, from any thread.
///
/// Threading: every function may be called from any thread. The work always
/// runs later on the main thread (the thread of the QCoreApplication), never
/// inline, not even when the caller is the main thread. Posting allocates; it
/// is not for the steady-state audio path.
class MainQueue {
public:
    /// Runs `work` on the main thread at its next turn of the event loop. With a
    /// `context`, the work is dropped if `context` is destroyed first.
    /// Does nothing when no QCoreApplication exists.
    static void async(std::function<void()> work, QObject* context = nullptr);

    /// Runs `work` on the main thread after `delay`, measured from the moment the
    /// main thread receives the request.
    static void asyncAfter(std::chrono::milliseconds delay, std::function<void()> work,
                           QObject* context = nullptr);

    /// True on the main thread. False when no QCoreApplication exists.
    static bool isMainThread();
};

} // namespace widmo
