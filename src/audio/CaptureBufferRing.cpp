#include "audio/CaptureBufferRing.h"

namespace widmo {

// One contiguous, zero-filled allocation: the pages are touched here, on the
// main thread, rather than by the first capture cycles.
CaptureBufferRing::CaptureBufferRing()
    : storage_(std::make_unique<float[]>(size_t(kBufferCount) * kBufferFloats)) {}

float* CaptureBufferRing::advance() {
    const int32_t next = (actual_.load(std::memory_order_relaxed) + 1) % kBufferCount;
    actual_.store(next, std::memory_order_release);
    return buffer(next);
}

} // namespace widmo
