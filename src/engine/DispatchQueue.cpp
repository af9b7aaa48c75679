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
    tasks_.push(&task);
    pending_.release();
}

void DispatchQueue::async(std::function<void()> work) { async(*new FunctionTask(std::move(work))); }

void DispatchQueue::waitUntilEmpty() {
    std::promise<void> done;
    std::future<void> finished = done.get_future();
    async([&done] { done.set_value(); });
    finished.wait();
}

void DispatchQueue::workerLoop() {
    while (running_) {
        pending_.acquire();
        Task* task = tasks_.pop();
        while (task == nullptr) {
            // The semaphore says a task is there; its producer has not linked it yet.
            std::this_thread::yield();
            task = tasks_.pop();
        }
        task->run();
    }
}

} // namespace widmo
