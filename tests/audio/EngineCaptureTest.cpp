#include "TestDoubles.h"
#include "TestSignals.h"
#include "audio/AudioIOUnit.h"
#include "audio/TQAudio.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "engine/AnalyzerController.h"

#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>
#include <random>

namespace widmo {
namespace {

using namespace test;

// The whole live path: sound played into the test sink, captured from the
// virtual microphone by the audio object, analysed by the engine, shown on a
// recording chart.
class EngineCaptureTest : public ::testing::Test {
protected:
    void build(float sampleRate, float softwareGainDb = 0.0f) {
        defaults = std::make_unique<AnalyzerDefaults>(features, "audio-engine-test");
        defaults->setSampleRate(sampleRate);
        defaults->setFftSize(4096);
        defaults->setSoftwareInputGainValue(softwareGainDb);
        defaults->setOutputGainValue(0.0f);
        audio = std::make_unique<TQAudio>(*defaults, features);
        manager = std::make_unique<FFTManager>(*defaults);
        recent.clear();
        chart.onData = [this](const float* data) {
            if (recent.size() == kRecent)
                recent.pop_front();
            recent.emplace_back(data, data + this->defaults->fftOutSize());
        };
        engine = std::make_unique<AnalyzerController>(*defaults, *manager, *audio);
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

    void record(double seconds) {
        bool started = false;
        engine->startRecorder([&](bool ok) { started = ok; });
        ASSERT_TRUE(QTest::qWaitFor([&] { return started; }, 5000));
        QTest::qWait(int(seconds * 1000));
    }

    /// Level in dB of the strongest bin of the newest spectra, and that bin. The
    /// loudest of the last few, so that a dropout of the playing stream on a busy
    /// machine (a gap in one interval) does not read as a lower or shifted tone.
    std::pair<double, int> newestPeak() const {
        std::pair<double, int> best{-1000.0, -1};
        for (const std::vector<float>& s : recent) {
            if (s.size() < 2)
                continue;
            const auto peak = std::max_element(s.begin() + 1, s.end());
            const double level = 10.0 * std::log10(double(*peak) + 1e-14);
            if (level > best.first)
                best = {level, int(peak - s.begin())};
        }
        return best;
    }

    /// What the FFT engine reads for an ideal -12 dBFS sine at `frequency`.
    double referencePeakDb(double frequency, int bin) {
        FFTManager reference(*defaults);
        std::vector<float> window(size_t(defaults->fftSize()));
        for (size_t i = 0; i < window.size(); ++i)
            window[i] = sineAt(frequency, double(i) / defaults->sampleRate());
        std::vector<float> out(size_t(defaults->fftOutSize()));
        reference.przeliczWithFFTWindowBufor(window.data(), out.data());
        return 10.0 * std::log10(double(out[size_t(bin)]));
    }

    int binOf(double frequency) const {
        return int(std::lround(frequency * defaults->fftSize() / defaults->sampleRate()));
    }

    AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    std::unique_ptr<AnalyzerDefaults> defaults;
    std::unique_ptr<TQAudio> audio;
    std::unique_ptr<FFTManager> manager;
    FakeChartView chart;
    static constexpr size_t kRecent = 8;
    std::deque<std::vector<float>> recent; ///< copies of the newest spectra shown
    std::unique_ptr<AnalyzerController> engine;
    FakeDelegate owner;
};

TEST_F(EngineCaptureTest, toneInTheSink_peaksAtItsBinAndLevel_onEitherChannel_andGainRaisesIt) {
    build(44100.0f);
    SinkPlayer player(
        44100, 30.0, [](double t) { return sineAt(997.0, t); },
        [](double t) { return sineAt(1999.0, t); });
    ASSERT_TRUE(player.start());

    record(1.5);
    ASSERT_GT(chart.shownData.size(), 10u);
    auto [level, bin] = newestPeak();
    EXPECT_EQ(bin, binOf(997.0));
    const double reference997 = referencePeakDb(997.0, binOf(997.0));
    EXPECT_NEAR(level, reference997, 0.5);
    EXPECT_NEAR(reference997, -12.0, 1.5); // the window's scalloping, no more

    // The second channel carries the other tone.
    audio->setCurrentInputChannel(1);
    QTest::qWait(600);
    std::tie(level, bin) = newestPeak();
    EXPECT_EQ(bin, binOf(1999.0));
    EXPECT_NEAR(level, referencePeakDb(1999.0, binOf(1999.0)), 0.5);
    engine->stopRecorder();

    // +6 dB of software gain reads 6 dB higher.
    release();
    build(44100.0f, 6.0f);
    record(1.0);
    std::tie(level, bin) = newestPeak();
    EXPECT_EQ(bin, binOf(997.0));
    EXPECT_NEAR(level, reference997 + 6.0, 0.5);
}

TEST_F(EngineCaptureTest, recordedDocument_playsBackIntoTheSinkWithTheSameSamples) {
    build(48000.0f);
    defaults->setOutputGainValue(-6.0f);
    std::mt19937 random(7);
    std::uniform_real_distribution<float> noise(-kMinus12dBFS, kMinus12dBFS);
    std::vector<float> signal(48000 * 20);
    for (float& v : signal)
        v = noise(random);
    SinkPlayer player(
        48000, 20.0, [&](double t) { return signal[size_t(t * 48000)]; },
        [](double) { return 0.0f; });
    ASSERT_TRUE(player.start());
    record(1.5);
    engine->stopRecorder();
    player.stop();
    const int64_t written = engine->framesWriteCount();
    ASSERT_GT(written, 48000);

    // Listen on the virtual microphone while the document plays.
    CaptureRecorder listener;
    AudioIOUnit listening(listener, audio->soundServer());
    listener.unit = &listening;
    ASSERT_TRUE(listening.start(captureConfig(audio->soundServer(), 48000)).ok());

    bool started = false;
    engine->startPlayer([&](bool ok) { started = ok; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return started; }, 5000));
    // Playback ends by itself one block before the newest sample.
    ASSERT_TRUE(QTest::qWaitFor([&] { return owner.playerStops == 1; }, 5000));
    EXPECT_FALSE(audio->isPlaying());
    QTest::qWait(200);
    listening.stop();

    // The store holds the recorded channel; playback is that times -6 dB.
    const std::vector<float>& store = defaults->audioBuffersData();
    const float gain = float(std::pow(10.0, -6.0 / 20.0));
    auto expected = [&](int64_t frame) {
        return gain * store[size_t(frame % int64_t(store.size()))];
    };
    const std::vector<float>& heard = listener.samples;
    size_t onset = 0;
    while (onset * 2 < heard.size() && std::fabs(heard[onset * 2]) < 1e-3f)
        ++onset;
    const size_t compare = 24000;
    ASSERT_LT((onset + compare) * 2, heard.size());
    int64_t offset = -1;
    for (int64_t j = 0; j < written && offset < 0; ++j) {
        bool match = true;
        for (size_t k = 0; k < 64 && match; ++k)
            match = std::fabs(heard[(onset + k) * 2] - expected(j + int64_t(k))) < 2e-4f;
        if (match)
            offset = j;
    }
    ASSERT_GE(offset, 0) << "the document's samples were not found in what the sink played";
    // On a loaded machine the sink may underrun: it plays a gap of silence and
    // goes on where it stopped. Every chunk must still be heard sample for
    // sample (2e-4: the float path's rounding), after any such gap; only the
    // chunk a gap falls into may be lost.
    constexpr size_t kChunk = 480;
    constexpr size_t kLongestGap = 9600;
    const auto chunkHeardAt = [&](size_t k, size_t shift) {
        if ((onset + shift + k + kChunk) * 2 > heard.size())
            return false;
        for (size_t i = 0; i < kChunk; ++i)
            if (std::fabs(heard[(onset + shift + k + i) * 2] - expected(offset + int64_t(k + i))) >=
                2e-4f)
                return false;
        return true;
    };
    const size_t chunks = compare / kChunk;
    size_t shift = 0; // silence the sink inserted so far
    size_t heardChunks = 0;
    for (size_t k = 0; k < chunks * kChunk; k += kChunk) {
        size_t s = shift;
        while (s <= shift + kLongestGap && !chunkHeardAt(k, s))
            ++s;
        if (s > shift + kLongestGap)
            continue;
        shift = s;
        ++heardChunks;
    }
    EXPECT_GE(heardChunks, chunks - 3) << "silence inserted: " << shift << " frames";
}

} // namespace
} // namespace widmo
