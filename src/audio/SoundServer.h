#pragma once

#include "audio/AudioDevice.h"
#include "audio/CallMailbox.h"

#include <QList>
#include <QObject>

#include <atomic>
#include <cstdint>

struct pa_context;
struct pa_threaded_mainloop;
struct pa_time_event;

namespace widmo {

/// The connection to the sound server (PulseAudio, or PipeWire's PulseAudio
/// layer) through libpulse: a threaded main loop, the context on it, and the
/// server's devices as they are now.
///
/// The connection outlives the server: when the server goes away (killed,
/// restarted, crashed) the device lists empty, `devicesChanged` follows, and a
/// new context tries to connect every `kReconnectMs` until the server is back;
/// streams opened after that work again. Streams of the lost connection fail
/// (their owners see the failure in their state callbacks).
///
/// The device lists are refreshed on every change the server announces
/// (sources, sinks, the server's defaults). Monitor sources (a sink's output
/// seen as a source) are not listed as inputs.
///
/// Threading: construction, destruction, the device queries and
/// `devicesChanged` belong to the main thread. The main loop has its own
/// thread (the audio thread): every libpulse callback runs there, with the
/// main loop's lock held. Other threads take that lock through `lock` /
/// `unlock` (never on the main loop's thread itself) before touching the
/// context or a stream, and hold it briefly: the capture and playback
/// callbacks wait for it. The device lists are guarded by the same lock.
/// `isConnected` is an atomic, any thread.
class SoundServer : public QObject {
    Q_OBJECT
public:
    /// Delay between two connection attempts while the server is away, ms.
    static constexpr int kReconnectMs = 200;
    /// Longest wait of the constructor for the first device lists, ms.
    static constexpr int kFirstListTimeoutMs = 2000;

    /// Starts the main loop and connects (the server named by PULSE_SERVER, or
    /// the user's own); returns once the first device lists are in, or the
    /// first attempt failed, or after `kFirstListTimeoutMs`. Main thread.
    explicit SoundServer(QObject* parent = nullptr);
    /// Disconnects and ends the main loop's thread. Every stream on the
    /// context must be gone before.
    ~SoundServer() override;
    SoundServer(const SoundServer&) = delete;
    SoundServer& operator=(const SoundServer&) = delete;

    /// The server answers and its device lists are known.
    bool isConnected() const { return connected_.load(std::memory_order_acquire); }

    /// Capture devices, in the server's order; empty without a server.
    QList<AudioDevice> inputs() const;
    /// The server's default source when it is listed as an input, else null.
    AudioDevice defaultInput() const;
    /// The server's default sink; null without one.
    AudioDevice defaultOutput() const;

    // --- For stream owners (any thread but the main loop's) -------------------------------

    void lock() const;
    void unlock() const;
    /// Under the lock: the connected context, or null while the server is away.
    pa_context* context() const;
    /// Under the lock: waits for the next `signalWaiters` (a state change of a
    /// stream or of the connection).
    void wait() const;
    /// On the main loop's thread: wakes every `wait`.
    void signalWaiters() const;

signals:
    /// The inputs, the default input or the default output changed, or the
    /// server went away or came back. Main thread.
    void devicesChanged();

private:
    static void onContextState(pa_context* context, void* self);
    static void onSubscription(pa_context* context, int type, uint32_t index, void* self);
    void connectContext();
    void scheduleReconnect();
    void dropContext();
    void refresh();
    void finishRefresh();

    pa_threaded_mainloop* mainloop_ = nullptr;
    pa_context* context_ = nullptr;
    pa_time_event* reconnectTimer_ = nullptr;
    std::atomic<bool> connected_{false};

    // Main loop's thread, or under the lock.
    bool firstAttemptDone_ = false;
    bool refreshing_ = false;
    bool refreshAgain_ = false;
    bool shuttingDown_ = false;
    bool retrying_ = false; ///< the server is away and being waited for
    QByteArray defaultSourceName_;
    QByteArray defaultSinkName_;
    AudioDevice pendingOutput_;
    QList<AudioDevice> pendingInputs_;
    // Published lists, under the lock.
    QList<AudioDevice> inputs_;
    QByteArray defaultInputId_;
    AudioDevice output_;

    CallMailbox mainCalls_; // lives on the main thread
};

} // namespace widmo
