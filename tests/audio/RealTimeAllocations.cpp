// Counts the allocations made inside the audio path's real-time stretches
// (`RealTimeScope`), for the tests that prove there are none. Replaces the
// global operator new and delete of this test binary; outside those stretches
// they only forward to malloc and free.
//
// Not under ThreadSanitizer: it ignores what Qt's library does with memory
// only when Qt calls its interceptors directly, and a replaced operator new
// between the two makes Qt's hand-over of posted events look like races. The
// count stays 0 there; the release and AddressSanitizer runs check it.
#include "RealTimeAllocations.h"

#include "core/RealTimeScope.h"

#include <cstdlib>
#include <new>

namespace widmo::test {

std::atomic<int64_t> realTimeAllocations{0};

} // namespace widmo::test

#if !defined(__SANITIZE_THREAD__)

namespace {

void* allocate(std::size_t size) {
    if (widmo::RealTimeScope::isActive())
        widmo::test::realTimeAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

#endif
