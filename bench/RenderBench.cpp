// Per-frame cost of drawing the level meter (the view that redraws every frame
// while the analyser runs) against a bare clear of the same surface, both
// finished with glFinish so that the GPU's (here llvmpipe's) work is counted.
// And the cost of one spectrogram column of 4,096 rows against the decibel
// conversion of the same rows, which the analysis queue runs just before it.
// Needs a display: run under the test services (Xvfb with Mesa).
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "render/DeviceClass.h"
#include "render/LevelMeterView.h"
#include "render/SpectrogramScrollViewSegment.h"

#include <QApplication>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

class BenchMeter : public widmo::LevelMeterView {
public:
    using LevelMeterView::LevelMeterView;
    void drawFrame() { drawGLRect(QRectF(0, 0, width(), height())); }
    void clearFrame() {
        gl()->glClearColor(0.05f, 0.05f, 0.05f, 1.0f);
        gl()->glClear(GL_COLOR_BUFFER_BIT);
    }
    void finish() { gl()->glFinish(); }
};

double gBaselineNs[2] = {0, 0};

std::unique_ptr<BenchMeter> makeMeter(bool pad) {
    widmo::DeviceClass::setForcedIdiom(pad ? widmo::DeviceClass::Idiom::Tablet
                                           : widmo::DeviceClass::Idiom::Phone);
    auto meter = std::make_unique<BenchMeter>();
    meter->resize(pad ? 50 : 40, pad ? 800 : 400);
    meter->setFullScreen(true);
    meter->setLevelDB(-20.0f);
    meter->grabFramebuffer(); // creates the context and the textures
    meter->makeCurrent();
    return meter;
}

void BM_clearBaseline(benchmark::State& state) {
    const bool pad = state.range(0) != 0;
    auto meter = makeMeter(pad);
    const auto start = Clock::now();
    for (auto _ : state) {
        meter->clearFrame();
        meter->finish();
    }
    const double ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
    gBaselineNs[pad ? 1 : 0] = ns / static_cast<double>(state.iterations());
    meter->doneCurrent();
}

void BM_levelMeterFrame(benchmark::State& state) {
    const bool pad = state.range(0) != 0;
    auto meter = makeMeter(pad);
    const auto start = Clock::now();
    for (auto _ : state) {
        meter->drawFrame();
        meter->finish();
    }
    const double ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count() /
                      static_cast<double>(state.iterations());
    const double baseline = gBaselineNs[pad ? 1 : 0];
    state.counters["frame_us"] = ns / 1000.0;
    state.counters["ratio_to_clear"] = baseline > 0 ? ns / baseline : 0.0;
    meter->doneCurrent();
}

constexpr int32_t kColumnRows = 4096;
double gDecibelNs = 0.0;

std::vector<float> randomPowers() {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> exponent(-15.0f, 0.0f);
    std::vector<float> powers(kColumnRows);
    for (float& p : powers)
        p = std::pow(10.0f, exponent(rng));
    return powers;
}

void BM_decibelConversionBaseline(benchmark::State& state) {
    const std::vector<float> powers = randomPowers();
    std::vector<float> out(kColumnRows);
    const auto start = Clock::now();
    for (auto _ : state) {
        widmo::convertPowerToDecibels(powers.data(), out.data(), kColumnRows);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    gDecibelNs = std::chrono::duration<double, std::nano>(Clock::now() - start).count() /
                 static_cast<double>(state.iterations());
}

// The floor of a column: only its 4,096 four-byte stores, one per image row
// (rows are 32 pixels, 128 bytes, apart), of colours computed beforehand.
double gStoreFloorNs = 0.0;

void BM_spectrogramColumnStoreFloor(benchmark::State& state) {
    constexpr size_t kColumns = 32;
    std::vector<uint8_t> image(kColumnRows * kColumns * 4);
    std::vector<uint32_t> colors(kColumnRows, 0xFF0000FFu);
    size_t column = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        uint8_t* pixels = image.data() + column * 4;
        for (size_t r = 0; r < kColumnRows; ++r)
            std::memcpy(pixels + r * kColumns * 4, &colors[r], 4);
        benchmark::ClobberMemory();
        column = (column + 1) % kColumns;
    }
    gStoreFloorNs = std::chrono::duration<double, std::nano>(Clock::now() - start).count() /
                    static_cast<double>(state.iterations());
    state.counters["ratio_to_decibels"] = gDecibelNs > 0 ? gStoreFloorNs / gDecibelNs : 0.0;
}

// One column of a 4,096-row segment (32 columns, linear frequency, dB values):
// levels, colours and the strided writes into the texture image, plus the
// upload request every 8th column. Between segments the clear and the queued
// uploads run untimed.
void BM_spectrogramColumn(benchmark::State& state) {
    widmo::AnalyzerFeatures::Switches switches;
    switches.featureSpectrogramEnabled = true;
    switches.featureSampleRatesStdEnabled = true;
    const widmo::AnalyzerFeatures features(switches);
    widmo::AnalyzerDefaults defaults(features, "spectrogram-bench");
    defaults.setFftSize(8192);
    defaults.setFftDisplaySize(kColumnRows);
    defaults.setLinearFrequency(true);
    defaults.setValuesInDB(true);
    defaults.recalculateDocumentSettings();
    widmo::SpectrogramColorRamp ramp;
    ramp.levelThresholds = {0.01f, 0.27f, 0.54f, 0.99f};
    ramp.levelColors = {{{0, 0, 0, 1}, {0, 0, 0.8f, 1}, {0, 0.9f, 0, 1}, {1, 0, 0, 1}}};
    widmo::SpectrogramScrollViewSegment segment(defaults, ramp);
    std::vector<float> column = randomPowers();
    widmo::convertPowerToDecibels(column.data(), column.data(), kColumnRows);
    int64_t interval = 0;
    const auto start = Clock::now();
    double paused = 0.0;
    for (auto _ : state) {
        if (segment.isFullToWrite()) {
            const auto pause = Clock::now();
            state.PauseTiming();
            QCoreApplication::processEvents();
            segment.resetWrite();
            state.ResumeTiming();
            paused += std::chrono::duration<double, std::nano>(Clock::now() - pause).count();
        }
        segment.addFFTdata(column.data(), interval++);
    }
    QCoreApplication::processEvents();
    const double ns =
        (std::chrono::duration<double, std::nano>(Clock::now() - start).count() - paused) /
        static_cast<double>(state.iterations());
    state.counters["column_us"] = ns / 1000.0;
    state.counters["decibels_us"] = gDecibelNs / 1000.0;
    state.counters["ratio_to_decibels"] = gDecibelNs > 0 ? ns / gDecibelNs : 0.0;
    state.counters["ratio_to_store_floor"] = gStoreFloorNs > 0 ? ns / gStoreFloorNs : 0.0;
}

} // namespace

BENCHMARK(BM_decibelConversionBaseline)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_spectrogramColumnStoreFloor)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_spectrogramColumn)->Unit(benchmark::kMicrosecond);

// Argument: 0 = phone (44 segments, 40 x 400), 1 = tablet (88 segments, 50 x 800).
BENCHMARK(BM_clearBaseline)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_levelMeterFrame)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
