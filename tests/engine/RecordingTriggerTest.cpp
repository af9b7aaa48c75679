#include "EngineFixture.h"

#include <chrono>
#include <future>
#include <mutex>
#include <numbers>
#include <thread>

namespace widmo {
namespace {

using test::EngineFixture;
using test::runEventsUntil;

/// A recording armed with the trigger on the studio product, fed with blocks
/// of a known mono signal (the same on both channels).
class RecordingTriggerTest : public EngineFixture {
protected:
    void arm(std::function<void(AnalyzerDefaults&)> settings = nullptr,
             FFTPlanCache* plans = nullptr) {
        build(Options{.features = AnalyzerFeatures::studioProduct(),
                      .withSpectrogram = true,
                      .restore =
                          [settings](AnalyzerDefaults& d) {
                              d.setCpu64bit(true);
                              d.setTrigOn(true);
                              if (settings)
                                  settings(d);
                          },
                      .plans = plans});
        chart_.shownData.clear();
        startRecording();
        ASSERT_TRUE(engine_->workingWithTrig());
    }

    /// Quiet noise (about -100 dBFS) with a 0.5-amplitude tone of `hz` from
    /// frame `onset` on, faded in over `fade` frames (raised cosine): every
    /// sample differs, so a misplaced one shows.
    static std::vector<float> signal(int64_t frames, int64_t onset, double hz, int64_t fade = 0) {
        std::mt19937 random(11);
        std::uniform_real_distribution<float> noise(-1e-5f, 1e-5f);
        std::vector<float> mono(static_cast<size_t>(frames));
        for (int64_t k = 0; k < frames; ++k) {
            const double t = double(k - onset);
            const double ramp =
                t < double(fade) ? 0.5 - 0.5 * std::cos(std::numbers::pi * t / double(fade)) : 1.0;
            const double tone =
                k < onset ? 0.0 : ramp * 0.5 * std::sin(2.0 * std::numbers::pi * hz * t / 44100.0);
            mono[static_cast<size_t>(k)] = noise(random) + static_cast<float>(tone);
        }
        return mono;
    }

    /// Delivers `mono` in blocks of `block` frames.
    void deliver(const std::vector<float>& mono, int32_t block) {
        for (size_t at = 0; at < mono.size(); at += static_cast<size_t>(block)) {
            const size_t count = std::min(mono.size() - at, static_cast<size_t>(block));
            std::vector<float> stereo(count * 2);
            for (size_t k = 0; k < count; ++k)
                stereo[2 * k] = stereo[2 * k + 1] = mono[at + k];
            push(stereo);
        }
    }

    std::unique_ptr<FFTPlanCache> plans_;
};

// The document starts P = 100 intervals before the end of the block that fired
// (fewer when fewer came in, then on the interval grid of the trigger's input),
// to the sample; the start-up blocks never reach the trigger.
TEST_F(RecordingTriggerTest, toneBurstAfterSilence_landsWherePreTriggerLengthSays) {
    struct Case {
        int32_t block;
        int64_t onset; // tone onset, in frames of the trigger's input
    };
    for (const Case c : {Case{512, 150 * 512 + 100}, Case{300, 30 * 300 + 17}}) {
        SCOPED_TRACE(c.block);
        arm();
        const int64_t skipped = 7 * int64_t{c.block}; // 7 blocks at 44.1 kHz
        const std::vector<float> input =
            signal(skipped + c.onset + 60 * int64_t{c.block}, skipped + c.onset, 5000.0);
        const std::vector<float> mono(input.begin() + skipped, input.end());
        deliver(input, c.block);
        drain();
        ASSERT_TRUE(engine_->trigIsStarted());

        // Fired at the end of one of the first two measurements after the onset
        // (one every ceil(736 / block) blocks).
        const int64_t fired = engine_->trigger().framesWriteCount();
        const int64_t period = (735 / c.block + 1) * c.block;
        EXPECT_GT(fired, c.onset);
        EXPECT_LE(fired, c.onset + 2 * period);
        const int64_t from = std::max(fired - 100 * n(), fired % n());

        // Everything from `from` on is in the document, in order, and nothing else.
        const int64_t length = static_cast<int64_t>(mono.size()) - from;
        ASSERT_EQ(engine_->framesWriteCount(), length);
        const std::vector<float>& store = defaults_->audioBuffersData();
        EXPECT_TRUE(std::equal(mono.begin() + from, mono.end(), store.begin()));
        // The tone's first loud sample sits where the pre-trigger length says.
        const auto loud = std::find_if(store.begin(), store.begin() + length,
                                       [](float v) { return std::fabs(v) > 0.01f; });
        EXPECT_EQ(loud - store.begin(), c.onset + 1 - from); // sin(0) = 0: the next one
        EXPECT_EQ(defaults_->actualInterval(), length / n());
        engine_->stopRecorder();
    }
}

// Out of band (a sound faded in, as real ones are: an abrupt start splatters
// into every band), or with an empty band, the trigger measures but never fires, and
// the waiting recording writes nothing into the document; the chart shows the
// measurements meanwhile.
TEST_F(RecordingTriggerTest, toneOutsideBandOrEmptyBand_neverFires) {
    struct Case {
        double hz;
        float minFraction, maxFraction;
    };
    for (const Case c : {Case{1000.0, 0.136054f, 0.680272f}, Case{17000.0, 0.136054f, 0.680272f},
                         Case{5000.0, 0.5f, 0.5f}}) {
        SCOPED_TRACE(c.hz);
        arm([c](AnalyzerDefaults& d) {
            d.setFftWindowType(1); // Blackman: Hamming's far side lobes fill the band
            d.setTrigMinFrequency(c.minFraction);
            d.setTrigMaxFrequency(c.maxFraction);
        });
        deliver(signal(200 * 512, 10 * 512, c.hz, 2048), 512);
        ASSERT_TRUE(runEventsUntil([this] { return !chart_.shownData.empty(); }));
        EXPECT_FALSE(engine_->trigIsStarted());
        EXPECT_GT(engine_->trigger().measurementCount(), 90);
        EXPECT_EQ(engine_->framesWriteCount(), 0);
        engine_->stopRecorder();
    }
}

// The measurements run on the delivery queue. While another thread holds the
// FFT planner's lock (planning a large size can take seconds), delivering
// blocks that make measurements and fire the trigger must not wait for it: the
// trigger's FFT size starts without a plan (a cache of its own) and is planned
// at arming, on the main thread.
TEST_F(RecordingTriggerTest, plannerLockHeldByAnotherThread_deliveryNeverWaits) {
    plans_ = std::make_unique<FFTPlanCache>(QString());
    ASSERT_FALSE(plans_->hasPlan(4096)); // the default size
    arm(nullptr, plans_.get());
    ASSERT_EQ(defaults_->fftSize(), 4096);

    constexpr auto kWatchdog = std::chrono::seconds(5);
    std::promise<void> locked;
    std::promise<void> delivered;
    std::thread holder([&locked, done = delivered.get_future(), kWatchdog] {
        std::lock_guard lock(FFTPlanCache::plannerMutexForTesting());
        locked.set_value();
        done.wait_for(kWatchdog); // a delivery that waits for the lock gets it after this
    });
    locked.get_future().wait();
    const auto start = std::chrono::steady_clock::now();
    deliver(signal(60 * 512, 30 * 512, 5000.0), 512);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    delivered.set_value();
    holder.join();

    EXPECT_LT(elapsed, std::chrono::seconds(1)) << "the delivery waited for the planner";
    EXPECT_GT(engine_->trigger().measurementCount(), 0);
    EXPECT_TRUE(engine_->trigIsStarted());
    engine_->stopRecorder();
    drain();
    release(); // before the plan cache
}

// With automatic stop the document ends at exactly the spectrogram's width: the
// recording stops by itself, read-only, with the spectrogram's duration.
TEST_F(RecordingTriggerTest, automaticStop_stopsAtSpectrogramWidth) {
    arm([](AnalyzerDefaults& d) { d.setTrigAutomaticStop(true); });
    const int64_t width = defaults_->spectrogramWidth();
    deliver(signal((width + 20) * n() + 7 * 300, 0, 5000.0), 300);
    ASSERT_TRUE(runEventsUntil([this] { return delegate_.recorderStops == 1; }));
    EXPECT_EQ(engine_->framesWriteCount(), width * n());
    EXPECT_FALSE(audio_.isRecording());
    EXPECT_TRUE(defaults_->readOnly());
    EXPECT_EQ(defaults_->timeOfDocument(), defaults_->spectrogramDuration());
    drain();
    EXPECT_EQ(defaults_->actualInterval(), width);
}

} // namespace
} // namespace widmo
