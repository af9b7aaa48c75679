#include "dsp/VectorHelpers.h"
#include "dsp/FFTManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <tuple>
#include <vector>

namespace widmo {
namespace {

// Lengths around the vector widths, so that the vector body, the scalar tail
// and both together are exercised; a count of zero or less writes nothing.
constexpr int32_t kLengths[] = {-3, 0, 1, 3, 4, 7, 8, 17, 64, 1001};

std::vector<float> ramp(int32_t n, float start, float step) {
    std::vector<float> v(static_cast<size_t>(std::max(n, 0)));
    for (size_t k = 0; k < v.size(); ++k)
        v[k] = start + step * static_cast<float>(k);
    return v;
}

// Each element-wise operation gives the scalar result (exactly, or for decibels
// within 1e-4 dB + 1e-6 of the level), out of place and in place (either operand of a
// product aliasing the output), and never writes past `count`.
TEST(VectorHelpersTest, elementwiseOps_matchScalar_outOfPlaceAndInPlace_nothingPastCount) {
    for (int32_t n : kLengths) {
        SCOPED_TRACE(n);
        const std::vector<float> a = ramp(n, 1e-12f, 0.25f);
        const std::vector<float> b = ramp(n, -3.0f, 0.125f);
        using Run = std::function<void(float* in, float* out)>;
        const auto dB = [](double p) { return 10.0 * std::log10(p + 3.981075180885946e-15); };
        const std::tuple<Run, std::function<double(size_t)>, bool> ops[] = {
            {[&](float* in, float* out) { VectorHelpers::multiply(in, b.data(), out, n); },
             [&](size_t k) { return a[k] * b[k]; }, true},
            {[&](float* in, float* out) { VectorHelpers::multiply(b.data(), in, out, n); },
             [&](size_t k) { return b[k] * a[k]; }, true},
            {[&](float* in, float* out) { VectorHelpers::scale(in, -2.5f, out, n); },
             [&](size_t k) { return a[k] * -2.5f; }, true},
            {[&](float* in, float* out) { convertPowerToMagnitude(in, out, n); },
             [&](size_t k) { return std::sqrt(a[k]); }, true},
            {[&](float* in, float* out) { convertPowerToDecibels(in, out, n); },
             [&](size_t k) { return dB(a[k]); }, false},
        };
        for (const auto& [run, want, exact] : ops) {
            std::vector<float> in = a;
            std::vector<float> out(a.size() + 1, 99.0f);
            run(in.data(), out.data());
            run(in.data(), in.data());
            for (size_t k = 0; k < a.size(); ++k) {
                const double w = want(k);
                if (exact) {
                    ASSERT_EQ(out[k], static_cast<float>(w)) << &run - &std::get<0>(ops[0]);
                }
                ASSERT_NEAR(out[k], w, 1e-4 + 1e-6 * std::fabs(w)) << &run - &std::get<0>(ops[0]);
                ASSERT_EQ(in[k], out[k]);
            }
            EXPECT_EQ(out.back(), 99.0f) << "wrote past count";
        }
        // Silence is -144 dB exactly as float arithmetic gives it, in the vector
        // body and in the scalar tail alike; full power is 0 dB.
        std::vector<float> zeros(a.size(), 0.0f);
        convertPowerToDecibels(zeros.data(), zeros.data(), n);
        for (float v : zeros)
            ASSERT_EQ(v, -143.99999620874678f);
    }
    float one = 1.0f;
    convertPowerToDecibels(&one, &one, 1);
    EXPECT_EQ(one, 0.0f);
}

// The streaming stores must change nothing but the way values reach memory:
// same bits as the cached versions, at every offset from a cache line (head
// and tail peeled, body streamed) and never a value past `count`.
TEST(VectorHelpersTest, streamingStoresGiveTheCachedValues) {
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> dist(-3.0f, 3.0f);
    std::vector<float> in(5000), b(5000);
    for (size_t k = 0; k < in.size(); ++k) {
        in[k] = dist(rng);
        b[k] = dist(rng);
    }
    for (int32_t n : {0, 1, 15, 16, 17, 100, 1024, 1500}) {
        for (int32_t offset : {0, 1, 5, 15}) {
            SCOPED_TRACE(testing::Message() << "count " << n << " offset " << offset);
            const size_t size = static_cast<size_t>(n + offset) + 1;
            const auto outputs = [&](VectorHelpers::Store store) {
                std::vector<std::vector<float>> o(4, std::vector<float>(size, 7.0f));
                VectorHelpers::copyAndMultiply(in.data(), b.data(), o[0].data() + offset,
                                               o[1].data() + offset, n, store);
                VectorHelpers::copy(in.data(), o[2].data() + offset, n, store);
                // Powers of the interleaved input, as an FFT's output would be.
                VectorHelpers::scaledSquaredMagnitudes(in.data(), 0.37f, o[3].data() + offset,
                                                       std::min<int32_t>(n, 2400), store);
                return o;
            };
            const auto cached = outputs(VectorHelpers::Store::Cached);
            ASSERT_EQ(outputs(VectorHelpers::Store::Streaming), cached);
            for (size_t k = 0; k < static_cast<size_t>(n); ++k) {
                ASSERT_EQ(cached[0][k + static_cast<size_t>(offset)], in[k]);
                ASSERT_EQ(cached[1][k + static_cast<size_t>(offset)], in[k] * b[k]);
            }
            for (const auto& o : cached)
                EXPECT_EQ(o.back(), 7.0f);
        }
    }
}

} // namespace
} // namespace widmo
