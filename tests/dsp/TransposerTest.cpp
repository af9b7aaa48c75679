#include "dsp/Transposer.h"

#include "dsp/FFTPlanCache.h"

#include "HannSpectrum.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <vector>

namespace widmo {
namespace {

constexpr int32_t kBlock = 512;
constexpr size_t kSpectrumSize = 65536;

FFTPlanCache& plans() {
    static FFTPlanCache cache(QString(), FFTW_ESTIMATE);
    static const bool planned = Transposer::preparePlans(cache);
    EXPECT_TRUE(planned);
    return cache;
}

/// Feeds `in` in 512-sample blocks and drains as many, as the audio path
/// does; `between(at)` runs before the block at sample `at`.
std::vector<float> run(Transposer& t, const std::vector<float>& in,
                       const std::function<void(size_t)>& between = {}) {
    std::vector<float> out(in.size());
    for (size_t at = 0; at + kBlock <= in.size(); at += kBlock) {
        if (between)
            between(at);
        t.addNewData(in.data() + at, kBlock);
        EXPECT_TRUE(t.getTransposedData(out.data() + at, kBlock));
    }
    return out;
}

std::vector<float> sine(double hz, int32_t rate, double seconds, double amplitude = 0.5) {
    std::vector<float> x(size_t(seconds * rate) / kBlock * kBlock);
    for (size_t i = 0; i < x.size(); ++i)
        x[i] = float(amplitude * std::sin(2.0 * std::numbers::pi * hz * double(i) / rate));
    return x;
}

struct Components {
    double wantedHz; ///< the strongest component's frequency
    double wantedDb; ///< the level (peak of a sine of the same power) against the input's
    double othersDb; ///< the strongest component 12 bins or more away, against it
};

/// The last 65,536 samples' Hann spectrum: the strongest component and the
/// strongest other (outside the window's main lobe and its first sidelobes:
/// a Hann sidelobe 12 bins away is below -70 dB); the level is the tail's
/// power, free of the spectrum's scalloping.
Components components(const std::vector<float>& y, int32_t rate, double amplitude = 0.5) {
    const std::vector<double> s =
        test::hannSpectrum(y.data() + y.size() - kSpectrumSize, kSpectrumSize);
    const auto peak = size_t(std::max_element(s.begin() + 1, s.end()) - s.begin());
    double other = 0.0;
    for (size_t k = 1; k < s.size(); ++k)
        if (k + 12 <= peak || k >= peak + 12)
            other = std::max(other, s[k]);
    double power = 0.0;
    for (size_t i = y.size() - kSpectrumSize; i < y.size(); ++i)
        power += double(y[i]) * double(y[i]);
    const double level = std::sqrt(2.0 * power / double(kSpectrumSize));
    return {double(peak) * rate / double(kSpectrumSize), 20.0 * std::log10(level / amplitude),
            20.0 * std::log10(other / s[peak])};
}

// Every rate and factor: the tone comes out at f / T, at the input's level
// (within 1 dB: loudness does not depend on the factor), and nothing else
// above -60 dB (no mirror image about rate / 2T, the fault of unpacking
// complex values as samples, and no images of the stretch).
TEST(TransposerTest, toneAtEveryRateAndFactor_comesOutAloneAtTheInputLevel) {
    const std::vector<std::pair<int32_t, double>> cases{
        {48000, 10000.0}, {96000, 20000.0}, {192000, 40000.0}, {384000, 40000.0}};
    for (const auto& [rate, tone] : cases) {
        for (int32_t factor = 2; factor <= Transposer::kMaxFactor; factor *= 2) {
            SCOPED_TRACE(testing::Message() << rate << " Hz, factor " << factor);
            Transposer t(plans());
            t.setupTransposition();
            t.setFilter20kHzOn(false, factor, rate);
            const double seconds = double(kSpectrumSize) / rate + 0.1;
            const Components c = components(run(t, sine(tone, rate, seconds)), rate);
            EXPECT_NEAR(c.wantedHz, tone / factor, double(rate) / kSpectrumSize);
            EXPECT_NEAR(c.wantedDb, 0.0, 1.0);
            EXPECT_LT(c.othersDb, -60.0);
        }
    }
}

// The 20 kHz filter takes an audible tone away and leaves an ultrasonic one at
// its level.
TEST(TransposerTest, filter_removesAudibleInput_keepsUltrasound) {
    const int32_t rate = 192000;
    Transposer t(plans());
    t.setupTransposition();
    t.setFilter20kHzOn(true, 8, rate);
    const std::vector<float> audible = run(t, sine(10000.0, rate, 0.5));
    float peak = 0.0f;
    for (size_t i = audible.size() / 2; i < audible.size(); ++i)
        peak = std::max(peak, std::fabs(audible[i]));
    EXPECT_LT(20.0 * std::log10(double(peak) / 0.5), -60.0);
    t.setupTransposition();
    EXPECT_NEAR(components(run(t, sine(40000.0, rate, 0.5)), rate).wantedDb, 0.0, 1.0);
}

// A sweep from 30 to 60 kHz in a second, three octaves down: in every 20 ms
// the strongest component follows the sweep divided by 8, and nothing else
// comes within 40 dB of it (one line, not several).
TEST(TransposerTest, sweptTone_givesOneSweptLine) {
    const int32_t rate = 192000;
    const size_t n = size_t(rate);
    std::vector<float> in(n);
    for (size_t i = 0; i < n; ++i) {
        const double t = double(i) / rate;
        in[i] = float(0.5 * std::sin(2.0 * std::numbers::pi * (30000.0 * t + 15000.0 * t * t)));
    }
    Transposer t(plans());
    t.setupTransposition();
    t.setFilter20kHzOn(false, 8, rate);
    const std::vector<float> out = run(t, in);
    const size_t window = 4096; // 46.9 Hz a bin; the output sweeps 3.75 Hz a window
    const double delay = Transposer::latencySamples(rate, 8) + kBlock;
    for (size_t at = n / 10; at + window <= n; at += window * 4) {
        const std::vector<double> s = test::hannSpectrum(out.data() + at, window);
        const auto peak = size_t(std::max_element(s.begin() + 1, s.end()) - s.begin());
        const double time = (double(at + window / 2) - delay) / rate;
        EXPECT_NEAR(double(peak) * rate / window, (30000.0 + 30000.0 * time) / 8.0, 2.5 * 46.9);
        double other = 0.0;
        for (size_t k = 1; k < s.size(); ++k)
            if (k + 6 <= peak || k >= peak + 6)
                other = std::max(other, s[k]);
        EXPECT_LT(20.0 * std::log10(other / s[peak]), -40.0) << at;
    }
}

// A change of the factor while running: the output never rises above the
// tone's steady peak (no click), and the new factor's tone is as loud as the
// old one's.
TEST(TransposerTest, factorChangedWhileRunning_fadesWithoutClick_keepsLevel) {
    const int32_t rate = 192000;
    Transposer t(plans());
    t.setupTransposition();
    t.setFilter20kHzOn(false, 8, rate);
    const std::vector<float> in = sine(40000.0, rate, 1.5);
    const size_t change = size_t(rate * 3 / 4) / kBlock * kBlock;
    const std::vector<float> out = run(t, in, [&](size_t at) {
        if (at == change)
            t.setFilter20kHzOn(false, 2, rate);
    });
    EXPECT_EQ(t.factor(), 2);
    const auto peakOf = [&](size_t from, size_t to) {
        float p = 0.0f;
        for (size_t i = from; i < to; ++i)
            p = std::max(p, std::fabs(out[i]));
        return double(p);
    };
    const double before = peakOf(change - size_t(rate / 10), change);
    const double after = peakOf(change + size_t(rate / 10), change + size_t(rate / 5));
    EXPECT_NEAR(20.0 * std::log10(after / before), 0.0, 1.0);
    EXPECT_LE(peakOf(change - kBlock, change + size_t(rate / 10)), 1.02 * before);
    const Components c = components(out, rate);
    EXPECT_NEAR(c.wantedHz, 20000.0, 3.0);
    EXPECT_LT(c.othersDb, -60.0);
}

// The delay from input to output is what the frame, hop and interpolator
// make it (M - H + 24 T), plus at most the blocks' own granularity.
TEST(TransposerTest, onsetArrivesAfterTheStatedLatency) {
    for (const auto& [rate, factor] : {std::pair{192000, 8}, std::pair{384000, 8}}) {
        SCOPED_TRACE(rate);
        Transposer t(plans());
        t.setupTransposition();
        t.setFilter20kHzOn(false, factor, rate);
        std::vector<float> in = sine(40000.0, rate, 0.4);
        const size_t onset = size_t(rate / 5) + 100;
        std::fill(in.begin(), in.begin() + long(onset), 0.0f);
        const std::vector<float> out = run(t, in);
        // Output sample i leaves with the block that brought input up to
        // i rounded up to a block (the request after that block).
        size_t heard = 0;
        for (size_t i = 0; i < out.size() && heard == 0; ++i)
            if (std::fabs(out[i]) > 0.05f)
                heard = (i / kBlock + 1) * kBlock;
        ASSERT_GT(heard, onset);
        const double latency = double(heard - onset);
        // One block for the request's granularity, one for the first
        // request's wait (10.3 ms at 192 kHz, 5.8 ms at 384 kHz).
        EXPECT_LE(latency, Transposer::latencySamples(rate, factor) + 2 * kBlock);
    }
}

// Heterodyne mode through the same stream: 42 kHz tuned at 40 kHz gives
// 2 kHz at the input's level, one block behind the input.
TEST(TransposerTest, heterodyneMode_givesTheDifferenceWithinABlock) {
    const int32_t rate = 384000;
    Transposer t(plans());
    t.setupTransposition();
    t.setFilter20kHzOn(false, 8, rate);
    t.setMode(Transposer::Mode::Heterodyne);
    t.heterodyne().setTuning(40000.0);
    const Components c = components(run(t, sine(42000.0, rate, 0.3)), rate);
    EXPECT_NEAR(c.wantedHz, 2000.0, double(rate) / kSpectrumSize);
    EXPECT_NEAR(c.wantedDb, 0.0, 0.3);
    EXPECT_LT(c.othersDb, -60.0);
    EXPECT_LE(t.inputSampleID() - t.outputSampleID(), 2 * kBlock);
}

// Requests that find no input (a stalled delivery) leave the output behind;
// once the input comes in a burst, the delay returns to what it was within
// a few requests, instead of staying 30 requests longer for good.
TEST(TransposerTest, stalledInputThenBurst_delayReturnsToWhatItWas) {
    const int32_t rate = 192000;
    for (auto mode : {Transposer::Mode::Transpose, Transposer::Mode::Heterodyne}) {
        Transposer t(plans());
        t.setupTransposition();
        t.setFilter20kHzOn(false, 8, rate);
        t.setMode(mode);
        const std::vector<float> in = sine(40000.0, rate, 2.0);
        std::vector<float> out(kBlock);
        size_t at = 0;
        const auto feed = [&](int32_t blocks) {
            for (int32_t i = 0; i < blocks; ++i, at += kBlock)
                t.addNewData(in.data() + at, kBlock);
        };
        const auto drain = [&](int32_t requests) {
            for (int32_t i = 0; i < requests; ++i)
                t.getTransposedData(out.data(), kBlock);
        };
        for (int32_t i = 0; i < 200; ++i) {
            feed(1);
            drain(1);
        }
        const int64_t settled = t.inputSampleID() - t.outputSampleID();
        drain(30); // stalled: silence, the output stays where it was
        feed(30);  // the late blocks at once
        for (int32_t i = 0; i < 20; ++i) {
            feed(1);
            drain(1);
        }
        EXPECT_LE(t.inputSampleID() - t.outputSampleID(), settled + 2 * kBlock);
    }
}

TEST(TransposerTest, startUpSilence_factorLimits_andOneTooSlowAnswer) {
    const int32_t rate = 192000;
    Transposer t(plans());
    t.setupTransposition();
    std::vector<float> in(kBlock, 0.25f), out(kBlock, 1.0f);
    const auto feed = [&](int32_t blocks) {
        int32_t falses = 0;
        for (int32_t i = 0; i < blocks; ++i) {
            t.addNewData(in.data(), kBlock);
            falses += t.getTransposedData(out.data(), kBlock) ? 0 : 1;
        }
        return falses;
    };

    // Factor 0: nothing is transformed, silence, never "too slow".
    t.setFilter20kHzOn(false, 0, rate);
    EXPECT_EQ(feed(200), 0);
    EXPECT_EQ(t.transpSampleID(), 0);
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float v) { return v == 0.0f; }));

    // Above 64 counts as 64; nothing is heard before the first frame (1,024
    // samples at 192 kHz) and one block more are in.
    t.setFilter20kHzOn(false, 100, rate);
    EXPECT_EQ(t.factor(), 64);
    const int64_t start = t.inputSampleID();
    EXPECT_EQ(t.transpSampleID(), start);
    feed(2);
    EXPECT_EQ(t.outputSampleID(), start);
    feed(4);
    EXPECT_GT(t.outputSampleID(), start);

    // Past the start-up, requests without input: the tenth empty one in a row
    // answers false, once; later ones and a recovery answer true.
    feed(100);
    int32_t falses = 0;
    for (int32_t i = 0; i < 30; ++i) {
        const bool ok = t.getTransposedData(out.data(), kBlock);
        falses += ok ? 0 : 1;
        if (!ok) {
            EXPECT_GE(i, Transposer::kTooSlowRequests - 1);
        }
    }
    EXPECT_EQ(falses, 1);
    EXPECT_TRUE(t.tooSlow());
    for (int32_t i = 0; i < 40; ++i)
        t.addNewData(in.data(), kBlock);
    for (int32_t i = 0; i < 40; ++i)
        EXPECT_TRUE(t.getTransposedData(out.data(), kBlock));
}

} // namespace
} // namespace widmo
