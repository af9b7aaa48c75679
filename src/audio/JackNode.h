#pragma once

#include "audio/CallMailbox.h"
#include "audio/CaptureBufferRing.h"
#include "engine/JackNodeInterface.h"

#include <QObject>
#include <QString>
#include <QTimer>

#include <jack/jack.h>

#include <array>
#include <atomic>
#include <cstdint>

namespace widmo {

class JackNodeDelegate;

/// The inter-app audio node: a JACK client through which other programs route
/// their sound. Its two input ports pass straight to its two output ports,
/// unchanged and without delay beyond the server's own, and every block that
/// passes while another program is connected goes, interleaved stereo float
/// in the next of 128 capture buffers, to the delegate (the analysis engine).
///
/// The node is published (a client of the running JACK server, jackd or
/// PipeWire's JACK layer, with active ports) while it is on. It follows the
/// connection (any of its ports connected to another program's) and the
/// server's transport (rolling or not, the frame position) and announces every
/// change with `transportStateChangedNotification`. JACK's transport has no
/// record state, so `recording` stays false.
///
/// Failures: every JACK call is checked; a failure is logged as
/// "error %d from %s" and ends the node (it cleans up and is off, with
/// `lastFailure` saying why), never the program. A server that goes away while
/// the node is on is a reset: the node cleans up and publishes itself again as
/// soon as a server answers (it asks every `kRepublishIntervalMs`).
///
/// Threading: the object lives on the main thread; every public function is
/// called there, except the atomics' getters (any thread). The process
/// callback runs on JACK's real-time thread: it copies, interleaves and calls
/// the delegate, never locking, waiting or allocating. JACK's notification
/// thread (connections, server shutdown) only posts to the main thread, where
/// the properties change; xruns are counted there in an atomic.
class JackNode final : public QObject, public JackNodeInterface {
    Q_OBJECT
public:
    /// The name the node asks the server for; a second node gets the server's
    /// suffix ("Widmo-01").
    static constexpr const char* kClientName = "Widmo";
    static constexpr const char* kInputPortNames[2] = {"in_1", "in_2"};
    static constexpr const char* kOutputPortNames[2] = {"out_1", "out_2"};
    static constexpr int kBufferCount = CaptureBufferRing::kBufferCount;
    /// How often a node whose server went away asks for it again.
    static constexpr int kRepublishIntervalMs = 250;
    /// How often the transport is read while connected and in the foreground.
    static constexpr int kTransportPollMs = 20;

    /// Why the node is off after it was turned on.
    enum class Failure {
        None,
        NoServer,  ///< no JACK server answered
        JackError, ///< a JACK call failed (logged)
    };

    /// Off and unpublished; 128 buffers allocated. Follows the application's
    /// state (hidden or suspended = background) and quits with it. The first
    /// node made becomes `sharedAudioEffect`. Main thread.
    explicit JackNode(QObject* parent = nullptr);
    /// Closes the client (cleanup).
    ~JackNode() override;
    JackNode(const JackNode&) = delete;
    JackNode& operator=(const JackNode&) = delete;

    /// The application's node; null in a product that offers none.
    static JackNode* sharedAudioEffect();

    /// Receives every block that passes while connected; null for none. Set it
    /// while the node is off, or to an object that outlives the node.
    void setDelegate(JackNodeDelegate* delegate) {
        delegate_.store(delegate, std::memory_order_release);
    }

    /// Turns the node on (creates and publishes it) or off (cleans up). On
    /// returns false when it could not be published (`lastFailure`); with
    /// `waitForServer` a missing server is not a failure: the node stays on and
    /// publishes itself when a server appears.
    bool setEnabled(bool enabled, bool waitForServer = false);
    bool enabled() const { return enabled_; }
    /// The client is active on a server: other programs can connect to it.
    bool published() const { return client_ != nullptr && graphStarted_; }
    Failure lastFailure() const { return lastFailure_; }
    /// The name the server gave the client (empty while unpublished).
    QString clientName() const { return clientName_; }
    /// Full name ("Widmo:in_1") of input port `i` or output port `i` (0 or 1).
    QString inputPortName(int i) const;
    QString outputPortName(int i) const;

    // --- Properties of the node (main thread; the atomics from any thread) ---------------

    bool connected() const override { return connected_.load(std::memory_order_acquire); }
    int32_t sampleRate() const override { return sampleRate_.load(std::memory_order_acquire); }
    int32_t maxBlockFrames() const override {
        return bufferFrames_.load(std::memory_order_acquire);
    }
    bool playing() const { return playing_; }
    bool recording() const { return recording_; }
    /// Transport position in frames at the server's rate.
    double playTime() const { return playTime_; }
    /// Index of the buffer last written, 0..127. Any thread.
    int32_t actualBuffer() const { return ring_.actualBuffer(); }
    bool inForeground() const { return inForeground_; }
    /// Overruns and underruns the server reported since the node was published.
    int64_t xrunCount() const { return xruns_.load(std::memory_order_acquire); }

    // --- Steps of the node's life (main thread) ---------------------------------------------

    /// createGraph, addAudioUnitPropertyListener, publishOutputAudioUnit,
    /// checkStartStopGraph. False (after cleaning up) when a step failed.
    bool createAndPublish();
    /// Stops and closes the client; nothing is published afterwards. With
    /// `serverGone` the close's failure is expected (libjack cannot say goodbye
    /// to a dead server) and not logged.
    void cleanup(bool serverGone = false);
    /// Re-reads whether any port is connected; on a change stores it and runs
    /// checkStartStopGraph. Returns `connected`.
    bool isHostConnected();
    /// Reads the transport (only while connected and in the foreground) and
    /// stores playing and playTime; true when they changed (a start, a stop or
    /// a locate; a rolling position advancing as expected is no change).
    bool updateStateFromTransportCallback();
    void appHasGoneInBackground();
    void appHasGoneForeground();
    /// While connected and not started: start.
    void checkStartStopGraph();

signals:
    /// The connection or the transport changed. Always emitted asynchronously
    /// on the main thread.
    void transportStateChangedNotification();
    /// The node was published or unpublished (turned off, failed, server gone).
    void publishedChanged(bool published);

private:
    static int processCallback(jack_nframes_t frames, void* arg);
    static int bufferSizeCallback(jack_nframes_t frames, void* arg);
    static int xrunCallback(void* arg);
    static void portConnectCallback(jack_port_id_t a, jack_port_id_t b, int connect, void* arg);
    static void shutdownCallback(jack_status_t code, const char* reason, void* arg);

    bool createGraph();
    bool addAudioUnitPropertyListener();
    bool publishOutputAudioUnit();
    bool isGraphStarted() const { return graphStarted_; }
    void startGraph();
    void stopGraph();
    void postUpdateStateNotification();
    void audioUnitPropertyChanged();
    void serverWentAway();
    void tryRepublish();
    /// Logs "error %d from %s", cleans up and turns the node off.
    bool fail(int status, const char* call);
    void updateTimers();

    jack_client_t* client_ = nullptr;
    bool inForeground_ = true;
    bool graphStarted_ = false;
    bool playing_ = false;
    bool recording_ = false;
    std::atomic<bool> connected_{false};
    std::atomic<JackNodeDelegate*> delegate_{nullptr};
    double playTime_ = 0.0;
    CaptureBufferRing ring_;
    std::array<jack_port_t*, 2> inputs_{};
    std::array<jack_port_t*, 2> outputs_{};
    std::atomic<int32_t> sampleRate_{0};
    std::atomic<int32_t> bufferFrames_{0};
    std::atomic<int64_t> xruns_{0};
    std::atomic<uint64_t> clientGeneration_{0};

    bool enabled_ = false;
    Failure lastFailure_ = Failure::None;
    QString clientName_;
    int transportState_ = -1; ///< jack_transport_state_t last read, -1 none
    qint64 transportReadMs_ = 0;
    QTimer transportTimer_;
    QTimer republishTimer_;
    CallMailbox mainCalls_; // JACK's notification thread to the main thread
};

} // namespace widmo
