#pragma once

#include <atomic>
#include <cstdint>

namespace widmo::test {

/// Allocations made with operator new inside a `RealTimeScope` on any thread
/// of this test binary since it started.
extern std::atomic<int64_t> realTimeAllocations;

} // namespace widmo::test
