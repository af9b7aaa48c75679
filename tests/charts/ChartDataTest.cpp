#include "charts/ChartData.h"

#include "ChartTestSupport.h"
#include "TempSettings.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace widmo {
namespace {

class ChartDataTest : public test::TempSettings {
protected:
    void SetUp() override {
        TempSettings::SetUp();
        defaults_ = test::makeDefaults(48000.0f, 4096, 6);
        data_ = std::make_unique<ChartData>(*defaults_);
        n_ = defaults_->fftOutSize();
        window_.assign(static_cast<size_t>(defaults_->fftSize()), 0.0f);
        silence_.assign(static_cast<size_t>(n_), 0.0f);
        // The 1 kHz band (6 bands per octave: band 36) spans bins 80.5 .. 90.4
        // at 11.72 Hz per bin; all of bin 85's power lies inside it.
        band_ = 36;
        step_ = silence_;
        step_[85] = 1.0f;
    }

    /// One interval followed by one drawn RTA frame at 60 frames per second.
    void frame(const std::vector<float>& spectrum, bool running = true) {
        data_->addFFTdata(spectrum.data(), window_.data(), nullptr);
        data_->updateOctaveRTA(running, 1.0 / 60.0);
    }
    float value() const { return data_->octaveRTAValues()[band_]; }
    float maximum() const { return data_->octaveRTAMaxValues()[band_]; }
    float minimum() const { return data_->octaveRTAMinValues()[band_]; }

    std::unique_ptr<AnalyzerDefaults> defaults_;
    std::unique_ptr<ChartData> data_;
    int32_t n_ = 0;
    size_t band_ = 0;
    std::vector<float> window_;
    std::vector<float> silence_;
    std::vector<float> step_;
};

// --- Intake --------------------------------------------------------------------------

// Silence reads -inf as its level and the floor everywhere, never NaN; a bin
// shows in dB, or as a magnitude in the linear display.
TEST_F(ChartDataTest, displaySpectrum_silenceIsTheFloor_dbOrMagnitude) {
    frame(silence_);
    EXPECT_TRUE(std::isinf(data_->levelDB()) && data_->levelDB() < 0.0f);
    const float* out = data_->fftOutData();
    ASSERT_NE(out, nullptr);
    const auto [lo, hi] = std::minmax_element(out, out + n_);
    EXPECT_NEAR(*lo, -144.0f, 1e-3f);
    EXPECT_NEAR(*hi, -144.0f, 1e-3f);
    EXPECT_NEAR(value(), -144.0f, 1e-3f);

    std::vector<float> raw = silence_;
    raw[10] = 0.25f; // -6.02 dB, magnitude 0.5
    frame(raw);
    EXPECT_NEAR(data_->fftOutData()[10], -6.0206f, 1e-3f);
    defaults_->setValuesInDB(false);
    frame(raw);
    EXPECT_NEAR(data_->fftOutData()[10], 0.5f, 1e-6f);
    EXPECT_NEAR(data_->fftOutData()[11], 0.0f, 1e-6f);
}

// Through the real FFT engine: a sine of peak A reads 20 log10 A and noise of
// RMS r reads 20 log10 r + 3.01 (the level of a sine of the same RMS), with
// every window and size. The sine lies between bins, where a window's spread
// differs most from a single bin.
TEST_F(ChartDataTest, level_offBinSineAndWhiteNoise_readTheirLevel_everyWindowAndSize) {
    FFTManager fft(*defaults_);
    std::mt19937 random(20);
    std::normal_distribution<double> gauss(0.0, 0.1);
    for (const int32_t size : {1024, 16384}) {
        for (int32_t type = 0; type <= 3; ++type) {
            SCOPED_TRACE(testing::Message() << "fftSize " << size << ", window " << type);
            defaults_->setFftSize(size);
            defaults_->setFftWindowType(type);
            defaults_->recalculateDocumentSettings();
            for (const double amplitude : {0.5, 0.1}) {
                const auto spectrum = test::analyse(
                    fft, test::sine(1000.37 * 48000.0 / 44100.0, 48000.0, size, amplitude));
                data_->addFFTdata(spectrum.spectrum, spectrum.window, nullptr);
                EXPECT_NEAR(data_->levelDB(), 20.0 * std::log10(amplitude), 0.1);
            }
            std::vector<float> noise(static_cast<size_t>(size));
            double power = 0.0;
            for (float& x : noise) {
                x = static_cast<float>(gauss(random));
                power += double(x) * x;
            }
            const double rmsDB = 10.0 * std::log10(power / size);
            const auto spectrum = test::analyse(fft, noise);
            data_->addFFTdata(spectrum.spectrum, spectrum.window, nullptr);
            // The window weighs the samples unevenly: 0.5 dB covers that spread
            // at 1024 points, and the old error of each window is 0.6..2.4 dB.
            EXPECT_NEAR(data_->levelDB(), rmsDB + 3.0103, size > 1024 ? 0.2 : 0.5);
        }
    }
}

TEST_F(ChartDataTest, seventeenthInterval_reusesSlotZero_previousSlotIntact) {
    std::vector<float> raw = silence_;
    for (int interval = 1; interval <= 17; ++interval) {
        raw[5] = static_cast<float>(interval) * 1e-3f;
        data_->addFFTdata(raw.data(), window_.data(), nullptr);
    }
    EXPECT_EQ(data_->fftOutData(), data_->displaySlot(0));
    EXPECT_EQ(data_->currentResultSlot(), 1);
    // Slot 15 still holds interval 16, converted before the 17th arrived.
    EXPECT_NEAR(data_->displaySlot(15)[5], 10.0f * std::log10(16e-3f), 1e-3f);
    EXPECT_NEAR(data_->fftOutData()[5], 10.0f * std::log10(17e-3f), 1e-3f);
}

TEST_F(ChartDataTest, engineSlotOverwritten_chartKeepsItsCopy) {
    std::vector<float> raw = step_;
    std::vector<float> window(window_.size(), 0.25f);
    data_->addFFTdata(raw.data(), window.data(), nullptr);
    raw[85] = 0.0f; // the FFT engine reuses its result slot
    window[3] = 0.0f;
    data_->updateOctaveRTA(true, 1.0 / 60.0);
    EXPECT_GT(value(), -144.0f);
    EXPECT_FLOAT_EQ(data_->fftWindowData()[3], 0.25f);
}

TEST_F(ChartDataTest, clearData_forgetsDataAndBands) {
    frame(step_);
    data_->clearData();
    EXPECT_EQ(data_->fftOutData(), nullptr);
    EXPECT_EQ(data_->fftWindowData(), nullptr);
    EXPECT_FLOAT_EQ(data_->levelDB(), -144.0f);
    EXPECT_FLOAT_EQ(value(), -144.0f);
    // Without data the band update does nothing.
    data_->updateOctaveRTA(true, 1.0 / 60.0);
    EXPECT_FLOAT_EQ(value(), -144.0f);
}

// --- Octave bands ----------------------------------------------------------------------

TEST_F(ChartDataTest, bandEdges_interpolateBetweenBins) {
    // Constant power c in every bin: each band reads c times the number of bins
    // between its two integer edge bins (half of each edge value plus the
    // inner bins), whatever the fractional positions.
    defaults_->setOctaveRTABandAverageType(3);
    const std::vector<float> flat(static_cast<size_t>(n_), 1e-4f);
    frame(flat);
    const int32_t* f = defaults_->octaveRTAIndexesFloor();
    const int32_t b = 40;
    const double bins = std::min(f[b + 1], n_) - std::max(1, f[b]);
    EXPECT_NEAR(data_->octaveRTAValues()[b], 10.0 * std::log10(1e-4 * bins), 1e-3);

    // A single bin on the upper edge of band b shares its power with band b+1
    // by the edge's fractional position p.
    std::vector<float> edge = silence_;
    const int32_t k = b + 1;
    edge[static_cast<size_t>(f[k])] = 1.0f;
    frame(edge);
    const double p = defaults_->octaveRTAIndexFraction()[k];
    EXPECT_NEAR(data_->octaveRTAValues()[b], 10.0 * std::log10((1.0 - p) / 2.0), 1e-3);
    EXPECT_NEAR(data_->octaveRTAValues()[k], 10.0 * std::log10((1.0 - p) / 2.0), 1e-3);
}

TEST_F(ChartDataTest, averaging_type0HalvesTheStepAndFallsSlowly_type3FollowsEachFrame) {
    // Frames of a full-scale step (true) or silence (false), and the band after each.
    struct Row {
        int32_t type;
        std::vector<std::pair<bool, float>> frames;
    };
    const Row rows[] = {{0, {{true, -72.0f}, {true, -36.0f}, {false, -36.0f - 108.0f * 0.075f}}},
                        {3, {{true, 0.0f}, {false, -144.0f}, {true, 0.0f}}}};
    for (const Row& r : rows) {
        defaults_->setOctaveRTABandAverageType(r.type);
        data_->clearOctaveRTAValues();
        for (const auto& [step, expected] : r.frames) {
            frame(step ? step_ : silence_);
            EXPECT_NEAR(value(), expected, 1e-3f) << "type " << r.type;
        }
    }
}

TEST_F(ChartDataTest, decayTime2_maximumFallsAfterTwoSeconds_byStepPerFrame) {
    defaults_->setOctaveRTABandAverageType(3);
    defaults_->setOctaveRTAMinMaxDecayTime(2);
    frame(step_);
    ASSERT_FLOAT_EQ(maximum(), 0.0f);
    int held = 0;
    while (maximum() >= 0.0f && held < 1000) {
        frame(silence_);
        ++held;
    }
    // 2 s at 60 frames per second, give or take the frame that crosses zero.
    EXPECT_GE(held, 120);
    EXPECT_LE(held, 122);
    const float first = maximum();
    frame(silence_);
    EXPECT_NEAR(first - maximum(), 0.2f, 1e-4f);
}

// Holds stay where they are with decay time 0, and while the analyser is stopped.
TEST_F(ChartDataTest, decayTime0OrAnalyserStopped_holdsNeverMove) {
    defaults_->setOctaveRTABandAverageType(3);
    defaults_->setOctaveRTAMinValuesEnabled(true);
    for (const bool running : {true, false}) {
        SCOPED_TRACE(running);
        defaults_->setOctaveRTAMinMaxDecayTime(running ? 0 : 2);
        data_->clearOctaveRTAMinMaxLevels();
        frame(step_, running);
        frame(silence_, running); // the minimum starts on this fall
        std::vector<float> half = silence_;
        half[85] = 1e-3f; // -30 dB
        for (int i = 0; i < 600; ++i)
            frame(half, running);
        EXPECT_FLOAT_EQ(maximum(), 0.0f);
        EXPECT_NEAR(minimum(), -144.0f, 1e-3f);
    }
    EXPECT_FLOAT_EQ(data_->octaveRTAMaxTimer()[band_], 2.0f);
}

TEST_F(ChartDataTest, risingBand_minimumNeverStarts_thenStartsOnFirstFall) {
    defaults_->setOctaveRTABandAverageType(0);
    defaults_->setOctaveRTAMinValuesEnabled(true);
    for (int i = 0; i < 30; ++i) {
        const float before = value();
        frame(step_);
        EXPECT_FALSE(data_->octaveRTAMinStarted()[band_]);
        EXPECT_FLOAT_EQ(minimum(), before); // follows the value, no bar at the floor
    }
    frame(silence_);
    EXPECT_TRUE(data_->octaveRTAMinStarted()[band_]);
    EXPECT_FLOAT_EQ(minimum(), value());
}

TEST_F(ChartDataTest, minMaxReset_leavesAveragesUntouched) {
    defaults_->setOctaveRTABandAverageType(1);
    defaults_->setOctaveRTAMinValuesEnabled(true);
    frame(step_);
    frame(step_);
    frame(silence_);
    const auto values = data_->octaveRTAValues();
    data_->clearOctaveRTAMinMaxLevels();
    EXPECT_EQ(data_->octaveRTAValues(), values);
    EXPECT_FLOAT_EQ(maximum(), -144.0f);
    EXPECT_FLOAT_EQ(minimum(), 0.0f);
    EXPECT_FLOAT_EQ(data_->octaveRTAMinTimer()[band_], 1.0f);
    EXPECT_FLOAT_EQ(data_->octaveRTAMaxTimer()[band_], 1.0f);
    EXPECT_FALSE(data_->octaveRTAMinStarted()[band_]);
    // The values reset too only with clearOctaveRTAValues.
    data_->clearOctaveRTAValues();
    EXPECT_FLOAT_EQ(value(), -144.0f);
}

} // namespace
} // namespace widmo
