#pragma once

#include "ui/SectionedPage.h"

class QCheckBox;
class QDoubleSpinBox;
class QLabel;
class QPushButton;

namespace widmo {

class AnalyzerDefaults;
class SegmentedControl;
class SettingsDelegate;

/// The "Sound level" settings page: the meter's frequency weighting (Z, A,
/// C) and time weighting (Fast, Slow), whether the spectrum, RTA and
/// spectrogram show the weighting too, a reset of Leq, the maxima and the
/// peak, and the level log (on or off, its period and its file). The
/// microphone's calibration is on the "Audio input" page, per device.
///
/// Weighting changes take effect at the next start of the analyser (the
/// filters are designed for a recording); the page says so.
///
/// Threading: main thread only.
class SoundLevelPage : public SectionedPage {
    Q_OBJECT
public:
    /// Value of `lastSettingsPage` while this page is shown.
    static constexpr int kSettingsPage = 5;

    /// `defaults` and `delegate` must outlive the page.
    SoundLevelPage(AnalyzerDefaults& defaults, SettingsDelegate& delegate,
                   QWidget* parent = nullptr);

    /// Sets every control from the settings.
    void refresh();
    void viewWillAppear() override;

    SegmentedControl* weightingControl() const { return weighting_; }
    SegmentedControl* timeWeightingControl() const { return timeWeighting_; }
    QCheckBox* weightDisplaysSwitch() const { return weightDisplays_; }
    QPushButton* resetButton() const { return reset_; }
    QCheckBox* logSwitch() const { return log_; }
    QDoubleSpinBox* logPeriod() const { return logPeriod_; }
    QLabel* logPathLabel() const { return logPath_; }
    QPushButton* logFileButton() const { return logFile_; }

private:
    AnalyzerDefaults& defaults_;
    SettingsDelegate& delegate_;
    SegmentedControl* weighting_;
    SegmentedControl* timeWeighting_;
    QCheckBox* weightDisplays_;
    QPushButton* reset_;
    QCheckBox* log_;
    QDoubleSpinBox* logPeriod_;
    QLabel* logPath_;
    QPushButton* logFile_;
};

} // namespace widmo
