#pragma once

#include "engine/AudioBlock.h"

namespace widmo {

/// What the inter-app audio node (`JackNode`) calls on its delegate, the
/// analysis engine.
class JackNodeDelegate {
public:
    virtual ~JackNodeDelegate() = default;

    /// One block that passed through the node: `count` frames of interleaved
    /// stereo float at the node's sample rate. Called once per processing
    /// cycle while another program is connected, on the node's real-time
    /// thread: the implementation must not lock, wait or allocate. The block
    /// is valid during the call only.
    virtual void audioEffectDidGetAudioData(AudioBlock data) = 0;
};

} // namespace widmo
