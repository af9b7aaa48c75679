#pragma once

namespace widmo {

/// Told by a scrolling view when its content transform changes, so that the
/// chart's owner can redraw its axis labels.
class ScrollObserver {
public:
    virtual ~ScrollObserver() = default;
    /// Main thread; called while a gesture or glide runs and after a double tap.
    virtual void contentWasChanged() = 0;
};

} // namespace widmo
