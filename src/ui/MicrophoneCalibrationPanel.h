#pragma once

#include <QWidget>

class QLabel;
class QPushButton;

namespace widmo {

class AnalyzerDefaults;
class AudioSession;
class SettingsDelegate;

/// The microphone calibration of the current input device, remembered per
/// device: its calibration file (chosen, checked and shown with the maker's
/// sensitivity line and its frequency range; a bad file is refused with a
/// message naming the file and its first bad line, and the previous one
/// stays), and its SPL offset, set from the file's sensitivity or by
/// "Calibrate…" with a sound calibrator, or forgotten. A row of the
/// "Audio input" settings page.
///
/// Threading: main thread only.
class MicrophoneCalibrationPanel : public QWidget {
    Q_OBJECT
public:
    /// `defaults`, `audio` and `delegate` must outlive the panel.
    MicrophoneCalibrationPanel(AnalyzerDefaults& defaults, AudioSession& audio,
                               SettingsDelegate& delegate, QWidget* parent = nullptr);

    /// Follows the current input device and shows its calibration.
    void refresh();
    /// Checks `path` and makes it the device's calibration file; false (and
    /// a message) when the file is refused.
    bool chooseFile(const QString& path);
    /// Opens the "Calibrate…" dialog.
    void calibrate();

    QLabel* deviceLabel() const { return device_; }
    QLabel* fileLabel() const { return file_; }
    QLabel* offsetLabel() const { return offset_; }
    QPushButton* sensitivityButton() const { return useSensitivity_; }
    QPushButton* calibrateButton() const { return calibrate_; }
    QPushButton* forgetButton() const { return forget_; }

private:
    AnalyzerDefaults& defaults_;
    AudioSession& audio_;
    SettingsDelegate& delegate_;
    QLabel* device_;
    QLabel* file_;
    QLabel* offset_;
    QPushButton* choose_;
    QPushButton* remove_;
    QPushButton* useSensitivity_;
    QPushButton* calibrate_;
    QPushButton* forget_;
};

} // namespace widmo
