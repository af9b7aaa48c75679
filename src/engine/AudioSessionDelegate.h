#pragma once

#include "core/CaptureGaps.h"
#include "engine/AudioBlock.h"

namespace widmo {

/// What the audio object (`AudioSession`) calls on its delegate, the analysis engine.
class AudioSessionDelegate {
public:
    virtual ~AudioSessionDelegate() = default;

    /// One captured block: `count` frames of interleaved stereo float. Called
    /// once per block, in capture order, on the audio object's serial delivery
    /// queue (`audioDispatchQueue`). The block is valid during the call only.
    virtual void didGetNewAudioData(AudioBlock data) = 0;

    /// Fills `data->count` mono float samples at `data->data` for playback.
    /// Called once per render cycle while playing, on the real-time audio
    /// thread: the implementation must not lock, wait or allocate.
    virtual void giveNewAudioData(AudioBlock* data) = 0;
    /// A recording that keeps going lost its input at wall-clock time
    /// `lostAtMs` (ms since the epoch) because of `cause`; capture waits for
    /// it to come back. Main thread. A delegate that keeps no document ignores it.
    virtual void captureStopped(int64_t lostAtMs, CaptureGaps::Cause cause) {
        (void)lostAtMs;
        (void)cause;
    }
    /// Capture resumes after `frames` frames (at the capture rate) were
    /// missed since `lostAtMs`; the next block is the first one after the gap.
    /// Delivery queue, like the blocks.
    virtual void didMissAudio(int64_t frames, int64_t lostAtMs, CaptureGaps::Cause cause) {
        (void)frames;
        (void)lostAtMs;
        (void)cause;
    }
};

} // namespace widmo
