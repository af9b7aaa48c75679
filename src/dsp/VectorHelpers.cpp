#include "dsp/VectorHelpers.h"

#include <cmath>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
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
                                    int32_t count) {
    int32_t k = 0;
#if defined(__SSE2__)
    // The copy goes into a result slot that is read again only much later (the
    // slots rotate through far more memory than the caches hold), so large
    // blocks are copied with streaming stores that bypass the caches instead of
    // evicting the windowed block that the transform reads next. Small blocks
    // stay in the caches anyway and gain nothing from it.
    constexpr int32_t kStreamingMinimum = 4096;
    if (count >= kStreamingMinimum) {
        for (; (reinterpret_cast<uintptr_t>(copy + k) & 15u) != 0; ++k) {
            copy[k] = in[k];
            product[k] = in[k] * b[k];
        }
        for (; k + 4 <= count; k += 4) {
            const __m128 v = _mm_loadu_ps(in + k);
            _mm_stream_ps(copy + k, v);
            _mm_storeu_ps(product + k, _mm_mul_ps(v, _mm_loadu_ps(b + k)));
        }
        _mm_sfence();
    }
#endif
    for (; k < count; ++k) {
        copy[k] = in[k];
        product[k] = in[k] * b[k];
    }
}

void VectorHelpers::scale(const float* in, float s, float* out, int32_t count) {
    if (in == out)
        scaleInPlaceLoop(out, s, count);
    else
        scaleLoop(in, s, out, count);
}

WIDMO_VECTOR_CLONES void VectorHelpers::scaledSquaredMagnitudes(const float* __restrict in, float s,
                                                                float* __restrict out,
                                                                int32_t count) {
    for (int32_t k = 0; k < count; ++k) {
        const float re = in[2 * k] * s;
        const float im = in[2 * k + 1] * s;
        out[k] = re * re + im * im;
    }
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
