#pragma once

#include <cstdint>

namespace widmo {

/// Element-wise arithmetic over contiguous float spans: the vector steps of the
/// FFT path and of the chart conversions.
///
/// Each function is a plain loop written so that GCC vectorises it at -O3 (and
/// with -O2's cost model where the loop allows). `count` is a number of
/// elements; nothing is done for count <= 0. Unless a function says otherwise,
/// output and input are either the same buffer or do not overlap at all.
///
/// Threading: stateless; callable from any thread, the real-time one included
/// (no allocation, no locks).
class VectorHelpers {
public:
    VectorHelpers() = delete;

    /// out[k] = a[k] * b[k].
    static void multiply(const float* a, const float* b, float* out, int32_t count);
    /// out[k] = in[k] * scale.
    static void scale(const float* in, float scale, float* out, int32_t count);
    /// out[k] = re² + im² of the interleaved complex value k (`in` holds 2*count
    /// floats: re0, im0, re1, im1, ...). `out` must not overlap `in`.
    static void squaredMagnitudes(const float* interleavedComplex, float* out, int32_t count);
    /// out[k] = (re * scale)² + (im * scale)²: the scale applied to each part
    /// before squaring, in one pass. `out` must not overlap `in`.
    static void scaledSquaredMagnitudes(const float* interleavedComplex, float scale, float* out,
                                        int32_t count);
    /// out[k] = 10 * log10(in[k] + offset): power to decibels with a floor.
    static void powerToDecibels(const float* in, float offset, float* out, int32_t count);
    /// out[k] = sqrt(in[k]): power to linear magnitude.
    static void powerToMagnitude(const float* in, float* out, int32_t count);
};

} // namespace widmo
