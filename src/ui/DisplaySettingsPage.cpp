#include "ui/DisplaySettingsPage.h"

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "render/DeviceClass.h"
#include "ui/GeneralSettingsPage.h"
#include "ui/SegmentedControl.h"
#include "ui/SettingsDelegate.h"

#include <QCheckBox>

namespace widmo {

DisplaySettingsPage::DisplaySettingsPage(AnalyzerDefaults& defaults,
                                         const AnalyzerFeatures& features,
                                         SettingsDelegate& delegate, QWidget* parent)
    : SectionedPage(parent), defaults_(defaults), features_(features), delegate_(delegate),
      octaveBand_(new SegmentedControl({"1/1", "1/3", "1/6", "1/12"})),
      octaveAverage_(new SegmentedControl({"Slow", "Medium", "Fast"})), octaveMax_(new QCheckBox),
      octaveMin_(new QCheckBox),
      octaveDecay_(new SegmentedControl({"Hold", "1 s", "2 s", "3 s", "4 s", "5 s"})),
      grid_(new QCheckBox), amplitudeScale_(new SegmentedControl({"Linear", "dB"})),
      frequencyScale_(new SegmentedControl({"Linear", "Logarithmic"})),
      color_(new SegmentedControl({"Colour", "Dark", "Light"})) {
    setTitle("Display");

    addSection("Spectrogram");
    addRow(kSectionSpectrogram, "Grid", grid_);
    addRow(kSectionSpectrogram, "Colours", color_);
    addSection("Scales");
    addRow(kSectionSpectrum, "Amplitude", amplitudeScale_);
    addRow(kSectionSpectrum, "Frequency", frequencyScale_);
    addSection("Octave RTA");
    addRow(kSectionOctave, "Bands per octave", octaveBand_);
    addRow(kSectionOctave, "Averaging", octaveAverage_);
    addRow(kSectionOctave, "Hold maximum values", octaveMax_);
    addRow(kSectionOctave, "Hold minimum values", octaveMin_);
    addRow(kSectionOctave, "Hold decay time", octaveDecay_);

    connect(grid_, &QCheckBox::clicked, this, [this](bool on) {
        defaults_.setSpectrogramGridOn(on);
        delegate_.refreshAllViews();
    });
    connect(color_, &SegmentedControl::valueChanged, this,
            [this](int s) { defaults_.setPreferredSpectrogramColorType(s); });
    connect(amplitudeScale_, &SegmentedControl::valueChanged, this,
            [this](int s) { defaults_.setPreferredValuesInDB(s == 1); });
    connect(frequencyScale_, &SegmentedControl::valueChanged, this,
            [this](int s) { defaults_.setPreferredLinearFrequency(s == 0); });
    connect(octaveBand_, &SegmentedControl::valueChanged, this, [this](int s) {
        defaults_.setOctaveRTABandsPerOctave(GeneralSettingsPage::bandForSegment(s));
        delegate_.generateOctaveRTAIndexes();
        delegate_.refreshAllViews();
    });
    connect(octaveAverage_, &SegmentedControl::valueChanged, this,
            [this](int s) { defaults_.setOctaveRTABandAverageType(s); });
    connect(octaveMax_, &QCheckBox::clicked, this, [this](bool on) {
        defaults_.setOctaveRTAMaxValuesEnabled(on);
        delegate_.refreshSecondChartMeasuringView();
    });
    connect(octaveMin_, &QCheckBox::clicked, this, [this](bool on) {
        defaults_.setOctaveRTAMinValuesEnabled(on);
        delegate_.refreshSecondChartMeasuringView();
    });
    connect(octaveDecay_, &SegmentedControl::valueChanged, this,
            [this](int s) { defaults_.setOctaveRTAMinMaxDecayTime(s); });

    refreshSelection();
}

void DisplaySettingsPage::refreshSelection() {
    grid_->setChecked(defaults_.spectrogramGridOn());
    color_->setSelectedSegmentIndex(defaults_.preferredSpectrogramColorType());
    amplitudeScale_->setSelectedSegmentIndex(defaults_.preferredValuesInDB() ? 1 : 0);
    frequencyScale_->setSelectedSegmentIndex(defaults_.preferredLinearFrequency() ? 0 : 1);
    octaveBand_->setSelectedSegmentIndex(
        GeneralSettingsPage::segmentForBand(defaults_.octaveRTABandsPerOctave()));
    octaveAverage_->setSelectedSegmentIndex(defaults_.octaveRTABandAverageType());
    octaveDecay_->setSelectedSegmentIndex(defaults_.octaveRTAMinMaxDecayTime());
    octaveMax_->setChecked(defaults_.octaveRTAMaxValuesEnabled());
    octaveMin_->setChecked(defaults_.octaveRTAMinValuesEnabled());
}

bool DisplaySettingsPage::isHiddenSection(int section) const {
    switch (section) {
    case kSectionSpectrogram:
        return !features_.featureSpectrogramEnabled();
    case kSectionSpectrum:
        return !features_.featureSpectrumEnabled();
    case kSectionOctave:
        return !features_.featureOctaveRTAEnabled();
    default:
        return false;
    }
}

void DisplaySettingsPage::viewWillAppear() {
    defaults_.setLastSettingsPage(kSettingsPage);
    refreshSelection();
    reloadData();
    if (!DeviceClass::isPad(this))
        setVerticalOffset(int(defaults_.lastPositionSettingsDisplay()));
    delegate_.setSettingsPopOverContentSize(preferredContentSize());
}

void DisplaySettingsPage::viewWillDisappear() {
    defaults_.setLastPositionSettingsDisplay(verticalOffset());
}

} // namespace widmo
