#include "audio/JackNode.h"
#include "LiveEngineTest.h"

#include <QElapsedTimer>
#include <QSignalSpy>

#include <gtest/gtest.h>
#include <jack/jack.h>
#include <jack/transport.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

namespace widmo {
namespace {

using namespace test;

constexpr double kToneHz = 1000.0;

/// Another program on the test services' JACK server: from the moment `play`
/// is called, plays a tone and noise from its two outputs and records its
/// three inputs (the third for a path that bypasses the node), sample for
/// sample on the same count.
class JackPeer {
public:
    static constexpr size_t kFrames = 48000 * 3;
    static constexpr size_t kPeriod = 512; ///< the test services' period

    JackPeer() {
        std::mt19937 random(19);
        std::uniform_real_distribution<float> noise(-0.25f, 0.25f);
        for (size_t k = 0; k < kFrames; ++k) {
            sent_[0].push_back(
                0.25f * float(std::sin(2.0 * std::numbers::pi * kToneHz * double(k) / 48000)));
            sent_[1].push_back(noise(random)); // arrives unchanged at one delay only
        }
        for (auto& v : received_)
            v.assign(kFrames, 0.0f);
        client = jack_client_open("widmo_test_peer", JackNoStartServer, nullptr);
        if (client == nullptr)
            return;
        for (size_t c = 0; c < 5; ++c)
            ports_[c] = jack_port_register(client, kPorts[c], JACK_DEFAULT_AUDIO_TYPE,
                                           c < 2 ? JackPortIsOutput : JackPortIsInput, 0);
        jack_set_process_callback(client, &JackPeer::jackPeerProcessCycle, this);
        jack_set_xrun_callback(client, &JackPeer::xrun, this);
        if (jack_activate(client) != 0)
            jack_client_close(std::exchange(client, nullptr));
    }
    ~JackPeer() {
        if (client != nullptr)
            jack_client_close(client);
    }

    /// Outputs 0 and 1, then inputs 0, 1 and the reference input.
    static constexpr const char* kPorts[] = {"out_1", "out_2", "in_1", "in_2", "in_ref"};
    std::string port(size_t index) const {
        return std::string(jack_get_client_name(client)) + ":" + kPorts[index];
    }
    bool connect(const std::string& from, const std::string& to, bool on = true) {
        return (on ? jack_connect : jack_disconnect)(client, from.c_str(), to.c_str()) == 0;
    }
    void play() { playing_.store(true, std::memory_order_release); }
    /// Frames played and recorded so far.
    size_t frames() const { return count_.load(std::memory_order_acquire); }
    /// Overruns and underruns the server reported to this client.
    int xruns() const { return xruns_.load(std::memory_order_acquire); }
    /// The delay in frames at which a whole period of output `channel` arrives
    /// unchanged at `input`, read at three places of the run (the median, so
    /// that an xrun at one of them does not decide); -1 if none arrived.
    long matchingDelay(size_t input, size_t channel) const {
        std::vector<long> found;
        for (size_t at : {kFrames / 4, kFrames / 2, 3 * kFrames / 4}) {
            const auto from = received_[input].begin() + long(at);
            const auto period = sent_[channel].begin() + long(at);
            const auto hit = std::search(from, from + 8192 + kPeriod, period, period + kPeriod);
            found.push_back(hit == from + 8192 + kPeriod ? -1 : long(hit - from));
        }
        std::sort(found.begin(), found.end());
        return found[1];
    }
    /// Periods of output `channel` that did not arrive bit for bit at `input` after `delay`.
    size_t mismatchedPeriods(size_t input, size_t channel, long delay) const {
        size_t bad = 0;
        for (size_t at = 0; at + size_t(delay) + kPeriod <= frames(); at += kPeriod)
            bad += !arrived(input, channel, at, delay);
        return bad;
    }

    jack_client_t* client = nullptr;

private:
    bool arrived(size_t input, size_t channel, size_t at, long delay) const {
        const auto from = sent_[channel].begin() + long(at);
        return std::equal(from, from + kPeriod, received_[input].begin() + long(at) + delay);
    }
    static int xrun(void* arg) {
        static_cast<JackPeer*>(arg)->xruns_.fetch_add(1, std::memory_order_acq_rel);
        return 0;
    }
    // Named for the thread checker's suppressions (scripts/tsan.supp).
    static int jackPeerProcessCycle(jack_nframes_t frames, void* arg) {
        auto* self = static_cast<JackPeer*>(arg);
        const size_t at = self->count_.load(std::memory_order_relaxed);
        const size_t live = self->playing_.load(std::memory_order_acquire)
                                ? std::min(size_t(frames), kFrames - at)
                                : 0;
        // Inputs first: the reference input reads its loop back as the server
        // delivers it, before this cycle's outputs are written.
        for (size_t c = 0; c < 3; ++c)
            std::copy_n(
                static_cast<const float*>(jack_port_get_buffer(self->ports_[c + 2], frames)), live,
                self->received_[c].begin() + long(at));
        for (size_t c = 0; c < 2; ++c) {
            auto* out = static_cast<float*>(jack_port_get_buffer(self->ports_[c], frames));
            std::fill(std::copy_n(self->sent_[c].begin() + long(at), live, out), out + frames,
                      0.0f);
        }
        self->count_.store(at + live, std::memory_order_release);
        return 0;
    }

    jack_port_t* ports_[5] = {};
    std::vector<float> sent_[2], received_[3];
    std::atomic<bool> playing_{false};
    std::atomic<size_t> count_{0};
    std::atomic<int> xruns_{0};
};

class JackNodeTest : public LiveEngineTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(qEnvironmentVariableIsSet("JACK_DEFAULT_SERVER"))
            << "needs the test services' JACK server";
        effect = std::make_unique<JackNode>();
        ASSERT_TRUE(effect->setEnabled(true)) << "the node could not be published";
        ASSERT_TRUE(effect->published());
    }
    void TearDown() override {
        peer.reset();
        if (engine)
            engine->stopRecorder();
        effect.reset();
        LiveEngineTest::TearDown();
    }

    /// The engine with the node as its source, recording on a stand-in audio
    /// object; the peak bin of each spectrum shown goes to `peakBins`.
    void buildEngine() {
        build(48000.0f, {}, &standIn);
        chart.onData = [this](const float* data) {
            peakBins.push_back(
                int(std::max_element(data + 1, data + defaults->fftOutSize()) - data));
        };
        engine->setAudioEffect(effect.get());
        effect->setDelegate(engine.get());
        ASSERT_TRUE(startRecorder());
    }

    /// A new peer, its outputs connected to the node and the node's outputs
    /// back, its second output also straight to its reference input.
    void routeThroughNode() {
        peer = std::make_unique<JackPeer>();
        ASSERT_NE(peer->client, nullptr);
        for (int c = 0; c < 2; ++c) {
            ASSERT_TRUE(
                peer->connect(peer->port(size_t(c)), effect->inputPortName(c).toStdString()));
            ASSERT_TRUE(peer->connect(outputPort(c), peer->port(size_t(c) + 2)));
        }
        ASSERT_TRUE(peer->connect(peer->port(1), peer->port(4)));
    }
    std::string outputPort(int c) const { return effect->outputPortName(c).toStdString(); }

    FakeAudio standIn;
    std::vector<int> peakBins;
    std::unique_ptr<JackNode> effect;
    std::unique_ptr<JackPeer> peer;
};

TEST_F(JackNodeTest, signalThroughNode_returnsBitForBitWithServerDelay_andEngineShowsIt) {
    buildEngine();
    routeThroughNode();
    ASSERT_TRUE(runEventsUntil([&] { return effect->connected(); }));
    const int xrunsBefore = peer->xruns();
    peer->play();
    ASSERT_TRUE(runEventsUntil([&] { return peer->frames() >= JackPeer::kFrames; }, 10000));
    const int xruns = peer->xruns() - xrunsBefore;

    // The node adds no delay of its own: its path takes as long as the
    // reference wire from the peer to itself (the server's one period for a
    // loop back into the same client).
    const long reference = peer->matchingDelay(2, 1);
    ASSERT_GE(reference, 0);
    EXPECT_EQ(peer->matchingDelay(1, 1), reference);
    // Bit for bit, except where the server missed a cycle (an xrun on a
    // loaded machine disturbs the period it happens in, on the way into the
    // node and on the way back): none on a quiet machine. Under the thread
    // checker an instrumented cycle can overrun the non-real-time server's
    // period without the peer being told of an xrun.
#if defined(__SANITIZE_THREAD__)
    constexpr size_t kUnreportedLatePeriods = 2;
#else
    constexpr size_t kUnreportedLatePeriods = 0;
#endif
    for (size_t c = 0; c < 2; ++c)
        EXPECT_LE(peer->mismatchedPeriods(c, c, reference),
                  size_t(2 * xruns) + kUnreportedLatePeriods)
            << "channel " << c << ", " << xruns << " xruns";

    // The engine analysed the node's sound: the tone's bin on the chart.
    ASSERT_GT(peakBins.size(), 10u);
    EXPECT_EQ(peakBins.back(), std::lround(kToneHz * 4096 / 48000.0));
    EXPECT_GT(engine->framesWriteCount(), 48000);
}

TEST_F(JackNodeTest, connectionAndTransportChanges_reachPropertiesAndNotification) {
    QSignalSpy notified(effect.get(), &JackNode::transportStateChangedNotification);
    // Waits for `state` and a notification, then forgets the notifications.
    const auto settles = [&](const std::function<bool()>& state) {
        const bool ok = runEventsUntil([&] { return state() && notified.count() > 0; });
        notified.clear();
        return ok;
    };
    peer = std::make_unique<JackPeer>();
    ASSERT_NE(peer->client, nullptr);
    jack_transport_stop(peer->client);
    jack_transport_locate(peer->client, 0);
    EXPECT_FALSE(effect->connected());

    // Any one port connected counts.
    ASSERT_TRUE(peer->connect(outputPort(1), peer->port(3)));
    ASSERT_TRUE(settles([&] { return effect->connected(); }));
    jack_transport_start(peer->client);
    ASSERT_TRUE(settles([&] { return effect->playing(); }));
    EXPECT_FALSE(effect->recording());
    jack_transport_stop(peer->client);
    ASSERT_TRUE(settles([&] { return !effect->playing(); }));
    jack_transport_locate(peer->client, 96000);
    ASSERT_TRUE(settles([&] { return effect->playTime() == 96000.0; }));

    // In the background the transport is not read; back in the foreground it
    // is read at once. The node keeps passing sound meanwhile.
    effect->appHasGoneInBackground();
    jack_transport_locate(peer->client, 48000);
    runEventsFor(200);
    EXPECT_EQ(effect->playTime(), 96000.0);
    EXPECT_TRUE(effect->published());
    effect->appHasGoneForeground();
    EXPECT_EQ(effect->playTime(), 48000.0);
    ASSERT_TRUE(settles([] { return true; }));

    // Unconnected, the transport is not followed.
    ASSERT_TRUE(peer->connect(outputPort(1), peer->port(3), false));
    ASSERT_TRUE(settles([&] { return !effect->connected(); }));
    jack_transport_locate(peer->client, 4800);
    runEventsFor(200);
    EXPECT_EQ(effect->playTime(), 48000.0);
}

bool killJackServer() {
    return runTool("sh", {"-c", "kill -9 $(cat \"$WIDMO_SERVICES_DIR/jack.pid\")"}) == 0;
}

/// Starts the services' JACK server again as they do, detached (a shell waits
/// for it, so that it is reaped even where the system's first process reaps no
/// orphans: a JACK server refuses a name whose last owner remains). True once
/// a client can join it, with `upSince` started then.
bool startJackServer(QElapsedTimer& upSince) {
    return runTool("sh", {"-c", "setsid sh -c 'jackd --no-realtime -n \"$JACK_DEFAULT_SERVER\" "
                                "-d dummy -r 48000 -p 512 >>\"$WIDMO_SERVICES_DIR/jack.log\" 2>&1 "
                                "& echo $! >\"$WIDMO_SERVICES_DIR/jack.pid\"; wait' "
                                "</dev/null >/dev/null 2>&1 &"}) == 0 &&
           runEventsUntil(
               [&] {
                   jack_client_t* probe =
                       jack_client_open("widmo_test_probe", JackNoStartServer, nullptr);
                   if (probe != nullptr)
                       jack_client_close(probe);
                   upSince.start();
                   return probe != nullptr;
               },
               10000);
}

TEST_F(JackNodeTest, serverKilledAndRestartedWhileConnected_nodeRepublishesWithinTwoSeconds) {
    buildEngine();
    routeThroughNode();
    ASSERT_TRUE(runEventsUntil([&] { return effect->connected(); }));

    // The node lets go of the dead server by itself; the peer, a plain client,
    // closes before a new server takes the name (libjack cannot close a client
    // of a server that has been replaced).
    ASSERT_TRUE(killJackServer());
    ASSERT_TRUE(runEventsUntil([&] { return !effect->published(); }));
    peer.reset();
    QElapsedTimer upSince;
    ASSERT_TRUE(startJackServer(upSince));
    ASSERT_TRUE(runEventsUntil([&] { return effect->published(); }, 5000));
    std::printf("node republished %lld ms after the server's return\n",
                static_cast<long long>(upSince.elapsed()));
    EXPECT_LE(upSince.elapsed(), 2000);
    EXPECT_TRUE(effect->enabled());
    EXPECT_FALSE(effect->connected());

    // The republished node works as before: connected, it feeds the engine.
    const int64_t before = engine->framesWriteCount();
    routeThroughNode();
    peer->play();
    ASSERT_TRUE(runEventsUntil([&] { return engine->framesWriteCount() > before + 48000; }));
}

// The server is killed and a new one takes its name before the node has
// heard of it (no event runs on the main thread in between): the node closes
// its client of the old server first and only then joins the new one, the
// order libjack needs (see the test below), and works as before.
TEST_F(JackNodeTest, serverReplacedBeforeTheNodeNoticed_closesTheOldClientFirstAndRepublishes) {
    buildEngine();
    routeThroughNode();
    ASSERT_TRUE(runEventsUntil([&] { return effect->connected(); }));
    peer.reset();
    const QString replace = QStringLiteral(
        "old=$(cat \"$WIDMO_SERVICES_DIR/jack.pid\"); kill -9 $old; "
        "for i in $(seq 100); do kill -0 $old 2>/dev/null || break; sleep 0.02; done; "
        "setsid sh -c 'jackd --no-realtime -n \"$JACK_DEFAULT_SERVER\" -d dummy -r 48000 -p 512 "
        ">>\"$WIDMO_SERVICES_DIR/jack.log\" 2>&1 & echo $! >\"$WIDMO_SERVICES_DIR/jack.pid\"; "
        "wait' "
        "</dev/null >/dev/null 2>&1 & "
        "for i in $(seq 200); do jack_lsp >/dev/null 2>&1 && exit 0; sleep 0.05; done; exit 1");
    ASSERT_EQ(runTool("sh", {"-c", replace}), 0) << "no new JACK server";
    ASSERT_TRUE(runEventsUntil([&] { return effect->published() && !effect->connected(); }, 5000));
    const int64_t before = engine->framesWriteCount();
    routeThroughNode();
    peer->play();
    ASSERT_TRUE(runEventsUntil([&] { return engine->framesWriteCount() > before + 48000; }));
}

// libjack 1.9.21 cannot close a client of a replaced server once the process
// has opened a client of the new one: a program of a few lines shows it. The
// node never holds two clients, so it never meets this; the test passes as
// soon as the library closes such a client cleanly.
TEST(JackLibrary, closingAClientOfAReplacedServerAfterJoiningTheNewOne) {
    ASSERT_TRUE(qEnvironmentVariableIsSet("JACK_DEFAULT_SERVER"));
    const QString run = QStringLiteral(
        "dir=$(mktemp -d) && mkfifo \"$dir/in\" && "
        "{ \"$0\" <\"$dir/in\" >\"$dir/out\" 2>&1 & pid=$!; exec 3>\"$dir/in\"; "
        "for i in $(seq 100); do grep -q open \"$dir/out\" && break; sleep 0.05; done; "
        "old=$(cat \"$WIDMO_SERVICES_DIR/jack.pid\"); kill -9 $old; "
        "for i in $(seq 100); do kill -0 $old 2>/dev/null || break; sleep 0.02; done; "
        "setsid sh -c 'jackd --no-realtime -n \"$JACK_DEFAULT_SERVER\" -d dummy -r 48000 -p 512 "
        ">>\"$WIDMO_SERVICES_DIR/jack.log\" 2>&1 & echo $! >\"$WIDMO_SERVICES_DIR/jack.pid\"; "
        "wait' "
        "</dev/null >/dev/null 2>&1 & "
        "for i in $(seq 200); do jack_lsp >/dev/null 2>&1 && break; sleep 0.05; done; "
        "echo go >&3; wait $pid; status=$?; rm -rf \"$dir\"; exit $status; }");
    const int status = runTool("sh", {"-c", run, QStringLiteral(WIDMO_JACK_CLOSE_AFTER_RESTART)});
    if (status == 128 + 11)
        GTEST_SKIP() << "libjack crashes (SIGSEGV) closing a client of a replaced JACK server "
                        "after a client of the new server was opened";
    EXPECT_EQ(status, 0);
}

} // namespace
} // namespace widmo
