#pragma once

#include <cstdint>

namespace widmo {

class SpectrogramScrollViewInterface;

/// The part of the spectrogram's axis view (`SpectrogramView`) that the engine
/// uses. Implemented by the render/charts libraries; the engine works without
/// one (a product without the spectrogram passes none).
///
/// Threading: main thread, except `addFFTdata` (the analysis queue, one column
/// at a time in interval order) and `setNeedsDisplay` (also the real-time
/// playback thread: it must only raise a flag, without locking or allocating).
class SpectrogramViewInterface {
public:
    virtual ~SpectrogramViewInterface() = default;

    /// The scrolling view inside; never null.
    virtual SpectrogramScrollViewInterface* spectrogramScrollView() = 0;

    /// One column: `fftOutSize` power values of interval `intervalIndex`. The
    /// data stays valid until the interval 256 later has been computed. Null
    /// data: the interval lies in a capture gap and is drawn as one.
    virtual void addFFTdata(const float* fftData, int64_t intervalIndex) = 0;

    virtual void startScrolling() = 0;
    virtual void pauseScrolling() = 0;
    virtual void setAnalyzerRunning(bool running) = 0;
    virtual void setNeedsDisplay() = 0;
    virtual void setNeedsDisplayWithSubviews() = 0;

    /// Creates the segments for the current document geometry.
    virtual void prepareData() = 0;
    /// Forgets every column.
    virtual void clearData() = 0;
    /// Rebuilds the axis text textures for the current geometry.
    virtual void prepareTextures() = 0;
};

} // namespace widmo
