#include "engine/DispatchQueue.h"

#include <pthread.h>

#include <future>
#include <utility>

namespace widmo {

class DispatchQueue::FunctionTask final : public Task {
public:
    explicit FunctionTask(std::function<void()> work) : work_(std::move(work)) {}
    void run() override {
        if (work_) {
            work_();
        }
        delete this;
    }

private:
    std::function<void()> work_;
};

class DispatchQueue::StopTask final : public Task {
public:
    explicit StopTask(bool& running) : running_(running) {}
    void run() override { running_ = false; }

private:
    bool& running_;
};

DispatchQueue::DispatchQueue(std::string label) : label_(std::move(label)) {
    worker_ = std::thread([this] { workerLoop(); });
    workerId_ = worker_.get_id();
    // The kernel keeps 15 characters of a thread name; the end of the label is
    // the part that tells the queues apart.
    const std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
    pthread_setname_np(worker_.native_handle(), name.c_str());
}

DispatchQueue::~DispatchQueue() {
    // Runs after every task already queued, so pending work is finished first.
    StopTask stop(running_);
    async(stop);
    worker_.join();
}

void DispatchQueue::async(Task& task) {
    push(&task);
    pending_.release();
}

void DispatchQueue::async(std::function<void()> work) { async(*new FunctionTask(std::move(work))); }

void DispatchQueue::waitUntilEmpty() {
    std::promise<void> done;
    std::future<void> finished = done.get_future();
    async([&done] { done.set_value(); });
    finished.wait();
}

void DispatchQueue::push(Task* task) {
    task->next_.store(nullptr, std::memory_order_relaxed);
    Task* previous = head_.exchange(task, std::memory_order_acq_rel);
    // Between the exchange and this store the list is briefly cut; the worker
    // sees that as "not yet there" and waits for the link.
    previous->next_.store(task, std::memory_order_release);
}

DispatchQueue::Task* DispatchQueue::pop() {
    Task* tail = tail_;
    Task* next = tail->next_.load(std::memory_order_acquire);
    if (tail == &stub_) {
        if (next == nullptr) {
            return nullptr;
        }
        tail_ = next;
        tail = next;
        next = next->next_.load(std::memory_order_acquire);
    }
    if (next != nullptr) {
        tail_ = next;
        return tail;
    }
    if (tail != head_.load(std::memory_order_acquire)) {
        return nullptr; // a producer is between its exchange and its link
    }
    // `tail` is the last task: put the stub behind it so that it can leave.
    push(&stub_);
    next = tail->next_.load(std::memory_order_acquire);
    if (next != nullptr) {
        tail_ = next;
        return tail;
    }
    return nullptr;
}

void DispatchQueue::workerLoop() {
    while (running_) {
        pending_.acquire();
        Task* task = pop();
        while (task == nullptr) {
            // The semaphore says a task is there; its producer has not linked it yet.
            std::this_thread::yield();
            task = pop();
        }
        task->run();
    }
}

} // namespace widmo
