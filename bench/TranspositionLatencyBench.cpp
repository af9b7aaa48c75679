// The latency of real-time transposition through the test sound server
// (source scripts/services.sh; services_start): tone bursts written into the
// ultrasonic null sink (192 or 384 kHz) are captured by the audio object from
// a virtual microphone on its monitor, transposed, played into the default
// sink, and heard again on that sink's monitor.
//
// Each of 100 bursts is 30 ms of a 40 kHz tone (42 kHz for the heterodyne,
// tuned to 40 kHz) at a random moment. The baseline is the time from writing
// the burst to the delivery of the captured block that holds it (the input
// side: the writing stream, the server, the capture fragment); the measure is
// the time from that delivery to the moment the transposed burst is captured
// back from the default sink's monitor (the transposer's frame, hop and
// interpolator, the wait for a render request, the output stream's queue,
// the sink, and the monitor's capture fragment, 2 ms here). Counters give the
// median and 99th percentile in milliseconds, the whole way from writing to
// hearing, and the playback stream's underruns during the run.
//
// BM_listeningUnderruns listens for WIDMO_LISTEN_SECONDS (60 by default; 600
// for the ten-minute figure) at 384 kHz and three octaves and counts the
// playback stream's underruns.
#include "BenchSupport.h"
#include "audio/AudioSession.h"
#include "audio/AudioStreams.h"
#include "audio/AudioStreamsClient.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/Transposer.h"
#include "engine/AnalyzerController.h"
#include "engine/AudioSessionDelegate.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

namespace {

using widmo::bench::Clock;
using widmo::bench::median;
using widmo::bench::percentile;
using widmo::bench::SinkKeepAlive;
using widmo::bench::spin;
using widmo::bench::WatchingDelegate;
constexpr float kInputThreshold = 0.25f;
constexpr float kOutputThreshold = 0.02f;

// A virtual microphone on a sink's monitor, for the object's life.
class Microphone {
public:
    Microphone(const QString& sink, const QString& name) {
        QProcess pactl;
        pactl.start("pactl", {"load-module", "module-remap-source", "master=" + sink + ".monitor",
                              "source_name=" + name});
        pactl.waitForFinished(5000);
        module_ = QString::fromLatin1(pactl.readAllStandardOutput()).trimmed();
    }
    ~Microphone() {
        if (!module_.isEmpty())
            QProcess::execute("pactl", {"unload-module", module_});
    }

private:
    QString module_;
};

// Listens to the default sink's monitor and notes when the transposed burst
// arrives (armed by the caller).
class Listener : public widmo::AudioStreamsClient {
public:
    void inputAvailable(int32_t frames) override {
        const int32_t n = unit->renderInput(buffer.data(), std::min(frames, kFrames));
        if (!armed.load(std::memory_order_acquire) || heard.load(std::memory_order_acquire))
            return;
        for (int32_t i = 0; i < n * 2; ++i) {
            if (std::fabs(buffer[size_t(i)]) > kOutputThreshold) {
                at = Clock::now();
                heard.store(true, std::memory_order_release);
                break;
            }
        }
    }
    void renderOutput(int32_t frames, float* out) override { std::fill(out, out + frames, 0.0f); }
    void unitFailed(widmo::AudioIOFailure, const QString&) override {}

    static constexpr int32_t kFrames = widmo::AudioStreams::kMaxInputFrames;
    widmo::AudioStreams* unit = nullptr;
    std::vector<float> buffer = std::vector<float>(size_t(2 * kFrames));
    std::atomic<bool> armed{false};
    std::atomic<bool> heard{false};
    Clock::time_point at;
};

void BM_transposedLatency(benchmark::State& state) {
    const int rate = int(state.range(0));
    const int octaves = int(state.range(1));
    const bool heterodyne = state.range(2) == 1;
    const QString sink = rate == 384000 ? qEnvironmentVariable("WIDMO_TEST_SINK_384")
                                        : qEnvironmentVariable("WIDMO_TEST_SINK_192");
    const QString micName = "widmo_bench_mic";
    Microphone microphone(sink, micName);
    SinkKeepAlive ultrasonic(sink, rate);
    SinkKeepAlive audible(qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink"), 48000);

    widmo::AnalyzerFeatures features = widmo::AnalyzerFeatures::studioProduct();
    widmo::AnalyzerDefaults defaults(features, "bench-transposition");
    defaults.setSampleRate(float(rate));
    defaults.setRecordingTranspositionOn(true);
    defaults.setRealTimeTransposeOctavesDown(octaves);
    defaults.setRealTimeTranspFilterBelow20kHz(false);
    defaults.setOutputGainValue(0.0f);
    defaults.setListeningMode(heterodyne ? 1 : 0);
    defaults.setHeterodyneTuningHz(40000.0f);
    widmo::Transposer::preparePlans(widmo::FFTPlanCache::shared());
    widmo::AudioSession audio(defaults, features);
    widmo::FFTManager manager(defaults);
    widmo::AnalyzerController engine(defaults, manager, audio);
    engine.rebuildDataWithClear();
    defaults.setDataValid(true);
    WatchingDelegate watcher(&engine, kInputThreshold);
    audio.setDelegate(&watcher);
    for (const widmo::AudioDevice& d : audio.availableInputs())
        if (d.id == micName.toLatin1())
            audio.setPreferredInput(d);

    Listener listener;
    widmo::AudioStreams listening(listener, audio.soundServer());
    listener.unit = &listening;
    widmo::AudioStreams::Config config;
    config.enableInput = true;
    config.input = audio.soundServer().defaultInput();
    config.sampleRate = 48000;
    config.ioBufferFrames = 96; // the monitor's fragment: 2 ms of granularity
    listening.start(config);

    // The burst: 30 ms of a 40 kHz (42 kHz) tone, with 2 ms ramps.
    const double tone = heterodyne ? 42000.0 : 40000.0;
    const int burstFrames = rate * 30 / 1000;
    const int ramp = rate * 2 / 1000;
    std::vector<float> burst(size_t(burstFrames) * 2);
    for (int i = 0; i < burstFrames; ++i) {
        const double edge = std::min({1.0, double(i) / ramp, double(burstFrames - i) / ramp});
        const float v =
            float(0.5 * edge * std::sin(2.0 * std::numbers::pi * tone * double(i) / rate));
        burst[2 * size_t(i)] = burst[2 * size_t(i) + 1] = v;
    }
    QProcess writer;
    widmo::bench::startPlayback(writer, sink, rate, 2);

    std::vector<double> input, transposed, whole;
    bool started = false;
    engine.startRecorder([&](bool ok) { started = ok; });
    spin(1500);
    if (!started) {
        state.SkipWithError("recording did not start");
        return;
    }
    std::mt19937 random(1);
    std::uniform_int_distribution<int> pause(250, 350);
    for (int k = 0; k < 100; ++k) {
        spin(pause(random));
        watcher.seen.store(false, std::memory_order_release);
        listener.heard.store(false, std::memory_order_release);
        listener.armed.store(true, std::memory_order_release);
        const Clock::time_point written = Clock::now();
        writer.write(reinterpret_cast<const char*>(burst.data()),
                     qint64(burst.size() * sizeof(float)));
        writer.waitForBytesWritten(100);
        while (!listener.heard.load(std::memory_order_acquire) &&
               Clock::now() - written < std::chrono::seconds(1)) {
            QCoreApplication::processEvents();
            QThread::usleep(100);
        }
        listener.armed.store(false, std::memory_order_release);
        if (!listener.heard.load(std::memory_order_acquire) ||
            !watcher.seen.load(std::memory_order_acquire))
            continue;
        const auto ms = [](Clock::duration d) {
            return std::chrono::duration<double, std::milli>(d).count();
        };
        input.push_back(ms(watcher.at - written));
        transposed.push_back(ms(listener.at - watcher.at));
        whole.push_back(ms(listener.at - written));
    }
    const int64_t underruns = audio.outputUnderruns();
    engine.stopRecorder();
    listening.stop();
    writer.closeWriteChannel();
    writer.waitForFinished(2000);
    audio.setDelegate(nullptr);

    size_t i = 0;
    for (auto _ : state)
        state.SetIterationTime(transposed.empty() ? 0.0
                                                  : transposed[i++ % transposed.size()] / 1e3);
    state.counters["bursts"] = double(transposed.size());
    state.counters["frame_ms"] = 1000.0 * widmo::bench::transposerFrame(rate) / rate;
    state.counters["input_median_ms"] = median(input);
    state.counters["transposed_median_ms"] = median(transposed);
    state.counters["transposed_p99_ms"] = percentile(transposed, 0.99);
    state.counters["underruns"] = double(underruns);
    state.counters["whole_median_ms"] = median(whole);
}

BENCHMARK(BM_transposedLatency)
    ->Args({192000, 3, 0})
    ->Args({192000, 1, 0})
    ->Args({384000, 3, 0})
    ->Args({384000, 1, 0})
    ->Args({192000, 3, 1})
    ->Args({384000, 3, 1})
    ->UseManualTime()
    ->Iterations(100)
    ->Unit(benchmark::kMillisecond);

void BM_listeningUnderruns(benchmark::State& state) {
    const int rate = 384000;
    const QString sink = qEnvironmentVariable("WIDMO_TEST_SINK_384");
    const QString micName = "widmo_bench_mic";
    Microphone microphone(sink, micName);
    SinkKeepAlive ultrasonic(sink, rate);
    SinkKeepAlive audible(qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink"), 48000);
    widmo::AnalyzerFeatures features = widmo::AnalyzerFeatures::studioProduct();
    widmo::AnalyzerDefaults defaults(features, "bench-transposition");
    defaults.setSampleRate(float(rate));
    defaults.setRecordingTranspositionOn(true);
    defaults.setRealTimeTransposeOctavesDown(3);
    widmo::Transposer::preparePlans(widmo::FFTPlanCache::shared());
    widmo::AudioSession audio(defaults, features);
    widmo::FFTManager manager(defaults);
    widmo::AnalyzerController engine(defaults, manager, audio);
    engine.rebuildDataWithClear();
    defaults.setDataValid(true);
    for (const widmo::AudioDevice& d : audio.availableInputs())
        if (d.id == micName.toLatin1())
            audio.setPreferredInput(d);
    const int seconds = qEnvironmentVariableIntValue("WIDMO_LISTEN_SECONDS") > 0
                            ? qEnvironmentVariableIntValue("WIDMO_LISTEN_SECONDS")
                            : 60;
    bool started = false;
    engine.startRecorder([&](bool ok) { started = ok; });
    spin(1500);
    if (!started) {
        state.SkipWithError("recording did not start");
        return;
    }
    const int64_t atStart = audio.outputUnderruns();
    spin(seconds * 1000);
    const int64_t underruns = audio.outputUnderruns() - atStart;
    engine.stopRecorder();
    for (auto _ : state)
        state.SetIterationTime(double(seconds));
    state.counters["seconds"] = double(seconds);
    state.counters["underruns"] = double(underruns);
}

BENCHMARK(BM_listeningUnderruns)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const widmo::bench::TemporarySettings settings;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
