#pragma once

#include "audio/AudioIOFailure.h"

#include <QAudio>
#include <QAudioDevice>
#include <QObject>
#include <QPointer>
#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>

class QAudioSink;
class QAudioSource;
class QIODevice;

namespace widmo {

class AudioIOUnitClient;
class AudioRenderDevice;

/// The platform's audio I/O unit: one capture stream (interleaved stereo
/// 32-bit float) and one playback stream (mono 32-bit float) on Qt Multimedia,
/// driven by the event loop of the audio thread.
///
/// Each notification of the capture stream is one input cycle: the unit asks
/// the client to take the waiting frames (`inputAvailable`, then
/// `renderInput`), at most one capture buffer at a time. Each read of the
/// playback stream is one render cycle (`renderOutput`).
///
/// Threading: the object lives on the audio thread, and every function except
/// `inputVolume` is called there (through queued calls from other threads).
/// Client callbacks run on the audio thread.
class AudioIOUnit : public QObject {
    Q_OBJECT
public:
    static constexpr int32_t kInputFrameBytes = 2 * int32_t(sizeof(float));
    /// Most frames handed to the client in one input cycle (one capture buffer).
    static constexpr int32_t kMaxInputFrames = 32768;

    struct Config {
        QAudioDevice input;  ///< capture device; null with `enableInput` fails the start
        QAudioDevice output; ///< playback device; null with `enableOutput` fails the start
        bool enableInput = false;
        bool enableOutput = false;
        int sampleRate = 44100;       ///< capture rate, Hz
        int outputSampleRate = 44100; ///< playback rate, Hz
        int ioBufferFrames = 512;     ///< device buffer in frames (latency of one cycle)
        float inputVolume = 1.0f;     ///< capture volume 0..1
    };

    struct Result {
        AudioIOFailure failure = AudioIOFailure::None;
        QString deviceName; ///< description of the device that failed
        bool ok() const { return failure == AudioIOFailure::None; }
    };

    explicit AudioIOUnit(AudioIOUnitClient& client, QObject* parent = nullptr);
    ~AudioIOUnit() override;

    /// Opens and starts the streams `config` enables. On failure nothing stays
    /// open, and the result names the failure and the device.
    Result start(const Config& config);
    /// Closes every stream; no client callback follows. Safe when nothing runs.
    void stop();
    bool isRunning() const { return source_ != nullptr || sink_ != nullptr; }

    /// Inside `inputAvailable`: copies up to `frames` waiting frames to `dest`
    /// (interleaved stereo) and returns how many were copied.
    int32_t renderInput(float* dest, int32_t frames);

    /// Capture volume 0..1, applied to the running stream and to later starts.
    void setInputVolume(float volume);
    /// Any thread.
    float inputVolume() const { return inputVolume_.load(std::memory_order_acquire); }

    /// The device the running capture stream reads (null when none runs).
    const QAudioDevice& runningInput() const { return runningInput_; }

    /// Whether the platform lets the capture volume be set: probed once on
    /// a stream that is not started.
    static bool probeInputVolumeSettable(const QAudioDevice& device);

private:
    void onInputReady();
    void onSourceStateChanged(QAudio::State state);
    void onSinkStateChanged(QAudio::State state);
    void fail(AudioIOFailure failure, const QString& deviceName);
    static AudioIOFailure streamFailure(QAudio::Error error, AudioIOFailure deviceFailure);

    AudioIOUnitClient& client_;
    QAudioSource* source_ = nullptr;
    // The stream deletes its device itself when the sound server goes away.
    QPointer<QIODevice> sourceIO_;
    QAudioSink* sink_ = nullptr;
    AudioRenderDevice* renderDevice_ = nullptr;
    QAudioDevice runningInput_;
    QAudioDevice runningOutput_;
    std::unique_ptr<char[]> discard_; ///< where frames the client leaves are read to
    int32_t framesTaken_ = 0;
    std::atomic<float> inputVolume_{1.0f};
};

} // namespace widmo
