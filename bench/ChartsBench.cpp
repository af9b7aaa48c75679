// Per-frame drawing cost of the spectrum chart at the largest FFT (65,536
// points: a line strip of 32,768 vertices), on the real GL surface of a shown
// ChartView (run under a display; the test services' Xvfb with Mesa gives
// llvmpipe, a software rasteriser, so the numbers are an upper bound).
//
// One frame = the chart's whole paint into its framebuffer, read back with
// grabFramebuffer (which waits for the GL work). Baseline in the same run: the
// same surface and the same grab without data, that is clear, grid, border
// mask and read-back. The CPU parts are timed alone too: the interval's data
// intake (dB conversion into a display slot) and the vertex fill.
// The table at the end gives the curve's share of a frame.
#include "charts/ChartData.h"
#include "charts/ChartGeometry.h"
#include "charts/ChartScrollView.h"
#include "charts/ChartView.h"
#include "core/AnalyzerDefaults.h"

#include <QApplication>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace widmo;

constexpr int32_t kFFTSize = 65536;

struct Rig {
    std::unique_ptr<AnalyzerDefaults> defaults;
    std::unique_ptr<ChartView> view;
    std::vector<float> spectrum;
    std::vector<float> window;
};

Rig& rig() {
    static Rig r = [] {
        Rig rig;
        AnalyzerFeatures::Switches s;
        s.featureSpectrumEnabled = true;
        s.featureLevelMeterEnabled = true;
        s.featureSampleRatesStdEnabled = true;
        rig.defaults = std::make_unique<AnalyzerDefaults>(AnalyzerFeatures(s), "charts-bench");
        rig.defaults->setSampleRate(48000.0f);
        rig.defaults->setFftSize(kFFTSize);
        rig.defaults->recalculateDocumentSettings();
        rig.defaults->generateAllIndexes();
        rig.defaults->setDataValid(true);
        // A noisy spectrum: every vertex moves, as with live input.
        std::mt19937 random(1);
        std::exponential_distribution<float> power(1e6f);
        rig.spectrum.resize(static_cast<size_t>(rig.defaults->fftOutSize()));
        for (float& p : rig.spectrum)
            p = power(random);
        rig.window.assign(kFFTSize, 0.0f);
        rig.view = std::make_unique<ChartView>(*rig.defaults);
        rig.view->resize(1280, 720);
        rig.view->show();
        if (!QTest::qWaitForWindowExposed(rig.view.get()))
            std::fprintf(stderr, "the chart window was not exposed\n");
        rig.view->prepareTextures();
        return rig;
    }();
    return r;
}

std::map<std::string, double> gNanos;

void BM_FrameWithoutData(benchmark::State& state) {
    Rig& r = rig();
    r.view->clearData();
    for (auto _ : state)
        benchmark::DoNotOptimize(r.view->chart()->grabFramebuffer());
}
BENCHMARK(BM_FrameWithoutData)->Unit(benchmark::kMicrosecond)->MinTime(2.0);

void BM_FrameSpectrum65536(benchmark::State& state) {
    Rig& r = rig();
    for (auto _ : state) {
        r.view->addFFTdata(r.spectrum.data(), r.window.data(), nullptr);
        benchmark::DoNotOptimize(r.view->chart()->grabFramebuffer());
    }
}
BENCHMARK(BM_FrameSpectrum65536)->Unit(benchmark::kMicrosecond)->MinTime(2.0);

void BM_DataIntake65536(benchmark::State& state) {
    Rig& r = rig();
    ChartData data(*r.defaults);
    for (auto _ : state) {
        data.addFFTdata(r.spectrum.data(), r.window.data(), nullptr);
        benchmark::DoNotOptimize(data.fftOutData());
    }
}
BENCHMARK(BM_DataIntake65536)->Unit(benchmark::kMicrosecond);

void BM_VertexFill65536(benchmark::State& state) {
    Rig& r = rig();
    const int32_t n = r.defaults->fftOutSize();
    std::vector<float> xy(2 * static_cast<size_t>(n));
    const AffineTransform t{2.0, 0.0, 0.0, 1.0, -0.3, 0.0};
    for (auto _ : state) {
        ChartGeometry::spectrumPoints(r.spectrum.data(), n, r.defaults->logPoints(), false, true,
                                      1.0f, t, xy.data());
        benchmark::DoNotOptimize(xy.data());
    }
}
BENCHMARK(BM_VertexFill65536)->Unit(benchmark::kMicrosecond);

/// Collects each benchmark's time per iteration for the closing table.
class TableReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration)
                gNanos[run.run_name.function_name] =
                    run.GetAdjustedRealTime() *
                    (run.time_unit == benchmark::kMicrosecond ? 1e3 : 1.0);
    }
};

} // namespace

int main(int argc, char** argv) {
    QTemporaryDir home;
    qputenv("HOME", home.path().toLocal8Bit());
    QApplication app(argc, argv);
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    benchmark::Initialize(&argc, argv);
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double bare = gNanos["BM_FrameWithoutData"];
    const double frame = gNanos["BM_FrameSpectrum65536"];
    if (bare > 0.0 && frame > 0.0) {
        std::printf("\nSpectrum frame at FFT %d (1280x720 view):\n", kFFTSize);
        std::printf("  frame with the curve     %9.1f us\n", frame / 1e3);
        std::printf("  baseline, same frame without data %9.1f us\n", bare / 1e3);
        std::printf("  ratio                    %9.2f\n", frame / bare);
        std::printf("  the curve's own cost     %9.1f us (%.1f %% of a 60 Hz frame)\n",
                    (frame - bare) / 1e3, (frame - bare) / 1e3 / 16666.7 * 100.0);
        std::printf("  of which intake %.1f us, vertex fill %.1f us\n",
                    gNanos["BM_DataIntake65536"] / 1e3, gNanos["BM_VertexFill65536"] / 1e3);
    }
    // The views go before the application object does.
    rig().view.reset();
    benchmark::Shutdown();
    return 0;
}
