#include "audio/JackNode.h"

#include "engine/JackNodeDelegate.h"
#include "engine/MainQueue.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QGuiApplication>
#include <QtGlobal>

#include <jack/transport.h>

#include <cmath>
#include <cstring>

namespace widmo {

namespace {

JackNode* gSharedAudioEffect = nullptr;

// While the node asks for a server that may not be there, libjack's own
// complaints ("Cannot connect to server socket", ...) are expected and
// dropped; the node logs the outcome itself. Any other time they are warnings.
std::atomic<int> gProbing{0};

void jackError(const char* message) {
    if (gProbing.load(std::memory_order_acquire) == 0) {
        qWarning("JACK: %s", message);
    }
}

void jackInfo(const char*) {}

void installJackMessageHandlers() {
    static const bool installed = [] {
        jack_set_error_function(jackError);
        jack_set_info_function(jackInfo);
        return true;
    }();
    (void)installed;
}

// A rolling transport whose position differs from the one expected from the
// time elapsed by more than this was located.
constexpr double kLocateToleranceSeconds = 0.25;

} // namespace

JackNode::JackNode(QObject* parent) : QObject(parent) {
    installJackMessageHandlers();
    if (gSharedAudioEffect == nullptr) {
        gSharedAudioEffect = this;
    }
    // A desktop application is in the background when it is hidden or
    // suspended; losing the focus keeps it in the foreground.
    if (auto* gui = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        inForeground_ = gui->applicationState() != Qt::ApplicationHidden &&
                        gui->applicationState() != Qt::ApplicationSuspended;
        connect(gui, &QGuiApplication::applicationStateChanged, this,
                [this](Qt::ApplicationState state) {
                    const bool background =
                        state == Qt::ApplicationHidden || state == Qt::ApplicationSuspended;
                    if (background && inForeground_) {
                        appHasGoneInBackground();
                    } else if (!background && !inForeground_) {
                        appHasGoneForeground();
                    }
                });
    }
    if (QCoreApplication* app = QCoreApplication::instance()) {
        connect(app, &QCoreApplication::aboutToQuit, this, [this] { setEnabled(false); });
    }
    transportTimer_.setInterval(kTransportPollMs);
    connect(&transportTimer_, &QTimer::timeout, this, [this] {
        if (updateStateFromTransportCallback()) {
            postUpdateStateNotification();
        }
    });
    republishTimer_.setInterval(kRepublishIntervalMs);
    connect(&republishTimer_, &QTimer::timeout, this, &JackNode::tryRepublish);
}

JackNode::~JackNode() {
    cleanup();
    if (gSharedAudioEffect == this) {
        gSharedAudioEffect = nullptr;
    }
}

JackNode* JackNode::sharedAudioEffect() { return gSharedAudioEffect; }

QString JackNode::inputPortName(int i) const {
    return clientName_ + QLatin1Char(':') + QLatin1String(kInputPortNames[i == 1 ? 1 : 0]);
}

QString JackNode::outputPortName(int i) const {
    return clientName_ + QLatin1Char(':') + QLatin1String(kOutputPortNames[i == 1 ? 1 : 0]);
}

bool JackNode::setEnabled(bool enabled, bool waitForServer) {
    if (!enabled) {
        enabled_ = false;
        republishTimer_.stop();
        cleanup();
        return true;
    }
    if (enabled_) {
        return true;
    }
    enabled_ = true;
    lastFailure_ = Failure::None;
    if (createAndPublish()) {
        return true;
    }
    if (waitForServer && lastFailure_ == Failure::NoServer) {
        republishTimer_.start();
        return true;
    }
    enabled_ = false;
    return false;
}

// --- Life of the client (main thread) ---------------------------------------------------------

bool JackNode::createAndPublish() {
    if (client_ != nullptr) {
        return true;
    }
    if (!createGraph() || !addAudioUnitPropertyListener() || !publishOutputAudioUnit()) {
        return false;
    }
    isHostConnected();
    checkStartStopGraph();
    updateTimers();
    emit publishedChanged(true);
    return true;
}

bool JackNode::createGraph() {
    jack_status_t status{};
    // The client's notification thread starts inside jack_client_open, before
    // client_ is set: its callbacks name their client by this number.
    clientGeneration_.fetch_add(1, std::memory_order_acq_rel);
    gProbing.fetch_add(1, std::memory_order_acq_rel);
    // Never starts a server of its own: the node joins the one the desktop runs.
    client_ = jack_client_open(kClientName, JackNoStartServer, &status);
    gProbing.fetch_sub(1, std::memory_order_acq_rel);
    if (client_ == nullptr) {
        if ((status & JackServerFailed) != 0) {
            // No server: expected while waiting for one, so logged only once.
            if (lastFailure_ != Failure::NoServer) {
                qWarning("error %d from %s", int(status), "jack_client_open");
            }
            lastFailure_ = Failure::NoServer;
            return false;
        }
        return fail(int(status), "jack_client_open");
    }
    clientName_ = QString::fromUtf8(jack_get_client_name(client_));
    sampleRate_.store(int32_t(jack_get_sample_rate(client_)), std::memory_order_release);
    bufferFrames_.store(int32_t(jack_get_buffer_size(client_)), std::memory_order_release);
    for (size_t i = 0; i < 2; ++i) {
        inputs_[i] = jack_port_register(client_, kInputPortNames[i], JACK_DEFAULT_AUDIO_TYPE,
                                        JackPortIsInput, 0);
        outputs_[i] = jack_port_register(client_, kOutputPortNames[i], JACK_DEFAULT_AUDIO_TYPE,
                                         JackPortIsOutput, 0);
        if (inputs_[i] == nullptr || outputs_[i] == nullptr) {
            return fail(-1, "jack_port_register");
        }
    }
    if (int e = jack_set_process_callback(client_, &JackNode::processCallback, this)) {
        return fail(e, "jack_set_process_callback");
    }
    if (int e = jack_set_buffer_size_callback(client_, &JackNode::bufferSizeCallback, this)) {
        return fail(e, "jack_set_buffer_size_callback");
    }
    if (int e = jack_set_xrun_callback(client_, &JackNode::xrunCallback, this)) {
        return fail(e, "jack_set_xrun_callback");
    }
    jack_on_info_shutdown(client_, &JackNode::shutdownCallback, this);
    xruns_.store(0, std::memory_order_release);
    lastFailure_ = Failure::None;
    return true;
}

bool JackNode::addAudioUnitPropertyListener() {
    // Connections are announced by the server; the transport has no such
    // announcement, so a timer reads it (updateTimers).
    if (int e = jack_set_port_connect_callback(client_, &JackNode::portConnectCallback, this)) {
        return fail(e, "jack_set_port_connect_callback");
    }
    return true;
}

bool JackNode::publishOutputAudioUnit() {
    // A JACK client's ports can be connected only while it is active, so the
    // node is published by activating it, and stays active while it is on:
    // an unconnected node in the background is not stopped (it could not be
    // found by other programs any more).
    startGraph();
    return client_ != nullptr;
}

void JackNode::startGraph() {
    if (client_ == nullptr || graphStarted_) {
        return;
    }
    if (int e = jack_activate(client_)) {
        fail(e, "jack_activate");
        return;
    }
    graphStarted_ = true;
}

void JackNode::stopGraph() {
    if (client_ == nullptr || !graphStarted_) {
        return;
    }
    graphStarted_ = false;
    if (int e = jack_deactivate(client_)) {
        qWarning("error %d from %s", e, "jack_deactivate");
    }
}

void JackNode::checkStartStopGraph() {
    if (connected() && !isGraphStarted()) {
        startGraph();
    }
}

void JackNode::cleanup(bool serverGone) {
    const bool wasPublished = client_ != nullptr;
    stopGraph();
    if (client_ != nullptr) {
        // Ends the client's threads: no callback runs after this.
        if (int e = jack_client_close(client_); e != 0 && !serverGone) {
            qWarning("error %d from %s", e, "jack_client_close");
        }
        client_ = nullptr;
    }
    inputs_ = {};
    outputs_ = {};
    graphStarted_ = false;
    clientName_.clear();
    sampleRate_.store(0, std::memory_order_release);
    bufferFrames_.store(0, std::memory_order_release);
    const bool changed = connected_.exchange(false, std::memory_order_acq_rel) || playing_;
    playing_ = false;
    transportState_ = -1;
    updateTimers();
    if (changed) {
        postUpdateStateNotification();
    }
    if (wasPublished) {
        emit publishedChanged(false);
    }
}

bool JackNode::fail(int status, const char* call) {
    qWarning("error %d from %s", status, call);
    lastFailure_ = Failure::JackError;
    enabled_ = false;
    republishTimer_.stop();
    cleanup();
    return false;
}

void JackNode::serverWentAway() {
    if (client_ == nullptr) {
        return;
    }
    qWarning("the JACK server went away; the node %s waits for it", qPrintable(clientName_));
    graphStarted_ = false; // nothing to deactivate on a server that is gone
    cleanup(true);
    if (enabled_) {
        lastFailure_ = Failure::NoServer;
        republishTimer_.start();
    }
}

void JackNode::tryRepublish() {
    if (!enabled_ || client_ != nullptr) {
        republishTimer_.stop();
        return;
    }
    if (createAndPublish()) {
        republishTimer_.stop();
    } else if (lastFailure_ != Failure::NoServer) {
        republishTimer_.stop(); // a real failure ends the node (logged)
    }
}

// --- Connection and transport (main thread) ---------------------------------------------------

bool JackNode::isHostConnected() {
    bool now = false;
    if (client_ != nullptr) {
        for (jack_port_t* port : {inputs_[0], inputs_[1], outputs_[0], outputs_[1]}) {
            now = now || (port != nullptr && jack_port_connected(port) > 0);
        }
    }
    if (now != connected()) {
        connected_.store(now, std::memory_order_release);
        checkStartStopGraph();
        if (now) {
            transportState_ = -1; // read afresh
            updateStateFromTransportCallback();
        }
        updateTimers();
    }
    return now;
}

bool JackNode::updateStateFromTransportCallback() {
    if (client_ == nullptr || !connected() || !inForeground_) {
        return false;
    }
    jack_position_t position{};
    const jack_transport_state_t state = jack_transport_query(client_, &position);
    const bool rolling = state == JackTransportRolling || state == JackTransportLooping;
    const double frame = double(position.frame);
    const qint64 nowMs = QDateTime::currentMSecsSinceEpoch();
    double expected = playTime_;
    if (playing_ && rolling) {
        expected += double(nowMs - transportReadMs_) * 0.001 * double(sampleRate());
    }
    const bool located =
        std::fabs(frame - expected) > kLocateToleranceSeconds * double(sampleRate());
    const bool changed = transportState_ < 0 || rolling != playing_ || located;
    transportState_ = int(state);
    transportReadMs_ = nowMs;
    playing_ = rolling;
    recording_ = false;
    playTime_ = frame;
    return changed;
}

void JackNode::audioUnitPropertyChanged() {
    isHostConnected();
    postUpdateStateNotification();
}

void JackNode::postUpdateStateNotification() {
    MainQueue::async([this] { emit transportStateChangedNotification(); }, this);
}

void JackNode::appHasGoneInBackground() {
    inForeground_ = false;
    checkStartStopGraph();
    updateTimers();
}

void JackNode::appHasGoneForeground() {
    inForeground_ = true;
    isHostConnected();
    if (updateStateFromTransportCallback()) {
        postUpdateStateNotification();
    }
    checkStartStopGraph();
    updateTimers();
}

void JackNode::updateTimers() {
    const bool poll = client_ != nullptr && connected() && inForeground_;
    if (poll && !transportTimer_.isActive()) {
        transportTimer_.start();
    } else if (!poll) {
        transportTimer_.stop();
    }
}

// --- JACK's threads ------------------------------------------------------------------------

int JackNode::processCallback(jack_nframes_t frames, void* arg) {
    auto* self = static_cast<JackNode*>(arg);
    const size_t n = frames;
    const float* in[2];
    for (size_t c = 0; c < 2; ++c) {
        in[c] = static_cast<const float*>(jack_port_get_buffer(self->inputs_[c], frames));
        auto* out = static_cast<float*>(jack_port_get_buffer(self->outputs_[c], frames));
        if (out != in[c]) {
            std::memcpy(out, in[c], n * sizeof(float));
        }
    }
    JackNodeDelegate* delegate = self->delegate_.load(std::memory_order_acquire);
    if (delegate == nullptr || !self->connected() ||
        frames > jack_nframes_t(CaptureBufferRing::kBufferFrames)) {
        return 0;
    }
    float* block = self->ring_.advance();
    for (size_t k = 0; k < n; ++k) {
        block[2 * k] = in[0][k];
        block[2 * k + 1] = in[1][k];
    }
    delegate->audioEffectDidGetAudioData(AudioBlock{int32_t(frames), block});
    return 0;
}

int JackNode::bufferSizeCallback(jack_nframes_t frames, void* arg) {
    static_cast<JackNode*>(arg)->bufferFrames_.store(int32_t(frames), std::memory_order_release);
    return 0;
}

int JackNode::xrunCallback(void* arg) {
    static_cast<JackNode*>(arg)->xruns_.fetch_add(1, std::memory_order_acq_rel);
    return 0;
}

// The notification thread only posts (which allocates and takes the mailbox's
// lock: this thread is not the real-time one).
void JackNode::portConnectCallback(jack_port_id_t, jack_port_id_t, int, void* arg) {
    auto* self = static_cast<JackNode*>(arg);
    self->mainCalls_.post([self] { self->audioUnitPropertyChanged(); });
}

void JackNode::shutdownCallback(jack_status_t, const char*, void* arg) {
    auto* self = static_cast<JackNode*>(arg);
    const uint64_t generation = self->clientGeneration_.load(std::memory_order_acquire);
    self->mainCalls_.post([self, generation] {
        // A late call for a client already replaced does nothing.
        if (self->clientGeneration_.load(std::memory_order_acquire) == generation) {
            self->serverWentAway();
        }
    });
}

} // namespace widmo
