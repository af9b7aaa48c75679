#pragma once

namespace widmo {

/// The part of a scrolling GL chart (`GLScrollView`) that the engine uses;
/// implemented by the chart's scroll view and the spectrogram's scroll view.
///
/// Threading: main thread only.
class ScrollViewInterface {
public:
    virtual ~ScrollViewInterface() = default;

    /// Content transform back to identity, redraw, tell the axis view.
    virtual void zoomOut() = 0;
    /// The measuring cursor is on.
    virtual bool measuringActivated() const = 0;
    virtual void setMeasuringActivated(bool activated) = 0;
    /// The partner view that mirrors this view's measuring cursor; null for none.
    virtual void setScrollViewDelegate(ScrollViewInterface* partner) = 0;
};

} // namespace widmo
