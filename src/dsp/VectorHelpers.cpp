#include "dsp/VectorHelpers.h"

#include <cmath>

// glibc's vector maths library (libmvec) has SIMD versions of log10f, but its
// header announces them only under -ffast-math, which this library does not
// use (it would change rounding elsewhere). Declaring the SIMD variant here
// lets the vectoriser call it; together with -fno-math-errno (set for this
// library) the decibel loop runs four or eight values per call.
extern "C" float log10f(float) noexcept __attribute__((simd("notinbranch")));

namespace widmo {

namespace {

// The loops take restrict-qualified pointers so that GCC needs no runtime
// overlap check; the public functions route the in-place case (in == out) to
// a single-pointer loop, which is equally free of aliasing questions.

void multiplyLoop(const float* __restrict a, const float* __restrict b, float* __restrict out,
                  int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        out[k] = a[k] * b[k];
}

void multiplyInPlaceLoop(float* __restrict io, const float* __restrict b, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        io[k] *= b[k];
}

void scaleLoop(const float* __restrict in, float s, float* __restrict out, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        out[k] = in[k] * s;
}

void scaleInPlaceLoop(float* io, float s, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        io[k] *= s;
}

void decibelLoop(const float* __restrict in, float offset, float* __restrict out, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        out[k] = 10.0f * log10f(in[k] + offset);
}

void decibelInPlaceLoop(float* io, float offset, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        io[k] = 10.0f * log10f(io[k] + offset);
}

void magnitudeLoop(const float* __restrict in, float* __restrict out, int32_t count) {
    for (int32_t k = 0; k < count; ++k)
        out[k] = std::sqrt(in[k]);
}

void magnitudeInPlaceLoop(float* io, int32_t count) {
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

void VectorHelpers::scale(const float* in, float s, float* out, int32_t count) {
    if (in == out)
        scaleInPlaceLoop(out, s, count);
    else
        scaleLoop(in, s, out, count);
}

void VectorHelpers::squaredMagnitudes(const float* __restrict in, float* __restrict out,
                                      int32_t count) {
    for (int32_t k = 0; k < count; ++k) {
        const float re = in[2 * k];
        const float im = in[2 * k + 1];
        out[k] = re * re + im * im;
    }
}

void VectorHelpers::scaledSquaredMagnitudes(const float* __restrict in, float s,
                                            float* __restrict out, int32_t count) {
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
