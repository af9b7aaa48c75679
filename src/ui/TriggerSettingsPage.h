#pragma once

#include "ui/SectionedPage.h"

class QCheckBox;
class QLabel;
class QSlider;

namespace widmo {

class AnalyzerDefaults;
class FloatSlider;
class SettingsDelegate;

/// The "Trigger" settings page (products with featureRecordTrig): arming the
/// recording trigger, its automatic stop and energy saving, the trigger level
/// and the frequency band whose energy is measured. Every control writes the
/// live setting.
///
/// The band's limits are stored as fractions of the highest frequency (half
/// the sample rate); the sliders move logarithmically from 20 Hz to that
/// frequency at the pending sample rate and show Hz. The lower limit always
/// stays at least one slider step below the upper one.
///
/// Threading: main thread only.
class TriggerSettingsPage : public SectionedPage {
    Q_OBJECT
public:
    enum Section { kSectionTrigger = 0, kSectionLevel, kSectionBand };
    /// Value of `lastSettingsPage` while this page is shown.
    static constexpr int kSettingsPage = 3;
    /// Trigger level range in dB (level of the band's summed power; a
    /// full-scale sine inside the band reads 0 dB).
    static constexpr float kMinTrigLevel = -120.0f;
    static constexpr float kMaxTrigLevel = 0.0f;
    /// Lowest frequency of the band sliders, and their number of steps.
    static constexpr float kLowestFrequency = 20.0f;
    static constexpr int kFrequencySteps = 1000;

    /// `defaults` and `delegate` must outlive the page.
    TriggerSettingsPage(AnalyzerDefaults& defaults, SettingsDelegate& delegate,
                        QWidget* parent = nullptr);

    /// Moves the sliders to the settings and writes the value labels.
    void refreshTrigSlidersAndLabels();
    /// Sets the switches from the settings.
    void refreshSwitches();

    /// The frequency in Hz of a band slider position (0..kFrequencySteps) at
    /// the pending sample rate, and back (rounded, clamped).
    float frequencyForPosition(int position) const;
    int positionForFrequency(float hz) const;
    /// "%.0f Hz", or "%.2f kHz" from 1 kHz.
    static QString frequencyLabel(float hz);

    void viewWillAppear() override;
    void viewWillDisappear() override;

    QCheckBox* trigSwitch() const { return trig_; }
    QCheckBox* trigAutomaticStopSwitch() const { return automaticStop_; }
    QCheckBox* trigEnergySaveModeSwitch() const { return energySave_; }
    FloatSlider* trigLevelSlider() const { return level_; }
    QLabel* trigLevelValueLabel() const { return levelLabel_; }
    QSlider* trigMinFrequencySlider() const { return minFrequency_; }
    QLabel* trigMinFrequencyValueLabel() const { return minFrequencyLabel_; }
    QSlider* trigMaxFrequencySlider() const { return maxFrequency_; }
    QLabel* trigMaxFrequencyValueLabel() const { return maxFrequencyLabel_; }

private:
    float maxFrequency() const;
    /// Writes both band limits from slider positions, keeping min below max.
    void writeBand(int minPosition, int maxPosition, bool minMoved);

    AnalyzerDefaults& defaults_;
    SettingsDelegate& delegate_;

    QCheckBox* trig_;
    QCheckBox* automaticStop_;
    QCheckBox* energySave_;
    FloatSlider* level_;
    QLabel* levelLabel_;
    QSlider* minFrequency_;
    QLabel* minFrequencyLabel_;
    QSlider* maxFrequency_;
    QLabel* maxFrequencyLabel_;
};

} // namespace widmo
