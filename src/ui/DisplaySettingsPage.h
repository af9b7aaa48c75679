#pragma once

#include "ui/SectionedPage.h"

class QCheckBox;

namespace widmo {

class AnalyzerDefaults;
class AnalyzerFeatures;
class SegmentedControl;
class SettingsDelegate;

/// The "Display" settings page of products with a spectrogram: spectrogram
/// grid and colours, the spectrum scales and the octave RTA. The grid and
/// octave controls write the live settings and refresh the views at once; the
/// scales and colours write the preferred copies, applied when the settings close.
///
/// Threading: main thread only.
class DisplaySettingsPage : public SectionedPage {
    Q_OBJECT
public:
    enum Section {
        kSectionSpectrogram = 0, ///< grid and colours
        kSectionSpectrum,        ///< scales, with featureSpectrumEnabled
        kSectionOctave,          ///< octave RTA, with featureOctaveRTAEnabled
    };
    /// Value of `lastSettingsPage` while this page is shown.
    static constexpr int kSettingsPage = 2;

    /// `defaults`, `features` and `delegate` must outlive the page.
    DisplaySettingsPage(AnalyzerDefaults& defaults, const AnalyzerFeatures& features,
                        SettingsDelegate& delegate, QWidget* parent = nullptr);

    /// Selects every control from the settings.
    void refreshSelection();

    bool isHiddenSection(int section) const override;
    void viewWillAppear() override;
    void viewWillDisappear() override;

    SegmentedControl* octaveBandSegmentedControl() const { return octaveBand_; }
    SegmentedControl* octaveAverageSegmentedControl() const { return octaveAverage_; }
    QCheckBox* octaveMaxValuesSwitch() const { return octaveMax_; }
    QCheckBox* octaveMinValuesSwitch() const { return octaveMin_; }
    SegmentedControl* octaveDecayTimeSegmentedControl() const { return octaveDecay_; }
    QCheckBox* spectrogramGridSwitch() const { return grid_; }
    SegmentedControl* amplitudeScaleSegmentedControl() const { return amplitudeScale_; }
    SegmentedControl* frequencyScaleSegmentedControl() const { return frequencyScale_; }
    SegmentedControl* spectrogramColorSegmentedControl() const { return color_; }

private:
    AnalyzerDefaults& defaults_;
    const AnalyzerFeatures& features_;
    SettingsDelegate& delegate_;

    SegmentedControl* octaveBand_;
    SegmentedControl* octaveAverage_;
    QCheckBox* octaveMax_;
    QCheckBox* octaveMin_;
    SegmentedControl* octaveDecay_;
    QCheckBox* grid_;
    SegmentedControl* amplitudeScale_;
    SegmentedControl* frequencyScale_;
    SegmentedControl* color_;
};

} // namespace widmo
