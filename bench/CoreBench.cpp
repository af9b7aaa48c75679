// Cost of a document rebuild's table work (geometry and index tables) against a
// plain pass of log2 over the same number of bins, the arithmetic that dominates
// it. A rebuild runs on the main thread while the user waits, so it must stay
// well under a frame.
#include "core/AnalyzerDefaults.h"

#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

namespace {

void BM_log2Baseline(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0)) / 2;
    std::vector<float> out(static_cast<size_t>(n));
    for (auto _ : state) {
        for (int i = 0; i < n; ++i)
            out[static_cast<size_t>(i)] =
                static_cast<float>(std::log2((i * 22050.0 / n) / 20.0) / 10.1);
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_rebuildTables(benchmark::State& state) {
    QTemporaryDir dir;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir.path());
    widmo::AnalyzerDefaults d(widmo::AnalyzerFeatures::studioProduct(), "bench");
    d.setFftSize(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) {
        d.recalculateDocumentSettings();
        d.generateAllIndexes();
        benchmark::DoNotOptimize(d.logPoints());
    }
}

} // namespace

BENCHMARK(BM_log2Baseline)->Arg(4096)->Arg(65536)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_rebuildTables)->Arg(4096)->Arg(65536)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
