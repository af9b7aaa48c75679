#pragma once

#include <QSize>

namespace widmo {

class SoundLevelMonitor;

/// What the settings, help and information screens ask of the main screen
/// (`MainScreen` implements it; tests use a recorder).
///
/// Threading: main thread only.
class SettingsDelegate {
public:
    virtual ~SettingsDelegate() = default;

    /// The settings panel is closing: apply the pending ("preferred") values;
    /// when the document geometry changes the analyser is stopped and the
    /// document rebuilt.
    virtual void settingsWillClose() = 0;
    /// Stops the analyser and refreshes the toolbar (a screen that cannot work
    /// while it runs, such as the audio input while playing).
    virtual void settingsNeedStopAnalyzer() = 0;
    /// Redraws every chart view.
    virtual void refreshAllViews() = 0;
    /// The octave band count changed: the band tables are rebuilt and the RTA
    /// values cleared (0.3 s later, on the main queue).
    virtual void generateOctaveRTAIndexes() = 0;
    /// The min/max hold switches changed: the chart's measuring panel and the
    /// gain/reset button follow.
    virtual void refreshSecondChartMeasuringView() = 0;
    /// The screen on top of the settings panel wants this size (points).
    virtual void setSettingsPopOverContentSize(QSize size) = 0;
    /// The recording's sound level meter, for "Calibrate…"; null where there is none.
    virtual const SoundLevelMonitor* soundLevelMonitor() const { return nullptr; }
    /// Leq, the maxima and the peak start again.
    virtual void resetSoundLevels() {}
    /// The analyser records.
    virtual bool analyzerRecording() const { return false; }
};

} // namespace widmo
