#pragma once

namespace widmo {

/// Marks, on the calling thread, a stretch of code that keeps the real-time
/// rules: no allocation, no lock, no waiting. The audio object opens one
/// around its capture and render callbacks and around each delivery of a
/// captured block, so that a check (a debug build's, or a test's allocation
/// counter) can tell those stretches from the rest of the thread's work, such
/// as the sound server library's own.
///
/// Threading: the mark is per thread (thread_local); scopes nest.
class RealTimeScope {
public:
    RealTimeScope() : outer_(active_) { active_ = true; }
    ~RealTimeScope() { active_ = outer_; }
    RealTimeScope(const RealTimeScope&) = delete;
    RealTimeScope& operator=(const RealTimeScope&) = delete;

    /// True inside a scope on this thread.
    static bool isActive() { return active_; }

private:
    static inline thread_local bool active_ = false;
    bool outer_;
};

} // namespace widmo
