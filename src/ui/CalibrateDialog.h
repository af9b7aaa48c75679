#pragma once

#include "engine/CalibratorReading.h"

#include <QDialog>

class QDoubleSpinBox;
class QLabel;
class QPushButton;
class QTimer;

namespace widmo {

class SettingsDelegate;
class SoundLevelSettings;

/// "Calibrate…": with a sound calibrator on the microphone and the analyser
/// running, the user enters the calibrator's level (94 dB SPL unless changed;
/// remembered per input) and presses Measure. The dialog restarts the
/// meter's integration, averages the level over 3 s and, when the input is a
/// steady tone (see `CalibratorReading`), sets the input's SPL offset so that
/// the reading equals the calibrator's level; otherwise it says why and the
/// offset stays as it was.
///
/// Threading: main thread only.
class CalibrateDialog : public QDialog {
    Q_OBJECT
public:
    static constexpr double kWindowSeconds = 3.0;

    /// `settings` and `delegate` must outlive the dialog.
    CalibrateDialog(SoundLevelSettings& settings, SettingsDelegate& delegate, double sampleRate,
                    QWidget* parent = nullptr);

    /// Starts the measurement (the Measure button).
    void measure();
    bool measuring() const;

    QDoubleSpinBox* calibratorLevel() const { return level_; }
    QPushButton* measureButton() const { return measure_; }
    /// What the dialog says: the instructions, the progress, the outcome.
    QLabel* statusLabel() const { return status_; }

signals:
    /// The measurement ended; `accepted` when the offset was set.
    void measured(bool accepted);

private:
    void takeReading();
    void finish();

    SoundLevelSettings& settings_;
    SettingsDelegate& delegate_;
    double sampleRate_;
    QDoubleSpinBox* level_;
    QPushButton* measure_;
    QLabel* status_;
    QTimer* timer_;
    CalibratorReading reading_;
    int settleTicks_ = 0;
};

} // namespace widmo
