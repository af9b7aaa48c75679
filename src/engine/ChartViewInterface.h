#pragma once

#include <cstdint>

namespace widmo {

class ScrollViewInterface;
struct SoundLevels;

/// The part of the second chart (`ChartView`, with its scroll view and level
/// meter) that the engine uses. Implemented by the charts library.
///
/// Threading: main thread only.
class ChartViewInterface {
public:
    virtual ~ChartViewInterface() = default;

    /// The chart's scrolling view; never null.
    virtual ScrollViewInterface* chartScrollView() = 0;

    /// One interval's cached results: `fftOutSize` power values, the `fftSize`
    /// raw window samples, and the EGG channel's window (null without the EGG
    /// product). The pointers address the FFT engine's result slots: the data
    /// stays valid until the interval 256 later has been computed, so what the
    /// chart keeps for later drawing it copies during this call.
    virtual void addFFTdata(const float* fftData, const float* fftWindowData,
                            const float* eggWindowData) = 0;

    /// The sound level meter's newest figures (dB re full scale) for the level
    /// meter and its read-outs; from then on the meter shows these rather than
    /// the interval's spectrum level, until `clearData`.
    virtual void showSoundLevels(const SoundLevels& levels) = 0;

    /// 0 spectrum, 1 oscilloscope, 2 octave RTA.
    virtual int32_t typeOfChart() const = 0;
    virtual void setAnalyzerRunning(bool running) = 0;
    virtual void setNeedsDisplayWithSubviews() = 0;
    /// Forgets the shown data; the level meter drops to -144 dB.
    virtual void clearData() = 0;
    /// Rebuilds the axis text textures for the current geometry.
    virtual void prepareTextures() = 0;
};

} // namespace widmo
