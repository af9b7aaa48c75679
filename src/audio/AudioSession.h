#pragma once

#include "audio/AudioDevice.h"
#include "audio/AudioIOFailure.h"
#include "audio/AudioStreams.h"
#include "audio/AudioStreamsClient.h"
#include "audio/CallMailbox.h"
#include "audio/CaptureBufferRing.h"
#include "audio/SoundServer.h"
#include "dsp/OutputLimiter.h"
#include "dsp/Transposer.h"
#include "engine/AudioSessionInterface.h"
#include "engine/DispatchQueue.h"

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QThread>
#include <QTimer>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace widmo {

class AnalyzerDefaults;
class AnalyzerFeatures;
class AudioStreams;
class MainScreenInterface;
class MessageInterface;

/// The device's audio: live capture for the analysis engine and playback of
/// the document, on the sound server (libpulse: PulseAudio, or PipeWire's
/// PulseAudio layer).
///
/// The sound server's main loop thread is the audio thread, where the I/O
/// unit's (`AudioStreams`) callbacks run: every capture cycle renders the
/// waiting frames, interleaved stereo 32-bit float at the document's sample
/// rate, into the next of 128 capture buffers and posts the block, without a
/// copy or an allocation, to the serial delivery queue `audioDispatchQueue`,
/// which hands the blocks to the delegate's `didGetNewAudioData` in capture
/// order. Playback pulls mono float samples from the delegate's
/// `giveNewAudioData` once per render cycle.
///
/// Transposition (products with `featureTranspositionEnabled`): while a
/// recording runs with `recordingTranspositionOn`, the output runs too. Each
/// delivery hands the analysed channel, times the software input gain, to the
/// transposer before the delegate gets the block, and each render cycle past
/// the start-up skip drains it: the input comes out of the default output
/// 2^`realTimeTransposeOctavesDown` times lower (with
/// `realTimeTranspFilterBelow20kHz`, only what lies above 20 kHz), times the
/// output gain (the listening level), through the output limiter. With
/// `listeningMode` 1 the transposer heterodynes instead (tuned to
/// `heterodyneTuningHz`, band `heterodyneBandHz`). `refreshListening` hands
/// changed listening settings to a running recording without a restart.
/// While listening, the capture and playback buffers are short (one
/// transposer frame each way, 5.3 ms at 192 and 384 kHz; the playback stream
/// queues three), so that the sound follows the input closely. When the
/// transposer cannot keep up, the analyser is stopped and the user told
/// (`Transposer::kTooSlowMessage`), once per recording.
/// Slowed-down playback (`playbackTranspType` 1) opens the output at the
/// document's rate / 2^`playbackSlowDownOctaves`, so that the device plays
/// the same samples slower and lower.
///
/// The object also stands for the platform's audio session: the available
/// inputs, the preferred input (the device that the next start opens; none
/// means the sound server's default input, which a running capture follows
/// too), the hardware input gain (the capture volume) and the analysed
/// channel.
///
/// Failures: a start that cannot open its device completes with false and then
/// tells the user ("Recording disabled."); a device or sound server that goes
/// away while running stops the analyser and tells the user what happened and
/// what to do. A recording that keeps going (`KeepRecordingSettings`, or a
/// running level log) does not stop instead: it waits for its input, which
/// `isWaitingForInput` and `waitingText` show, and resumes by itself as soon
/// as the same device is back (after the settings' fallback time, any default
/// input). Its delegate hears of the loss (`captureStopped`) and, before the
/// first block after it, of the frames missed (`didMissAudio`): the time
/// between the end of the last block before the loss and the start of the
/// first one after it, on the monotonic clock of the audio thread. A device
/// that comes back at another rate or with fewer channels is converted by the
/// sound server to the recording's rate and stereo (a mono input feeds both
/// channels). A sound server that comes back is reconnected to by itself
/// (`SoundServer`): the next start works again. Platform errors are logged as
/// "error %d from %s".
///
/// Threading: starts, stops, the session functions and every completion run on
/// the main thread. A control thread opens and closes the streams (a start
/// waits there for the server's answer, not on the main thread; a stop waits
/// for the control thread). The capture and render callbacks run on the audio
/// thread: no allocation, no waiting, no lock of their own (they run under
/// the server's main loop lock, which other threads hold only briefly).
/// Deliveries run on the delivery queue. `isRecording`, `isPlaying`,
/// `currentInputChannel`, the delegate and the start-up counters are atomics
/// read across these threads. The transposer is set up on the main thread
/// before the streams open, fed on the delivery queue and drained on the audio
/// thread (see `Transposer`); the render cycle reports "too slow" through an
/// atomic that a main-thread timer reads, so that it never allocates.
class AudioSession final : public QObject,
                           public AudioSessionInterface,
                           private AudioStreamsClient {
    Q_OBJECT
public:
    static constexpr const char* kAudioQueueLabel = "org.widmo.analyzer.myAudioQueue";
    static constexpr int kCaptureBufferCount = CaptureBufferRing::kBufferCount;

    /// `defaults` and `features` must outlive the object. Main thread.
    explicit AudioSession(AnalyzerDefaults& defaults, const AnalyzerFeatures& features);
    /// Stops whatever runs, drains the delivery queue and ends the audio thread.
    ~AudioSession() override;
    AudioSession(const AudioSession&) = delete;
    AudioSession& operator=(const AudioSession&) = delete;

    /// The process's instance on the shared settings, created on first call
    /// (main thread, after the QCoreApplication) and destroyed with the
    /// application object.
    static AudioSession& sharedAudio();

    // --- The engine's view (AudioSessionInterface) ------------------------------------

    /// Replacing a delegate waits until the delivery queue has no block left for
    /// the old one, so that it may be destroyed right after.
    void setDelegate(AudioSessionDelegate* delegate) override;
    AudioSessionDelegate* delegate() const override {
        return delegate_.load(std::memory_order_acquire);
    }
    bool isRecording() const override { return isRecording_.load(std::memory_order_acquire); }
    bool isPlaying() const override { return isPlaying_.load(std::memory_order_acquire); }
    /// A playback or recording was requested and is not running yet.
    bool isSetupInProgress() const override;
    int64_t currentInputChannel() const override {
        return currentInputChannel_.load(std::memory_order_acquire);
    }
    /// 0 or 1; other values are clamped.
    void setCurrentInputChannel(int64_t channel) override;

    /// Starts capture unless a start is pending or anything runs (then nothing
    /// happens and the completion is never called). The completion gets the
    /// outcome once, on the main thread; a device that cannot be opened gives
    /// false and a "Recording disabled." message after the completion.
    void startRecorder(std::function<void(bool)> completion) override;
    /// Starts playback on the same terms; remembers the current input, which
    /// `stop` makes the preferred input again.
    void startPlayer(std::function<void(bool)> completion) override;
    /// Stops whichever runs; after playback the input that was current at its
    /// start becomes the preferred input again. Idle or pending: nothing.
    void stop() override;

    // --- Session ----------------------------------------------------------------------

    /// Readies the audio session for recording and playback. The completion gets
    /// false when the platform offers no audio device at all (no sound
    /// server); it runs on the main thread, never inline. After one success,
    /// later calls complete with true at once until `deactivateAudioSession`.
    void activateAudioSession(std::function<void(bool)> completion);
    void deactivateAudioSession();
    bool sessionActivated() const { return mSessionActivatedForMultiRoute_; }

    /// Activates the session, then opens and starts the streams for the pending
    /// request (`mWillRecord` / `mWillPlay`). The completion gets the outcome.
    void setupAndStartAudioUnit(std::function<void(bool)> completion);
    /// Closes every stream (waits for the audio thread to do so).
    void stopAudioUnits();
    /// Makes the built-in microphone the preferred input. A desktop has no
    /// device marked as built in; the system's default input stands for it.
    void setPreferredToInternalInput();

    /// Input devices the sound server offers now; empty without a server.
    QList<AudioDevice> availableInputs() const { return server_.inputs(); }
    /// The device the next start opens; null = the sound server's default input.
    AudioDevice preferredInput() const { return preferredInput_; }
    void setPreferredInput(const AudioDevice& device) { preferredInput_ = device; }
    /// The current route's input: the running capture device, else the
    /// preferred input when it is available, else the server's default input
    /// (else the first input); null when the server has no input. The
    /// device's fields are as the server lists them now.
    AudioDevice currentInput() const;
    /// The input that was current when playback started (null when none).
    AudioDevice lastPortBeforePlaying() const { return lastPortBeforePlaying_; }
    /// The connection to the sound server.
    SoundServer& soundServer() { return server_; }

    /// The server can set the capture volume of the current input (any input
    /// while the server answers: the capture stream's own volume).
    bool isInputGainSettable() const;
    /// Hardware input gain (capture volume), 0..1.
    float inputGain() const;
    /// Sets the capture volume, applied at once to a running capture.
    void setInputGain(float gain);

    /// Index of the capture buffer last written, 0..127. Any thread.
    int32_t actualBuffer() const { return ring_.actualBuffer(); }
    DispatchQueue& audioDispatchQueue() { return audioDispatchQueue_; }

    /// The transposer of the recording path; null without
    /// `featureTranspositionEnabled`. Its read-outs are for when nothing runs.
    const Transposer* transposer() const { return transposer_.get(); }
    /// The running (or last) recording feeds the transposer and plays its output.
    bool isTransposing() const { return transposing_.load(std::memory_order_acquire); }
    /// Main thread: the listening settings of now (octaves, filter, mode,
    /// tuning, band, level) take effect at the next render cycle.
    void refreshListening();
    /// Times the playback stream ran dry since it started (any thread).
    int64_t outputUnderruns() const;

    /// Render cycles counted since the recording started, and the number of
    /// first cycles whose input is dropped: trunc(sampleRate * 7 / 44100).
    int64_t renderCycleCounter() const { return renderCycles_.load(std::memory_order_acquire); }
    int32_t startupSkipThreshold() const { return skipThreshold_.load(std::memory_order_acquire); }
    /// Capture blocks of the running (or last) recording that were dropped
    /// because the delivery queue was a whole ring behind (the analysis could
    /// not keep up); logged when the recording stops. Any thread.
    int64_t droppedBlocks() const { return droppedBlocks_.load(std::memory_order_acquire); }

    /// Where failures are reported: the main screen stops the analyser, the
    /// alert helper tells the user. Either may be null; without a main screen
    /// the audio object stops itself. Main thread.
    void setMainScreen(MainScreenInterface* mainScreen) { mainScreen_ = mainScreen; }
    void setMessages(MessageInterface* messages) { messages_ = messages; }

    /// A recording that keeps going lost its input and waits for it.
    bool isWaitingForInput() const { return waiting_; }
    /// "Waiting for the sound server…" or "Waiting for <device>…"; empty when
    /// not waiting.
    QString waitingText() const;
    /// Milliseconds since the input was lost; 0 when not waiting.
    int64_t waitingMs() const { return waiting_ ? lostClock_.elapsed() : 0; }
    /// Times capture resumed by itself since the object was made, and the
    /// newest resume's delay after the input was back in the server's lists, ms.
    int64_t resumeCount() const { return resumeCount_; }
    int64_t lastResumeDelayMs() const { return lastResumeDelayMs_; }

    /// The title and text users see for `failure` of `deviceName` at
    /// `sampleRate` Hz while recording (or playing).
    struct Alert {
        QString title;
        QString message;
    };
    static Alert alertForFailure(AudioIOFailure failure, const QString& deviceName, int sampleRate,
                                 bool playback);

signals:
    /// The set of input devices or the server's default input changed (a
    /// device arrived or went away, the default was set, the server went away
    /// or came back), as the server announces it.
    void availableInputsChanged();
    /// Capture began or ended waiting for its input (`isWaitingForInput`).
    void waitingChanged();

private:
    /// One captured block on its way to the delegate; one per capture buffer,
    /// built once, so that posting never allocates.
    class DeliveryTask final : public DispatchQueue::Task {
    public:
        void run() override;
        AudioSession* owner = nullptr;
        float* data = nullptr;
        int32_t frames = 0;
        int64_t gapFrames = 0; ///< frames missed before this block (0: none)
        std::atomic<bool> queued{false};
    };

    // AudioStreamsClient, audio thread.
    void inputAvailable(int32_t frames) override;
    void renderOutput(int32_t frames, float* out) override;
    void unitFailed(AudioIOFailure failure, const QString& deviceName) override;

    void finishStart(bool recording, std::function<void(bool)> completion, bool ok);
    void handleRunningFailure(AudioIOFailure failure, const QString& deviceName);
    void reportFailure(AudioIOFailure failure, const QString& deviceName, bool playback,
                       bool startFailed);
    /// Main thread, before the streams open: sets the transposer up for the
    /// recording about to start when `transposing`, with the settings of now.
    void prepareTransposition(bool transposing, int sampleRate);
    /// Delivery queue: the analysed channel of a block, gained, into the transposer.
    void feedTransposer(const float* interleaved, int32_t frames);
    /// Main thread, on the timer while transposing: stops and tells the user
    /// once the render cycle has found the transposer too slow.
    void checkTranspositionTooSlow();
    void checkInputs();
    /// The running recording keeps going when its input goes away.
    bool keepsRecording() const;
    /// Main thread: closes the streams and waits for the input (see the class comment).
    void startWaiting(AudioIOFailure failure, const QString& deviceName);
    /// Main thread: opens the streams again when the input is back.
    void tryResume();
    void endWaiting();
    void followDefaultInput();
    int ioBufferFrames() const;

    AnalyzerDefaults& defaults_;
    const AnalyzerFeatures& features_;
    SoundServer server_; // first built, last gone: the unit's streams live on it

    // Fields of the audio object, in their declaration order.
    bool mSessionActivatedForMultiRoute_ = false;
    std::atomic<bool> mWillRecord_{false};
    std::atomic<bool> mWillPlay_{false};
    AudioDevice lastPortBeforePlaying_;
    std::atomic<bool> isRecording_{false};
    std::atomic<bool> isPlaying_{false};
    std::atomic<AudioSessionDelegate*> delegate_{nullptr};
    std::atomic<int64_t> currentInputChannel_{0};
    CaptureBufferRing ring_;
    DispatchQueue audioDispatchQueue_{kAudioQueueLabel};

    // Shared with the audio thread's callbacks.
    std::atomic<int64_t> renderCycles_{0};
    std::atomic<int64_t> droppedBlocks_{0};
    std::atomic<int32_t> skipThreshold_{0};
    std::atomic<bool> outputRunning_{false};
    std::array<DeliveryTask, CaptureBufferRing::kBufferCount> deliveries_;
    std::unique_ptr<Transposer> transposer_;
    std::vector<float> transposerFeed_; ///< delivery queue: one channel of a block, gained
    std::atomic<bool> transposing_{false};
    // The transposer's parameters and the output gain factor of the running
    // recording, for the render cycle.
    std::atomic<bool> transposeFilter_{false};
    std::atomic<int32_t> transposeFactor_{0};
    std::atomic<int32_t> transposeRate_{0};
    std::atomic<float> outputGainFactor_{1.0f};
    std::atomic<int32_t> listeningMode_{0};
    OutputLimiter limiter_;                         ///< render thread
    std::atomic<bool> transpositionTooSlow_{false}; ///< set by the render cycle
    QTimer tooSlowTimer_;                           ///< main thread
    // The capture gap: set up on the main thread before the streams reopen,
    // measured by the first capture cycle after them.
    std::atomic<bool> gapPending_{false};
    std::atomic<int64_t> lastBlockEndNs_{0}; ///< audio thread, monotonic clock
    std::atomic<int64_t> lostAtNs_{0};       ///< monotonic time of the loss
    std::atomic<int64_t> lostAtMs_{0};       ///< wall-clock time of the loss
    std::atomic<int32_t> gapCause_{0};       ///< CaptureGaps::Cause
    std::atomic<int32_t> captureRate_{48000};

    // Session state, main thread.
    AudioDevice preferredInput_;
    AudioDevice runningInput_;
    AudioStreams::Config runningConfig_; ///< of the running streams
    int runningSampleRate_ = 0;
    float inputGain_ = 1.0f;
    AudioIOFailure lastStartFailure_ = AudioIOFailure::None;
    QString lastStartFailureDevice_;
    MainScreenInterface* mainScreen_ = nullptr;
    MessageInterface* messages_ = nullptr;
    QList<QByteArray> knownInputIds_; ///< ids of the inputs, then the default input's
    // Waiting for the input of a recording that keeps going.
    bool waiting_ = false;
    bool resumeInFlight_ = false;
    AudioDevice lostInput_;   ///< the device waited for (null: any default input)
    QElapsedTimer lostClock_; ///< since the loss
    QElapsedTimer backClock_; ///< since the input was first seen back
    QTimer resumeTimer_;      ///< retries while waiting
    int64_t resumeCount_ = 0;
    int64_t lastResumeDelayMs_ = 0;

    CallMailbox mainCalls_;             // runs on the main thread
    QThread audioThread_;               // the control thread: opens and closes streams
    AudioStreams* unit_ = nullptr;      // lives on audioThread_
    CallMailbox* audioCalls_ = nullptr; // lives on audioThread_
};

} // namespace widmo
