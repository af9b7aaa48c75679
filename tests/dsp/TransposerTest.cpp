#include "dsp/Transposer.h"

#include "dsp/FFTPlanCache.h"

#include "HannSpectrum.h"
#include "TestSignals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

namespace widmo {
namespace {

constexpr int32_t kRate = 192000;
constexpr int32_t kBlock = 512;
constexpr int32_t kSpectrumSize = 65536;

FFTPlanCache& plans() {
    static FFTPlanCache cache(QString(), FFTW_ESTIMATE);
    static const bool planned = Transposer::preparePlans(cache);
    EXPECT_TRUE(planned);
    return cache;
}

/// What `seconds` of a 0.5 sine at `frequency` give, fed and drained in
/// 512-sample blocks as the audio path does.
std::vector<float> transpose(double frequency, int32_t factor, bool filter, double seconds) {
    Transposer t(plans());
    t.setupTransposition();
    t.setFilter20kHzOn(filter, factor, kRate);
    const std::vector<float> in =
        test::sine(size_t(seconds * kRate) / kBlock * kBlock, frequency / kRate, 0.5);
    std::vector<float> out(in.size());
    for (size_t at = 0; at < in.size(); at += kBlock) {
        t.addNewData(in.data() + at, kBlock);
        EXPECT_TRUE(t.getTransposedData(out.data() + at, kBlock));
    }
    return out;
}

/// The spectrum of the last 65,536 samples (2.93 Hz a bin at 192 kHz).
std::vector<double> spectrumOfTail(const std::vector<float>& y) {
    return test::hannSpectrum(y.data() + y.size() - kSpectrumSize, kSpectrumSize);
}

/// Bin of the strongest component below a quarter of the rate (the audible
/// side of the image that the unpacking mirrors about rate/4).
int32_t peakBin(const std::vector<double>& magnitude) {
    const auto end = magnitude.begin() + kSpectrumSize / 4;
    return int32_t(std::max_element(magnitude.begin() + 1, end) - magnitude.begin());
}

int32_t binOf(double frequency) { return int32_t(std::lround(frequency * kSpectrumSize / kRate)); }

// The unpacked output's even samples are the real parts of the inverse
// transform, a plain sine at twice the output frequency; a frame added at the
// wrong place, or a ring not cleared before the frames that follow, shows as
// a step far above the sine's own.
TEST(TransposerTest, ultrasonicTone_comesOutDividedByTheFactorWithoutASeam_filterRemovesOnlyAudio) {
    const double ultrasonic = 40000.0;
    std::vector<double> high; // at 8 (3 octaves)
    for (int32_t factor : {2, 4, 8, 16}) {
        SCOPED_TRACE(factor);
        const std::vector<float> y = transpose(ultrasonic, factor, false, 1.0);
        const std::vector<double> s = spectrumOfTail(y);
        EXPECT_NEAR(peakBin(s), binOf(ultrasonic / factor), 1);
        if (factor == 8)
            high = s;
        if (factor == 2)
            continue;
        float peak = 0.0f;
        float step = 0.0f;
        for (size_t i = y.size() - kSpectrumSize; i + 2 < y.size(); i += 2) {
            peak = std::max(peak, std::fabs(y[i]));
            step = std::max(step, std::fabs(y[i + 2] - y[i]));
        }
        ASSERT_GT(peak, 0.05f);
        // The steepest step of a sine of that peak, plus 2 % for the slow
        // ripple of the window sum at the start of the tail.
        EXPECT_LT(step, 1.02 * 2.0 * peak *
                            std::sin(2.0 * std::numbers::pi * ultrasonic / factor / kRate));
    }

    // At 8: an audible tone passes without the filter and is gone with it; the
    // ultrasonic tone passes the filter at the same level.
    const double audible = 10000.0;
    const std::vector<double> open = spectrumOfTail(transpose(audible, 8, false, 1.0));
    const std::vector<double> filtered = spectrumOfTail(transpose(audible, 8, true, 1.0));
    const std::vector<double> highFiltered = spectrumOfTail(transpose(ultrasonic, 8, true, 1.0));
    EXPECT_EQ(peakBin(open), binOf(audible / 8));
    // -40 dB: the input frames are transformed unwindowed, and the leakage of
    // a tone 10 kHz below the cut (107 bins of 94 Hz) is about -50 dB.
    EXPECT_LT(*std::max_element(filtered.begin(), filtered.end()),
              open[size_t(binOf(audible / 8))] * 1e-2);
    const size_t highBin = size_t(binOf(ultrasonic / 8));
    EXPECT_EQ(peakBin(highFiltered), int32_t(highBin));
    EXPECT_NEAR(highFiltered[highBin] / high[highBin], 1.0, 0.01);

    // The 512 kept bins of a 1,024-sample frame span a quarter of the rate:
    // at 192 kHz 213 lie below 20 kHz, at 48 kHz all of them.
    EXPECT_EQ(Transposer::filteredBins(1024, 192000), 213);
    EXPECT_EQ(Transposer::filteredBins(1024, 48000), 512);
}

TEST(TransposerTest, startUpSilence_factorLimits_andOneTooSlowAnswer) {
    Transposer t(plans());
    t.setupTransposition();
    std::vector<float> in(kBlock, 0.25f), out(kBlock, 1.0f);
    // Blocks in and out, as the audio path does; the count of false answers.
    const auto feed = [&](int32_t blocks) {
        int32_t falses = 0;
        for (int32_t i = 0; i < blocks; ++i) {
            t.addNewData(in.data(), kBlock);
            falses += t.getTransposedData(out.data(), kBlock) ? 0 : 1;
        }
        return falses;
    };

    // Factor 0: nothing is transformed, silence, never "too slow".
    t.setFilter20kHzOn(false, 0, kRate);
    EXPECT_EQ(feed(200), 0);
    EXPECT_EQ(t.transpSampleID(), 0);
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float v) { return v == 0.0f; }));

    // Above 16 counts as 16 (512-sample frames, hop 512); the output stays
    // silent until the transformed frames lead it by more than a block.
    t.setFilter20kHzOn(false, 40, kRate);
    EXPECT_EQ(t.factor(), 16);
    const int64_t start = t.inputSampleID();
    EXPECT_EQ(t.transpSampleID(), start);
    feed(1);
    EXPECT_EQ(t.outputSampleID(), start); // one frame (512 + 1 samples) not complete
    feed(3);
    EXPECT_GT(t.outputSampleID(), start);
    // The same factor again resets nothing.
    const int64_t position = t.transpSampleID();
    t.setFilter20kHzOn(true, 16, kRate);
    EXPECT_EQ(t.transpSampleID(), position);

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
