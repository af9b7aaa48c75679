#include "engine/TaskList.h"

namespace widmo {

void TaskList::push(Node* node) {
    node->next_.store(nullptr, std::memory_order_relaxed);
    Node* previous = head_.exchange(node, std::memory_order_acq_rel);
    // Between the exchange and this store the list is briefly cut; the consumer
    // sees that as "not yet there".
    previous->next_.store(node, std::memory_order_release);
}

TaskList::Node* TaskList::pop() {
    Node* tail = tail_;
    Node* next = tail->next_.load(std::memory_order_acquire);
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
    // `tail` is the last node: put the stub behind it so that it can leave.
    push(&stub_);
    next = tail->next_.load(std::memory_order_acquire);
    if (next != nullptr) {
        tail_ = next;
        return tail;
    }
    return nullptr;
}

} // namespace widmo
