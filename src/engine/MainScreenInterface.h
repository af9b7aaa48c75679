#pragma once

#include <functional>

namespace widmo {

/// The main screen's operations that the engine and the audio library call
/// (`MainScreen`, the process's `sharedMainScreen`).
///
/// Threading: main thread only; other threads post to the main queue first.
class MainScreenInterface {
public:
    virtual ~MainScreenInterface() = default;

    /// Stops the analyser, refreshes the buttons with changes enabled, then runs
    /// `block` on the main queue after the stop delay.
    virtual void stopAnalyzerWithoutBlockButtonsAndRunBlock(std::function<void()> block) = 0;
    /// Stops playback and recording; refreshes the buttons, enabled or not.
    virtual void stopAnalyzerWithRefreshButtonsEnable(bool enable) = 0;
};

} // namespace widmo
