#include "dsp/VectorHelpers.h"
#include "dsp/FFTManager.h"

#include <gtest/gtest.h>

#include <cmath>
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

TEST(VectorHelpersTest, squaredMagnitudesOfInterleavedComplex) {
    const std::vector<float> c = {3.0f, 4.0f, -1.0f, 0.5f, 0.0f, -2.0f};
    std::vector<float> plain(3);
    std::vector<float> scaled(3);
    VectorHelpers::squaredMagnitudes(c.data(), plain.data(), 3);
    VectorHelpers::scaledSquaredMagnitudes(c.data(), 0.5f, scaled.data(), 3);
    EXPECT_EQ(plain, (std::vector<float>{25.0f, 1.25f, 4.0f}));
    EXPECT_EQ(scaled, (std::vector<float>{6.25f, 0.3125f, 1.0f}));
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
