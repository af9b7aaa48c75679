// Per-frame cost of drawing the level meter (the view that redraws every frame
// while the analyser runs) against a bare clear of the same surface, both
// finished with glFinish so that the GPU's (here llvmpipe's) work is counted.
// Needs a display: run under the test services (Xvfb with Mesa).
#include "render/DeviceClass.h"
#include "render/LevelMeterView.h"

#include <QApplication>

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

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

} // namespace

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
