// The whole program's own cost while it records and draws: each product's main
// screen in a 1280 x 800 window on the test services (Xvfb with Mesa llvmpipe,
// the PulseAudio virtual microphone), a 997 Hz tone playing, 20 s measured.
//
// Reported per run: the process's CPU per thread group, read from
// /proc/self/task (main thread, llvmpipe's rasterizer threads, the rest), in
// per cent of one core; window compositions per second; and per GL view the
// frames per second, the main thread's drawing time per frame and the interval
// between frames (median and 99th percentile, ms). The baseline of each case
// is the same run with the chart hidden: what recording costs without drawing.
//
// Also the resident memory at the end of the run and whether the engine found
// itself too slow (the spectrogram products' "too slow" message).
//
// The X server's CPU over the same stretch is reported beside the program's
// (a program that draws with X requests makes the server do its work), and
// their sum. The peer runs first: jaaa (Debian's JACK spectrum analyser,
// drawing with Xlib) on the test JACK server at its defaults, fed by
// jack_simple_client's tone, measured the same way; every Widmo case then
// reports its total as a multiple of the peer's (ratio_to_jaaa).
//
// Arguments: product (0 widmo, 1 widmo-studio, 2 widmo-voice), case (0 the
// defaults, 1 96 kHz with a 65,536-point FFT, 2 the spectrogram's worst case:
// 384 kHz, 256-sample intervals, a 65,536-point FFT, 4,096 rows, 1,500 columns
// a second, measured for 60 s), views hidden (0 or 1), window (0 1280 x 800,
// 1 1000 x 640).
// Needs the test services: source scripts/services.sh && services_start.
#include "audio/AudioSession.h"
#include "charts/ChartView.h"
#include "charts/SpectrogramView.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "engine/AnalyzerController.h"
#include "render/GLView.h"
#include "ui/AppLifecycle.h"
#include "ui/MainScreen.h"
#include "ui/TransportControls.h"

#include "TestExit.h"
#include "TestSignals.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QMainWindow>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QToolButton>
#include <QWindow>

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace widmo;

constexpr double kMeasureSeconds = 20.0;
constexpr double kWorstCaseSeconds = 60.0;

/// Resident set size of this process in MiB.
double residentMiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0.0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
    return 0.0;
}

struct ThreadTime {
    std::string group; ///< "main", "llvmpipe" or "other"
    double seconds = 0.0;
};

/// CPU time (user + system) of each thread of this process, by thread id.
std::map<QString, ThreadTime> threadSeconds() {
    std::map<QString, ThreadTime> threads;
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    const QString self = QString::number(getpid());
    const QStringList tasks =
        QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& tid : tasks) {
        QFile statFile(QStringLiteral("/proc/self/task/%1/stat").arg(tid));
        QFile commFile(QStringLiteral("/proc/self/task/%1/comm").arg(tid));
        if (!statFile.open(QIODevice::ReadOnly) || !commFile.open(QIODevice::ReadOnly))
            continue;
        const QByteArray stat = statFile.readAll();
        const QString comm = QString::fromLatin1(commFile.readAll()).trimmed();
        // Fields after the parenthesised name: state is field 3, utime 14, stime 15.
        const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
        if (fields.size() < 13)
            continue;
        const double seconds = (fields[11].toDouble() + fields[12].toDouble()) / tick;
        std::string group = "other";
        if (tid == self)
            group = "main";
        else if (comm.startsWith(QStringLiteral("llvmpipe")))
            group = "llvmpipe";
        threads[tid] = {group, seconds};
    }
    return threads;
}

/// CPU used between two readings, per group and in total. Per thread, so that
/// a thread that ends meanwhile does not subtract its whole life from its group
/// (what it used before ending is lost: the run's threads are long-lived).
std::map<std::string, double> secondsUsed(const std::map<QString, ThreadTime>& before,
                                          const std::map<QString, ThreadTime>& after) {
    std::map<std::string, double> used{{"main", 0.0}, {"llvmpipe", 0.0}, {"other", 0.0}};
    for (const auto& [tid, now] : after) {
        const auto it = before.find(tid);
        const double seconds = now.seconds - (it != before.end() ? it->second.seconds : 0.0);
        used[now.group] += seconds;
        used["total"] += seconds;
    }
    return used;
}

/// CPU time (user + system) of process `pid` in seconds; -1 when unreadable.
double processSeconds(int pid) {
    QFile statFile(QStringLiteral("/proc/%1/stat").arg(pid));
    if (pid <= 0 || !statFile.open(QIODevice::ReadOnly))
        return -1.0;
    const QByteArray stat = statFile.readAll();
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return -1.0;
    return (fields[11].toDouble() + fields[12].toDouble()) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
}

/// The process id of the test services' X server (Xvfb); -1 without it.
int xServerPid() {
    QFile file(qEnvironmentVariable("WIDMO_SERVICES_DIR") + QStringLiteral("/xvfb.pid"));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    bool ok = false;
    const int pid = file.readAll().trimmed().toInt(&ok);
    return ok ? pid : -1;
}

/// The peer's total (program plus X server, per cent of one core), once measured.
double gPeerTotalPct = -1.0;

void BM_peerJaaa(benchmark::State& state) {
    const int xServer = xServerPid();
    if (xServer < 0 || !qEnvironmentVariableIsSet("JACK_DEFAULT_SERVER")) {
        state.SkipWithError("needs the test services' X server and JACK server");
        return;
    }
    const QString server = qEnvironmentVariable("JACK_DEFAULT_SERVER");
    test::ChildProcess analyser;
    test::ChildProcess toneClient;
    if (!analyser.start(QStringLiteral("jaaa"),
                        {QStringLiteral("-J"), QStringLiteral("-s"), server})) {
        state.SkipWithError("jaaa did not start (Debian package jaaa)");
        return;
    }
    QTest::qWait(2000);
    toneClient.start(QStringLiteral("jack_simple_client"), {});
    QTest::qWait(1000);
    if (test::runTool(QStringLiteral("jack_connect"), {QStringLiteral("jack_simple_client:output1"),
                                                       QStringLiteral("jaaa:in_1")}) != 0) {
        state.SkipWithError("the tone could not be connected to jaaa");
        return;
    }
    QTest::qWait(3000);
    for (auto _ : state) {
        const double programBefore = processSeconds(analyser.pid());
        const double serverBefore = processSeconds(xServer);
        QElapsedTimer wall;
        wall.start();
        QTest::qWait(static_cast<int>(kMeasureSeconds * 1000));
        const double seconds = static_cast<double>(wall.nsecsElapsed()) / 1e9;
        const double program = 100.0 * (processSeconds(analyser.pid()) - programBefore) / seconds;
        const double xPct = 100.0 * (processSeconds(xServer) - serverBefore) / seconds;
        state.SetIterationTime(seconds);
        state.counters["cpu_program_pct"] = program;
        state.counters["cpu_xserver_pct"] = xPct;
        state.counters["cpu_with_xserver_pct"] = program + xPct;
        gPeerTotalPct = program + xPct;
    }
}

double percentile(std::vector<double> values, double p) {
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    const auto k = static_cast<size_t>(std::lround(p * static_cast<double>(values.size() - 1)));
    return values[k];
}

/// Counts the repaints of one top-level window (its update requests): each
/// one composes the window and hands the changed region to the display.
class CompositionCounter : public QObject {
public:
    int count = 0;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::UpdateRequest)
            ++count;
        return QObject::eventFilter(watched, event);
    }
};

struct ViewLog {
    std::vector<double> drawMs;  // issuing the GL commands
    std::vector<double> frameMs; // up to the pixels read back
    std::vector<double> intervalMs;
    QElapsedTimer last;
};

AnalyzerFeatures product(int64_t index) {
    switch (index) {
    case 1:
        return AnalyzerFeatures::studioProduct();
    case 2:
        return AnalyzerFeatures::voiceProduct();
    default:
        return AnalyzerFeatures::spectrumProduct();
    }
}

void BM_mainScreenRecording(benchmark::State& state) {
    const AnalyzerFeatures features = product(state.range(0));
    const int64_t sizeCase = state.range(1);
    const bool chartHidden = state.range(2) != 0;
    const QSize windowSize = state.range(3) == 1 ? QSize(1000, 640) : QSize(1280, 800);
    if (sizeCase == 2 && !features.featureUltrasonicEnabled()) {
        state.SkipWithError("the worst case needs the ultrasonic rates");
        return;
    }
    const double measureSeconds = sizeCase == 2 ? kWorstCaseSeconds : kMeasureSeconds;
    QTemporaryDir home;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    const QString store = QStringLiteral("frame-bench");
    if (sizeCase != 0) {
        AnalyzerDefaults saved(features, store);
        saved.setSampleRate(sizeCase == 2 ? 384000.0f : 96000.0f);
        saved.setFftSize(65536);
        if (sizeCase == 2) {
            saved.setFftDisplaySize(4096);
            // The shortest interval the rate allows: 256 samples at 384 kHz.
            saved.setIntervalSizePower(0);
        }
        saved.saveDefaults();
    }
    auto defaults = std::make_unique<AnalyzerDefaults>(features, store);
    auto audio = std::make_unique<AudioSession>(*defaults, features);
    auto fft = std::make_unique<FFTManager>(*defaults);
    fft->preparePlansInBackground();
    auto app = std::make_unique<AppLifecycle>(*defaults, *audio, *fft);
    if (!app->showMainWindow()) {
        state.SkipWithError("the main screen did not launch");
        return;
    }
    QMainWindow* window = app->window();
    window->setGeometry(QRect(QPoint(0, 0), windowSize));
    MainScreen* screen = app->mainScreen();
    if (!QTest::qWaitForWindowExposed(window) ||
        !QTest::qWaitFor([&] { return app->dataPrepared() && !screen->buttonsBlocked(); }, 10000)) {
        state.SkipWithError("the document was not prepared");
        return;
    }
    if (sizeCase == 2 && defaults->intervalSizeInFrames() != 256) {
        state.SkipWithError("the worst case's interval is not 256 samples");
        return;
    }
    if (chartHidden) {
        screen->chartView()->hide();
        if (screen->spectrogramView() != nullptr)
            screen->spectrogramView()->hide();
    }

    test::SinkPlayer tone(
        48000, measureSeconds + 15.0, [](double t) { return test::sineAt(997.0, t); },
        [](double t) { return test::sineAt(997.0, t); });
    tone.start();
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    if (!QTest::qWaitFor([&] { return audio->isRecording(); }, 5000)) {
        state.SkipWithError("recording did not start");
        return;
    }
    // Settle: the first frames make textures, the FFT plans may still be refined.
    QTest::qWait(3000);

    std::map<QString, ViewLog> views;
    GLView::setFrameObserver([&](const GLView& view, qint64 drawNs, qint64 frameNs) {
        ViewLog& log = views[QString::fromLatin1(view.metaObject()->className())];
        log.drawMs.push_back(static_cast<double>(drawNs) / 1e6);
        log.frameMs.push_back(static_cast<double>(frameNs) / 1e6);
        if (log.last.isValid())
            log.intervalMs.push_back(static_cast<double>(log.last.nsecsElapsed()) / 1e6);
        log.last.start();
    });
    CompositionCounter compositions;
    window->installEventFilter(&compositions);

    const int xServer = xServerPid();
    for (auto _ : state) {
        const auto before = threadSeconds();
        const double serverBefore = processSeconds(xServer);
        QElapsedTimer wall;
        wall.start();
        QTest::qWait(static_cast<int>(measureSeconds * 1000));
        const double seconds = static_cast<double>(wall.nsecsElapsed()) / 1e9;
        const auto after = threadSeconds();
        const double xPct = 100.0 * (processSeconds(xServer) - serverBefore) / seconds;
        state.SetIterationTime(seconds);
        for (const auto& [group, used] : secondsUsed(before, after))
            state.counters["cpu_" + group + "_pct"] = 100.0 * used / seconds;
        const double total = state.counters["cpu_total_pct"] + xPct;
        state.counters["cpu_xserver_pct"] = xPct;
        state.counters["cpu_with_xserver_pct"] = total;
        if (gPeerTotalPct > 0.0)
            state.counters["ratio_to_jaaa"] = total / gPeerTotalPct;
        state.counters["compositions_per_s"] = compositions.count / seconds;
        state.counters["columns_per_s"] =
            static_cast<double>(defaults->sampleRate()) / defaults->intervalSizeInFrames();
        state.counters["too_slow"] = screen->analyzerController().tooSlow() ? 1.0 : 0.0;
        state.counters["rss_mib"] = residentMiB();
        for (const auto& [name, log] : views) {
            const std::string key = name.toStdString();
            state.counters[key + "_fps"] = static_cast<double>(log.drawMs.size()) / seconds;
            state.counters[key + "_draw_med_ms"] = percentile(log.drawMs, 0.5);
            state.counters[key + "_draw_p99_ms"] = percentile(log.drawMs, 0.99);
            state.counters[key + "_frame_med_ms"] = percentile(log.frameMs, 0.5);
            state.counters[key + "_frame_p99_ms"] = percentile(log.frameMs, 0.99);
            state.counters[key + "_interval_med_ms"] = percentile(log.intervalMs, 0.5);
            state.counters[key + "_interval_p99_ms"] = percentile(log.intervalMs, 0.99);
        }
    }
    GLView::setFrameObserver(nullptr);
    window->removeEventFilter(&compositions);
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    if (!QTest::qWaitFor([&] { return !audio->isRecording(); }, 5000))
        state.SkipWithError("recording did not stop");
    tone.stop();
    app.reset();
    audio.reset();
    fft.reset();
    defaults.reset();
}

} // namespace

BENCHMARK(BM_peerJaaa)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_mainScreenRecording)
    ->ArgNames({"product", "size", "hidden", "window"})
    ->ArgsProduct({{0, 1, 2}, {0, 1}, {1, 0}, {0, 1}})
    ->Args({1, 2, 1, 0})
    ->Args({1, 2, 0, 0})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

int main(int argc, char** argv) {
    // FFT plans and the settings of the run stay out of the user's own folders,
    // but the plans are kept between runs so that no run pays for planning.
    qputenv("XDG_CACHE_HOME", QDir::tempPath().toLocal8Bit() + "/widmo-frame-bench-cache");
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("widmo-frame-bench"));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // Without Qt Multimedia's global teardown, as the application ends.
    widmo::test::exitAfterTests(0);
}
