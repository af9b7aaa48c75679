#include "dsp/EGGFilter.h"

#include "dsp/FFTPlanCache.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

namespace widmo {
namespace {

constexpr double kPi = std::numbers::pi;
constexpr double kRate = 44100.0;
constexpr int32_t kN = 4096; // the default FFT size

/// A plan cache of its own (no wisdom file) with the complex plans of `kN`.
FFTPlanCache& plans() {
    static FFTPlanCache cache(QString(), FFTW_ESTIMATE);
    static const bool planned = cache.complexPlan(kN, FFTW_FORWARD) != nullptr &&
                                cache.complexPlan(kN, FFTW_BACKWARD) != nullptr;
    EXPECT_TRUE(planned);
    return cache;
}

/// The contact signal of a synthetic electroglottogram at fundamental `f0`
/// whose closed quotient at the 40 % criterion level is `cq`: contact 1, no
/// contact 0, joined by raised-cosine edges (closing over 8 % of the period,
/// opening over 15 %) placed so that they cross 0.4 exactly at phase 0 and at
/// phase `cq`.
double contact(double t, double f0, double cq) {
    constexpr double rise = 0.08;
    constexpr double fall = 0.15;
    const double riseStart = -rise * std::acos(0.2) / kPi;
    const double fallStart = cq - fall * std::acos(-0.2) / kPi;
    double phase = t * f0 - std::floor(t * f0);
    if (phase >= riseStart + 1.0)
        phase -= 1.0;
    if (phase < riseStart + rise)
        return 0.5 - 0.5 * std::cos(kPi * (phase - riseStart) / rise);
    if (phase < fallStart)
        return 1.0;
    if (phase < fallStart + fall)
        return 0.5 + 0.5 * std::cos(kPi * (phase - fallStart) / fall);
    return 0.0;
}

/// `kN` samples at 44.1 kHz of 0.5 * contact, starting `offset` seconds into
/// the cycle, with white Gaussian noise at `snrDB` (none when infinite).
std::vector<float> eggSignal(double f0, double cq, double offset, double snrDB, unsigned seed) {
    std::vector<double> s(kN);
    double power = 0.0;
    for (int32_t i = 0; i < kN; ++i) {
        const auto k = static_cast<size_t>(i);
        s[k] = 0.5 * contact(offset + i / kRate, f0, cq) - 0.25;
        power += s[k] * s[k];
    }
    std::mt19937 rng(seed);
    std::normal_distribution<double> noise(0.0, std::sqrt(power / kN / std::pow(10.0, snrDB / 10)));
    std::vector<float> out(kN);
    for (size_t k = 0; k < out.size(); ++k)
        out[k] = static_cast<float>(s[k] + (std::isinf(snrDB) ? 0.0 : noise(rng)));
    return out;
}

ClosedQuotientResult measure(std::vector<float> x) {
    EGGFilter filter(plans());
    EXPECT_TRUE(filter.bandLimit(x.data(), x.data(), kN));
    return EGGFilter::measureClosedQuotient(x.data(), kN);
}

// Tolerance. The normalised cycle is sampled at 22,050 Hz (every second
// sample), so a cycle spans P = 22050 / f0 points, and each crossing point is
// the first point past the true crossing: late by 0 to 1 point. Contact
// length and period each err by less than one point, so the quotient errs by
// less than (1 + cq) / P (0.033 at 440 Hz, 0.008 at 110 Hz). Beyond that the
// band limit of the filter (the 50 Hz to 3.5 kHz pass band at half the rate)
// rounds the edges and moves their 40 % crossings, and the noise moves them
// further: measured over 20 phases of every case below, by at most 0.015.
double tolerance(double f0, double cq) { return (1.0 + cq) * f0 / 22050.0 + 0.015; }

TEST(EGGFilterTest, syntheticCycles_readTheirClosedQuotient_cleanAndAt20dBSNR) {
    for (const double f0 : {110.0, 220.0, 440.0})
        for (const double cq : {0.35, 0.5, 0.65})
            for (const double snr : {double(INFINITY), 20.0})
                for (unsigned phase = 0; phase < 5; ++phase) {
                    SCOPED_TRACE(testing::Message() << f0 << " Hz, CQ " << cq << ", SNR " << snr
                                                    << " dB, phase " << phase);
                    const ClosedQuotientResult r =
                        measure(eggSignal(f0, cq, phase * 0.2 / f0, snr, phase));
                    EXPECT_NEAR(r.closedQuotient, cq, tolerance(f0, cq));
                    // One whole cycle of the half-rate signal between the contacts.
                    EXPECT_LT(r.pkt1, r.pkt2);
                    EXPECT_NEAR(r.pkt3 - r.pkt1, 22050.0 / f0, 2.0);
                }
}

TEST(EGGFilterTest, withoutACycle_quotientIsZeroOrNotANumber) {
    // Silence (no EGG device): nothing to normalise, no point found, 0 / 0.
    const ClosedQuotientResult silence = measure(std::vector<float>(kN, 0.0f));
    EXPECT_EQ(silence.pkt1, 0);
    EXPECT_EQ(silence.pkt2, 0);
    EXPECT_EQ(silence.pkt3, 0);
    EXPECT_TRUE(std::isnan(silence.closedQuotient));

    // One contact and no next one in the window: the cycle found after it is
    // only the filter's slow recovery, whose points give a quotient outside
    // 0..1 (here the first and third coincide: minus infinity), which reads 0.
    std::vector<float> pulse(kN, 0.0f);
    for (int32_t i = 0; i < kN; ++i)
        pulse[static_cast<size_t>(i)] = static_cast<float>(
            0.25 * contact(i / kRate - 0.004, 1.0 / 0.03, 0.2) * (i < 1200 ? 1.0 : 0.0));
    const ClosedQuotientResult single = measure(pulse);
    EXPECT_EQ(single.closedQuotient, 0.0f);
}

TEST(EGGFilterTest, passesTheVoiceBand_removesDcHumAndHighNoise_neverPlansItself) {
    EGGFilter filter(plans());
    const auto amplitudeAfterFilter = [&](double frequency, double dc) {
        std::vector<float> x(kN);
        for (int32_t i = 0; i < kN; ++i)
            x[static_cast<size_t>(i)] =
                static_cast<float>(dc + 0.5 * std::sin(2.0 * kPi * frequency * i / kRate));
        std::vector<float> y(kN);
        EXPECT_TRUE(filter.bandLimit(x.data(), y.data(), kN));
        // The middle half, clear of the window's edges.
        double peak = 0.0;
        for (int32_t i = kN / 4; i < 3 * kN / 4; ++i)
            peak = std::max(peak, std::abs(double(y[static_cast<size_t>(i)])));
        return peak;
    };
    EXPECT_NEAR(amplitudeAfterFilter(1000.0, 0.0), 0.5, 0.01);
    EXPECT_NEAR(amplitudeAfterFilter(220.0, 0.3), 0.5, 0.02);
    // DC only: the ends of the zero-padded window leak a little of it.
    EXPECT_LT(amplitudeAfterFilter(0.0, 0.3), 0.03);
    EXPECT_LT(amplitudeAfterFilter(25.0, 0.0), 0.05);   // hum below the cut
    EXPECT_LT(amplitudeAfterFilter(8000.0, 0.0), 0.02); // far above the harmonics

    // Sizes without plans (none made in this cache) or not a power of two.
    FFTPlanCache empty(QString(), FFTW_ESTIMATE);
    EGGFilter unplanned(empty);
    std::vector<float> x(kN, 0.1f);
    EXPECT_FALSE(unplanned.bandLimit(x.data(), x.data(), kN));
    EXPECT_FALSE(empty.hasPlan(kN));
    EXPECT_FALSE(filter.bandLimit(x.data(), x.data(), 3000));
}

} // namespace
} // namespace widmo
