#include "HannSpectrum.h"
#include "LiveEngineTest.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/OutputLimiter.h"
#include "dsp/Transposer.h"

#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace widmo {
namespace {

using namespace test;

/// Bins of the spectra of what the default sink played (48 kHz): 2.93 Hz each.
constexpr size_t kSpectrumSize = 16384;

/// Bins on either side of the wanted line that the search for other
/// components leaves out: 200 Hz. A render request that finds no input on a
/// loaded test machine (a short gap, faded) widens the line's skirt to about
/// -30 dB within 50 Hz; a mirror image, a mixing product or a leak of the
/// input lies kHz away. (The transposer's own spectrum is checked to 12 bins
/// in its unit test.)
constexpr size_t kSkirt = 68;

struct Heard {
    double hz;       ///< the strongest component
    double level;    ///< its amplitude
    double othersDb; ///< the strongest component 200 Hz or more away, against it
};

/// The last 16,384 frames of the left channel of what the sink played.
Heard analyse(const std::vector<float>& stereo) {
    EXPECT_GT(stereo.size() / 2, kSpectrumSize);
    if (stereo.size() / 2 <= kSpectrumSize)
        return {0.0, 0.0, 0.0};
    const std::vector<double> s =
        hannSpectrum(stereo.data() + stereo.size() - 2 * kSpectrumSize, kSpectrumSize, 2);
    const auto peak = size_t(std::max_element(s.begin() + 1, s.end()) - s.begin());
    double other = 0.0;
    for (size_t k = 1; k < s.size(); ++k)
        if (k + kSkirt <= peak || k >= peak + kSkirt)
            other = std::max(other, s[k]);
    return {double(peak) * 48000.0 / kSpectrumSize, s[peak], toDb(other / s[peak])};
}

/// A virtual microphone on the test services' 384 kHz null sink.
class Microphone384 {
public:
    static constexpr const char* kSourceName = "widmo_mic384";
    Microphone384() : module_(loadMicrophone(sinkName(), kSourceName, "WidmoTestMic384", 384000)) {}
    ~Microphone384() {
        if (module_ >= 0)
            unloadModule(module_);
    }
    bool isLoaded() const { return module_ >= 0; }
    static QString sinkName() {
        return qEnvironmentVariable("WIDMO_TEST_SINK_384", "widmo_sink384");
    }

private:
    int module_;
};

// The studio product listening to an ultrasonic microphone, set up as a user
// sets it on the audio page, and heard on the default sink's monitor.
class ListeningTest : public LiveEngineTest {
protected:
    void build(float sampleRate, int32_t mode, int32_t octaves) {
        features = AnalyzerFeatures::studioProduct();
        LiveEngineTest::build(sampleRate, [&](AnalyzerDefaults& d) {
            d.setRecordingTranspositionOn(true);
            d.setListeningMode(mode);
            d.setRealTimeTransposeOctavesDown(octaves);
            d.setRealTimeTranspFilterBelow20kHz(false);
            d.setHeterodyneTuningHz(40000.0f);
            d.setHeterodyneBandHz(5000.0f);
            d.setOutputGainValue(0.0f);
        });
        ASSERT_TRUE(Transposer::preparePlans(FFTPlanCache::shared()));
    }

    /// What the default sink plays over the next `ms` milliseconds.
    std::vector<float> listen(int ms) {
        SinkListener listener(audio->soundServer());
        EXPECT_TRUE(listener.started);
        QTest::qWait(ms);
        return listener.stop();
    }

    /// A changed listening setting, as the audio page hands it over, then
    /// time for the stream to settle.
    void change(const std::function<void(AnalyzerDefaults&)>& set) {
        set(*defaults);
        audio->refreshListening();
        QTest::qWait(300);
    }
};

// Heterodyne tuned to 40 kHz at 384 kHz: a 42 kHz call is heard at 2 kHz
// (within 10 Hz) and alone; retuned to 41 kHz while recording it moves to
// 1 kHz; a 60 kHz call, four bands away, is not heard (below -60 dB of the
// 42 kHz one).
TEST_F(ListeningTest, heterodyneAt384kHz_tunedCallIsHeardAtTheDifference_farCallIsNot) {
    if (underPipeWire())
        GTEST_SKIP() << "transposed output not heard under PipeWire (open)";
    Microphone384 microphone;
    ASSERT_TRUE(microphone.isLoaded());
    build(384000.0f, 1, 3);
    auto call = playTone(42000.0, 384000, Microphone384::sinkName());
    ASSERT_TRUE(call);
    QTest::qWait(1500);
    ASSERT_TRUE(chooseInput(Microphone384::kSourceName));
    ASSERT_TRUE(startRecorder());
    QTest::qWait(800);
    const Heard tuned = analyse(listen(800));
    EXPECT_NEAR(tuned.hz, 2000.0, 10.0);
    EXPECT_GT(tuned.level, 0.1); // the -12 dBFS call at its level
    EXPECT_LT(tuned.othersDb, -60.0);

    change([](AnalyzerDefaults& d) { d.setHeterodyneTuningHz(41000.0f); });
    EXPECT_NEAR(analyse(listen(800)).hz, 1000.0, 10.0);

    call.reset();
    call = playTone(60000.0, 384000, Microphone384::sinkName());
    ASSERT_TRUE(call);
    change([](AnalyzerDefaults& d) { d.setHeterodyneTuningHz(40000.0f); });
    QTest::qWait(500);
    // Its strongest component (a click of the loaded machine spreads over
    // every bin, a heard tone does not).
    EXPECT_LT(toDb(analyse(listen(800)).level / tuned.level), -60.0);
    engine->stopRecorder();
}

// Transposition at 192 kHz: three octaves down a 40 kHz call is heard at 5
// kHz with nothing else above -60 dB (no mirror image); the same 30 kHz call
// is as loud (within 1 dB) at every number of octaves from 1 to 6, changed
// while recording; a full-scale sweep at the top listening level never
// reaches full scale.
TEST_F(ListeningTest, transpositionAt192kHz_noMirror_evenLoudness_neverClips) {
    if (underPipeWire())
        GTEST_SKIP() << "transposed output not heard under PipeWire (open)";
    UltrasonicMicrophone microphone;
    ASSERT_TRUE(microphone.isLoaded());
    build(192000.0f, 0, 3);
    auto call = playTone(40000.0, 192000, UltrasonicMicrophone::sinkName());
    ASSERT_TRUE(call);
    QTest::qWait(1500);
    ASSERT_TRUE(chooseInput(UltrasonicMicrophone::kSourceName));
    ASSERT_TRUE(startRecorder());
    QTest::qWait(800);
    const Heard three = analyse(listen(800));
    EXPECT_NEAR(three.hz, 5000.0, 6.0);
    EXPECT_LT(three.othersDb, -60.0);

    call.reset();
    call = playTone(30000.0, 192000, UltrasonicMicrophone::sinkName());
    ASSERT_TRUE(call);
    QTest::qWait(500);
    std::vector<double> levels;
    for (int32_t octaves = 1; octaves <= 6; ++octaves) {
        change([octaves](AnalyzerDefaults& d) { d.setRealTimeTransposeOctavesDown(octaves); });
        const std::vector<float> x = listen(700);
        ASSERT_GE(x.size(), 2 * kSpectrumSize) << octaves << " octaves: too little heard";
        const double hz = 30000.0 / double(1 << octaves);
        levels.push_back(toDb(
            toneAmplitude(x.data() + x.size() - 2 * kSpectrumSize, kSpectrumSize, 2, hz, 48000.0)));
    }
    const auto [low, high] = std::minmax_element(levels.begin(), levels.end());
    EXPECT_LT(*high - *low, 1.0) << ::testing::PrintToString(levels);
    EXPECT_GT(*low, -20.0); // heard, near the call's -12 dBFS

    call.reset();
    const auto sweep = [](double t) {
        const double s = std::fmod(t, 1.0);
        return float(std::sin(2.0 * std::numbers::pi * (25000.0 * s + 20000.0 * s * s)));
    };
    call =
        std::make_unique<SinkPlayer>(192000, 20.0, sweep, sweep, UltrasonicMicrophone::sinkName());
    ASSERT_TRUE(call->start());
    change([](AnalyzerDefaults& d) {
        d.setRealTimeTransposeOctavesDown(3);
        d.setOutputGainValue(20.0f); // the top of the listening level
    });
    const std::vector<float> loud = listen(1500);
    float peak = 0.0f;
    for (float v : loud)
        peak = std::max(peak, std::fabs(v));
    EXPECT_GT(peak, 0.5f);
    // Below full scale: the limiter's ceiling (-2 dBFS) and what the sink's
    // resampler adds to it.
    EXPECT_LT(peak, 1.0f);
    EXPECT_LT(peak, OutputLimiter::kCeiling * 1.1f);
    engine->stopRecorder();
}

} // namespace
} // namespace widmo
