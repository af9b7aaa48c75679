#pragma once

#include "audio/AudioIOFailure.h"

#include <QString>

#include <cstdint>

namespace widmo {

/// What the I/O unit calls back, the equivalent of the input and render
/// callbacks of a hardware I/O unit.
///
/// Threading: `inputAvailable` and `renderOutput` are called on the audio
/// thread (the sound server's main loop thread, with its lock held):
/// implementations do not lock, wait or allocate there, and do not call the
/// unit's `start` or `stop`. `unitFailed` is called on the unit's own thread.
class AudioStreamsClient {
public:
    virtual ~AudioStreamsClient() = default;

    /// `frames` (1..32,768) interleaved stereo float frames of input are waiting.
    /// Take them with `AudioStreams::renderInput` before returning; whatever is
    /// not taken is discarded, as the hardware discards unrendered input.
    virtual void inputAvailable(int32_t frames) = 0;

    /// Fill `frames` mono float samples of output at `out`.
    virtual void renderOutput(int32_t frames, float* out) = 0;

    /// A running stream failed; the unit has already closed its streams.
    /// `deviceName` is the description of the device concerned.
    virtual void unitFailed(AudioIOFailure failure, const QString& deviceName) = 0;
};

} // namespace widmo
