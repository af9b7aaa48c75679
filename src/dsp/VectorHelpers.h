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

    /// Where an output goes. `Cached`: ordinary stores, the data stays in the
    /// caches for a reader that comes soon. `Streaming`: non-temporal stores
    /// that bypass the caches, for outputs read only much later (result slots
    /// that rotate through more memory than the caches hold); they neither
    /// fetch the destination first nor evict the caller's working set. Streamed
    /// stores are fenced before the function returns, so a later release store
    /// publishes them like ordinary ones. Values are identical either way.
    enum class Store { Cached, Streaming };

    /// out[k] = a[k] * b[k].
    static void multiply(const float* a, const float* b, float* out, int32_t count);
    /// copy[k] = in[k] and product[k] = in[k] * b[k], in one pass over `in`;
    /// `copyStore` says how `copy` is written (`product` always stays cached).
    /// The outputs and inputs must not overlap.
    static void copyAndMultiply(const float* in, const float* b, float* copy, float* product,
                                int32_t count, Store copyStore = Store::Cached);
    /// out[k] = in[k]; `out` must not overlap `in`.
    static void copy(const float* in, float* out, int32_t count, Store outStore = Store::Cached);
    /// out[k] = in[k] * scale.
    static void scale(const float* in, float scale, float* out, int32_t count);
    /// out[k] = (re * scale)² + (im * scale)² of the interleaved complex value k
    /// (`in` holds 2*count floats: re0, im0, re1, ...): the squared magnitudes,
    /// the scale applied to each part before squaring, in one pass. `out` must
    /// not overlap `in`. `Streaming` gives bit for bit the values of `Cached`.
    static void scaledSquaredMagnitudes(const float* interleavedComplex, float scale, float* out,
                                        int32_t count, Store outStore = Store::Cached);
    /// out[k] = 10 * log10(in[k] + offset): power to decibels with a floor.
    static void powerToDecibels(const float* in, float offset, float* out, int32_t count);
    /// out[k] = sqrt(in[k]): power to linear magnitude.
    static void powerToMagnitude(const float* in, float* out, int32_t count);
};

} // namespace widmo
