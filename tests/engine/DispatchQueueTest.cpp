#include "TestDoubles.h"

#include "engine/DispatchQueue.h"
#include "engine/DisplayTimer.h"
#include "engine/MainQueue.h"

#include <QCoreApplication>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace widmo {
namespace {

using test::runEventsFor;
using test::runEventsUntil;

// --- Serial queue ------------------------------------------------------------------------

// Destroyed with work still queued, the queue runs it first.
TEST(DispatchQueueTest, concurrentProducers_eachKeepTheirOrder_nothingLost_evenAtDestruction) {
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 20000;
    std::vector<std::vector<int>> seen(kProducers); // touched by the worker only
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    bool lastRan = false;
    {
        DispatchQueue queue("org.widmo.test.fifo");
        std::vector<std::thread> producers;
        for (int p = 0; p < kProducers; ++p) {
            producers.emplace_back([&, p] {
                for (int k = 0; k < kPerProducer; ++k) {
                    queue.async([&, p, k] {
                        if (running.fetch_add(1) != 0)
                            overlapped = true;
                        seen[static_cast<size_t>(p)].push_back(k);
                        running.fetch_sub(1);
                    });
                }
            });
        }
        for (std::thread& t : producers)
            t.join();
        queue.async([] { std::this_thread::sleep_for(std::chrono::milliseconds(2)); });
        queue.async([&lastRan] { lastRan = true; });
    }
    EXPECT_TRUE(lastRan);
    EXPECT_FALSE(overlapped);
    for (int p = 0; p < kProducers; ++p) {
        const std::vector<int>& s = seen[static_cast<size_t>(p)];
        ASSERT_EQ(s.size(), static_cast<size_t>(kPerProducer));
        for (int k = 0; k < kPerProducer; ++k)
            ASSERT_EQ(s[static_cast<size_t>(k)], k) << "producer " << p;
    }
}

/// A task that resubmits itself from its own run until it has run `limit` times.
class CountingTask final : public DispatchQueue::Task {
public:
    CountingTask(DispatchQueue& queue, int limit) : queue_(queue), limit_(limit) {}
    void run() override {
        if (++runs < limit_)
            queue_.async(*this);
        else
            finished.set_value();
    }
    int runs = 0;
    std::promise<void> finished;

private:
    DispatchQueue& queue_;
    int limit_;
};

TEST(DispatchQueueTest, prebuiltTask_resubmittedFromItsOwnRun) {
    DispatchQueue queue("org.widmo.test.resubmit");
    CountingTask task(queue, 1000);
    queue.async(task);
    // Interleave other work: the list must stay consistent around the reused node.
    std::atomic<int> others{0};
    for (int k = 0; k < 1000; ++k)
        queue.async([&others] { others.fetch_add(1); });
    task.finished.get_future().wait();
    queue.waitUntilEmpty();
    EXPECT_EQ(task.runs, 1000);
    EXPECT_EQ(others.load(), 1000);
}

// --- Main queue --------------------------------------------------------------------------

// Work posted from the main thread never runs inline; work posted with a delay
// from another thread runs on the main thread, not before the delay; work whose
// context is destroyed is dropped.
TEST(MainQueueTest, postsRunLaterOnMainThread_afterTheirDelay_droppedWithTheirContext) {
    int ran = 0;
    MainQueue::async([&ran] { ++ran; });
    EXPECT_EQ(ran, 0);
    ASSERT_TRUE(runEventsUntil([&ran] { return ran == 1; }));

    auto context = std::make_unique<QObject>();
    MainQueue::async([&ran] { ++ran; }, context.get());
    MainQueue::asyncAfter(
        std::chrono::milliseconds(1), [&ran] { ++ran; }, context.get());
    context.reset();

    std::atomic<bool> delayedRan{false}, onMain{false};
    const auto start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point at{};
    std::thread([&] {
        MainQueue::asyncAfter(std::chrono::milliseconds(40), [&] {
            at = std::chrono::steady_clock::now();
            onMain = MainQueue::isMainThread();
            delayedRan = true;
        });
    }).join();
    ASSERT_TRUE(runEventsUntil([&] { return delayedRan.load(); }));
    EXPECT_TRUE(onMain.load());
    EXPECT_GE(at - start, std::chrono::milliseconds(40));
    EXPECT_EQ(ran, 1);
}

// --- Display timer -------------------------------------------------------------------------

TEST(DisplayTimerTest, ticksUntilInvalidated_actionMayStopIt) {
    DisplayTimer timer;
    int ticks = 0;
    timer.start([&] {
        if (++ticks == 3)
            timer.invalidate();
    });
    EXPECT_TRUE(timer.isActive());
    EXPECT_EQ(ticks, 0); // the first tick comes one period later
    ASSERT_TRUE(runEventsUntil([&] { return ticks == 3; }));
    EXPECT_FALSE(timer.isActive());
    runEventsFor(60);
    EXPECT_EQ(ticks, 3);
}

} // namespace
} // namespace widmo
