#include "dsp/OutputLimiter.h"

#include <algorithm>
#include <cmath>

namespace widmo {

void OutputLimiter::prepare(int32_t sampleRate) {
    release_ = float(1.0 - std::exp(-1.0 / (kReleaseSeconds * std::max(sampleRate, 1))));
    gain_ = 1.0f;
}

void OutputLimiter::process(float* data, int32_t count, float level) {
    float gain = gain_;
    for (int32_t i = 0; i < count; ++i) {
        const float v = data[i] * level;
        gain += (1.0f - gain) * release_;
        const float magnitude = std::fabs(v) * gain;
        if (magnitude > kCeiling) {
            gain = kCeiling / std::fabs(v);
            data[i] = std::copysign(kCeiling, v); // exactly, not above by a rounding
        } else {
            data[i] = v * gain;
        }
    }
    gain_ = gain;
}

} // namespace widmo
