#include "dsp/FFTManager.h"

#include "core/AnalyzerDefaults.h"

#include "TempSettings.h"
#include "TestSignals.h"

#include <cmath>
#include <complex>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

namespace widmo {
namespace {

constexpr double kPi = std::numbers::pi;

/// Window coefficients as the platform defines them (full windows, N in the
/// denominator), written independently of the engine: rectangle, Blackman,
/// Hamming, Hann.
double referenceWindow(int type, int n, int size) {
    const double c = std::cos(2.0 * kPi * n / size);
    const double windows[] = {1.0, 0.42 - 0.5 * c + 0.08 * (2.0 * c * c - 1.0), 0.54 - 0.46 * c,
                              0.5 * (1.0 - c)};
    return windows[type];
}

/// Amplitude correction per window type, multiplying 1/N.
constexpr double kCorrection[] = {1.0, 2.371371371371371, 1.851851851851851, 2.0};

/// Power spectrum by a plain DFT in double precision, on the packed real
/// transform's scale (twice the DFT), Nyquist dropped.
std::vector<double> referencePower(const std::vector<float>& x, int windowType, int scaleType) {
    const int n = static_cast<int>(x.size());
    const double s = kCorrection[scaleType] / n;
    std::vector<double> power(static_cast<size_t>(n / 2));
    for (int k = 0; k < n / 2; ++k) {
        std::complex<double> sum;
        for (int t = 0; t < n; ++t) {
            const double v = x[static_cast<size_t>(t)] * referenceWindow(windowType, t, n);
            const double phase = -2.0 * kPi * static_cast<double>((int64_t{k} * t) % n) / n;
            sum += v * std::polar(1.0, phase);
        }
        power[static_cast<size_t>(k)] = std::norm(2.0 * s * sum);
    }
    return power;
}

class FFTManagerTest : public test::TempSettings {
protected:
    void configure(int fftSize, int windowType,
                   const AnalyzerFeatures& features = AnalyzerFeatures::spectrumProduct()) {
        defaults_ = std::make_unique<AnalyzerDefaults>(features, "dsp-test");
        defaults_->setFftSize(fftSize);
        defaults_->setFftWindowType(windowType);
        defaults_->recalculateDocumentSettings();
        const auto samples = static_cast<size_t>(defaults_->audioBufferByteSize() / 4);
        defaults_->audioBuffersData().assign(samples, 0.0f);
        if (features.featureVoiceEGG())
            defaults_->eggBuffersData().assign(samples, 0.0f);
        manager_ = std::make_unique<FFTManager>(*defaults_);
    }

    std::vector<float> transform(const std::vector<float>& input) {
        std::vector<float> out(static_cast<size_t>(defaults_->fftOutSize()), -1.0f);
        manager_->powerSpectrumOfWindow(input.data(), out.data());
        return out;
    }

    static std::vector<float> sine(int size, double bin) {
        return test::sine(static_cast<size_t>(size), bin / size, 1.0, 0.3);
    }

    /// Fills the store with each sample's own position, so a window's contents
    /// tell where it was read from.
    void fillStoreWithPositions() {
        auto& store = defaults_->audioBuffersData();
        for (size_t p = 0; p < store.size(); ++p)
            store[p] = static_cast<float>(p);
    }

    int storeSize() const {
        return defaults_->intervalSizeInFrames() * defaults_->audioBuffersIntervalsCount();
    }

    std::unique_ptr<AnalyzerDefaults> defaults_;
    std::unique_ptr<FFTManager> manager_;
};

// --- The transform against a plain DFT -------------------------------------------

TEST_F(FFTManagerTest, transformMatchesPlainDft_everyWindowAtSmallSizes) {
    for (int size : {256, 512}) {
        for (int type : {0, 1, 2, 3}) {
            SCOPED_TRACE(testing::Message() << "size " << size << " window " << type);
            configure(size, type);
            const std::vector<float> x = test::noise(size_t(size), unsigned(size + type));
            const std::vector<float> got = transform(x);
            const std::vector<double> want = referencePower(x, type, type);
            double peak = 0.0;
            for (double w : want)
                peak = std::max(peak, w);
            // Single-precision FFT against a double DFT: errors stay far below
            // 1e-5 of the largest bin for these sizes.
            ASSERT_EQ(got.size(), want.size());
            for (size_t k = 0; k < want.size(); ++k)
                ASSERT_NEAR(got[k], want[k], 1e-5 * peak) << "bin " << k;
        }
    }
}

TEST_F(FFTManagerTest, unknownWindowType_scalesAsRectangleButKeepsLastWindow) {
    configure(256, 2);
    const std::vector<float> x = test::noise(256, 7);
    transform(x); // builds the Hamming table
    defaults_->setFftWindowType(7);
    const std::vector<float> got = transform(x);
    const std::vector<double> want = referencePower(x, 2, 0);
    for (size_t k = 0; k < want.size(); ++k)
        ASSERT_NEAR(got[k], want[k], 1e-5 * want[1] + 1e-6) << "bin " << k;
}

// --- Normalisation -----------------------------------------------------------------

TEST_F(FFTManagerTest, fullScaleSineOnBinReadsOne_everyWindowAndSize) {
    // Blackman's factor is 1/0.42169 against a coherent gain of 0.42.
    const double expected[4] = {1.0, std::pow(0.42 * 2.371371371371371, 2), 1.0, 1.0};
    for (int size : {256, 4096, 65536}) {
        for (int type : {0, 1, 2, 3}) {
            SCOPED_TRACE(testing::Message() << "size " << size << " window " << type);
            configure(size, type);
            const int bin = size / 16 + 3;
            const std::vector<float> out = transform(sine(size, bin));
            EXPECT_NEAR(out[static_cast<size_t>(bin)], expected[type], 1e-4);
            std::vector<float> db(out);
            convertPowerToDecibels(db.data(), db.data(), static_cast<int32_t>(db.size()));
            EXPECT_NEAR(db[static_cast<size_t>(bin)], 10.0 * std::log10(expected[type]), 1e-3);
            // Far from the tone only leakage remains.
            EXPECT_LT(out[static_cast<size_t>(bin / 2)], 1e-6);
        }
    }
}

// --- Window position in the ring ----------------------------------------------------

// The store holds each sample's own position, so a window's contents tell
// where it was read from: window sample k of interval i is store sample
// (i + 1) * interval - fftSize + k, modulo the store's size.
TEST_F(FFTManagerTest, windowEndsWithItsInterval_wrappingRoundTheStore) {
    for (int size : {4096, 256}) {
        configure(size, 0);
        fillStoreWithPositions();
        const int64_t i = defaults_->intervalSizeInFrames();
        const int64_t t = storeSize();
        // A window longer than an interval reaches back over earlier ones, for
        // interval 0 over the store's end; a shorter one covers the interval's tail.
        for (int64_t interval : {int64_t{0}, int64_t{20}, 20 + 5 * t / i}) {
            float* window = nullptr;
            manager_->computeFFTForInterval(interval, &window, nullptr);
            for (int64_t k = 0; k < size; ++k)
                ASSERT_EQ(window[k], static_cast<float>(((interval + 1) * i - size + k + t) % t))
                    << "size " << size << " interval " << interval << " sample " << k;
        }
    }
    // A window given by its start, 100 samples before the store's end.
    configure(4096, 0);
    fillStoreWithPositions();
    const int t = storeSize();
    float* window = nullptr;
    manager_->computeFFTForInterval(3, defaults_->audioBuffersData().data(), t - 100, t, &window,
                                    nullptr);
    for (int k = 0; k < 4096; ++k)
        ASSERT_EQ(window[k], static_cast<float>((t - 100 + k) % t)) << k;
}

TEST_F(FFTManagerTest, negativeIndexOrMissingData_givesZeroWindowAndSilence) {
    configure(4096, 3);
    std::fill(defaults_->audioBuffersData().begin(), defaults_->audioBuffersData().end(), 0.5f);
    float* window = nullptr;
    float* out = nullptr;
    // Interval 1 first, so the slot of -255 (also slot 1) holds data beforehand.
    manager_->computeFFTForInterval(1, &window, &out);
    ASSERT_GT(out[0], 0.1f);
    float* window2 = nullptr;
    float* out2 = nullptr;
    manager_->computeFFTForInterval(-255, &window2, &out2);
    EXPECT_EQ(window2, window);
    for (int k = 0; k < 4096; ++k)
        ASSERT_EQ(window2[k], 0.0f) << k;
    std::vector<float> db(out2, out2 + 2048);
    convertPowerToDecibels(db.data(), db.data(), 2048);
    for (float v : db)
        ASSERT_EQ(v, -143.99999620874678f);

    // An unprepared (empty) store reads as no data rather than out of bounds.
    defaults_->audioBuffersData().clear();
    manager_->computeFFTForInterval(1, &window, &out);
    EXPECT_EQ(out[0], 0.0f);
}

// --- Result slots ---------------------------------------------------------------------

TEST_F(FFTManagerTest, resultStaysInSlotUntilInterval256Later) {
    configure(256, 0);
    auto& store = defaults_->audioBuffersData();
    std::fill(store.begin(), store.end(), 0.5f); // every window: constant 0.5
    const int i = defaults_->intervalSizeInFrames();
    std::fill(store.begin(), store.begin() + i, 0.25f); // interval 0: constant 0.25

    float* firstOut = nullptr;
    manager_->computeFFTForInterval(0, nullptr, &firstOut);
    EXPECT_NEAR(firstOut[0], 0.25, 1e-6);
    for (int64_t k = 1; k < 256; ++k)
        manager_->computeFFTForInterval(k, nullptr, nullptr);

    float* window = nullptr;
    float* out = nullptr;
    float* egg = nullptr;
    manager_->resultsForInterval(0, &window, &out, &egg);
    EXPECT_EQ(out, firstOut);
    EXPECT_NEAR(out[0], 0.25, 1e-6) << "overwritten before interval 256";
    EXPECT_EQ(egg, nullptr) << "EGG buffers exist only with the EGG product";

    float* reused = nullptr;
    manager_->computeFFTForInterval(256, nullptr, &reused);
    EXPECT_EQ(reused, firstOut);
    EXPECT_NEAR(reused[0], 1.0, 1e-6);

    float* other = nullptr;
    manager_->resultsForInterval(255, nullptr, &other, nullptr);
    EXPECT_NE(other, firstOut);
}

TEST_F(FFTManagerTest, eggProduct_copiesSecondChannelOverSameWindow) {
    configure(1024, 2, AnalyzerFeatures::voiceProduct());
    fillStoreWithPositions();
    auto& egg = defaults_->eggBuffersData();
    for (size_t p = 0; p < egg.size(); ++p)
        egg[p] = -static_cast<float>(p);
    manager_->computeFFTForInterval(0, nullptr, nullptr);
    float* window = nullptr;
    float* eggWindow = nullptr;
    manager_->resultsForInterval(0, &window, nullptr, &eggWindow);
    ASSERT_NE(eggWindow, nullptr);
    for (int k = 0; k < 1024; ++k)
        ASSERT_EQ(eggWindow[k], -window[k]) << k;
    EXPECT_NE(window[0], 0.0f);
}

// --- Window table -------------------------------------------------------------------

TEST_F(FFTManagerTest, windowRebuiltOnSizeChange_andRectangleNeverBuildsIt) {
    configure(1024, 0);
    transform(sine(1024, 10));
    EXPECT_EQ(manager_->windowBuildCount(), 0);

    defaults_->setFftWindowType(3);
    transform(sine(1024, 10));
    transform(sine(1024, 10));
    EXPECT_EQ(manager_->windowBuildCount(), 1);

    // Same type, larger size: a stale table would leave the new tail unwindowed.
    defaults_->setFftSize(8192);
    defaults_->recalculateDocumentSettings();
    const std::vector<float> out = transform(sine(8192, 80));
    EXPECT_EQ(manager_->windowBuildCount(), 2);
    EXPECT_NEAR(out[80], 1.0, 1e-4);
    EXPECT_NEAR(manager_->window()[4096], 1.0f, 1e-6f);
    EXPECT_NEAR(manager_->window()[8191], 0.5 * (1.0 - std::cos(2.0 * kPi * 8191 / 8192)), 1e-7);
}

} // namespace
} // namespace widmo
