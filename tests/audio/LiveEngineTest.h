#pragma once

#include "TestDoubles.h"
#include "TestSignals.h"
#include "audio/AudioSession.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "engine/AnalyzerController.h"

#include <gtest/gtest.h>

#include <memory>

namespace widmo::test {

/// The whole live path: the engine on the real audio object of the test
/// sound server (or another source), showing its spectra on a recording chart.
class LiveEngineTest : public ::testing::Test {
protected:
    /// Builds the stack at `sampleRate` Hz, FFT of 4096, gains of 0 dB;
    /// `configure` changes the settings before the audio object is made.
    /// With `source` the engine records from it instead (no audio object).
    void build(float sampleRate, const std::function<void(AnalyzerDefaults&)>& configure = {},
               AudioSessionInterface* source = nullptr) {
        defaults = std::make_unique<AnalyzerDefaults>(
            features, ::testing::UnitTest::GetInstance()->current_test_suite()->name());
        defaults->setSampleRate(sampleRate);
        defaults->setFftSize(4096);
        defaults->setSoftwareInputGainValue(0.0f);
        defaults->setOutputGainValue(0.0f);
        if (configure)
            configure(*defaults);
        if (source == nullptr)
            audio = std::make_unique<AudioSession>(*defaults, features);
        manager = std::make_unique<FFTManager>(*defaults);
        engine =
            std::make_unique<AnalyzerController>(*defaults, *manager, source ? *source : *audio);
        engine->setChartViews(&chart, nullptr);
        engine->setDelegate(&owner);
        engine->rebuildDataWithClear();
        defaults->setDataValid(true);
    }
    void TearDown() override { release(); }
    // The audio object's teardown drains its delivery queue, so nothing reads
    // the settings any more when the next stack is built.
    void release() {
        if (engine) {
            engine->stopRecorder();
            engine->stopPlayer();
        }
        engine.reset();
        manager.reset();
        audio.reset();
        defaults.reset();
    }

    bool startRecorder() {
        return completes([&](auto done) { engine->startRecorder(done); });
    }
    /// Starts playback and waits up to `ms` for it to end by itself.
    bool playToTheEnd(int ms) {
        const int stops = owner.playerStops;
        return completes([&](auto done) { engine->startPlayer(done); }) &&
               QTest::qWaitFor([&] { return owner.playerStops == stops + 1; }, ms);
    }
    /// Chooses the input named `id` once the server lists it (3 s at most).
    bool chooseInput(const char* id) {
        return QTest::qWaitFor(
            [&] {
                for (const AudioDevice& d : audio->availableInputs())
                    if (d.id == id)
                        audio->setPreferredInput(d);
                return audio->preferredInput().id == id;
            },
            3000);
    }

    AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    std::unique_ptr<AnalyzerDefaults> defaults;
    std::unique_ptr<AudioSession> audio;
    std::unique_ptr<FFTManager> manager;
    std::unique_ptr<AnalyzerController> engine;
    FakeChartView chart;
    FakeDelegate owner;
};

} // namespace widmo::test
