#pragma once

#include <cstdint>
#include <functional>

namespace widmo {

class AudioSessionDelegate;

/// The part of the audio object (`AudioSession`, the process's `sharedAudio`) that
/// the analysis engine and the main screen use. The audio library implements it.
///
/// Threading: `isRecording`, `isPlaying` and `currentInputChannel` are read from
/// the delivery queue, the real-time thread and the main thread, so the
/// implementation keeps them in atomics. Everything else is called on the main
/// thread. Completions are called exactly once, on the main thread, when the
/// request is carried out; a start that is ignored (another start pending or
/// running) never calls its completion.
class AudioSessionInterface {
public:
    virtual ~AudioSessionInterface() = default;

    /// The receiver of captured blocks and the source of playback samples; null
    /// for none. The engine registers itself at construction.
    virtual void setDelegate(AudioSessionDelegate* delegate) = 0;
    virtual AudioSessionDelegate* delegate() const = 0;

    /// The I/O unit runs for recording / for playback.
    virtual bool isRecording() const = 0;
    virtual bool isPlaying() const = 0;
    /// A start was requested and has not finished yet.
    virtual bool isSetupInProgress() const = 0;

    /// Which channel of the stereo input is analysed: 0 (first) or 1 (second).
    virtual int64_t currentInputChannel() const = 0;
    virtual void setCurrentInputChannel(int64_t channel) = 0;

    /// Starts capture; the completion gets the outcome.
    virtual void startRecorder(std::function<void(bool)> completion) = 0;
    /// Starts playback; the completion gets the outcome.
    virtual void startPlayer(std::function<void(bool)> completion) = 0;
    /// Stops whichever runs; does nothing when idle.
    virtual void stop() = 0;
};

} // namespace widmo
