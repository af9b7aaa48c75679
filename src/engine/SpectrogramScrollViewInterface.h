#pragma once

#include "engine/ScrollViewInterface.h"

#include <QPointF>

#include <cstdint>

namespace widmo {

/// The part of the spectrogram's scrolling view (`SpectrogramScrollView`) that
/// the engine uses. Implemented by the render library.
///
/// Threading: main thread, except `setPlayLinePosition`, which the playback
/// source also calls on the real-time audio thread; the implementation must
/// take that value without locking or allocating (an atomic, read at drawing).
class SpectrogramScrollViewInterface : public ScrollViewInterface {
public:
    /// Index of the interval shown at `position` (0 = left edge, 1 = right edge
    /// of the visible width). 0 while the spectrogram has no segments.
    virtual int64_t getIntervalIndexForSpectrogramPosition(float position) const = 0;
    /// Index of the interval under the measuring cursor.
    virtual int64_t getIntervalIndexForSpectrogramActualPosition() const = 0;

    /// How the cursor is grabbed: 0 by x distance, 1 by y, 2 by either.
    virtual void setMeasureScrollType(int32_t type) = 0;
    /// Cursor position in content space.
    virtual QPointF measuringActualPosition() const = 0;
    virtual void setMeasuringActualPosition(QPointF position) = 0;

    /// The play line, in intervals back from the newest one.
    virtual void setPlayLinePosition(float intervalsBeforeNewest) = 0;
    /// Recompute the second chart for the interval under the cursor.
    virtual void computeFFTInDelegateChart() = 0;
    /// Let a running pan glide to a stop.
    virtual void setNeedsPanningStopRamp() = 0;
};

} // namespace widmo
