#pragma once

#include <atomic>

namespace widmo {

/// An intrusive first-in-first-out list of tasks with many producers and one
/// consumer, without locks: pushing is one atomic exchange and one store, and
/// never allocates (the nodes belong to the callers).
///
/// Threading: `push` from any thread, concurrently; `pop` from one consumer
/// thread at a time. A node pushed by a producer that is still between its two
/// steps is not yet visible: `pop` answers null until the link is made.
class TaskList {
public:
    /// A unit of work that can sit in the list. A node is in at most one list
    /// once at a time; after `pop` returned it, the list no longer touches it.
    class Node {
    public:
        virtual ~Node() = default;
        virtual void run() = 0;

    private:
        friend class TaskList;
        std::atomic<Node*> next_{nullptr};
    };

    TaskList() = default;
    TaskList(const TaskList&) = delete;
    TaskList& operator=(const TaskList&) = delete;

    /// Appends `node`. Any thread; wait-free.
    void push(Node* node);
    /// The oldest node, or null when the list is empty (or its next node is
    /// still being linked). Consumer thread only.
    Node* pop();

private:
    class Stub final : public Node {
    public:
        void run() override {}
    };

    // Producers exchange `head_`; the consumer alone walks from `tail_`. The stub
    // keeps the list from ever being empty, so push needs no special case.
    Stub stub_;
    std::atomic<Node*> head_{&stub_};
    Node* tail_ = &stub_;
};

} // namespace widmo
