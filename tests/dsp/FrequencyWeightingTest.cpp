#include "dsp/FrequencyWeighting.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <numbers>
#include <vector>

namespace widmo {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// One-third-octave frequencies with the nominal A and C weightings of
// IEC 61672-1 (table values, 0.1 dB) and the class 1 acceptance limits of
// IEC 61672-1:2013, table 3 (upper, lower; -inf where the standard has none).
struct Row {
    double f, a, c, upper, lower;
};
constexpr Row kTable[] = {
    {10, -70.4, -14.3, 3.0, -kInf},  {12.5, -63.4, -11.2, 2.5, -kInf},
    {16, -56.7, -8.5, 2.0, -4.0},    {20, -50.5, -6.2, 2.0, -2.0},
    {25, -44.7, -4.4, 2.0, -1.5},    {31.5, -39.4, -3.0, 1.5, -1.5},
    {40, -34.6, -2.0, 1.0, -1.0},    {50, -30.2, -1.3, 1.0, -1.0},
    {63, -26.2, -0.8, 1.0, -1.0},    {80, -22.5, -0.5, 1.0, -1.0},
    {100, -19.1, -0.3, 1.0, -1.0},   {125, -16.1, -0.2, 1.0, -1.0},
    {160, -13.4, -0.1, 1.0, -1.0},   {200, -10.9, 0.0, 1.0, -1.0},
    {250, -8.6, 0.0, 1.0, -1.0},     {315, -6.6, 0.0, 1.0, -1.0},
    {400, -4.8, 0.0, 1.0, -1.0},     {500, -3.2, 0.0, 1.0, -1.0},
    {630, -1.9, 0.0, 1.0, -1.0},     {800, -0.8, 0.0, 1.0, -1.0},
    {1000, 0.0, 0.0, 0.7, -0.7},     {1250, 0.6, 0.0, 1.0, -1.0},
    {1600, 1.0, -0.1, 1.0, -1.0},    {2000, 1.2, -0.2, 1.0, -1.0},
    {2500, 1.3, -0.3, 1.0, -1.0},    {3150, 1.2, -0.5, 1.0, -1.0},
    {4000, 1.0, -0.8, 1.0, -1.0},    {5000, 0.5, -1.3, 1.5, -1.5},
    {6300, -0.1, -2.0, 1.5, -2.0},   {8000, -1.1, -3.0, 1.5, -2.5},
    {10000, -2.5, -4.4, 2.0, -3.0},  {12500, -4.3, -6.2, 2.0, -5.0},
    {16000, -6.6, -8.5, 2.5, -16.0}, {20000, -9.3, -11.2, 3.0, -kInf},
};

/// The exact frequency behind a nominal one: the table holds the weightings
/// at 1000 x 10^(n/10) Hz (12.589 Hz for "12.5").
double exactFrequency(double nominal) {
    return 1000.0 * std::pow(10.0, std::round(10.0 * std::log10(nominal / 1000.0)) / 10.0);
}

/// Steady-state gain in dB of `w` for a sine at `f` Hz: RMS out / RMS in over
/// whole periods after a settling time of 10 periods of the slowest pole
/// (20.6 Hz) or the sine, whichever is longer.
double measuredGainDB(FrequencyWeighting& w, double f, double rate) {
    const double settle = std::max(0.5, 10.0 / f);
    const double periods = std::ceil(std::max(0.2, 4.0 / f) * f);
    const auto total = static_cast<int64_t>(std::ceil((settle + periods / f) * rate));
    const auto measureFrom = total - static_cast<int64_t>(std::llround(periods / f * rate));
    std::vector<float> x(static_cast<size_t>(total));
    for (size_t i = 0; i < x.size(); ++i)
        x[i] = static_cast<float>(0.5 * std::sin(2.0 * std::numbers::pi * f * double(i) / rate));
    std::vector<float> y(x.size());
    w.reset();
    w.process(x.data(), y.data(), total);
    double in = 0.0, out = 0.0;
    for (auto i = static_cast<size_t>(measureFrom); i < x.size(); ++i) {
        in += double(x[i]) * x[i];
        out += double(y[i]) * y[i];
    }
    return 10.0 * std::log10(out / in);
}

TEST(FrequencyWeighting, annexFormulaReadsTheTableValues) {
    // The formula must round to the table (0.05 dB plus rounding slack).
    for (const Row& r : kTable) {
        const double f = exactFrequency(r.f);
        EXPECT_NEAR(FrequencyWeighting::nominalDB(Weighting::A, f), r.a, 0.051) << r.f;
        EXPECT_NEAR(FrequencyWeighting::nominalDB(Weighting::C, f), r.c, 0.051) << r.f;
    }
}

TEST(FrequencyWeighting, sinesMatchTheTableWithinClass1_AllRates) {
    std::printf("measured - table (dB), A then C\n%8s", "f Hz");
    const double rates[] = {44100.0, 48000.0, 96000.0, 192000.0};
    for (double rate : rates)
        std::printf("   A %5.1fk", rate / 1000.0);
    for (double rate : rates)
        std::printf("   C %5.1fk", rate / 1000.0);
    std::printf("\n");
    FrequencyWeighting a[4], c[4];
    for (size_t k = 0; k < 4; ++k) {
        a[k].prepare(Weighting::A, rates[k]);
        c[k].prepare(Weighting::C, rates[k]);
    }
    for (const Row& r : kTable) {
        std::printf("%8.1f", r.f);
        double errors[8];
        for (size_t k = 0; k < 8; ++k) {
            const double rate = rates[k % 4];
            errors[k] = std::nan("");
            if (r.f >= 0.45 * rate)
                continue;
            FrequencyWeighting& w = k < 4 ? a[k] : c[k - 4];
            errors[k] = measuredGainDB(w, exactFrequency(r.f), rate) - (k < 4 ? r.a : r.c);
            EXPECT_LE(errors[k], r.upper) << r.f << " Hz at " << rate << (k < 4 ? " A" : " C");
            EXPECT_GE(errors[k], r.lower) << r.f << " Hz at " << rate << (k < 4 ? " A" : " C");
        }
        for (double e : errors) {
            if (std::isnan(e))
                std::printf("%10s", "-");
            else
                std::printf(" %+9.2f", e);
        }
        std::printf("\n");
    }
}

TEST(FrequencyWeighting, designedResponseFollowsTheFormulaUpToTheRatesLimit) {
    // The filter against the analogue weighting, denser than the table: within
    // 0.1 dB below 10 kHz, and within 1 dB up to 0.45 x rate, at every rate.
    for (double rate : {8000.0, 22050.0, 44100.0, 48000.0, 96000.0, 192000.0, 384000.0}) {
        for (Weighting wt : {Weighting::A, Weighting::C}) {
            FrequencyWeighting w;
            w.prepare(wt, rate);
            for (double f = 10.0; f < 0.45 * rate && f <= 20000.0; f *= 1.05) {
                const double error = w.responseDB(f) - FrequencyWeighting::nominalDB(wt, f);
                const double tolerance = f < 10000.0 && rate >= 44100.0 ? 0.1 : 1.0;
                EXPECT_NEAR(error, 0.0, tolerance) << f << " Hz at " << rate;
            }
        }
    }
}

} // namespace
} // namespace widmo
