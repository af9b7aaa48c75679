#include "RealTimeAllocations.h"
#include "TestDoubles.h"
#include "TestSignals.h"
#include "audio/AudioIOUnit.h"
#include "audio/TQAudio.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/Transposer.h"
#include "engine/AnalyzerController.h"

#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <memory>
#include <numbers>

namespace widmo {
namespace {

using namespace test;

/// Bins of the spectra taken of what the default sink played (48 kHz).
constexpr int32_t kSpectrumSize = 16384;
constexpr double kListenRate = 48000.0;

/// Magnitudes of the Hann-windowed spectrum of `kSpectrumSize` frames of the
/// left channel of `stereo` from frame `from` (the last ones by default).
std::vector<double> spectrumOfTail(const std::vector<float>& stereo, size_t from = SIZE_MAX) {
    std::vector<float> in(kSpectrumSize);
    from = std::min(from, stereo.size() / 2 - kSpectrumSize);
    for (size_t i = 0; i < in.size(); ++i)
        in[i] = stereo[2 * (from + i)] *
                float(0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * double(i) / kSpectrumSize));
    std::vector<std::complex<float>> out(kSpectrumSize / 2 + 1);
    fftwf_plan plan = fftwf_plan_dft_r2c_1d(
        kSpectrumSize, in.data(), reinterpret_cast<fftwf_complex*>(out.data()), FFTW_ESTIMATE);
    fftwf_execute(plan);
    fftwf_destroy_plan(plan);
    std::vector<double> magnitude(out.size());
    for (size_t k = 0; k < out.size(); ++k)
        magnitude[k] = std::abs(out[k]) * 4.0 / kSpectrumSize; // a sine of amplitude A reads A
    return magnitude;
}

int32_t binOf(double frequency) {
    return int32_t(std::lround(frequency * kSpectrumSize / kListenRate));
}

// The studio product recording from a virtual microphone at 192 kHz, with the
// transposed sound captured from the monitor of the default (48 kHz) sink.
class TranspositionTest : public ::testing::Test {
protected:
    void build(float sampleRate) {
        defaults = std::make_unique<AnalyzerDefaults>(features, "audio-transposition-test");
        defaults->setSampleRate(sampleRate);
        defaults->setFftSize(4096);
        defaults->setSoftwareInputGainValue(0.0f);
        defaults->setOutputGainValue(0.0f);
        defaults->setRecordingTranspositionOn(true);
        defaults->setRealTimeTransposeOctavesDown(3);
        defaults->setRealTimeTranspFilterBelow20kHz(false);
        audio = std::make_unique<TQAudio>(*defaults, features);
        manager = std::make_unique<FFTManager>(*defaults);
        engine = std::make_unique<AnalyzerController>(*defaults, *manager, *audio);
        engine->setChartViews(&chart, nullptr);
        engine->setDelegate(&owner);
        engine->rebuildDataWithClear();
        defaults->setDataValid(true);
        ASSERT_TRUE(Transposer::preparePlans(FFTPlanCache::shared()));
    }
    void TearDown() override {
        if (engine) {
            engine->stopRecorder();
            engine->stopPlayer();
        }
        engine.reset();
        manager.reset();
        audio.reset();
        defaults.reset();
    }

    /// Records from the ultrasonic microphone for `seconds` while listening to
    /// the default sink; returns what the sink played (stereo, 48 kHz).
    /// `steadyAllocations` gets the allocations made in the real-time
    /// stretches from one second in to the end.
    std::vector<float> recordAndListen(double seconds, int64_t* steadyAllocations = nullptr) {
        AudioDevice microphone;
        const bool listed = QTest::qWaitFor(
            [&] {
                for (const AudioDevice& d : audio->availableInputs())
                    if (d.id == UltrasonicMicrophone::kSourceName)
                        microphone = d;
                return !microphone.isNull();
            },
            3000);
        EXPECT_TRUE(listed);
        audio->setPreferredInput(microphone);

        CaptureRecorder listener;
        AudioIOUnit listening(listener, audio->soundServer());
        listener.unit = &listening;
        EXPECT_TRUE(listening.start(captureConfig(audio->soundServer(), 48000)).ok());
        bool started = false;
        engine->startRecorder([&](bool ok) { started = ok; });
        EXPECT_TRUE(QTest::qWaitFor([&] { return started; }, 5000));
        EXPECT_TRUE(audio->isTransposing());
        QTest::qWait(1000);
        const int64_t before = realTimeAllocations.load();
        QTest::qWait(int((seconds - 1.0) * 1000));
        if (steadyAllocations != nullptr)
            *steadyAllocations = realTimeAllocations.load() - before;
        listening.stop();
        engine->stopRecorder();
        return listener.samples;
    }

    AnalyzerFeatures features = AnalyzerFeatures::studioProduct();
    std::unique_ptr<AnalyzerDefaults> defaults;
    std::unique_ptr<TQAudio> audio;
    std::unique_ptr<FFTManager> manager;
    std::unique_ptr<AnalyzerController> engine;
    FakeChartView chart;
    FakeDelegate owner;
};

TEST_F(TranspositionTest,
       ultrasonicToneAt192kHz_isHeardThreeOctavesDown_withoutRealTimeAllocation) {
    UltrasonicMicrophone microphone;
    ASSERT_TRUE(microphone.isLoaded());
    build(192000.0f);
    const double tone = 40000.0;
    SinkPlayer call(
        192000, 20.0, [&](double t) { return sineAt(tone, t); },
        [&](double t) { return sineAt(tone, t); }, UltrasonicMicrophone::sinkName());
    ASSERT_TRUE(call.start());
    QTest::qWait(1500); // an idle null sink's monitor delivers after about 1.5 s

    int64_t allocations = -1;
    const std::vector<float> heard = recordAndListen(2.5, &allocations);
    ASSERT_GT(heard.size() / 2, size_t(kSpectrumSize));
    const std::vector<double> s = spectrumOfTail(heard);
    const auto audible = s.begin() + binOf(20000.0);
    const int32_t peak = int32_t(std::max_element(s.begin() + 1, audible) - s.begin());
    EXPECT_NEAR(peak, binOf(tone / 8), 1);
    const double level = s[size_t(binOf(tone / 8))];
    // Heard: above -50 dBFS, where a cancelled or filtered tone's leak stays
    // below -80 dBFS (a loaded machine's dropouts in the tail lower it too).
    EXPECT_GT(level, 0.003);
    // Captured blocks delivered through the engine, transposer fed and
    // drained, for 1.5 s: no allocation on the audio thread or the delivery queue.
    EXPECT_EQ(allocations, 0);
    EXPECT_GT(audio->transposer()->outputSampleID(), 192000);

    // With the 20 kHz filter an audible tone (10 kHz) is not heard at all.
    call.stop();
    const double audibleTone = 10000.0;
    SinkPlayer voice(
        192000, 20.0, [&](double t) { return sineAt(audibleTone, t); },
        [&](double t) { return sineAt(audibleTone, t); }, UltrasonicMicrophone::sinkName());
    ASSERT_TRUE(voice.start());
    defaults->setRealTimeTranspFilterBelow20kHz(true);
    const std::vector<double> filtered = spectrumOfTail(recordAndListen(2.0));
    EXPECT_LT(filtered[size_t(binOf(audibleTone / 8))], level * 0.01); // 40 dB below
}

// A document recorded at 48 kHz played one octave lower: slowed down (the
// output runs at 24 kHz, the samples last twice as long) or transposed (the
// same pace, through the engine's transposer).
TEST_F(TranspositionTest, recordedTone_playsBackAnOctaveLower_slowedDownOrTransposed) {
    build(48000.0f);
    defaults->setRecordingTranspositionOn(false); // the sink is the microphone's source
    defaults->setRealTimeTransposeOctavesDown(1);
    defaults->setPlaybackSlowDownOctaves(1);
    const double tone = 1000.0;
    SinkPlayer player(
        48000, 20.0, [&](double t) { return sineAt(tone, t); },
        [&](double t) { return sineAt(tone, t); });
    ASSERT_TRUE(player.start());
    bool started = false;
    engine->startRecorder([&](bool ok) { started = ok; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return started; }, 5000));
    QTest::qWait(1500);
    engine->stopRecorder();
    player.stop();

    // Heard: the stretch of the sink's output above -34 dBFS, its length in
    // frames (beside the tone's in the document) and its spectrum from 0.2 s in.
    struct Heard {
        size_t frames = 0;
        std::vector<double> spectrum;
    };
    const auto play = [&](int32_t type) {
        defaults->setPlaybackTranspType(type);
        const int64_t first = engine->getFirstIntervalToPlay();
        // The tone's own stretch of the part played (the document may begin
        // with the silence before the tone reached the microphone).
        const int64_t n = defaults->intervalSizeInFrames();
        const std::vector<float>& store = defaults->audioBuffersData();
        int64_t toneStart = -1, toneEnd = -1;
        for (int64_t f = first * n; f < defaults->actualInterval() * n; ++f) {
            if (std::fabs(store[size_t(f % int64_t(store.size()))]) > 0.02f) {
                toneStart = toneStart < 0 ? f : toneStart;
                toneEnd = f;
            }
        }
        const int64_t frames = toneEnd - toneStart;
        CaptureRecorder listener;
        AudioIOUnit listening(listener, audio->soundServer());
        listener.unit = &listening;
        EXPECT_TRUE(listening.start(captureConfig(audio->soundServer(), 48000)).ok());
        const int stops = owner.playerStops;
        bool playing = false;
        engine->startPlayer([&](bool ok) { playing = ok; });
        EXPECT_TRUE(QTest::qWaitFor([&] { return playing; }, 5000));
        EXPECT_TRUE(QTest::qWaitFor([&] { return owner.playerStops == stops + 1; }, 10000));
        QTest::qWait(300);
        listening.stop();
        const std::vector<float>& x = listener.samples;
        size_t onset = 0, end = 0;
        for (size_t i = 0; i < x.size() / 2; ++i) {
            if (std::fabs(x[2 * i]) > 0.02f) {
                onset = onset == 0 ? i : onset;
                end = i;
            }
        }
        Heard h;
        h.frames = end - onset;
        EXPECT_GT(h.frames, size_t(kSpectrumSize) + 9600);
        if (h.frames > size_t(kSpectrumSize) + 9600)
            h.spectrum = spectrumOfTail(x, onset + 9600);
        return std::make_pair(h, frames);
    };

    const auto [slowed, slowedFrames] = play(1);
    ASSERT_FALSE(slowed.spectrum.empty());
    EXPECT_NEAR(std::max_element(slowed.spectrum.begin() + 1, slowed.spectrum.end()) -
                    slowed.spectrum.begin(),
                binOf(tone / 2), 1);
    // Twice the document's length, to a tenth (the edges of the sink's bursts).
    EXPECT_NEAR(double(slowed.frames) / double(slowedFrames), 2.0, 0.2);

    // Transposed: the same pace, less the transposer's start-up (a frame and
    // two blocks, 0.2 s at most); the peak is sought below a quarter of the
    // rate, where the image that the unpacking mirrors about it (at 23.5 kHz)
    // is not.
    const auto [transposed, transposedFrames] = play(2);
    ASSERT_FALSE(transposed.spectrum.empty());
    const auto audible = transposed.spectrum.begin() + binOf(12000.0);
    EXPECT_NEAR(std::max_element(transposed.spectrum.begin() + 1, audible) -
                    transposed.spectrum.begin(),
                binOf(tone / 2), 1);
    EXPECT_NEAR(double(transposed.frames) / double(transposedFrames), 1.0, 0.2);
}

// An input that stops delivering while the output keeps asking: the
// transposer runs dry, and the recording stops with the message, once.
TEST_F(TranspositionTest, inputStalledWhileTransposing_stopsWithThePerformanceMessageOnce) {
    UltrasonicMicrophone microphone;
    ASSERT_TRUE(microphone.isLoaded());
    build(192000.0f);
    FakeMessages messages;
    FakeMainScreen mainScreen(audio.get());
    audio->setMessages(&messages);
    audio->setMainViewController(&mainScreen);
    SinkPlayer call(
        192000, 20.0, [](double t) { return sineAt(40000.0, t); },
        [](double t) { return sineAt(40000.0, t); }, UltrasonicMicrophone::sinkName());
    ASSERT_TRUE(call.start());
    QTest::qWait(1500);
    for (const AudioDevice& d : audio->availableInputs())
        if (d.id == UltrasonicMicrophone::kSourceName)
            audio->setPreferredInput(d);
    bool started = false;
    engine->startRecorder([&](bool ok) { started = ok; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return started; }, 5000));
    QTest::qWait(1000);
    ASSERT_TRUE(messages.shown.empty());

    ASSERT_EQ(runTool("pactl", {"suspend-source", UltrasonicMicrophone::kSourceName, "1"}), 0);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !messages.shown.empty(); }, 3000));
    runTool("pactl", {"suspend-source", UltrasonicMicrophone::kSourceName, "0"});
    QTest::qWait(300);
    ASSERT_EQ(messages.shown.size(), 1u);
    EXPECT_EQ(messages.shown[0].message, Transposer::kTooSlowMessage);
    EXPECT_EQ(messages.shown[0].button, "OK");
    EXPECT_EQ(mainScreen.stopsWithoutBlock, 1);
    EXPECT_FALSE(audio->isRecording());
}

} // namespace
} // namespace widmo
