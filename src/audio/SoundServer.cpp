#include "audio/SoundServer.h"

#include <QCoreApplication>
#include <QtGlobal>

#include <pulse/context.h>
#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/mainloop-api.h>
#include <pulse/proplist.h>
#include <pulse/subscribe.h>
#include <pulse/thread-mainloop.h>
#include <pulse/timeval.h>

namespace widmo {

namespace {

AudioDevice deviceOf(const char* name, const char* description, const pa_sample_spec& format) {
    AudioDevice device;
    device.id = QByteArray(name);
    device.description = QString::fromUtf8(description != nullptr ? description : name);
    device.channels = format.channels;
    device.sampleRate = int(format.rate);
    return device;
}

timeval inMilliseconds(int ms) {
    timeval when{};
    pa_gettimeofday(&when);
    pa_timeval_add(&when, pa_usec_t(ms) * PA_USEC_PER_MSEC);
    return when;
}

} // namespace

SoundServer::SoundServer(QObject* parent) : QObject(parent) {
    mainloop_ = pa_threaded_mainloop_new();
    pa_threaded_mainloop_set_name(mainloop_, "widmo audio");
    pa_threaded_mainloop_lock(mainloop_);
    connectContext();
    if (pa_threaded_mainloop_start(mainloop_) < 0) {
        qWarning("error %d from %s", -1, "pa_threaded_mainloop_start");
        pa_threaded_mainloop_unlock(mainloop_);
        return;
    }
    // The first lists are awaited, so that the inputs are known as soon as the
    // object exists; a timer of the loop ends the wait at the limit.
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop_);
    const timeval limit = inMilliseconds(kFirstListTimeoutMs);
    pa_time_event* limitTimer = api->time_new(
        api, &limit,
        [](pa_mainloop_api*, pa_time_event*, const timeval*, void* self) {
            auto* server = static_cast<SoundServer*>(self);
            server->firstAttemptDone_ = true;
            server->signalWaiters();
        },
        this);
    while (!firstAttemptDone_)
        pa_threaded_mainloop_wait(mainloop_);
    api->time_free(limitTimer);
    pa_threaded_mainloop_unlock(mainloop_);
}

SoundServer::~SoundServer() {
    pa_threaded_mainloop_lock(mainloop_);
    shuttingDown_ = true;
    if (reconnectTimer_ != nullptr) {
        pa_threaded_mainloop_get_api(mainloop_)->time_free(reconnectTimer_);
        reconnectTimer_ = nullptr;
    }
    dropContext();
    pa_threaded_mainloop_unlock(mainloop_);
    pa_threaded_mainloop_stop(mainloop_);
    pa_threaded_mainloop_free(mainloop_);
}

QList<AudioDevice> SoundServer::inputs() const {
    lock();
    QList<AudioDevice> devices = inputs_;
    unlock();
    return devices;
}

AudioDevice SoundServer::defaultInput() const {
    AudioDevice device;
    lock();
    for (const AudioDevice& input : inputs_) {
        if (input.id == defaultInputId_)
            device = input;
    }
    unlock();
    return device;
}

AudioDevice SoundServer::defaultOutput() const {
    lock();
    AudioDevice device = output_;
    unlock();
    return device;
}

void SoundServer::lock() const { pa_threaded_mainloop_lock(mainloop_); }
void SoundServer::unlock() const { pa_threaded_mainloop_unlock(mainloop_); }
void SoundServer::wait() const { pa_threaded_mainloop_wait(mainloop_); }
void SoundServer::signalWaiters() const { pa_threaded_mainloop_signal(mainloop_, 0); }

pa_context* SoundServer::context() const { return isConnected() ? context_ : nullptr; }

// --- The main loop's thread (or under the lock) -------------------------------------------

void SoundServer::connectContext() {
    pa_proplist* properties = pa_proplist_new();
    const QByteArray name = QCoreApplication::applicationName().toUtf8();
    pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME,
                     name.isEmpty() ? "Widmo" : name.constData());
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "org.widmo.analyzer");
    context_ =
        pa_context_new_with_proplist(pa_threaded_mainloop_get_api(mainloop_), nullptr, properties);
    pa_proplist_free(properties);
    if (context_ == nullptr) {
        qWarning("error %d from %s", -1, "pa_context_new_with_proplist");
        scheduleReconnect();
        return;
    }
    pa_context_set_state_callback(context_, &SoundServer::onContextState, this);
    // No autospawn: a server that is away is waited for, never started here.
    if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        // Said once per absence of the server, not at every attempt.
        if (!retrying_)
            qWarning("error %d from %s", pa_context_errno(context_), "pa_context_connect");
        retrying_ = true;
        dropContext();
        firstAttemptDone_ = true;
        signalWaiters();
        scheduleReconnect();
    }
}

void SoundServer::dropContext() {
    if (context_ == nullptr)
        return;
    pa_context_set_state_callback(context_, nullptr, nullptr);
    pa_context_set_subscribe_callback(context_, nullptr, nullptr);
    pa_context_disconnect(context_);
    pa_context_unref(context_);
    context_ = nullptr;
}

void SoundServer::scheduleReconnect() {
    if (shuttingDown_ || reconnectTimer_ != nullptr)
        return;
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop_);
    const timeval when = inMilliseconds(kReconnectMs);
    reconnectTimer_ = api->time_new(
        api, &when,
        [](pa_mainloop_api* timerApi, pa_time_event* event, const timeval*, void* self) {
            auto* server = static_cast<SoundServer*>(self);
            timerApi->time_free(event);
            server->reconnectTimer_ = nullptr;
            server->dropContext();
            server->connectContext();
        },
        this);
}

void SoundServer::onContextState(pa_context* context, void* self) {
    auto* server = static_cast<SoundServer*>(self);
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY:
        pa_context_set_subscribe_callback(
            context,
            [](pa_context* c, pa_subscription_event_type_t type, uint32_t index, void* s) {
                onSubscription(c, int(type), index, s);
            },
            server);
        pa_operation_unref(pa_context_subscribe(context,
                                                pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SOURCE |
                                                                       PA_SUBSCRIPTION_MASK_SINK |
                                                                       PA_SUBSCRIPTION_MASK_SERVER),
                                                nullptr, nullptr));
        server->refresh();
        break;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED: {
        const bool wasConnected = server->connected_.exchange(false, std::memory_order_acq_rel);
        if (wasConnected)
            qWarning("error %d from %s", pa_context_errno(context), "pa_context (server lost)");
        server->inputs_.clear();
        server->defaultInputId_.clear();
        server->output_ = AudioDevice();
        server->refreshing_ = false;
        server->refreshAgain_ = false;
        server->firstAttemptDone_ = true;
        server->signalWaiters();
        if (wasConnected)
            server->mainCalls_.post([server] { emit server->devicesChanged(); });
        // The context is replaced from the timer, not inside its own callback.
        server->scheduleReconnect();
        break;
    }
    default:
        break;
    }
}

void SoundServer::onSubscription(pa_context*, int type, uint32_t, void* self) {
    const int facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    if (facility == PA_SUBSCRIPTION_EVENT_SOURCE || facility == PA_SUBSCRIPTION_EVENT_SINK ||
        facility == PA_SUBSCRIPTION_EVENT_SERVER)
        static_cast<SoundServer*>(self)->refresh();
}

void SoundServer::refresh() {
    // One refresh at a time; changes announced meanwhile cause one more.
    if (refreshing_) {
        refreshAgain_ = true;
        return;
    }
    refreshing_ = true;
    refreshAgain_ = false;
    pendingInputs_.clear();
    pendingOutput_ = AudioDevice();
    // The server's defaults, then the default sink's description, then the
    // sources: the replies arrive in this order.
    pa_operation* op = pa_context_get_server_info(
        context_,
        [](pa_context* c, const pa_server_info* info, void* self) {
            auto* server = static_cast<SoundServer*>(self);
            server->defaultSourceName_ = QByteArray(info ? info->default_source_name : nullptr);
            server->defaultSinkName_ = QByteArray(info ? info->default_sink_name : nullptr);
            if (!server->defaultSinkName_.isEmpty()) {
                pa_operation* sinkOp = pa_context_get_sink_info_by_name(
                    c, server->defaultSinkName_.constData(),
                    [](pa_context*, const pa_sink_info* sink, int eol, void* s) {
                        if (eol == 0 && sink != nullptr)
                            static_cast<SoundServer*>(s)->pendingOutput_ =
                                deviceOf(sink->name, sink->description, sink->sample_spec);
                    },
                    server);
                if (sinkOp != nullptr)
                    pa_operation_unref(sinkOp);
            }
            pa_operation* sourceOp = pa_context_get_source_info_list(
                c,
                [](pa_context*, const pa_source_info* source, int eol, void* s) {
                    auto* srv = static_cast<SoundServer*>(s);
                    if (eol != 0) {
                        srv->finishRefresh();
                        return;
                    }
                    if (source->monitor_of_sink == PA_INVALID_INDEX)
                        srv->pendingInputs_.append(
                            deviceOf(source->name, source->description, source->sample_spec));
                },
                server);
            if (sourceOp != nullptr)
                pa_operation_unref(sourceOp);
            else
                server->refreshing_ = false;
        },
        this);
    if (op != nullptr)
        pa_operation_unref(op);
    else
        refreshing_ = false;
}

void SoundServer::finishRefresh() {
    if (!refreshing_)
        return; // the connection was lost meanwhile
    refreshing_ = false;
    const bool changed = inputs_ != pendingInputs_ || defaultInputId_ != defaultSourceName_ ||
                         output_ != pendingOutput_ || !isConnected();
    inputs_ = pendingInputs_;
    defaultInputId_ = defaultSourceName_;
    output_ = pendingOutput_;
    connected_.store(true, std::memory_order_release);
    retrying_ = false;
    firstAttemptDone_ = true;
    signalWaiters();
    if (changed)
        mainCalls_.post([this] { emit devicesChanged(); });
    if (refreshAgain_)
        refresh();
}

} // namespace widmo
