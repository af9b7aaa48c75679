// Real-time factor of the engine's whole intake and processing path: one
// producer thread delivers interleaved stereo blocks of 512 frames (the audio
// object's block size) through didGetNewAudioData, the analysis queue
// transforms every complete interval; the clock stops when the queue has
// drained. RTF = seconds of audio processed per second of wall time.
//
// Baseline in the same run: the bare FFTManager transforms (window, FFT,
// squared magnitudes of one window buffer) for the same number of intervals,
// and the per-interval transform that also copies the window out of the ring.
// The table printed at the end gives the share of the path's time that is not
// the FFT itself.
//
// Configurations: the defaults (44.1 kHz, FFT 4096, interval 512 frames) and
// the worst settings reachable (384 kHz, interval 256 frames, FFT 65536).
//
// Steady state: every rig first runs 256 intervals through its FFT manager, so
// that the result slots' pages are mapped (a running analyser maps them once,
// in its first 256 intervals; at the worst settings that is 96 MB, which would
// otherwise be page faults inside every timed run). Unless told otherwise the
// run repeats each benchmark five times, interleaved, and the table gives the
// medians and the fastest repetitions.
#include "BenchSupport.h"
#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"
#include "engine/AnalyzerController.h"
#include "engine/AudioSessionInterface.h"
#include "engine/LastSessionSaver.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace widmo;
using bench::Clock;
using bench::fastest;
using bench::median;
using bench::secondsSince;

struct Config {
    const char* name;
    bool ultrasonic;
    float sampleRate;
    int32_t intervalSizePower;
    int32_t fftSize;
    double audioSeconds; // per iteration
};

const Config kConfigs[] = {
    {"defaults 44.1kHz fft4096 int512", false, 44100.0f, 4, 4096, 20.0},
    {"worst 384kHz fft65536 int256", true, 384000.0f, 0, 65536, 2.0},
};

/// Settings, FFT manager and engine for one configuration.
struct Rig {
    /// `studio`: the studio product's document (the spectrogram's store) at
    /// every configuration.
    explicit Rig(const Config& c, bool studio = false) {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir.path());
        defaults = std::make_unique<AnalyzerDefaults>(c.ultrasonic || studio
                                                          ? AnalyzerFeatures::studioProduct()
                                                          : AnalyzerFeatures::spectrumProduct(),
                                                      "engine-bench");
        defaults->setSampleRate(c.sampleRate);
        defaults->setIntervalSizePower(c.intervalSizePower);
        defaults->setFftSize(c.fftSize);
        defaults->setFftWindowType(2);
        manager = std::make_unique<FFTManager>(*defaults);
        engine = std::make_unique<AnalyzerController>(*defaults, *manager, audio);
        engine->rebuildDataWithClear();
        defaults->setDataValid(true);
        stereo = bench::noise(2 * kBlock * 64, 1);
        frames = static_cast<int64_t>(c.audioSeconds * c.sampleRate);
        intervals = frames / defaults->intervalSizeInFrames();
        for (int64_t i = 0; i < FFTManager::kSlotsCount; ++i) {
            manager->computeFFTForInterval(i, nullptr, nullptr);
        }
    }

    static constexpr int32_t kBlock = 512;
    QTemporaryDir dir;
    bench::AlwaysRecording audio;
    std::unique_ptr<AnalyzerDefaults> defaults;
    std::unique_ptr<FFTManager> manager;
    std::unique_ptr<AnalyzerController> engine;
    std::vector<float> stereo;
    int64_t frames = 0;
    int64_t intervals = 0;
};

/// Per configuration, each run's figures (one run per repetition).
struct Result {
    std::vector<double> rtf;
    std::vector<double> pathMicrosPerInterval;
    std::vector<double> bareMicrosPerInterval;
    std::vector<double> intervalMicrosPerInterval;
};
std::map<std::string, Result> gResults;

/// One producer thread (this one) against the analysis queue.
void BM_intakeAndProcessing(benchmark::State& state) {
    const Config& c = kConfigs[state.range(0)];
    Rig rig(c);
    const int64_t n = rig.defaults->intervalSizeInFrames();
    const int64_t ringCapacity = int64_t{rig.defaults->audioBuffersIntervalsCount()} * n;
    const int64_t blocksInSignal = static_cast<int64_t>(rig.stereo.size()) / (2 * Rig::kBlock);
    double seconds = 0.0;
    int64_t iterations = 0;
    for (auto _ : state) {
        state.PauseTiming();
        rig.engine->rebuildDataWithClear();
        rig.defaults->setDataValid(true);
        state.ResumeTiming();
        const auto start = Clock::now();
        int64_t written = 0;
        int64_t block = 0;
        while (written < rig.frames) {
            // Never lap the analysis (a real input would lose samples there).
            while (written + Rig::kBlock >
                   rig.defaults->actualInterval() * n - c.fftSize + ringCapacity) {
                std::this_thread::yield();
            }
            float* data = rig.stereo.data() + 2 * Rig::kBlock * (block++ % blocksInSignal);
            rig.engine->didGetNewAudioData(AudioBlock{Rig::kBlock, data});
            written += Rig::kBlock;
        }
        rig.engine->analyzerQueue1().waitUntilEmpty();
        const double elapsed = secondsSince(start);
        state.SetIterationTime(elapsed);
        seconds += elapsed;
        ++iterations;
    }
    const double audio = c.audioSeconds * static_cast<double>(iterations);
    Result& r = gResults[c.name];
    r.rtf.push_back(audio / seconds);
    r.pathMicrosPerInterval.push_back(seconds * 1e6 /
                                      static_cast<double>(rig.intervals * iterations));
    state.counters["rtf"] = r.rtf.back();
    state.counters["us_per_interval"] = r.pathMicrosPerInterval.back();
    state.SetLabel(c.name);
}

/// Baseline: window + FFT + squared magnitudes of one buffer, as many times as
/// the path computes intervals.
void BM_bareTransforms(benchmark::State& state) {
    const Config& c = kConfigs[state.range(0)];
    Rig rig(c);
    std::vector<float> window(rig.stereo.begin(), rig.stereo.begin() + c.fftSize);
    std::vector<float> out(static_cast<size_t>(c.fftSize / 2));
    rig.manager->powerSpectrumOfWindow(window.data(), out.data()); // plans the size
    double seconds = 0.0;
    int64_t iterations = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        for (int64_t i = 0; i < rig.intervals; ++i) {
            rig.manager->powerSpectrumOfWindow(window.data(), out.data());
            benchmark::DoNotOptimize(out.data());
        }
        const double elapsed = secondsSince(start);
        state.SetIterationTime(elapsed);
        seconds += elapsed;
        ++iterations;
    }
    Result& r = gResults[c.name];
    r.bareMicrosPerInterval.push_back(seconds * 1e6 /
                                      static_cast<double>(rig.intervals * iterations));
    state.counters["us_per_interval"] = r.bareMicrosPerInterval.back();
    state.SetLabel(c.name);
}

/// Baseline: the per-interval transform out of the ring (adds the window copy
/// into the result slot), on the calling thread, no intake and no queue.
void BM_intervalTransforms(benchmark::State& state) {
    const Config& c = kConfigs[state.range(0)];
    Rig rig(c);
    float* windowData = nullptr;
    float* dataOut = nullptr;
    rig.manager->computeFFTForInterval(0, &windowData, &dataOut);
    double seconds = 0.0;
    int64_t iterations = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        for (int64_t i = 0; i < rig.intervals; ++i) {
            rig.manager->computeFFTForInterval(i, &windowData, &dataOut);
            benchmark::DoNotOptimize(dataOut);
        }
        const double elapsed = secondsSince(start);
        state.SetIterationTime(elapsed);
        seconds += elapsed;
        ++iterations;
    }
    Result& r = gResults[c.name];
    r.intervalMicrosPerInterval.push_back(seconds * 1e6 /
                                          static_cast<double>(rig.intervals * iterations));
    state.counters["us_per_interval"] = r.intervalMicrosPerInterval.back();
    state.SetLabel(c.name);
}

} // namespace

/// The last-session save while recording: 5 s of audio (one save period) come
/// in, then one save. Manual time: the whole save on the saver's thread (copy
/// of what is new, the file through a temporary file and a rename, the keys).
/// Counter main_ms: what the save costs the main thread (posting it).
void BM_lastSessionSave(benchmark::State& state) {
    const Config& c = kConfigs[state.range(0)];
    Rig rig(c, true);
    const QString file = rig.dir.filePath(QStringLiteral("analyzer.last.dat"));
    const QString keys = rig.dir.filePath(QStringLiteral("state.conf"));
    LastSessionSaver saver(*rig.defaults, *rig.engine, file, [keys] {
        return std::make_unique<QSettings>(keys, QSettings::IniFormat);
    });
    rig.engine->setSessionSaver(&saver);
    const auto period = static_cast<int64_t>(c.sampleRate * 5.0f);
    const int64_t blocksInSignal = static_cast<int64_t>(rig.stereo.size()) / (2 * Rig::kBlock);
    int64_t block = 0;
    for (auto _ : state) {
        for (int64_t written = 0; written < period; written += Rig::kBlock) {
            float* data = rig.stereo.data() + 2 * Rig::kBlock * (block++ % blocksInSignal);
            rig.engine->didGetNewAudioData(AudioBlock{Rig::kBlock, data});
            rig.engine->analyzerQueue1().waitUntilEmpty();
        }
        const auto start = Clock::now();
        saver.saveInBackground();
        saver.waitUntilIdle();
        state.SetIterationTime(secondsSince(start));
    }
    rig.engine->setSessionSaver(nullptr);
    state.counters["main_ms"] = saver.maxMainThreadMs();
    state.counters["file_MB"] = static_cast<double>(rig.defaults->audioBufferByteSize()) / 1e6;
    state.SetLabel(c.name);
}

BENCHMARK(BM_bareTransforms)->DenseRange(0, 1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_intervalTransforms)->DenseRange(0, 1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_intakeAndProcessing)->DenseRange(0, 1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_lastSessionSave)
    ->DenseRange(0, 1)
    ->UseManualTime()
    ->Iterations(4)
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    // The plans the application runs with once its planning thread is done
    // (large sizes refined), made (or read from wisdom) outside the timings.
    FFTPlanCache::shared().startPreparing(0);
    FFTPlanCache::shared().waitUntilPrepared();
    if (!widmo::bench::runInterleaved(argc, argv))
        return 1;

    // Two readings of the same runs: the medians, and the fastest repetition
    // of each benchmark. On a shared machine the medians of the path and of
    // the bare transforms can catch different disturbances (the non-FFT share
    // has come out negative); the fastest runs are the least disturbed ones,
    // so the share is taken from those.
    std::printf("\n%-32s %8s %8s %12s %12s %12s %10s\n", "configuration", "RTF", "RTF best",
                "path us/int", "FFT us/int", "slot us/int", "non-FFT");
    for (const auto& [name, r] : gResults) {
        const double path = fastest(r.pathMicrosPerInterval);
        const double bare = fastest(r.bareMicrosPerInterval);
        if (path <= 0.0 || bare <= 0.0) {
            continue;
        }
        const double nonFFT = 1.0 - bare / path;
        std::printf("%-32s %8.1f %8.1f %12.2f %12.2f %12.2f %9.1f%%\n", name.c_str(), median(r.rtf),
                    *std::max_element(r.rtf.begin(), r.rtf.end()), path, bare,
                    fastest(r.intervalMicrosPerInterval), 100.0 * nonFFT);
    }
    std::printf("(RTF: median over the repetitions, and the best; times per interval and the "
                "non-FFT share: fastest repetition)\n");
    return 0;
}
