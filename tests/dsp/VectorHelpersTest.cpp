#include "dsp/VectorHelpers.h"
#include "dsp/FFTManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace widmo {
namespace {

// Lengths around the vector widths, so that the vector body, the scalar tail
// and both together are exercised.
constexpr int32_t kLengths[] = {1, 3, 4, 7, 8, 17, 64, 1001};

std::vector<float> ramp(int32_t n, float start, float step) {
    std::vector<float> v(static_cast<size_t>(n));
    for (int32_t k = 0; k < n; ++k)
        v[static_cast<size_t>(k)] = start + step * static_cast<float>(k);
    return v;
}

TEST(VectorHelpersTest, arithmetic_outOfPlaceAndInPlaceAgree) {
    for (int32_t n : kLengths) {
        SCOPED_TRACE(n);
        const std::vector<float> a = ramp(n, 0.5f, 0.25f);
        const std::vector<float> b = ramp(n, -3.0f, 0.125f);
        std::vector<float> out(static_cast<size_t>(n) + 1, 99.0f);
        VectorHelpers::multiply(a.data(), b.data(), out.data(), n);
        std::vector<float> inA = a;
        VectorHelpers::multiply(inA.data(), b.data(), inA.data(), n);
        std::vector<float> inB = b;
        VectorHelpers::multiply(a.data(), inB.data(), inB.data(), n);
        for (size_t k = 0; k < static_cast<size_t>(n); ++k) {
            ASSERT_EQ(out[k], a[k] * b[k]);
            ASSERT_EQ(inA[k], out[k]);
            ASSERT_EQ(inB[k], out[k]);
        }
        EXPECT_EQ(out[static_cast<size_t>(n)], 99.0f) << "wrote past count";

        std::vector<float> scaled(static_cast<size_t>(n));
        VectorHelpers::scale(a.data(), -2.5f, scaled.data(), n);
        std::vector<float> inPlace = a;
        VectorHelpers::scale(inPlace.data(), -2.5f, inPlace.data(), n);
        for (size_t k = 0; k < static_cast<size_t>(n); ++k) {
            ASSERT_EQ(scaled[k], a[k] * -2.5f);
            ASSERT_EQ(inPlace[k], scaled[k]);
        }
    }
}

// The streaming stores must change nothing but the way values reach memory:
// same bits as the cached versions, at every offset from a cache line (head
// and tail peeled, body streamed) and never a value past `count`.
TEST(VectorHelpersTest, streamingStoresGiveTheCachedValues) {
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> dist(-3.0f, 3.0f);
    std::vector<float> in(5000);
    std::vector<float> b(in.size());
    for (size_t k = 0; k < in.size(); ++k) {
        in[k] = dist(rng);
        b[k] = dist(rng);
    }
    for (int32_t n : {0, 1, 15, 16, 17, 100, 1024, 1500}) {
        for (int32_t offset : {0, 1, 5, 15}) {
            SCOPED_TRACE(testing::Message() << "count " << n << " offset " << offset);
            const size_t size = static_cast<size_t>(n + offset) + 1;
            std::vector<float> copyCached(size, 7.0f), copyStreamed(size, 7.0f);
            std::vector<float> productCached(size, 7.0f), productStreamed(size, 7.0f);
            VectorHelpers::copyAndMultiply(in.data(), b.data(), copyCached.data() + offset,
                                           productCached.data() + offset, n);
            VectorHelpers::copyAndMultiply(in.data(), b.data(), copyStreamed.data() + offset,
                                           productStreamed.data() + offset, n,
                                           VectorHelpers::Store::Streaming);
            ASSERT_EQ(copyStreamed, copyCached);
            ASSERT_EQ(productStreamed, productCached);
            for (int32_t k = 0; k < n; ++k) {
                const auto at = static_cast<size_t>(k + offset);
                ASSERT_EQ(copyCached[at], in[static_cast<size_t>(k)]);
                ASSERT_EQ(productCached[at],
                          in[static_cast<size_t>(k)] * b[static_cast<size_t>(k)]);
            }
            EXPECT_EQ(copyStreamed.back(), 7.0f);

            std::vector<float> plain(size, 7.0f), streamed(size, 7.0f);
            VectorHelpers::copy(in.data(), plain.data() + offset, n);
            VectorHelpers::copy(in.data(), streamed.data() + offset, n,
                                VectorHelpers::Store::Streaming);
            ASSERT_EQ(streamed, plain);

            // Powers of the interleaved input, as an FFT's output would be.
            const int32_t bins = std::min<int32_t>(n, 2400);
            std::vector<float> powerCached(size, 7.0f), powerStreamed(size, 7.0f);
            VectorHelpers::scaledSquaredMagnitudes(in.data(), 0.37f, powerCached.data() + offset,
                                                   bins);
            VectorHelpers::scaledSquaredMagnitudes(in.data(), 0.37f, powerStreamed.data() + offset,
                                                   bins, VectorHelpers::Store::Streaming);
            ASSERT_EQ(powerStreamed, powerCached);
            EXPECT_EQ(powerStreamed.back(), 7.0f);
        }
    }
}

TEST(VectorHelpersTest, decibelsHaveFloorAndMatchScalarLog) {
    // Silence is -144 dB exactly as float arithmetic gives it, in the vector
    // body and in the scalar tail alike.
    for (int32_t n : kLengths) {
        std::vector<float> zeros(static_cast<size_t>(n), 0.0f);
        convertPowerToDecibels(zeros.data(), zeros.data(), n);
        for (float v : zeros)
            ASSERT_EQ(v, -143.99999620874678f) << n;
    }
    const std::vector<float> power = ramp(1001, 1e-12f, 0.01f);
    std::vector<float> db(power.size());
    convertPowerToDecibels(power.data(), db.data(), 1001);
    std::vector<float> dbInPlace = power;
    convertPowerToDecibels(dbInPlace.data(), dbInPlace.data(), 1001);
    for (size_t k = 0; k < power.size(); ++k) {
        const double want =
            10.0 * std::log10(static_cast<double>(power[k]) + 3.981075180885946e-15);
        ASSERT_NEAR(db[k], want, 1e-4 + 1e-6 * std::fabs(want)) << k;
        ASSERT_EQ(dbInPlace[k], db[k]);
    }
    float one = 1.0f;
    convertPowerToDecibels(&one, &one, 1);
    EXPECT_EQ(one, 0.0f);
}

TEST(VectorHelpersTest, magnitudeIsSquareRoot_andCountZeroDoesNothing) {
    std::vector<float> v = {4.0f, 0.25f, 0.0f, 2.0f, 9.0f};
    std::vector<float> out(5, -1.0f);
    convertPowerToMagnitude(v.data(), out.data(), 0);
    convertPowerToMagnitude(v.data(), out.data(), -3);
    EXPECT_EQ(out, std::vector<float>(5, -1.0f));
    convertPowerToMagnitude(v.data(), out.data(), 5);
    EXPECT_EQ(out, (std::vector<float>{2.0f, 0.5f, 0.0f, std::sqrt(2.0f), 3.0f}));
    convertPowerToMagnitude(v.data(), v.data(), 5);
    EXPECT_EQ(v, out);
}

} // namespace
} // namespace widmo
