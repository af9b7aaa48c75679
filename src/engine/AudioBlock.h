#pragma once

#include <cstdint>

namespace widmo {

/// One block of samples passed between the audio object and the engine.
/// Capture blocks are interleaved stereo (2 floats a frame); playback blocks
/// are mono (1 float a frame). The block does not own `data`.
struct AudioBlock {
    int32_t count = 0;     ///< frames
    float* data = nullptr; ///< 32-bit float samples
};

} // namespace widmo
