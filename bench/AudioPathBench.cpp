// The live audio path against the test sound server (source scripts/services.sh;
// services_start): how long a click written into the sink takes to reach the
// engine's analysis, and what capture and delivery cost in CPU time.
//
// Latency: 50 clicks, each written into the sink through a 2 ms stream
// (pacat) at a random moment. The baseline is the time to the delivery of the
// captured block that holds the click (the audio object's part); the measure
// is the time until the engine has analysed the first interval that contains
// it. Both include the few milliseconds the writing stream and the server take
// to mix the click in, so they err on the long side. Counters give the median
// and 90th percentile in milliseconds.
//
// CPU: 10 s of capture at 44.1 kHz and at 384 kHz into a delegate that only
// counts, the CPU time of the audio thread, of the sound-server client thread
// and of the delivery queue as a share of one core; the ratio compares 384 kHz
// with 44.1 kHz.
#include "BenchSupport.h"
#include "audio/AudioSession.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "engine/AnalyzerController.h"
#include "engine/AudioSessionDelegate.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <unistd.h>
#include <vector>

namespace {

using widmo::bench::Clock;
using widmo::bench::median;
using widmo::bench::percentile;
using widmo::bench::SinkKeepAlive;
using widmo::bench::spin;
using widmo::bench::WatchingDelegate;
constexpr float kClickThreshold = 0.25f;

struct LatencyRun {
    std::vector<double> delivery;
    std::vector<double> analysis;
};

// One run of 50 clicks at the product's default settings.
const LatencyRun& latencyRun() {
    static LatencyRun run;
    static bool done = false;
    if (done)
        return run;
    done = true;

    SinkKeepAlive keepAlive("widmo_sink", 48000);
    widmo::AnalyzerFeatures features = widmo::AnalyzerFeatures::spectrumProduct();
    widmo::AnalyzerDefaults defaults(features, "bench-audio");
    widmo::AudioSession audio(defaults, features);
    widmo::FFTManager manager(defaults);
    widmo::AnalyzerController engine(defaults, manager, audio);
    engine.rebuildDataWithClear();
    defaults.setDataValid(true);
    WatchingDelegate watcher(&engine, kClickThreshold);
    audio.setDelegate(&watcher);

    const int rate = int(defaults.sampleRate());
    QProcess clicker;
    widmo::bench::startPlayback(clicker, "widmo_sink", rate, 2);
    // A 1 ms pulse followed by 9 ms of silence.
    std::vector<float> click(size_t(rate / 100) * 2, 0.0f);
    std::fill(click.begin(), click.begin() + rate / 1000 * 2, 0.5f);

    bool started = false;
    engine.startRecorder([&](bool ok) { started = ok; });
    spin(1000);
    if (!started)
        return run;

    const int64_t n = defaults.intervalSizeInFrames();
    const std::vector<float>& store = defaults.audioBuffersData();
    const int64_t capacity = int64_t(store.size());
    std::mt19937 random(1);
    std::uniform_int_distribution<int> pause(150, 250);
    for (int k = 0; k < 50; ++k) {
        spin(pause(random));
        watcher.seen.store(false, std::memory_order_release);
        int64_t checked = engine.computedIntervalIndex();
        const Clock::time_point written = Clock::now();
        clicker.write(reinterpret_cast<const char*>(click.data()),
                      qint64(click.size() * sizeof(float)));
        clicker.waitForBytesWritten(100);
        bool found = false;
        Clock::time_point analysedAt;
        while (!found && Clock::now() - written < std::chrono::seconds(1)) {
            const int64_t computed = engine.computedIntervalIndex();
            for (int64_t i = checked + 1; i <= computed && !found; ++i) {
                for (int64_t f = i * n; f < (i + 1) * n; ++f) {
                    if (std::fabs(store[size_t(f % capacity)]) > kClickThreshold) {
                        found = true;
                        analysedAt = Clock::now();
                        break;
                    }
                }
            }
            checked = std::max(checked, computed);
            QCoreApplication::processEvents();
            QThread::usleep(100);
        }
        if (!found || !watcher.seen.load(std::memory_order_acquire))
            continue;
        run.delivery.push_back(
            std::chrono::duration<double, std::milli>(watcher.at - written).count());
        run.analysis.push_back(
            std::chrono::duration<double, std::milli>(analysedAt - written).count());
    }
    engine.stopRecorder();
    clicker.closeWriteChannel();
    clicker.waitForFinished(2000);
    audio.setDelegate(nullptr);
    return run;
}

void reportLatency(benchmark::State& state, const std::vector<double>& ms, double baselineMedian) {
    size_t i = 0;
    for (auto _ : state) {
        state.SetIterationTime(ms.empty() ? 0.0 : ms[i++ % ms.size()] / 1000.0);
    }
    state.counters["clicks"] = double(ms.size());
    state.counters["median_ms"] = median(ms);
    state.counters["p90_ms"] = percentile(ms, 0.9);
    state.counters["ratio_to_delivery"] = baselineMedian > 0 ? median(ms) / baselineMedian : 0.0;
}

void BM_clickToDelivery(benchmark::State& state) {
    const LatencyRun& run = latencyRun();
    reportLatency(state, run.delivery, median(run.delivery));
}

void BM_clickToAnalysedInterval(benchmark::State& state) {
    const LatencyRun& run = latencyRun();
    reportLatency(state, run.analysis, median(run.delivery));
}

// CPU time (s) of this process's threads, by thread name.
std::map<QString, double> threadCpu() {
    std::map<QString, double> cpu;
    const double tick = double(sysconf(_SC_CLK_TCK));
    for (const QString& tid :
         QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile statFile("/proc/self/task/" + tid + "/stat");
        if (!statFile.open(QIODevice::ReadOnly))
            continue;
        const QString stat = QString::fromLatin1(statFile.readAll());
        const int open = int(stat.indexOf('(')), close = int(stat.lastIndexOf(')'));
        const QString name = stat.mid(open + 1, close - open - 1);
        const QStringList fields = stat.mid(close + 2).split(' ');
        if (fields.size() > 12)
            cpu[name] += (fields[11].toDouble() + fields[12].toDouble()) / tick;
    }
    return cpu;
}

std::map<int, double> captureShares;

void BM_captureCpu(benchmark::State& state) {
    const int rate = int(state.range(0));
    static std::unique_ptr<SinkKeepAlive> keepAlive =
        std::make_unique<SinkKeepAlive>("widmo_sink", 48000);
    widmo::AnalyzerFeatures features = widmo::AnalyzerFeatures::spectrumProduct();
    widmo::AnalyzerDefaults defaults(features, "bench-audio");
    defaults.setSampleRate(float(rate));
    widmo::AudioSession audio(defaults, features);
    WatchingDelegate counter(nullptr, kClickThreshold);
    audio.setDelegate(&counter);
    double audioShare = 0, clientShare = 0, queueShare = 0, processShare = 0;
    for (auto _ : state) {
        bool started = false;
        audio.startRecorder([&](bool ok) { started = ok; });
        spin(500);
        if (!started) {
            state.SkipWithError("capture did not start");
            break;
        }
        const auto before = threadCpu();
        const auto wallBefore = Clock::now();
        spin(10000);
        const auto after = threadCpu();
        const double wall = std::chrono::duration<double>(Clock::now() - wallBefore).count();
        audio.stop();
        auto delta = [&](const QString& part) {
            double d = 0;
            for (const auto& [name, seconds] : after)
                if (name.contains(part))
                    d += seconds - (before.count(name) ? before.at(name) : 0.0);
            return d / wall;
        };
        audioShare = delta("widmo audio");
        clientShare = delta("QPulseAudioEngi") + delta("threaded-ml");
        queueShare = delta("AudioQueue");
        processShare = delta("");
        state.SetIterationTime(wall);
    }
    audio.setDelegate(nullptr);
    state.counters["blocks_per_s"] = double(counter.blocks.load()) / 10.0;
    state.counters["audio_thread_pct"] = 100.0 * audioShare;
    state.counters["pulse_client_pct"] = 100.0 * clientShare;
    state.counters["delivery_queue_pct"] = 100.0 * queueShare;
    state.counters["process_pct"] = 100.0 * processShare;
    const double path = audioShare + clientShare + queueShare;
    captureShares[rate] = path;
    state.counters["path_pct"] = 100.0 * path;
    if (rate != 44100 && captureShares.count(44100) && captureShares[44100] > 0)
        state.counters["ratio_to_44k1"] = path / captureShares[44100];
}

BENCHMARK(BM_clickToDelivery)->UseManualTime()->Iterations(50)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clickToAnalysedInterval)
    ->UseManualTime()
    ->Iterations(50)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_captureCpu)
    ->Arg(44100)
    ->Arg(384000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const widmo::bench::TemporarySettings settings;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
