#include "LiveEngineTest.h"

#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <random>

namespace widmo {
namespace {

using namespace test;

// Sound played into the test sink, captured from the virtual microphone,
// analysed by the engine, shown on the recording chart.
class EngineCaptureTest : public LiveEngineTest {
protected:
    void build(float sampleRate, float softwareGainDb = 0.0f) {
        LiveEngineTest::build(
            sampleRate, [&](AnalyzerDefaults& d) { d.setSoftwareInputGainValue(softwareGainDb); });
        chart.onData = [this](const float* data) {
            if (recent.size() == 8)
                recent.pop_front();
            recent.emplace_back(data, data + defaults->fftOutSize());
        };
    }

    /// The spectra shown in the last `ms` read `levelDb` (0.5 dB) in `bin`, the
    /// strongest bin give or take one (a tone between two bins may lean either
    /// way). The loudest of the last few counts, so that a dropout of the
    /// playing stream on a busy machine (a gap in one interval) does not read
    /// as a lower or shifted tone.
    void expectPeakAfter(int ms, int bin, double levelDb) {
        recent.clear();
        QTest::qWait(ms);
        const std::vector<float>* loudest = nullptr;
        for (const std::vector<float>& s : recent)
            if (loudest == nullptr || s[size_t(bin)] > (*loudest)[size_t(bin)])
                loudest = &s;
        ASSERT_NE(loudest, nullptr) << "no spectrum shown";
        const auto peak = std::max_element(loudest->begin() + 1, loudest->end());
        EXPECT_NEAR(int(peak - loudest->begin()), bin, 1);
        EXPECT_NEAR(10.0 * std::log10(double((*loudest)[size_t(bin)]) + 1e-14), levelDb, 0.5);
    }

    /// What the FFT engine reads in the bin of an ideal -12 dBFS sine at `frequency`.
    std::pair<double, int> referencePeak(double frequency) {
        std::vector<float> window(size_t(defaults->fftSize()));
        for (size_t i = 0; i < window.size(); ++i)
            window[i] = sineAt(frequency, double(i) / defaults->sampleRate());
        std::vector<float> out(size_t(defaults->fftOutSize()));
        FFTManager(*defaults).powerSpectrumOfWindow(window.data(), out.data());
        const int bin = int(std::lround(frequency * defaults->fftSize() / defaults->sampleRate()));
        return {10.0 * std::log10(double(out[size_t(bin)])), bin};
    }

    std::deque<std::vector<float>> recent; ///< copies of the newest spectra shown
};

TEST_F(EngineCaptureTest, toneInTheSink_peaksAtItsBinAndLevel_onEitherChannel_andGainsScaleIt) {
    SinkPlayer player(
        44100, 30.0, [](double t) { return sineAt(997.0, t); },
        [](double t) { return sineAt(1999.0, t); });
    ASSERT_TRUE(player.start());
    build(44100.0f);
    const auto [reference997, bin997] = referencePeak(997.0);
    EXPECT_NEAR(reference997, -12.0, 1.5); // the window's scalloping, no more
    ASSERT_TRUE(startRecorder());
    expectPeakAfter(1500, bin997, reference997);
    ASSERT_GT(chart.shownData.size(), 10u);

    // The second channel carries the other tone.
    audio->setCurrentInputChannel(1);
    const auto [reference1999, bin1999] = referencePeak(1999.0);
    expectPeakAfter(600, bin1999, reference1999);

    // +6 dB of software gain reads 6 dB higher; a capture volume of 0.5 takes
    // 6 dB off, set while recording and at the next start.
    release();
    build(44100.0f, 6.0f);
    ASSERT_TRUE(startRecorder());
    expectPeakAfter(1000, bin997, reference997 + 6.0);
    audio->setInputGain(0.5f);
    expectPeakAfter(1000, bin997, reference997);
    engine->stopRecorder();
    ASSERT_TRUE(startRecorder());
    expectPeakAfter(1000, bin997, reference997);
}

TEST_F(EngineCaptureTest, recordedDocument_playsBackIntoTheSinkWithTheSameSamples) {
    build(48000.0f);
    defaults->setOutputGainValue(-6.0f);
    std::mt19937 random(7);
    std::uniform_real_distribution<float> noise(-kMinus12dBFS, kMinus12dBFS);
    std::vector<float> signal(48000 * 20);
    std::generate(signal.begin(), signal.end(), [&] { return noise(random); });
    SinkPlayer player(
        48000, 20.0, [&](double t) { return signal[size_t(t * 48000)]; },
        [](double) { return 0.0f; });
    ASSERT_TRUE(player.start());
    ASSERT_TRUE(startRecorder());
    QTest::qWait(1500);
    engine->stopRecorder();
    player.stop();
    const int64_t written = engine->framesWriteCount();
    ASSERT_GT(written, 48000);

    // Playback ends by itself one block before the newest sample. It plays
    // with no input (and records nothing), and then the chosen input returns.
    const AudioDevice mic = audio->soundServer().defaultInput();
    audio->setPreferredInput(mic);
    SinkListener listener(audio->soundServer());
    ASSERT_TRUE(listener.started);
    ASSERT_TRUE(completes([&](auto done) { engine->startPlayer(done); }));
    EXPECT_TRUE(audio->preferredInput().isNull());
    EXPECT_EQ(audio->lastPortBeforePlaying().id, mic.id);
    ASSERT_TRUE(QTest::qWaitFor([&] { return owner.playerStops == 1; }, 5000));
    EXPECT_FALSE(audio->isPlaying());
    EXPECT_EQ(audio->preferredInput().id, mic.id);
    EXPECT_EQ(engine->framesWriteCount(), written);
    QTest::qWait(200);
    const std::vector<float>& heard = listener.stop();

    // The store holds the recorded channel; playback is that times -6 dB
    // (2e-4: the float path's rounding).
    const std::vector<float>& store = defaults->audioBuffersData();
    const float gain = float(std::pow(10.0, -6.0 / 20.0));
    const auto matches = [&](size_t at, int64_t frame, size_t count) {
        for (size_t i = 0; i < count; ++i)
            if ((at + i) * 2 >= heard.size() ||
                std::fabs(heard[(at + i) * 2] -
                          gain * store[size_t((frame + int64_t(i)) % int64_t(store.size()))]) >=
                    2e-4f)
                return false;
        return true;
    };
    size_t onset = 0;
    while (onset * 2 < heard.size() && std::fabs(heard[onset * 2]) < 1e-3f)
        ++onset;
    const size_t compare = 24000;
    ASSERT_LT((onset + compare) * 2, heard.size());
    int64_t offset = 0;
    while (offset < written && !matches(onset, offset, 64))
        ++offset;
    ASSERT_LT(offset, written) << "the document's samples were not found in what the sink played";
    // On a loaded machine the sink may underrun: it plays a gap of silence (up
    // to 9600 frames) and goes on where it stopped. Every chunk must still be
    // heard sample for sample after any such gap; only the chunk a gap falls
    // into may be lost.
    constexpr size_t kChunk = 480;
    size_t shift = 0, heardChunks = 0; // silence the sink inserted so far
    for (size_t k = 0; k < compare; k += kChunk) {
        size_t s = shift;
        while (s <= shift + 9600 && !matches(onset + s + k, offset + int64_t(k), kChunk))
            ++s;
        if (s <= shift + 9600) {
            shift = s;
            ++heardChunks;
        }
    }
    EXPECT_GE(heardChunks, compare / kChunk - 3) << "silence inserted: " << shift << " frames";
}

} // namespace
} // namespace widmo
