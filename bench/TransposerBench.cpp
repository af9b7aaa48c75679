// Cost of real-time transposition per second of input, at 192 and 384 kHz for
// each factor, beside the bare FFTW transforms that the same second needs
// (rate / H frames, each an M-point real forward and an M-point complex
// inverse transform on the same plans); and of heterodyne listening at the
// same rates. One iteration is one second of input, fed and drained in
// 512-sample blocks as the audio path does, so the time per iteration in
// seconds is the share of one core. The table at the end gives both shares
// and their ratio (the transposer's own work beside the transforms: the
// phase vocoder's angles, window, overlap-add, the interpolator).
//
// Unless told otherwise the run repeats every benchmark five times in random
// interleaved order; the table gives medians.
#include "BenchSupport.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/Transposer.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numbers>
#include <string>
#include <vector>

namespace {

using widmo::FFTPlanCache;
using widmo::Transposer;
using widmo::bench::transposerFrame;
using widmo::bench::transposerHop;

constexpr int32_t kBlock = 512;

void BM_transposer(benchmark::State& state) {
    const auto rate = static_cast<int32_t>(state.range(0));
    const auto factor = static_cast<int32_t>(state.range(1));
    Transposer transposer(FFTPlanCache::shared());
    transposer.setupTransposition();
    transposer.setFilter20kHzOn(false, factor, rate);
    // One second of a 40 kHz tone, made outside the timing.
    std::vector<float> in(size_t(rate / kBlock * kBlock));
    for (size_t i = 0; i < in.size(); ++i)
        in[i] = 0.5f * float(std::sin(2.0 * std::numbers::pi * 40000.0 * double(i) / rate));
    std::vector<float> out(kBlock);
    for (auto _ : state) {
        for (size_t at = 0; at < in.size(); at += kBlock) {
            transposer.addNewData(in.data() + at, kBlock);
            transposer.getTransposedData(out.data(), kBlock);
            benchmark::DoNotOptimize(out.data());
        }
    }
    state.counters["core_share"] = benchmark::Counter(
        1.0, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_bareComplexFFT(benchmark::State& state) {
    const auto rate = static_cast<int32_t>(state.range(0));
    const auto factor = static_cast<int32_t>(state.range(1));
    (void)factor; // the same transforms for every factor
    const int32_t m = transposerFrame(rate);
    fftwf_plan forward = FFTPlanCache::shared().plan(m);
    fftwf_plan backward = FFTPlanCache::shared().complexPlan(m, FFTW_BACKWARD);
    auto* samples = static_cast<float*>(std::aligned_alloc(64, size_t(m) * 4));
    auto* data = static_cast<float*>(std::aligned_alloc(64, 2 * size_t(m) * 4 + 64));
    std::memset(samples, 0, size_t(m) * 4);
    std::memset(data, 0, 2 * size_t(m) * 4 + 64);
    auto* bins = reinterpret_cast<fftwf_complex*>(data);
    const int32_t frames = rate / transposerHop(rate);
    for (auto _ : state) {
        for (int32_t f = 0; f < frames; ++f) {
            samples[0] = 1.0f; // keeps the values finite from frame to frame
            fftwf_execute_dft_r2c(forward, samples, bins);
            fftwf_execute_dft(backward, bins, bins);
            benchmark::DoNotOptimize(data);
        }
    }
    state.counters["core_share"] = benchmark::Counter(
        1.0, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    std::free(samples);
    std::free(data);
}

void BM_heterodyne(benchmark::State& state) {
    const auto rate = static_cast<int32_t>(state.range(0));
    Transposer transposer(FFTPlanCache::shared());
    transposer.setupTransposition();
    transposer.setFilter20kHzOn(false, 8, rate);
    transposer.setMode(Transposer::Mode::Heterodyne);
    transposer.heterodyne().setTuning(40000.0);
    std::vector<float> in(size_t(rate / kBlock * kBlock));
    for (size_t i = 0; i < in.size(); ++i)
        in[i] = 0.5f * float(std::sin(2.0 * std::numbers::pi * 42000.0 * double(i) / rate));
    std::vector<float> out(kBlock);
    for (auto _ : state) {
        for (size_t at = 0; at < in.size(); at += kBlock) {
            transposer.addNewData(in.data() + at, kBlock);
            transposer.getTransposedData(out.data(), kBlock);
            benchmark::DoNotOptimize(out.data());
        }
    }
}

void cases(benchmark::internal::Benchmark* b) {
    for (int rate : {192000, 384000})
        for (int factor : {2, 4, 8, 16, 64})
            b->Args({rate, factor});
    b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_transposer)->Apply(cases);
BENCHMARK(BM_bareComplexFFT)->Apply(cases);
BENCHMARK(BM_heterodyne)->Arg(192000)->Arg(384000)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const widmo::bench::TemporarySettings settings;
    // The plans the application's planning thread makes, outside the timings.
    if (!Transposer::preparePlans(FFTPlanCache::shared())) {
        std::fprintf(stderr, "FFTW could not plan the transposer's transforms\n");
        return 1;
    }

    widmo::bench::RecordingReporter reporter;
    if (!widmo::bench::runInterleaved(argc, argv, &reporter))
        return 1;

    std::printf("\n%7s %6s %6s %5s %7s | %14s %14s %8s\n", "rate", "factor", "M", "H", "frames/s",
                "transposer %", "bare FFTs %", "ratio");
    for (int rate : {192000, 384000}) {
        for (int factor : {2, 4, 8, 16, 64}) {
            const double t = reporter.time("BM_transposer", {rate, factor});
            const double f = reporter.time("BM_bareComplexFFT", {rate, factor});
            std::printf("%7d %6d %6d %5d %7d | %14.2f %14.2f %8.2f\n", rate, factor,
                        transposerFrame(rate), transposerHop(rate), rate / transposerHop(rate),
                        t / 10.0, f / 10.0, f > 0.0 ? t / f : 0.0);
        }
    }
    std::printf("(share of one core per second of input: median ms per second / 10)\n");
    for (int rate : {192000, 384000})
        std::printf("heterodyne at %d Hz: %.3f %% of one core\n", rate,
                    reporter.time("BM_heterodyne", {rate}) / 10.0);
    return 0;
}
