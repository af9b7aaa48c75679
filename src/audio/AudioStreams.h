#pragma once

#include "audio/AudioDevice.h"
#include "audio/AudioIOFailure.h"
#include "audio/CallMailbox.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <cstdint>

struct pa_stream;

namespace widmo {

class AudioStreamsClient;
class SoundServer;

/// The platform's audio I/O unit: one capture stream (interleaved stereo
/// 32-bit float) and one playback stream (mono 32-bit float) on the sound
/// server's connection (libpulse).
///
/// Each read notification of the capture stream is one input cycle: the unit
/// asks the client to take the waiting frames (`inputAvailable`, then
/// `renderInput`), at most one capture buffer at a time. Each write request of
/// the playback stream is one render cycle (`renderOutput`). A stream that
/// fails while running (its device went away, or the server did) closes both
/// streams and tells the client (`unitFailed`) on the unit's own thread.
///
/// Threading: the object lives on one thread (its owner's; the audio object's
/// control thread), where `start`, `stop` and `setInputVolume` are called
/// and `unitFailed` arrives; none of them may be called on the sound server's
/// main loop thread. `inputAvailable`, `renderInput` and `renderOutput` run on
/// that main loop thread (the real-time thread), with the server's lock held:
/// they neither allocate nor wait; `start` and `stop` take the lock.
/// `inputVolume` is an atomic, any thread.
class AudioStreams : public QObject {
    Q_OBJECT
public:
    static constexpr int32_t kInputFrameBytes = 2 * int32_t(sizeof(float));
    /// Most frames handed to the client in one input cycle (one capture buffer).
    static constexpr int32_t kMaxInputFrames = 32768;

    struct Config {
        AudioDevice input;  ///< capture device; null with `enableInput` fails the start
        AudioDevice output; ///< playback device; null with `enableOutput` fails the start
        bool enableInput = false;
        bool enableOutput = false;
        int sampleRate = 44100;       ///< capture rate, Hz
        int outputSampleRate = 44100; ///< playback rate, Hz
        int ioBufferFrames = 512;     ///< device buffer in frames (latency of one cycle)
        /// Frames the playback stream keeps queued; 0: four device buffers, at
        /// least 80 ms (safe for playback). Listening to the input asks less.
        int outputBufferFrames = 0;
        float inputVolume = 1.0f; ///< capture volume 0..1
    };

    struct Result {
        AudioIOFailure failure = AudioIOFailure::None;
        QString deviceName; ///< description of the device that failed
        bool ok() const { return failure == AudioIOFailure::None; }
    };

    /// `client` and `server` must outlive the unit.
    AudioStreams(AudioStreamsClient& client, SoundServer& server, QObject* parent = nullptr);
    ~AudioStreams() override;

    /// Opens and starts the streams `config` enables; returns once they run
    /// (a round trip to the server) or failed. On failure nothing stays open,
    /// and the result names the failure and the device. Without a server the
    /// failure is `ServerLost`.
    Result start(const Config& config);
    /// Closes every stream; no client callback follows. Safe when nothing runs.
    void stop();
    bool isRunning() const { return source_ != nullptr || sink_ != nullptr; }

    /// Inside `inputAvailable` only (real-time thread): copies up to `frames`
    /// waiting frames to `dest` (interleaved stereo) and returns how many were
    /// copied.
    int32_t renderInput(float* dest, int32_t frames);

    /// Capture volume 0..1 (the capture stream's volume on the server, linear),
    /// applied to the running stream and to later starts.
    void setInputVolume(float volume);
    /// Any thread.
    float inputVolume() const { return inputVolume_.load(std::memory_order_acquire); }

    /// Times the playback stream ran dry since the last start (any thread).
    int64_t outputUnderruns() const { return underruns_.load(std::memory_order_acquire); }

    /// The device the running capture stream reads (null when none runs).
    const AudioDevice& runningInput() const { return runningInput_; }

private:
    static void onSourceState(pa_stream* stream, void* self);
    static void onSinkState(pa_stream* stream, void* self);
    static void onRead(pa_stream* stream, size_t bytes, void* self);
    static void onWrite(pa_stream* stream, size_t bytes, void* self);
    static void onUnderflow(pa_stream* stream, void* self);
    pa_stream* openStream(const Config& config, bool capture, Result& result);
    void closeStream(pa_stream*& stream);
    void applyInputVolume();
    void streamFailed(pa_stream* stream, bool capture);

    AudioStreamsClient& client_;
    SoundServer& server_;
    CallMailbox calls_; // the unit's thread: failures travel here
    // Under the server's lock.
    pa_stream* source_ = nullptr;
    pa_stream* sink_ = nullptr;
    bool running_ = false;    ///< both streams are up; a failure from now on is reported
    uint64_t generation_ = 0; ///< counts starts, so a late failure cannot stop a newer start
    AudioDevice runningInput_;
    AudioDevice runningOutput_;
    // The capture fragment being handed out (real-time thread).
    const char* fragment_ = nullptr;
    int32_t fragmentFrames_ = 0;
    int32_t fragmentPos_ = 0;
    int32_t framesTaken_ = 0;
    std::atomic<float> inputVolume_{1.0f};
    std::atomic<int64_t> underruns_{0};
};

} // namespace widmo
