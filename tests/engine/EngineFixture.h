#pragma once

#include "TempSettings.h"
#include "TestDoubles.h"
#include "TestSignals.h"

#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"
#include "engine/AnalyzerController.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <vector>

namespace widmo::test {

/// A real engine on its own settings, a real FFT manager and recording
/// collaborators; the document is prepared and valid.
class EngineFixture : public TempSettings {
protected:
    struct Options {
        AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
        float sampleRate = 44100.0f; // intervals of 512 frames, FFT of 4096 (the defaults)
        bool withSpectrogram = false;
        /// Leaves the settings as a previous session did, before the engine exists.
        std::function<void(AnalyzerDefaults&)> restore = nullptr;
        /// The FFT manager's plan cache; null: the process's shared one.
        FFTPlanCache* plans = nullptr;
    };

    void build(const Options& options) {
        release(); // a second build replaces the whole stack
        audio_.stop();
        defaults_ = std::make_unique<AnalyzerDefaults>(options.features, "engine-test");
        defaults_->setSampleRate(options.sampleRate);
        if (options.restore)
            options.restore(*defaults_);
        manager_ = options.plans ? std::make_unique<FFTManager>(*defaults_, *options.plans)
                                 : std::make_unique<FFTManager>(*defaults_);
        engine_ = std::make_unique<AnalyzerController>(*defaults_, *manager_, audio_);
        engine_->setChartViews(&chart_, options.withSpectrogram ? &spectrogram_ : nullptr);
        engine_->setDelegate(&delegate_);
        engine_->setMainScreen(&mainScreen_);
        engine_->setMessages(&messages_);
        engine_->rebuildDataWithClear();
        defaults_->setDataValid(true);
    }

    void build() { build(Options{}); }

    void TearDown() override { release(); }
    void release() {
        engine_.reset();
        reference_.reset();
        manager_.reset();
        defaults_.reset();
    }

    int64_t n() const { return defaults_->intervalSizeInFrames(); }
    int64_t capacity() const { return int64_t{defaults_->audioBuffersIntervalsCount()} * n(); }

    void startRecording() {
        bool done = false;
        engine_->startRecorder([&done](bool) { done = true; });
        ASSERT_TRUE(runEventsUntil([&done] { return done; }));
        ASSERT_TRUE(audio_.isRecording());
    }

    /// Interleaved stereo block: left and right from two different sequences.
    static std::vector<float> stereoBlock(int32_t frames, std::mt19937& random) {
        return noise(static_cast<size_t>(frames) * 2, static_cast<unsigned>(random()));
    }

    static float gainOf(float decibels) {
        return static_cast<float>(std::pow(10.0, static_cast<double>(decibels) / 20.0));
    }

    /// Channel `channel` of an interleaved block, times `gain`.
    static std::vector<float> channelOf(const std::vector<float>& stereo, int channel, float gain) {
        std::vector<float> mono(stereo.size() / 2);
        for (size_t k = 0; k < mono.size(); ++k)
            mono[k] = gain * stereo[2 * k + static_cast<size_t>(channel)];
        return mono;
    }

    /// Delivers `count` random blocks of one interval each.
    void pushIntervals(int64_t count, std::mt19937& random) {
        for (int64_t i = 0; i < count; ++i) {
            std::vector<float> block = stereoBlock(static_cast<int32_t>(n()), random);
            push(block);
        }
    }

    /// Delivers one block as the audio object's delivery queue would.
    void push(std::vector<float>& stereo) {
        engine_->didGetNewAudioData(
            AudioBlock{static_cast<int32_t>(stereo.size() / 2), stereo.data()});
    }

    void drain() { engine_->analyzerQueue1().waitUntilEmpty(); }

    /// The slot buffers (window, spectrum) of interval `index`.
    std::pair<const float*, const float*> slot(int64_t index) const {
        float* window = nullptr;
        float* out = nullptr;
        float* egg = nullptr;
        manager_->resultsForInterval(index, &window, &out, &egg);
        return {window, out};
    }

    /// The slot of interval `index` holds exactly the `fftSize` samples of the
    /// sample sequence `mono` that end with it, and exactly the spectrum a
    /// manager of its own computes from them.
    void expectSlotHolds(const std::vector<float>& mono, int64_t index) {
        if (!reference_)
            reference_ = std::make_unique<FFTManager>(*defaults_);
        const int64_t size = defaults_->fftSize();
        const int64_t first = (index + 1) * n() - size;
        ASSERT_GE(first, 0);
        const std::vector<float> window(mono.begin() + first, mono.begin() + first + size);
        std::vector<float> spectrum(static_cast<size_t>(defaults_->fftOutSize()));
        reference_->powerSpectrumOfWindow(window.data(), spectrum.data());
        const auto [slotWindow, slotOut] = slot(index);
        EXPECT_TRUE(std::equal(window.begin(), window.end(), slotWindow)) << "interval " << index;
        EXPECT_TRUE(std::equal(spectrum.begin(), spectrum.end(), slotOut)) << "interval " << index;
    }

    FakeAudio audio_;
    FakeChartView chart_;
    FakeSpectrogramView spectrogram_;
    FakeMessages messages_;
    FakeMainScreen mainScreen_;
    FakeDelegate delegate_;
    std::unique_ptr<AnalyzerDefaults> defaults_;
    std::unique_ptr<FFTManager> manager_;
    std::unique_ptr<FFTManager> reference_;
    std::unique_ptr<AnalyzerController> engine_;
};

} // namespace widmo::test
