#include "HannSpectrum.h"
#include "LiveEngineTest.h"
#include "RealTimeAllocations.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/Transposer.h"

#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace widmo {
namespace {

using namespace test;

/// Bins of the spectra taken of what the default sink played (48 kHz).
constexpr int32_t kSpectrumSize = 16384;

int32_t binOf(double frequency) { return int32_t(std::lround(frequency * kSpectrumSize / 48000)); }

/// The spectrum of `kSpectrumSize` frames of the left channel of `stereo` from
/// frame `from` (the last ones by default).
std::vector<double> spectrumOf(const std::vector<float>& stereo, size_t from = SIZE_MAX) {
    from = std::min(from, stereo.size() / 2 - kSpectrumSize);
    return hannSpectrum(stereo.data() + 2 * from, kSpectrumSize, 2);
}

/// The strongest bin of `s` below `frequency`.
int32_t peakBin(const std::vector<double>& s, double frequency) {
    return int32_t(std::max_element(s.begin() + 1, s.begin() + binOf(frequency)) - s.begin());
}

/// First and last frame of [from, to) where |sample(frame)| is above 0.02 (-34 dBFS).
std::pair<int64_t, int64_t> loudStretch(int64_t from, int64_t to,
                                        const std::function<float(int64_t)>& sample) {
    std::pair<int64_t, int64_t> stretch{-1, -1};
    for (int64_t f = from; f < to; ++f)
        if (std::fabs(sample(f)) > 0.02f)
            stretch = {stretch.first < 0 ? f : stretch.first, f};
    return stretch;
}

// The studio product recording from a virtual microphone at 192 kHz, with the
// transposed sound captured from the monitor of the default (48 kHz) sink.
class TranspositionTest : public LiveEngineTest {
protected:
    void build(float sampleRate) {
        features = AnalyzerFeatures::studioProduct();
        LiveEngineTest::build(sampleRate, [](AnalyzerDefaults& d) {
            d.setRecordingTranspositionOn(true);
            d.setRealTimeTransposeOctavesDown(3);
            d.setRealTimeTranspFilterBelow20kHz(false);
        });
        ASSERT_TRUE(Transposer::preparePlans(FFTPlanCache::shared()));
    }

    /// Records from the ultrasonic microphone for `seconds` while listening to
    /// the default sink; returns what the sink played (stereo, 48 kHz).
    /// `steadyAllocations` gets the allocations made in the real-time
    /// stretches from one second in to the end.
    std::vector<float> recordAndListen(double seconds, int64_t* steadyAllocations = nullptr) {
        EXPECT_TRUE(chooseInput(UltrasonicMicrophone::kSourceName));
        SinkListener listener(audio->soundServer());
        EXPECT_TRUE(listener.started);
        EXPECT_TRUE(startRecorder());
        EXPECT_TRUE(audio->isTransposing());
        QTest::qWait(1000);
        const int64_t before = realTimeAllocations.load();
        QTest::qWait(int((seconds - 1.0) * 1000));
        if (steadyAllocations != nullptr)
            *steadyAllocations = realTimeAllocations.load() - before;
        std::vector<float> heard = listener.stop();
        engine->stopRecorder();
        return heard;
    }
};

TEST_F(TranspositionTest,
       ultrasonicToneAt192kHz_isHeardThreeOctavesDown_withoutRealTimeAllocation_andAStallSaysSo) {
    // FIXME: under PipeWire 0.3.65 the transposed sound never reaches the
    // default sink's monitor (silence, though the transposer's output advances),
    // and suspend-source does not stop a running virtual microphone, so the
    // stall is never seen. Not explained yet.
    if (underPipeWire())
        GTEST_SKIP() << "transposed output not heard under PipeWire (open)";
    UltrasonicMicrophone microphone;
    ASSERT_TRUE(microphone.isLoaded());
    build(192000.0f);
    FakeMessages messages;
    FakeMainScreen mainScreen(audio.get());
    audio->setMessages(&messages);
    audio->setMainScreen(&mainScreen);
    auto call = playTone(40000.0, 192000, UltrasonicMicrophone::sinkName());
    ASSERT_TRUE(call);
    QTest::qWait(1500); // an idle null sink's monitor delivers after about 1.5 s

    int64_t allocations = -1;
    const std::vector<float> heard = recordAndListen(2.5, &allocations);
    ASSERT_GT(heard.size() / 2, size_t(kSpectrumSize));
    const std::vector<double> s = spectrumOf(heard);
    EXPECT_NEAR(peakBin(s, 20000.0), binOf(5000.0), 1);
    // Heard: above -50 dBFS, where a cancelled or filtered tone's leak stays
    // below -80 dBFS (a loaded machine's dropouts in the tail lower it too).
    const double level = s[size_t(binOf(5000.0))];
    EXPECT_GT(level, 0.003);
    // Captured blocks delivered through the engine, transposer fed and
    // drained, for 1.5 s: no allocation on the audio thread or the delivery queue.
    EXPECT_EQ(allocations, 0);
    EXPECT_GT(audio->transposer()->outputSampleID(), 192000);

    // With the 20 kHz filter an audible tone (10 kHz) is not heard at all.
    call.reset();
    call = playTone(10000.0, 192000, UltrasonicMicrophone::sinkName());
    ASSERT_TRUE(call);
    defaults->setRealTimeTranspFilterBelow20kHz(true);
    const std::vector<double> filtered = spectrumOf(recordAndListen(2.0));
    EXPECT_LT(filtered[size_t(binOf(10000.0 / 8))], level * 0.01); // 40 dB below

    // An input that stops delivering while the output keeps asking: the
    // transposer runs dry, and the recording stops with the message, once.
    ASSERT_TRUE(startRecorder());
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

// A document recorded at 48 kHz played one octave lower: slowed down (the
// output runs at 24 kHz, the samples last twice as long) or transposed (the
// same pace, through the engine's transposer).
TEST_F(TranspositionTest, recordedTone_playsBackAnOctaveLower_slowedDownOrTransposed) {
    build(48000.0f);
    defaults->setRecordingTranspositionOn(false); // the sink is the microphone's source
    defaults->setRealTimeTransposeOctavesDown(1);
    defaults->setPlaybackSlowDownOctaves(1);
    auto player = playTone(1000.0);
    ASSERT_TRUE(player);
    ASSERT_TRUE(startRecorder());
    QTest::qWait(1500);
    engine->stopRecorder();
    player.reset();

    // Transposed: the same pace, less the transposer's start-up (a frame and
    // two blocks, 0.2 s at most); its peak is sought below a quarter of the
    // rate, where the image that the unpacking mirrors about it (at 23.5 kHz)
    // is not. Lengths to a tenth (the edges of the sink's bursts).
    struct Case {
        int32_t type;
        double lengthRatio, searchBelowHz;
    };
    for (const Case c : {Case{1, 2.0, 24000.0}, Case{2, 1.0, 12000.0}}) {
        SCOPED_TRACE(c.type);
        // FIXME: under PipeWire 0.3.65 the slowed-down playback (a 24 kHz
        // stream into the 48 kHz graph) is heard 0.3 s short (length ratio
        // 1.778 for 2) at the right pitch, also when the monitor is listened
        // to 1.5 s longer: sound of that stream is lost, not heard late. Not
        // explained yet; the transposed playback (48 kHz) is heard whole.
        if (c.type == 1 && underPipeWire()) {
            std::printf("slowed-down playback not checked under PipeWire (open)\n");
            continue;
        }
        defaults->setPlaybackTranspType(c.type);
        // The tone's own stretch of the part played (the document may begin
        // with the silence before the tone reached the microphone).
        const int64_t n = defaults->intervalSizeInFrames();
        const std::vector<float>& store = defaults->audioBuffersData();
        const auto [toneStart, toneEnd] =
            loudStretch(engine->player().firstIntervalToPlay() * n, defaults->actualInterval() * n,
                        [&](int64_t f) { return store[size_t(f % int64_t(store.size()))]; });

        SinkListener listener(audio->soundServer());
        EXPECT_TRUE(listener.started);
        EXPECT_TRUE(playToTheEnd(10000));
        QTest::qWait(300);
        const std::vector<float>& x = listener.stop();
        const auto [onset, end] =
            loudStretch(0, int64_t(x.size() / 2), [&](int64_t f) { return x[size_t(2 * f)]; });
        ASSERT_GT(end - onset, kSpectrumSize + 9600);
        // The spectrum from 0.2 s in.
        const std::vector<double> s = spectrumOf(x, size_t(onset + 9600));
        EXPECT_NEAR(peakBin(s, c.searchBelowHz), binOf(500.0), 1);
        EXPECT_NEAR(double(end - onset) / double(toneEnd - toneStart), c.lengthRatio, 0.2);
    }
}

} // namespace
} // namespace widmo
