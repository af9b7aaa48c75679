#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace widmo {

/// The capture ring: 128 buffers of 256 KiB (32,768 interleaved stereo float
/// frames each), allocated once and reused in ring order, so that a captured
/// block travels to the delivery queue by pointer and the queue may lag up to
/// 127 blocks behind the device without a copy or an allocation.
///
/// Threading: writing into the next buffer and `advance` happen on the
/// audio thread only; the delivery queue reads a buffer after the audio thread
/// has posted it. `actualBuffer` may be read from any thread.
class CaptureBufferRing {
public:
    static constexpr int kBufferCount = 128;
    static constexpr int kBufferBytes = 262144;
    static constexpr int kChannels = 2;
    /// Stereo frames that fit in one buffer.
    static constexpr int32_t kBufferFrames = kBufferBytes / int32_t(sizeof(float) * kChannels);

    CaptureBufferRing();
    CaptureBufferRing(const CaptureBufferRing&) = delete;
    CaptureBufferRing& operator=(const CaptureBufferRing&) = delete;

    /// Moves to the next buffer, (actualBuffer + 1) modulo 128, and returns it.
    /// Audio thread only.
    float* advance();
    /// Index of the buffer last returned by `advance`, 0..127.
    int32_t actualBuffer() const { return actual_.load(std::memory_order_acquire); }
    /// Buffer `index` (0..127), `kBufferFrames` interleaved stereo frames.
    float* buffer(int32_t index) const { return storage_.get() + index * kBufferFloats; }
    /// Makes the next `advance` return buffer 0 again. Only while no capture runs.
    void reset() { actual_.store(kBufferCount - 1, std::memory_order_release); }

private:
    static constexpr int32_t kBufferFloats = kBufferFrames * kChannels;
    std::unique_ptr<float[]> storage_;
    std::atomic<int32_t> actual_{kBufferCount - 1};
};

} // namespace widmo
