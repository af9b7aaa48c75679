// The JACK node under a real-time load: a private JACK server (dummy driver,
// 48 kHz) at a small period and a player client whose sine goes through the
// node and back. Three phases of equal length: the player's direct wire to
// itself without the node (the baseline: what the loaded machine costs), the
// node passing the sound alone, the node also feeding the analysis engine.
// Prints the xruns of each phase, the frames analysed, and the delay of the
// node's path beside the direct wire (the node's own added latency is the
// difference).
//
//   widmo_jack_node_run [seconds=60] [period=64]
// Needs jackd (the test services' package); starts and ends its own server.

#include "BenchSupport.h"
#include "audio/JackNode.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "engine/AnalyzerController.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>

#include <jack/jack.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <numbers>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace widmo;

/// Plays a 1 kHz sine into the node and takes back the node's output and its
/// own direct wire; notes when each first arrives, in frames since the start.
struct Player {
    jack_client_t* client = nullptr;
    jack_port_t* out = nullptr;
    jack_port_t* inNode = nullptr;
    jack_port_t* inWire = nullptr;
    std::atomic<bool> playing{false};
    std::atomic<int64_t> frame{0};
    std::atomic<int64_t> nodeArrival{-1};
    std::atomic<int64_t> wireArrival{-1};
    std::atomic<int64_t> xruns{0};

    static int xrun(void* arg) {
        static_cast<Player*>(arg)->xruns.fetch_add(1, std::memory_order_acq_rel);
        return 0;
    }

    static int process(jack_nframes_t n, void* arg) {
        auto* self = static_cast<Player*>(arg);
        auto* o = static_cast<float*>(jack_port_get_buffer(self->out, n));
        auto* a = static_cast<const float*>(jack_port_get_buffer(self->inNode, n));
        auto* b = static_cast<const float*>(jack_port_get_buffer(self->inWire, n));
        int64_t f = self->frame.load(std::memory_order_relaxed);
        const bool on = self->playing.load(std::memory_order_acquire);
        for (jack_nframes_t k = 0; k < n; ++k, ++f) {
            o[k] = on ? 0.001f + 0.25f * float(std::sin(2.0 * std::numbers::pi * 1000.0 *
                                                        double(f) / 48000.0))
                      : 0.0f;
            if (on && a[k] != 0.0f && self->nodeArrival.load(std::memory_order_relaxed) < 0)
                self->nodeArrival.store(f, std::memory_order_release);
            if (on && b[k] != 0.0f && self->wireArrival.load(std::memory_order_relaxed) < 0)
                self->wireArrival.store(f, std::memory_order_release);
        }
        self->frame.store(on ? f : 0, std::memory_order_release);
        return 0;
    }
};

pid_t startServer(const std::string& name, const std::string& period) {
    const pid_t child = ::fork();
    if (child == 0) {
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::dup2(null, 2);
        ::execlp("jackd", "jackd", "--no-realtime", "-n", name.c_str(), "-d", "dummy", "-r",
                 "48000", "-p", period.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return child;
}

} // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
    const std::string period = argc > 2 ? argv[2] : "64";
    const std::string name = "widmo_bench_" + std::to_string(::getpid());
    ::setenv("JACK_DEFAULT_SERVER", name.c_str(), 1);
    QCoreApplication app(argc, argv);
    QTemporaryDir home;
    ::setenv("HOME", home.path().toLocal8Bit().constData(), 1);

    const pid_t server = startServer(name, period);
    Player player;
    for (int i = 0; i < 100 && player.client == nullptr; ++i) {
        QThread::msleep(50);
        player.client = jack_client_open("widmo_bench_player", JackNoStartServer, nullptr);
    }
    if (player.client == nullptr) {
        std::fprintf(stderr, "jackd did not start\n");
        ::kill(server, SIGTERM);
        return 1;
    }
    player.out =
        jack_port_register(player.client, "out", JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
    player.inNode =
        jack_port_register(player.client, "in_node", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
    player.inWire =
        jack_port_register(player.client, "in_wire", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
    jack_set_process_callback(player.client, &Player::process, &player);
    jack_set_xrun_callback(player.client, &Player::xrun, &player);
    jack_activate(player.client);
    const std::string p = jack_get_client_name(player.client);

    // The baseline: the same server and player, its sound on the direct wire
    // only, no node.
    jack_connect(player.client, (p + ":out").c_str(), (p + ":in_wire").c_str());
    player.playing.store(true, std::memory_order_release);
    QThread::sleep(unsigned(seconds));
    player.playing.store(false, std::memory_order_release);
    const int64_t baselineXruns = player.xruns.exchange(0, std::memory_order_acq_rel);
    player.wireArrival.store(-1, std::memory_order_release);
    QThread::msleep(100);

    const AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    AnalyzerDefaults defaults(features, "jack-node-run");
    defaults.setSampleRate(48000.0f);
    FFTManager manager(defaults);
    bench::AlwaysRecording audio;
    int status = 0;
    {
        AnalyzerController engine(defaults, manager, audio);
        engine.rebuildDataWithClear();
        defaults.setDataValid(true);
        JackNode node;
        engine.setAudioEffect(&node);
        if (!node.setEnabled(true)) {
            std::fprintf(stderr, "the node could not be published\n");
            status = 1;
        } else {
            engine.startRecorder({});
            jack_connect(player.client, (p + ":out").c_str(),
                         node.inputPortName(0).toStdString().c_str());
            jack_connect(player.client, node.outputPortName(0).toStdString().c_str(),
                         (p + ":in_node").c_str());
            QElapsedTimer clock;
            clock.start();
            while (!node.connected() && clock.elapsed() < 5000)
                QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            // First the node passing the sound without the engine, then feeding it.
            const auto run = [&] {
                const int64_t before = player.xruns.load(std::memory_order_acquire);
                bench::spin(seconds * 1000);
                return player.xruns.load(std::memory_order_acquire) - before;
            };
            node.setDelegate(nullptr);
            player.playing.store(true, std::memory_order_release);
            const int64_t passXruns = run();
            node.setDelegate(&engine);
            const int64_t xruns = run();
            const int64_t nodeDelay = player.nodeArrival.load(std::memory_order_acquire);
            const int64_t wireDelay = player.wireArrival.load(std::memory_order_acquire);
            std::printf("period %s frames at 48000 Hz, %d s each: %lld xruns without the node, "
                        "%lld through the node alone, %lld through the node feeding the engine; "
                        "%lld frames analysed (%.1f s)\n",
                        period.c_str(), seconds, static_cast<long long>(baselineXruns),
                        static_cast<long long>(passXruns), static_cast<long long>(xruns),
                        static_cast<long long>(engine.framesWriteCount()),
                        double(engine.framesWriteCount()) / 48000.0);
            std::printf("delay through the node %lld frames, direct wire %lld frames: the node "
                        "adds %lld\n",
                        static_cast<long long>(nodeDelay), static_cast<long long>(wireDelay),
                        static_cast<long long>(nodeDelay - wireDelay));
            engine.stopRecorder();
            node.setEnabled(false);
            engine.setAudioEffect(nullptr);
        }
    }
    jack_client_close(player.client);
    ::kill(server, SIGTERM);
    ::waitpid(server, nullptr, 0);
    return status;
}
