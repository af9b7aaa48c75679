#pragma once

#include "ui/SectionedPage.h"

#include <array>
#include <functional>

class QCheckBox;
class QDoubleSpinBox;
class QSlider;
class QLabel;
class QListWidget;

namespace widmo {

class AnalyzerDefaults;
class AudioInputModel;
class FloatSlider;
class SegmentedControl;
class SettingsDelegate;
class AudioSession;
class JackNode;
class MicrophoneCalibrationPanel;

/// The "Audio input" settings page: the input picker (input device, data
/// source, channel as three lists side by side), the input device's own
/// sample rate with a warning when the document's rate is above it, and the
/// software and hardware input gains.
///
/// While the audio object plays, input selection is not offered: the picker
/// is hidden, the gains are disabled and `notAvailableDuringPlaybackLabel`
/// says why. While the page is shown it follows devices arriving and going
/// away. Choosing another input device while recording stops the analyser
/// (`SettingsDelegate::settingsNeedStopAnalyzer`): the next start opens it.
///
/// In a product with the JACK node (`JackNode::sharedAudioEffect`), the
/// page also turns the node on and off: it is another input of the analyser,
/// chosen beside the device, and its rate is compared with the document's as
/// the device's is. Turning it on without a JACK server says so and leaves it
/// off; the choice is kept in the settings (`kAudioEffectEnabledKey`).
///
/// Threading: main thread only.
class AudioInputPage : public SectionedPage {
    Q_OBJECT
public:
    enum Section {
        kSectionInput = 0,
        kSectionSoftwareGain,
        kSectionHardwareGain,
        kSectionAudioEffect
    };
    /// Settings key of the node's switch (boolean).
    static constexpr const char* kAudioEffectEnabledKey = "audioEffect.enabled";
    /// What the user is told when no JACK server answers.
    static constexpr const char* kNoJackServerMessage =
        "No JACK server is running. Start jackd, or on a PipeWire desktop start Widmo Studio "
        "with pw-jack, then turn the JACK node on again.";
    /// Value of `lastSettingsPage` while this page is shown.
    static constexpr int kSettingsPage = 4;
    /// Software gain slider range in dB (1 dB steps; below 3 dB snaps to 0).
    static constexpr float kMinSoftwareGain = -20.0f;
    static constexpr float kMaxSoftwareGain = 40.0f;

    /// `defaults`, `audio` and `delegate` must outlive the page.
    AudioInputPage(AnalyzerDefaults& defaults, AudioSession& audio, SettingsDelegate& delegate,
                   QWidget* parent = nullptr);
    ~AudioInputPage() override;

    /// Reloads the three lists, their selection and both gains.
    void refreshPickerInputSelection();
    /// With `delay` the refresh runs 0.2 s later, else at once.
    void refreshPickerInputWithDelay(bool delay);
    /// Shows or hides the picker and enables the gains by whether anything plays.
    void refreshInputSelectionEnabled();

    bool inputSelectionEnabled() const { return inputSelectionEnabled_; }
    void viewWillAppear() override;
    void viewWillDisappear() override;

    AudioInputModel* audioInputModel() const { return dataSource_; }
    /// The current input's microphone calibration.
    MicrophoneCalibrationPanel* calibrationPanel() const { return calibrationPanel_; }
    /// Column `component` of the picker (0 input, 1 data source, 2 channel).
    QListWidget* inputSourcePickerColumn(int component) const;
    QWidget* inputSourcePickerView() const { return picker_; }
    QLabel* inputSourceSoftwareLabel() const { return softwareLabel_; }
    FloatSlider* inputSourceSoftwareGainSlider() const { return softwareSlider_; }
    QLabel* inputSourceSoftwareGainValueLabel() const { return softwareValue_; }
    QLabel* inputSourceHardwareLabel() const { return hardwareLabel_; }
    FloatSlider* inputSourceHardwareGainSlider() const { return hardwareSlider_; }
    QLabel* inputSourceHardwareGainValueLabel() const { return hardwareValue_; }
    QLabel* hardwareGainNotAvailableLabel() const { return hardwareNotAvailable_; }
    QLabel* notAvailableDuringPlaybackLabel() const { return notAvailablePlaying_; }
    /// "Device rate: N Hz" of the current input (hidden without one).
    QLabel* deviceSampleRateLabel() const { return deviceRate_; }
    /// Shown when the document's rate is above the device's own rate.
    QLabel* sampleRateWarningLabel() const { return rateWarning_; }
    /// Listening to ultrasound (products with transposition; else null): the
    /// switch, the mode (0 transposition, 1 heterodyne), the octaves down
    /// (segment k = k + 1 octaves, 1..6), the 20 kHz filter, the heterodyne's
    /// tuning in kHz and band (2.5, 5, 10 kHz). All but the switch take effect
    /// while recording (a playback stops first). Playback (products with playback; else null): how
    /// the document plays (0 as recorded, 1 slowed down, 2 transposed, 3 heterodyne; 2 and 3 only
    /// with transposition), the octaves of slowed-down playback, and the listening level in dB
    /// (also while recording).
    QCheckBox* transpositionSwitch() const { return transpositionSwitch_; }
    SegmentedControl* listeningModeControl() const { return listeningMode_; }
    SegmentedControl* transpositionOctavesControl() const { return transpositionOctaves_; }
    QCheckBox* transpositionFilterSwitch() const { return transpositionFilter_; }
    QDoubleSpinBox* heterodyneTuningField() const { return tuningField_; }
    SegmentedControl* heterodyneBandControl() const { return bandControl_; }
    SegmentedControl* playbackTypeControl() const { return playbackType_; }
    SegmentedControl* playbackOctavesControl() const { return playbackOctaves_; }
    FloatSlider* outputGainSlider() const { return outputSlider_; }
    QLabel* outputGainValueLabel() const { return outputValue_; }
    /// Output gain slider range in dB.
    static constexpr float kMinOutputGain = -40.0f;
    static constexpr float kMaxOutputGain = 20.0f;

    /// The node's switch and its state (null without a node).
    QCheckBox* audioEffectSwitch() const { return effectSwitch_; }
    QLabel* audioEffectStatusLabel() const { return effectStatus_; }

private:
    void reloadPicker();
    void refreshGainLabels();
    void setAudioEffectEnabled(bool enabled);
    void refreshAudioEffect();
    void addOutputSections();
    /// Shows the transposition and playback settings as they are.
    void refreshOutputControls();
    /// Runs `change` on the listening settings and hands them to a running
    /// recording at once; stops a playback first.
    void changeListeningSetting(const std::function<void()>& change);
    /// Runs `change` on the settings with nothing recording or playing: the
    /// audio threads read these settings, so a running analysis stops first.
    void changeOutputSetting(const std::function<void()>& change);

    AnalyzerDefaults& defaults_;
    AudioSession& audio_;
    SettingsDelegate& delegate_;
    AudioInputModel* dataSource_;
    bool inputSelectionEnabled_ = true;

    QWidget* picker_;
    std::array<QListWidget*, 3> columns_{};
    QLabel* notAvailablePlaying_;
    int pickerRow_ = -1;
    int playingRow_ = -1;
    QLabel* deviceRate_;
    QLabel* rateWarning_;
    int deviceRateRow_ = -1;
    int rateWarningRow_ = -1;
    QLabel* softwareLabel_;
    FloatSlider* softwareSlider_;
    QLabel* softwareValue_;
    QLabel* hardwareLabel_;
    FloatSlider* hardwareSlider_;
    QLabel* hardwareValue_;
    QLabel* hardwareNotAvailable_;
    int hardwareNotAvailableRow_ = -1;
    JackNode* effect_ = nullptr;
    QCheckBox* effectSwitch_ = nullptr;
    QLabel* effectStatus_ = nullptr;
    QCheckBox* transpositionSwitch_ = nullptr;
    SegmentedControl* listeningMode_ = nullptr;
    QDoubleSpinBox* tuningField_ = nullptr;
    SegmentedControl* bandControl_ = nullptr;
    SegmentedControl* transpositionOctaves_ = nullptr;
    QCheckBox* transpositionFilter_ = nullptr;
    SegmentedControl* playbackType_ = nullptr;
    SegmentedControl* playbackOctaves_ = nullptr;
    FloatSlider* outputSlider_ = nullptr;
    QLabel* outputValue_ = nullptr;
    MicrophoneCalibrationPanel* calibrationPanel_ = nullptr;
};

} // namespace widmo
