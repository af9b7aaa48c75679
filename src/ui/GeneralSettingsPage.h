#pragma once

#include "ui/SectionedPage.h"

class QCheckBox;
class QLabel;
class QSpinBox;

namespace widmo {

class AnalyzerDefaults;
class AnalyzerFeatures;
class SegmentedControl;
class SettingsDelegate;

/// The "General" settings page: FFT window and size, sample rate, interval and
/// display size, spectrogram length, keep recording, and (for products without a spectrogram,
/// whose display page does not exist) the spectrum scales and the octave RTA.
///
/// Controls that change the document write the preferred copies of the
/// settings, which the main screen applies when the settings close; the octave
/// controls write the live settings and have the main screen refresh at once.
/// Sections the product does not offer are hidden.
///
/// Threading: main thread only.
class GeneralSettingsPage : public SectionedPage {
    Q_OBJECT
public:
    enum Section {
        kSectionFft = 0,     ///< window type and FFT size
        kSectionSampleRate,  ///< with featureSampleRatesEnabled
        kSectionResolution,  ///< interval and display size, with featureResolutionEnabled
        kSectionSpectrogram, ///< spectrogram width and length, with featureSpectrogramEnabled
        kSectionSpectrum,    ///< scales; on the display page when there is a spectrogram
        kSectionOctave,      ///< octave RTA; on the display page when there is a spectrogram
        kSectionRecording,   ///< keep recording when the input goes away
        kSectionAbout,       ///< version
    };
    /// Value of `lastSettingsPage` while this page is shown.
    static constexpr int kSettingsPage = 1;

    /// `defaults`, `features` and `delegate` must outlive the page.
    GeneralSettingsPage(AnalyzerDefaults& defaults, const AnalyzerFeatures& features,
                        SettingsDelegate& delegate, QWidget* parent = nullptr);

    // --- Segment tables -----------------------------------------------------------------------

    /// 2^(segment + 8): 0 -> 256 ... 8 -> 65536.
    static int fftSizeForSegment(int segment);
    /// trunc(log2(size)) - 8.
    static int segmentForFftSize(int fftSize);
    /// 44100, 48000, 96000, 192000, 200000, 250000, 384000; other segments 44100.
    static int sampleRateForSegment(int segment);
    /// The segment of a rate in the table above; any other rate is segment 0.
    static int segmentForSampleRate(int sampleRate);
    /// 2^segment x 512.
    static int displaySizeForSegment(int segment);
    /// trunc(log2(size)) - 9.
    static int segmentForDisplaySize(int displaySize);
    /// Bands per octave: 1, 3, 6, 12; other segments 1.
    static int bandForSegment(int segment);
    /// 3 -> 1, 6 -> 2, 12 -> 3; any other count is segment 0.
    static int segmentForBand(int bands);
    /// "%.1fms": the length of an interval of power `segment` at the pending
    /// sample rate.
    QString intervalStringForSegment(int segment) const;

    // --- Showing ------------------------------------------------------------------------------

    /// Selects every control from the settings and retitles the interval
    /// segments for the pending sample rate.
    void refreshSelection();
    /// "Length : %.1f s   Bitmap size : %d x %d pixels" of the pending settings.
    void refreshTimeLabel();

    bool isHiddenSection(int section) const override;
    /// Records the page, refreshes it, restores its scroll position (phone) and
    /// hands its size to the delegate.
    void viewWillAppear() override;
    /// Stores the scroll position.
    void viewWillDisappear() override;

    SegmentedControl* fftWindowTypeSegmentedControl() const { return fftWindowType_; }
    SegmentedControl* fftSizeSegmentedControl() const { return fftSize_; }
    SegmentedControl* sampleRateSegmentedControl() const { return sampleRate_; }
    SegmentedControl* intervalSegmentedControl() const { return interval_; }
    SegmentedControl* displaySizeSegmentedControl() const { return displaySize_; }
    SegmentedControl* spectrogramWidthSegmentedControl() const { return spectrogramWidth_; }
    QLabel* spectrogramLengthLabel() const { return spectrogramLength_; }
    SegmentedControl* octaveBandSegmentedControl() const { return octaveBand_; }
    SegmentedControl* octaveAverageSegmentedControl() const { return octaveAverage_; }
    QCheckBox* octaveMaxValuesSwitch() const { return octaveMax_; }
    QCheckBox* octaveMinValuesSwitch() const { return octaveMin_; }
    QCheckBox* keepRecordingSwitch() const { return keepRecording_; }
    QSpinBox* fallbackSecondsBox() const { return fallbackSeconds_; }
    SegmentedControl* octaveDecayTimeSegmentedControl() const { return octaveDecay_; }
    SegmentedControl* amplitudeScaleSegmentedControl() const { return amplitudeScale_; }
    SegmentedControl* frequencyScaleSegmentedControl() const { return frequencyScale_; }

private:
    /// The interval power of a segment: segments start at power 1 without the
    /// high-resolution choice.
    int intervalPowerForSegment(int segment) const;

    AnalyzerDefaults& defaults_;
    const AnalyzerFeatures& features_;
    SettingsDelegate& delegate_;

    SegmentedControl* fftWindowType_;
    SegmentedControl* fftSize_;
    SegmentedControl* sampleRate_;
    SegmentedControl* interval_;
    SegmentedControl* displaySize_;
    SegmentedControl* spectrogramWidth_;
    QLabel* spectrogramLength_;
    SegmentedControl* octaveBand_;
    SegmentedControl* octaveAverage_;
    QCheckBox* octaveMax_;
    QCheckBox* octaveMin_;
    SegmentedControl* octaveDecay_;
    SegmentedControl* amplitudeScale_;
    SegmentedControl* frequencyScale_;
    QCheckBox* keepRecording_;
    QSpinBox* fallbackSeconds_;
};

} // namespace widmo
