// Cost of one analysis interval through the FFT engine against a bare FFTW
// transform of the same size and planner flags, and the vector helpers against
// the same loops compiled without vectorisation. The table printed at the end
// gives the ratios: the engine's overhead (copy out of the ring, window,
// transform, scale and power) should stay within 15 % of the transform from
// 4,096 points up and within 50 % below.
//
// Unless told otherwise the run repeats every benchmark five times, in random
// interleaved order (so that a disturbance from another process falls on the
// bare transform and the interval alike), and the table gives medians, and
// the ratio of the fastest repetitions beside them.
// The EGG rows: the voice product's filter and closed-quotient measure of one
// interval's EGG window, printed at the default settings as a share of the
// interval's duration beside that interval's own FFT.
// The level rows: the A-weighted sound level meter (Fast, Slow, Leq, maxima,
// C peak) over one interval's samples at 48 kHz beside that interval's own
// analysis (target: 10 %), its share of one core at 384 kHz (target: 2 %),
// and a microphone calibration's per-bin power correction beside the
// spectrum's dB conversion (target: 20 %).
// The slot-write rows are the floor the memory sets: the same bytes an
// interval leaves in its slot (n + n/2 floats), written with streaming stores
// into the same 256 rotating slots, with nothing else done.
#include "BenchSupport.h"
#include "core/AnalyzerDefaults.h"
#include "dsp/EGGFilter.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/SoundLevelMeter.h"
#include "dsp/VectorHelpers.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using widmo::AnalyzerDefaults;
using widmo::AnalyzerFeatures;
using widmo::EGGFilter;
using widmo::FFTManager;
using widmo::FFTPlanCache;
using widmo::VectorHelpers;
using widmo::bench::fastest;
using widmo::bench::noise;

// --- Baselines: the same loops, scalar -----------------------------------------------

__attribute__((optimize("no-tree-vectorize"), noinline)) void
scalarDecibels(const float* in, float offset, float* out, int32_t n) {
    for (int32_t k = 0; k < n; ++k)
        out[k] = 10.0f * std::log10(in[k] + offset);
}

__attribute__((optimize("no-tree-vectorize"), noinline)) void
scalarMultiply(const float* a, const float* b, float* out, int32_t n) {
    for (int32_t k = 0; k < n; ++k)
        out[k] = a[k] * b[k];
}

__attribute__((optimize("no-tree-vectorize"), noinline)) void
scalarScaledMagnitudes(const float* c, float s, float* out, int32_t n) {
    for (int32_t k = 0; k < n; ++k) {
        const float re = c[2 * k] * s;
        const float im = c[2 * k + 1] * s;
        out[k] = re * re + im * im;
    }
}

// --- FFT -------------------------------------------------------------------------------

/// Cache-line aligned floats, as the engine's own transform arrays.
float* lineAligned(size_t count) {
    return static_cast<float*>(std::aligned_alloc(64, (count * sizeof(float) + 63) / 64 * 64));
}

void BM_bareFFT(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0));
    // The engine's plan: same size, flags, out-of-place layout and alignment.
    fftwf_plan plan = FFTPlanCache::shared().plan(n);
    float* in = lineAligned(static_cast<size_t>(n));
    auto* out = reinterpret_cast<fftwf_complex*>(lineAligned(static_cast<size_t>(n + 2)));
    const std::vector<float> x = noise(static_cast<size_t>(n));
    std::copy(x.begin(), x.end(), in);
    for (auto _ : state) {
        fftwf_execute_dft_r2c(plan, in, out);
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
    std::free(out);
    std::free(in);
}

void BM_interval(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0));
    AnalyzerDefaults defaults(AnalyzerFeatures::spectrumProduct(), "dsp-bench");
    defaults.setFftSize(n);
    defaults.setFftWindowType(2);
    defaults.recalculateDocumentSettings();
    defaults.audioBuffersData() = noise(static_cast<size_t>(defaults.audioBufferByteSize() / 4));
    FFTManager manager(defaults);
    manager.preparePlans();
    // Steady state: every slot's pages mapped once, as after the first 256
    // intervals of a recording.
    int64_t interval = 0;
    for (; interval < FFTManager::kSlotsCount; ++interval)
        manager.computeFFTForInterval(interval, nullptr, nullptr);
    for (auto _ : state) {
        float* out = nullptr;
        manager.computeFFTForInterval(interval++, nullptr, &out);
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
}

/// One interval of the EGG channel: filter, then measure on the output (which
/// the measure overwrites, as the chart's ring slot is). The input is a 220 Hz
/// contact-like square wave with a little noise.
void BM_eggInterval(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0));
    EGGFilter filter(FFTPlanCache::shared());
    std::vector<float> x = noise(static_cast<size_t>(n));
    for (size_t i = 0; i < x.size(); ++i)
        x[i] = 0.01f * x[i] +
               (std::fmod(static_cast<double>(i) * 220.0 / 44100.0, 1.0) < 0.4 ? 0.25f : -0.25f);
    std::vector<float> out(x.size());
    for (auto _ : state) {
        if (!filter.bandLimit(x.data(), out.data(), n)) {
            state.SkipWithError("no EGG plan");
            break;
        }
        const widmo::ClosedQuotientResult r = EGGFilter::measureClosedQuotient(out.data(), n);
        benchmark::DoNotOptimize(r);
        benchmark::ClobberMemory();
    }
}

/// Memory floor: the n + n/2 floats of a slot streamed into 256 rotating
/// slots, from a source that stays in the caches.
void BM_slotWrites(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0));
    const std::vector<float> x = noise(static_cast<size_t>(n));
    const size_t slotFloats = static_cast<size_t>(n) + static_cast<size_t>(n / 2);
    float* slotMemory = lineAligned(FFTManager::kSlotsCount * slotFloats);
    std::memset(slotMemory, 0, FFTManager::kSlotsCount * slotFloats * sizeof(float));
    int64_t interval = 0;
    for (auto _ : state) {
        float* slot =
            slotMemory + static_cast<size_t>(interval++ % FFTManager::kSlotsCount) * slotFloats;
        VectorHelpers::copy(x.data(), slot, n, VectorHelpers::Store::Streaming);
        VectorHelpers::copy(x.data(), slot + n, n / 2, VectorHelpers::Store::Streaming);
        benchmark::DoNotOptimize(slot);
        benchmark::ClobberMemory();
    }
    std::free(slotMemory);
}

// --- Vector helpers -----------------------------------------------------------------------

void BM_decibels(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0)) / 2;
    const std::vector<float> in = noise(static_cast<size_t>(n));
    std::vector<float> power(in.size());
    for (size_t k = 0; k < in.size(); ++k)
        power[k] = in[k] * in[k];
    std::vector<float> out(power.size());
    for (auto _ : state) {
        widmo::convertPowerToDecibels(power.data(), out.data(), n);
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_decibelsScalar(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0)) / 2;
    const std::vector<float> in = noise(static_cast<size_t>(n));
    std::vector<float> power(in.size());
    for (size_t k = 0; k < in.size(); ++k)
        power[k] = in[k] * in[k];
    std::vector<float> out(power.size());
    for (auto _ : state) {
        scalarDecibels(power.data(), 3.981075e-15f, out.data(), n);
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_multiply(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0));
    const std::vector<float> a = noise(static_cast<size_t>(n));
    const std::vector<float> b = noise(static_cast<size_t>(n));
    std::vector<float> out(a.size());
    for (auto _ : state) {
        VectorHelpers::multiply(a.data(), b.data(), out.data(), n);
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_multiplyScalar(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0));
    const std::vector<float> a = noise(static_cast<size_t>(n));
    const std::vector<float> b = noise(static_cast<size_t>(n));
    std::vector<float> out(a.size());
    for (auto _ : state) {
        scalarMultiply(a.data(), b.data(), out.data(), n);
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_scaledMagnitudes(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0)) / 2;
    const std::vector<float> c = noise(static_cast<size_t>(2 * n));
    std::vector<float> out(static_cast<size_t>(n));
    for (auto _ : state) {
        VectorHelpers::scaledSquaredMagnitudes(c.data(), 0.25f, out.data(), n);
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_scaledMagnitudesScalar(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0)) / 2;
    const std::vector<float> c = noise(static_cast<size_t>(2 * n));
    std::vector<float> out(static_cast<size_t>(n));
    for (auto _ : state) {
        scalarScaledMagnitudes(c.data(), 0.25f, out.data(), n);
        benchmark::DoNotOptimize(out.data());
    }
}

// --- Sound levels ----------------------------------------------------------------------

/// The A-weighted meter over `frames` samples per call at `rate` Hz.
void BM_levelMeter(benchmark::State& state) {
    const auto rate = static_cast<double>(state.range(0));
    const auto frames = static_cast<int64_t>(state.range(1));
    widmo::SoundLevelMeter meter;
    meter.prepare(rate, widmo::Weighting::A);
    const std::vector<float> x = noise(static_cast<size_t>(frames));
    for (auto _ : state) {
        meter.process(x.data(), frames);
        benchmark::DoNotOptimize(meter.levels().leq);
    }
}

/// Floor of the meter: the A weighting's three sections alone, whose per-sample
/// recursion no block processing removes.
void BM_weightingOnly(benchmark::State& state) {
    const auto frames = static_cast<int64_t>(state.range(0));
    widmo::FrequencyWeighting w;
    w.prepare(widmo::Weighting::A, 48000.0);
    const std::vector<float> x = noise(static_cast<size_t>(frames));
    std::vector<float> y(x.size());
    for (auto _ : state) {
        w.process(x.data(), y.data(), frames);
        benchmark::DoNotOptimize(y.data());
    }
}

/// The calibration's correction of one spectrum: n/2 powers times their factors.
void BM_calibrationCorrection(benchmark::State& state) {
    const auto n = static_cast<int32_t>(state.range(0)) / 2;
    const std::vector<float> in = noise(static_cast<size_t>(n));
    std::vector<float> power(in.size()), factors(in.size());
    for (size_t k = 0; k < in.size(); ++k) {
        power[k] = in[k] * in[k];
        factors[k] = 1.0f + 0.5f * in[k];
    }
    for (auto _ : state) {
        VectorHelpers::multiply(power.data(), factors.data(), power.data(), n);
        benchmark::DoNotOptimize(power.data());
    }
}

/// The analyser's defaults at 48 kHz: FFT size and interval in frames.
std::pair<int32_t, int32_t> defaultsAt48k() {
    AnalyzerDefaults d(AnalyzerFeatures::spectrumProduct(), "dsp-bench-levels");
    d.setSampleRate(48000.0f);
    d.recalculateDocumentSettings();
    return {d.fftSize(), d.intervalSizeInFrames()};
}

void sizes(benchmark::internal::Benchmark* b) {
    for (int n : {256, 1024, 4096, 16384, 65536})
        b->Arg(n);
    b->Unit(benchmark::kMicrosecond);
}

BENCHMARK(BM_bareFFT)->Apply(sizes)->ComputeStatistics("min", fastest);
BENCHMARK(BM_interval)->Apply(sizes)->ComputeStatistics("min", fastest);
BENCHMARK(BM_eggInterval)->Apply(sizes)->ComputeStatistics("min", fastest);
BENCHMARK(BM_slotWrites)->Apply(sizes);
BENCHMARK(BM_levelMeter)
    ->Args({48000, defaultsAt48k().second})
    ->Args({384000, 4096})
    ->Unit(benchmark::kMicrosecond)
    ->ComputeStatistics("min", fastest);
BENCHMARK(BM_weightingOnly)->Arg(defaultsAt48k().second)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_calibrationCorrection)->Apply(sizes);
BENCHMARK(BM_decibels)->Apply(sizes);
BENCHMARK(BM_decibelsScalar)->Apply(sizes);
BENCHMARK(BM_multiply)->Apply(sizes);
BENCHMARK(BM_multiplyScalar)->Apply(sizes);
BENCHMARK(BM_scaledMagnitudes)->Apply(sizes);
BENCHMARK(BM_scaledMagnitudesScalar)->Apply(sizes);

double ratio(double a, double b) { return b > 0.0 ? a / b : 0.0; }

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const widmo::bench::TemporarySettings settings;
    // The plans the application runs with once its planning thread is done
    // (large sizes refined), made (or read from wisdom) outside the timings.
    FFTPlanCache::shared().startPreparing(0, FFTPlanCache::kPatientFromSize, true);
    FFTPlanCache::shared().waitUntilPrepared();

    widmo::bench::RecordingReporter reporter;
    if (!widmo::bench::runInterleaved(argc, argv, &reporter))
        return 1;

    std::printf("\n%7s %12s %12s %8s %8s %8s | %12s %8s %8s | %12s\n", "N", "bare FFT us",
                "interval us", "(b)/(a)", "fastest", "target", "dB N/2 us", "dB vec", "mul vec",
                "slot write us");
    for (int n : {256, 1024, 4096, 16384, 65536}) {
        const double a = reporter.time("BM_bareFFT", {n});
        const double b = reporter.time("BM_interval", {n});
        const double db = reporter.time("BM_decibels", {n});
        const double fastest = ratio(reporter.fastestTime("BM_interval", {n}),
                                     reporter.fastestTime("BM_bareFFT", {n}));
        std::printf(
            "%7d %12.2f %12.2f %8.3f %8.3f %8.2f | %12.2f %7.2fx %7.2fx | %12.2f\n", n, a, b,
            ratio(b, a), fastest, n >= 4096 ? 1.15 : 1.5, db,
            ratio(reporter.time("BM_decibelsScalar", {n}), db),
            ratio(reporter.time("BM_multiplyScalar", {n}), reporter.time("BM_multiply", {n})),
            reporter.time("BM_slotWrites", {n}));
    }
    std::printf("(times and (b)/(a): medians; fastest: the same ratio of the fastest "
                "repetitions, the least disturbed by other processes)\n");
    std::printf("(dB vec, mul vec: scalar loop time / vectorised helper time; "
                "magnitudes vec at 65536: %.2fx)\n",
                ratio(reporter.time("BM_scaledMagnitudesScalar", {65536}),
                      reporter.time("BM_scaledMagnitudes", {65536})));

    // The voice product at its defaults: the EGG work of one interval and the
    // interval's FFT, each as a share of the interval's duration.
    AnalyzerDefaults voice(AnalyzerFeatures::voiceProduct(), "dsp-bench-voice");
    voice.recalculateDocumentSettings();
    const int n = voice.fftSize();
    const double intervalUs = 1e6 * voice.intervalSizeInFrames() / voice.sampleRate();
    const double egg = reporter.time("BM_eggInterval", {n});
    const double fft = reporter.time("BM_interval", {n});
    std::printf("\nEGG at the defaults (FFT %d points, interval %d frames at %.0f Hz = %.1f "
                "ms):\n  filter + measure %.2f us = %.3f %% of the interval; the interval's FFT "
                "%.2f us = %.3f %%; EGG / FFT %.2f\n",
                n, voice.intervalSizeInFrames(), double(voice.sampleRate()), intervalUs / 1000.0,
                egg, 100.0 * ratio(egg, intervalUs), fft, 100.0 * ratio(fft, intervalUs),
                ratio(egg, fft));

    // Sound levels at the analyser's defaults at 48 kHz, and at 384 kHz.
    const auto [fft48, interval48] = defaultsAt48k();
    const double meter = reporter.time("BM_levelMeter", {48000, interval48});
    const double analysis =
        reporter.time("BM_interval", {fft48}) + reporter.time("BM_decibels", {fft48});
    const double meter384 = reporter.time("BM_levelMeter", {384000, 4096});
    const double core384 = meter384 * 1e-6 / 4096.0 * 384000.0;
    const double correction = reporter.time("BM_calibrationCorrection", {fft48});
    const double decibels = reporter.time("BM_decibels", {fft48});
    std::printf("\nSound level meter (A; Fast, Slow, Leq, maxima, C peak):\n"
                "  48 kHz, interval %d frames: %.2f us; the interval's analysis (FFT %d + dB) "
                "%.2f us; meter / analysis %.3f (target 0.10); floor, the A filter alone: "
                "%.2f us = %.3f of the analysis\n"
                "  384 kHz: %.2f us per 4096 frames = %.2f ns a sample = %.2f %% of one core "
                "(target 2 %%)\n"
                "Calibration correction, %d bins: %.3f us; dB conversion %.3f us; ratio %.3f "
                "(target 0.20)\n",
                interval48, meter, fft48, analysis, ratio(meter, analysis),
                reporter.time("BM_weightingOnly", {interval48}),
                ratio(reporter.time("BM_weightingOnly", {interval48}), analysis), meter384,
                1000.0 * meter384 / 4096.0, 100.0 * core384, fft48 / 2, correction, decibels,
                ratio(correction, decibels));
    return 0;
}
