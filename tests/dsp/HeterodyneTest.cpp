#include "dsp/Heterodyne.h"

#include "HannSpectrum.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace widmo {
namespace {

constexpr int32_t kBlock = 512;

std::vector<float> tone(double hz, int32_t rate, size_t n, double amplitude = 0.5) {
    std::vector<float> x(n);
    for (size_t i = 0; i < n; ++i)
        x[i] = float(amplitude * std::sin(2.0 * std::numbers::pi * hz * double(i) / rate));
    return x;
}

/// The heterodyned input, processed in 512-sample blocks as the render thread does.
std::vector<float> heterodyne(Heterodyne& h, const std::vector<float>& in) {
    std::vector<float> out(in.size());
    for (size_t at = 0; at < in.size(); at += kBlock)
        h.process(in.data() + at, out.data() + at,
                  int32_t(std::min<size_t>(kBlock, in.size() - at)));
    return out;
}

/// The strongest component of the last 65,536 samples: its frequency, and the
/// level of those samples (the peak of a sine of the same power) in dB
/// relative to 0.5.
struct Peak {
    double hz;
    double dB;
};
Peak strongest(const std::vector<float>& y, int32_t rate) {
    constexpr size_t n = 65536;
    const std::vector<double> s = test::hannSpectrum(y.data() + y.size() - n, n);
    const auto it = std::max_element(s.begin() + 1, s.end());
    const auto k = size_t(it - s.begin());
    // Parabolic interpolation of the log magnitudes around the peak bin.
    const double a = std::log(s[k - 1]), b = std::log(s[k]), c = std::log(s[k + 1]);
    const double offset = 0.5 * (a - c) / (a - 2.0 * b + c);
    double power = 0.0;
    for (size_t i = y.size() - n; i < y.size(); ++i)
        power += double(y[i]) * double(y[i]);
    return {(double(k) + offset) * rate / double(n),
            20.0 * std::log10(std::sqrt(2.0 * power / double(n)) / 0.5)};
}

/// The 8th-order Butterworth's gain in dB at `hz` for the edge `band`, after
/// the bilinear transform at `rate`: frequencies warp by tan(pi f / rate).
double butterworthDb(double hz, double band, int32_t rate) {
    const double ratio =
        std::tan(std::numbers::pi * hz / rate) / std::tan(std::numbers::pi * band / rate);
    return -10.0 * std::log10(1.0 + std::pow(ratio, 16));
}

// The analytic heterodyne: a tone at f0 + d comes out at |d| at the input's
// level while |d| lies well inside the band; a tone four bands off the tuning
// gives nothing (the Butterworth is 96 dB down there).
TEST(HeterodyneTest, toneNearTuning_comesOutAtTheDifference_farToneIsGone_atEveryRate) {
    for (int32_t rate : {96000, 192000, 384000}) {
        SCOPED_TRACE(rate);
        Heterodyne h;
        h.prepare(rate);
        h.setTuning(40000.0);
        const Peak p = strongest(heterodyne(h, tone(42000.0, rate, size_t(rate))), rate);
        EXPECT_NEAR(p.hz, 2000.0, 10.0);
        EXPECT_NEAR(p.dB, 0.0, 0.2);
        // Below the tuning folds onto the same side.
        h.reset();
        EXPECT_NEAR(strongest(heterodyne(h, tone(37000.0, rate, size_t(rate))), rate).hz, 3000.0,
                    10.0);

        // 20 kHz off the tuning (where the rate allows 60 kHz: 4 bands).
        h.reset();
        const double farTone = rate > 120000 ? 60000.0 : 20000.0;
        const std::vector<float> far = heterodyne(h, tone(farTone, rate, size_t(rate)));
        float peak = 0.0f;
        for (size_t i = far.size() / 2; i < far.size(); ++i)
            peak = std::max(peak, std::fabs(far[i]));
        EXPECT_LT(20.0 * std::log10(double(peak) / 0.5), -60.0);
    }
}

TEST(HeterodyneTest, bandWidthChoice_setsTheEdge) {
    const int32_t rate = 192000;
    for (double band : Heterodyne::kBands) {
        SCOPED_TRACE(band);
        Heterodyne h;
        h.prepare(rate);
        h.setTuning(50000.0);
        h.setBandwidth(band);
        const double inside =
            strongest(heterodyne(h, tone(50000.0 + 0.8 * band, rate, 131072)), rate).dB;
        h.reset();
        const double outside =
            strongest(heterodyne(h, tone(50000.0 + 2.0 * band, rate, 131072)), rate).dB;
        EXPECT_NEAR(inside, butterworthDb(0.8 * band, band, rate), 0.3);
        EXPECT_NEAR(outside, butterworthDb(2.0 * band, band, rate), 0.5);
    }
    EXPECT_DOUBLE_EQ(Heterodyne::highestTuning(48000, 5000.0), 19000.0);
}

// A retuning between two blocks changes the output frequency from the next
// block on, with the oscillator's phase kept: no step larger than the tone's
// own steepest one.
TEST(HeterodyneTest, retuning_takesEffectAtTheNextBlock_withoutAStep) {
    const int32_t rate = 384000;
    Heterodyne h;
    h.prepare(rate);
    h.setTuning(40000.0);
    const std::vector<float> in = tone(42000.0, rate, size_t(rate / 2));
    std::vector<float> out(in.size());
    const size_t change = size_t(rate / 4) / kBlock * kBlock;
    for (size_t at = 0; at < in.size(); at += kBlock) {
        if (at == change)
            h.setTuning(41000.0);
        h.process(in.data() + at, out.data() + at, kBlock);
    }
    // Zero crossings of the block right after the change (and two more: at
    // 1 kHz one block of 1.3 ms holds under three crossings): 1 kHz, where 2
    // kHz would give twice as many.
    int crossings = 0;
    const size_t span = 3 * kBlock;
    for (size_t i = change + 1; i < change + span; ++i)
        crossings += (out[i - 1] < 0.0f) != (out[i] < 0.0f) ? 1 : 0;
    const double measured = 0.5 * crossings * rate / double(span);
    EXPECT_NEAR(measured, 1000.0, 300.0);
    float step = 0.0f;
    for (size_t i = change - kBlock; i < change + kBlock; ++i)
        step = std::max(step, std::fabs(out[i + 1] - out[i]));
    EXPECT_LT(step, 1.1f * float(2.0 * std::numbers::pi * 2000.0 / rate * 0.5));
}

} // namespace
} // namespace widmo
