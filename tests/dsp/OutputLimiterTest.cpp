#include "dsp/OutputLimiter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace widmo {
namespace {

// A full-scale chirp at +12 dB of level never leaves above -1 dBFS; a quiet
// signal passes at exactly the level asked for; after a loud burst the gain
// is back within 0.1 dB of 1 after 0.5 s (ten time constants).
TEST(OutputLimiterTest, loudChirpStaysBelowCeiling_quietPassesAtLevel_gainRecovers) {
    const int32_t rate = 48000;
    OutputLimiter limiter;
    limiter.prepare(rate);
    std::vector<float> x(static_cast<size_t>(rate));
    for (size_t i = 0; i < x.size(); ++i) {
        const double t = double(i) / rate;
        x[i] = float(std::sin(2.0 * std::numbers::pi * (500.0 * t + 5000.0 * t * t)));
    }
    const float level = 4.0f; // +12 dB
    for (size_t at = 0; at < x.size(); at += 480)
        limiter.process(x.data() + at, 480, level);
    float peak = 0.0f;
    for (float v : x)
        peak = std::max(peak, std::fabs(v));
    EXPECT_LE(peak, OutputLimiter::kCeiling);
    EXPECT_GT(peak, 0.75f); // limited, not silenced

    std::vector<float> quiet(size_t(rate / 2), 0.0f);
    limiter.process(quiet.data(), int32_t(quiet.size()), level); // recovery time
    EXPECT_NEAR(20.0 * std::log10(double(limiter.gain())), 0.0, 0.1);
    std::vector<float> soft(480, 0.05f);
    limiter.process(soft.data(), 480, 2.0f);
    for (float v : soft)
        EXPECT_NEAR(v, 0.1f, 0.001f);
}

} // namespace
} // namespace widmo
