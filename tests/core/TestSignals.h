#pragma once

// Signals that the core, DSP and engine tests feed the code under test.

#include <cmath>
#include <cstddef>
#include <numbers>
#include <random>
#include <vector>

namespace widmo::test {

/// `count` samples of amplitude * sin(2 pi * cycles * t + phase), t counted
/// in samples from `from`; `cycles` is the frequency in cycles per sample.
inline std::vector<float> sine(size_t count, double cycles, double amplitude = 1.0,
                               double phase = 0.0, size_t from = 0) {
    std::vector<float> x(count);
    for (size_t t = 0; t < count; ++t)
        x[t] = static_cast<float>(
            amplitude * std::sin(2.0 * std::numbers::pi * cycles * double(from + t) + phase));
    return x;
}

/// `count` samples uniform in [-1, 1), the same for the same `seed`.
inline std::vector<float> noise(size_t count, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::vector<float> x(count);
    for (float& v : x)
        v = value(random);
    return x;
}

} // namespace widmo::test
