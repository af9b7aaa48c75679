#pragma once

#include "engine/TaskList.h"

#include <atomic>
#include <functional>
#include <semaphore>
#include <string>
#include <thread>

namespace widmo {

/// A serial queue: one worker thread runs the submitted tasks one after the
/// other, in submission order (FIFO).
///
/// Two ways to submit:
/// - `async(Task&)` appends a task object that the caller owns. It is
///   wait-free and never allocates: the task is linked into an intrusive
///   multi-producer list (one atomic exchange and one store) and the worker is
///   woken through a semaphore. This is the form for the audio path, where the
///   engine submits the same pre-built processing task again and again.
/// - `async(std::function)` wraps the function in a node on the heap (the node
///   deletes itself after running). For the main thread and other work that may
///   allocate.
///
/// Threading: `async` may be called from any thread, concurrently. Tasks run on
/// the worker thread only. `waitUntilEmpty` blocks its caller and must not be
/// called from the worker itself. Construction and destruction happen on one
/// thread (normally the main thread); the destructor runs every task already
/// submitted, then stops the worker.
class DispatchQueue {
public:
    /// Work that can be submitted without allocation. The owner keeps the
    /// object alive until it has run, and submits it again only after `run`
    /// has started (a task sits in at most one queue slot at a time). `run`
    /// executes on the worker thread; after it returns the queue no longer
    /// touches the object, so `run` may resubmit or delete it.
    using Task = TaskList::Node;

    /// Starts the worker thread. `label` names the queue (for example
    /// "org.widmo.analyzer.myAnalyzerQueue1"); its last 15 characters become the
    /// thread's name in debuggers.
    explicit DispatchQueue(std::string label);
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    const std::string& label() const { return label_; }

    /// Appends `task`; wait-free and allocation-free.
    void async(Task& task);
    /// Appends a function; allocates one node.
    void async(std::function<void()> work);

    /// Blocks until every task submitted before this call has run.
    void waitUntilEmpty();

    /// True when called from this queue's worker thread.
    bool isCurrent() const { return std::this_thread::get_id() == workerId_; }

private:
    class FunctionTask;
    class StopTask;

    void workerLoop();

    std::string label_;
    TaskList tasks_; // popped by the worker only
    std::counting_semaphore<> pending_{0};
    bool running_ = true; // worker thread only
    std::thread worker_;
    std::thread::id workerId_;
};

} // namespace widmo
