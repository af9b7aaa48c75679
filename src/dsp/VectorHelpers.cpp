#include "dsp/VectorHelpers.h"

#include <cmath>
#include <cstdint>

#include <algorithm>
#include <cstddef>
#include <cstring>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

// glibc's vector maths library (libmvec) has SIMD versions of log10f, but its
// header announces them only under -ffast-math, which this library does not
// use (it would change rounding elsewhere). Declaring the SIMD variant here
// lets the vectoriser call it; together with -fno-math-errno (set for this
// library) the decibel loop runs four or eight values per call.
extern "C" float log10f(float) noexcept __attribute__((simd("notinbranch")));

// Each loop is compiled for AVX-512, AVX2 and the baseline, and the loader
// picks the widest the processor has (GCC function multiversioning), as FFTW
// does for its own kernels; the baseline build alone would stop at SSE2.
// ThreadSanitizer builds keep the baseline only: the clones' resolvers run
// while the program is being loaded, before the sanitizer's runtime is up.
#if defined(__SANITIZE_THREAD__)
#define WIDMO_VECTOR_CLONES
#else
#define WIDMO_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#endif

namespace widmo {

namespace {

// The loops take restrict-qualified pointers so that GCC needs no runtime
// overlap check; the public functions route the in-place case (in == out) to
// a single-pointer loop, which is equally free of aliasing questions.

WIDMO_VECTOR_CLONES void multiplyLoop(const float* __restrict a, const float* __restrict b,
                                      float* __restrict out, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        out[k] = a[k] * b[k];
}

WIDMO_VECTOR_CLONES void multiplyInPlaceLoop(float* __restrict io, const float* __restrict b,
                                             int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        io[k] *= b[k];
}

WIDMO_VECTOR_CLONES void scaleLoop(const float* __restrict in, float s, float* __restrict out,
                                   int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        out[k] = in[k] * s;
}

WIDMO_VECTOR_CLONES void scaleInPlaceLoop(float* io, float s, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        io[k] *= s;
}

WIDMO_VECTOR_CLONES void decibelLoop(const float* __restrict in, float offset,
                                     float* __restrict out, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        out[k] = 10.0f * log10f(in[k] + offset);
}

WIDMO_VECTOR_CLONES void decibelInPlaceLoop(float* io, float offset, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        io[k] = 10.0f * log10f(io[k] + offset);
}

WIDMO_VECTOR_CLONES void magnitudeLoop(const float* __restrict in, float* __restrict out,
                                       int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        out[k] = std::sqrt(in[k]);
}

WIDMO_VECTOR_CLONES void magnitudeInPlaceLoop(float* io, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        io[k] = std::sqrt(io[k]);
}

// Kept one loop: GCC would otherwise split the copy off into a memcpy call and
// read `in` twice. Cloned like the others: measured in alternating runs at 256
// points, the interval's time over the bare transform's fell from 1.70-1.78
// (baseline SSE2 loop) to 1.58-1.64 with the AVX-512 clone, the transform
// that follows no slower.
__attribute__((optimize("no-tree-loop-distribute-patterns"))) WIDMO_VECTOR_CLONES void
copyAndMultiplyLoop(const float* __restrict in, const float* __restrict b, float* __restrict copy,
                    float* __restrict product, int32_t count) {
    for (int32_t k = 0; k < count; ++k) {
        copy[k] = in[k];
        product[k] = in[k] * b[k];
    }
}

WIDMO_VECTOR_CLONES void squaredMagnitudesLoop(const float* __restrict in, float s,
                                               float* __restrict out, int32_t count) {
    for (int32_t k = 0; k < count; ++k) {
        const float re = in[2 * k] * s;
        const float im = in[2 * k + 1] * s;
        out[k] = re * re + im * im;
    }
}

// --- Streaming (non-temporal) stores --------------------------------------------------
//
// Full cache lines are written with 32-byte non-temporal stores where the
// processor has AVX, so that each line leaves the write-combining buffer
// whole. Not AVX-512: it was no faster here, the stores being bound by the
// memory, not by the instruction width. The bodies take
// 64-byte aligned destinations and multiples of 16 floats; the callers peel
// the rest with ordinary stores. The version is picked when the program is
// loaded (GCC function multiversioning), except under ThreadSanitizer (see
// WIDMO_VECTOR_CLONES). Processors without SSE2 use ordinary stores.

constexpr int32_t kLineFloats = 16;
constexpr int32_t kStreamBlock = 512;

#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define WIDMO_STREAM_VERSIONS 1
#endif

#if defined(WIDMO_STREAM_VERSIONS)
__attribute__((target("avx"))) void streamLines(const float* in, float* out, int32_t count) {
    for (int32_t k = 0; k < count; k += 8)
        _mm256_stream_ps(out + k, _mm256_loadu_ps(in + k));
}

__attribute__((target("default"))) void streamLines(const float* in, float* out, int32_t count) {
    for (int32_t k = 0; k < count; k += 4)
        _mm_stream_ps(out + k, _mm_loadu_ps(in + k));
}

__attribute__((target("avx"))) void streamLinesAndMultiply(const float* in, const float* b,
                                                           float* copy, float* product,
                                                           int32_t count) {
    for (int32_t k = 0; k < count; k += 8) {
        const __m256 v = _mm256_loadu_ps(in + k);
        _mm256_stream_ps(copy + k, v);
        _mm256_storeu_ps(product + k, _mm256_mul_ps(v, _mm256_loadu_ps(b + k)));
    }
}

__attribute__((target("default"))) void streamLinesAndMultiply(const float* in, const float* b,
                                                               float* copy, float* product,
                                                               int32_t count) {
    for (int32_t k = 0; k < count; k += 4) {
        const __m128 v = _mm_loadu_ps(in + k);
        _mm_stream_ps(copy + k, v);
        _mm_storeu_ps(product + k, _mm_mul_ps(v, _mm_loadu_ps(b + k)));
    }
}
#elif defined(__SSE2__)
void streamLines(const float* in, float* out, int32_t count) {
    for (int32_t k = 0; k < count; k += 4)
        _mm_stream_ps(out + k, _mm_loadu_ps(in + k));
}

void streamLinesAndMultiply(const float* in, const float* b, float* copy, float* product,
                            int32_t count) {
    for (int32_t k = 0; k < count; k += 4) {
        const __m128 v = _mm_loadu_ps(in + k);
        _mm_stream_ps(copy + k, v);
        _mm_storeu_ps(product + k, _mm_mul_ps(v, _mm_loadu_ps(b + k)));
    }
}
#else
void streamLines(const float* in, float* out, int32_t count) {
    std::memcpy(out, in, static_cast<size_t>(count) * sizeof(float));
}

void streamLinesAndMultiply(const float* in, const float* b, float* copy, float* product,
                            int32_t count) {
    copyAndMultiplyLoop(in, b, copy, product, count);
}
#endif

void storeFence() {
#if defined(__SSE2__)
    _mm_sfence();
#endif
}

/// Elements before `out` reaches a 64-byte boundary (at most `count`).
int32_t headToLine(const float* out, int32_t count) {
    const auto misalignment = reinterpret_cast<uintptr_t>(out) % 64;
    const auto head = static_cast<int32_t>(((64 - misalignment) % 64) / sizeof(float));
    return std::min(head, count);
}

void streamingCopyUnfenced(const float* in, float* out, int32_t count) {
    const int32_t head = headToLine(out, count);
    const int32_t body = (count - head) / kLineFloats * kLineFloats;
    std::memcpy(out, in, static_cast<size_t>(head) * sizeof(float));
    streamLines(in + head, out + head, body);
    const int32_t done = head + body;
    std::memcpy(out + done, in + done, static_cast<size_t>(count - done) * sizeof(float));
}

void streamingCopy(const float* in, float* out, int32_t count) {
    streamingCopyUnfenced(in, out, count);
    storeFence();
}

void streamingCopyAndMultiply(const float* in, const float* b, float* copy, float* product,
                              int32_t count) {
    if (count <= 0)
        return;
    const int32_t head = headToLine(copy, count);
    const int32_t body = (count - head) / kLineFloats * kLineFloats;
    copyAndMultiplyLoop(in, b, copy, product, head);
    streamLinesAndMultiply(in + head, b + head, copy + head, product + head, body);
    const int32_t done = head + body;
    copyAndMultiplyLoop(in + done, b + done, copy + done, product + done, count - done);
    storeFence();
}

} // namespace

void VectorHelpers::multiply(const float* a, const float* b, float* out, int32_t count) {
    if (out == a)
        multiplyInPlaceLoop(out, b, count);
    else if (out == b)
        multiplyInPlaceLoop(out, a, count);
    else
        multiplyLoop(a, b, out, count);
}

void VectorHelpers::copyAndMultiply(const float* __restrict in, const float* __restrict b,
                                    float* __restrict copy, float* __restrict product,
                                    int32_t count, Store copyStore) {
    if (copyStore == Store::Streaming)
        streamingCopyAndMultiply(in, b, copy, product, count);
    else
        copyAndMultiplyLoop(in, b, copy, product, count);
}

void VectorHelpers::copy(const float* in, float* out, int32_t count, Store outStore) {
    if (count <= 0)
        return;
    if (outStore == Store::Streaming)
        streamingCopy(in, out, count);
    else
        std::memcpy(out, in, static_cast<size_t>(count) * sizeof(float));
}

void VectorHelpers::scale(const float* in, float s, float* out, int32_t count) {
    if (in == out)
        scaleInPlaceLoop(out, s, count);
    else
        scaleLoop(in, s, out, count);
}

void VectorHelpers::scaledSquaredMagnitudes(const float* in, float s, float* out, int32_t count,
                                            Store outStore) {
    if (outStore == Store::Cached || count <= 0) {
        squaredMagnitudesLoop(in, s, out, count);
        return;
    }
    // The arithmetic is the cached loop's own, one block at a time into a
    // buffer that stays in the first-level cache, so both stores give the same
    // bits on every processor; only the block's copy into `out` streams.
    alignas(64) float block[kStreamBlock];
    for (int32_t k = 0; k < count; k += kStreamBlock) {
        const int32_t piece = std::min(kStreamBlock, count - k);
        squaredMagnitudesLoop(in + 2 * static_cast<ptrdiff_t>(k), s, block, piece);
        streamingCopyUnfenced(block, out + k, piece);
    }
    storeFence();
}

void VectorHelpers::powerToDecibels(const float* in, float offset, float* out, int32_t count) {
    if (in == out)
        decibelInPlaceLoop(out, offset, count);
    else
        decibelLoop(in, offset, out, count);
}

void VectorHelpers::powerToMagnitude(const float* in, float* out, int32_t count) {
    if (in == out)
        magnitudeInPlaceLoop(out, count);
    else
        magnitudeLoop(in, out, count);
}

} // namespace widmo
