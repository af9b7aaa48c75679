#pragma once

namespace widmo {

/// Callbacks from the analysis engine to its owner, the main screen. Both are
/// called on the main thread.
class AnalyzerControllerDelegate {
public:
    virtual ~AnalyzerControllerDelegate() = default;

    /// The engine stopped a recording by itself.
    virtual void recorderDidStop() = 0;
    /// Playback reached the newest interval and the engine stopped it.
    virtual void playerDidStop() = 0;
};

} // namespace widmo
