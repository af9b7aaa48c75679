#pragma once

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
};

} // namespace widmo
