#include "ui/GeneralSettingsPage.h"

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "render/DeviceClass.h"
#include "ui/SegmentedControl.h"
#include "ui/SettingsDelegate.h"

#include <QCheckBox>
#include <QLabel>
#include <QSignalBlocker>
#include <QSpinBox>

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

constexpr int kSampleRateSegments = 7;
constexpr int kIntervalSegments = 5; // powers 0..4

QStringList intervalPlaceholders() { return QStringList(kIntervalSegments, QString()); }

} // namespace

GeneralSettingsPage::GeneralSettingsPage(AnalyzerDefaults& defaults,
                                         const AnalyzerFeatures& features,
                                         SettingsDelegate& delegate, QWidget* parent)
    : SectionedPage(parent), defaults_(defaults), features_(features), delegate_(delegate),
      fftWindowType_(new SegmentedControl({"Rectangle", "Blackman", "Hamming", "Hanning"})),
      fftSize_(new SegmentedControl({"256", "512", "1k", "2k", "4k", "8k", "16k", "32k", "64k"})),
      sampleRate_(new SegmentedControl({"44.1k", "48k", "96k", "192k", "200k", "250k", "384k"})),
      interval_(new SegmentedControl(intervalPlaceholders())),
      displaySize_(new SegmentedControl({"512", "1024", "2048", "4096"})),
      spectrogramWidth_(new SegmentedControl({"Full", "1/2", "1/3", "1/4", "1/5"})),
      spectrogramLength_(new QLabel),
      octaveBand_(new SegmentedControl({"1/1", "1/3", "1/6", "1/12"})),
      octaveAverage_(new SegmentedControl({"Slow", "Medium", "Fast"})), octaveMax_(new QCheckBox),
      octaveMin_(new QCheckBox),
      octaveDecay_(new SegmentedControl({"Hold", "1 s", "2 s", "3 s", "4 s", "5 s"})),
      amplitudeScale_(new SegmentedControl({"Linear", "dB"})),
      frequencyScale_(new SegmentedControl({"Linear", "Logarithmic"})),
      keepRecording_(new QCheckBox), fallbackSeconds_(new QSpinBox) {
    setTitle("General");

    // Sections in the order of `Section`.
    addSection("FFT window size and type");
    addRow(kSectionFft, fftWindowType_);
    addRow(kSectionFft, fftSize_);
    const int changing1 =
        addTextRow(kSectionFft, "Changing the FFT size or window recalculates the spectrogram.");
    addSection("Sample rate (Hz)");
    addRow(kSectionSampleRate, sampleRate_);
    const int changing2 =
        addTextRow(kSectionSampleRate, "Changing the sample rate clears the spectrogram.");
    addSection("Resolution");
    addRow(kSectionResolution, "Interval", interval_);
    addRow(kSectionResolution, "Rows", displaySize_);
    addSection("Spectrogram length");
    addRow(kSectionSpectrogram, "Width", spectrogramWidth_);
    spectrogramLength_->setWordWrap(true);
    addRow(kSectionSpectrogram, spectrogramLength_);
    addSection("Spectrum scales");
    addRow(kSectionSpectrum, "Amplitude", amplitudeScale_);
    addRow(kSectionSpectrum, "Frequency", frequencyScale_);
    addSection("Octave RTA");
    addRow(kSectionOctave, "Bands per octave", octaveBand_);
    addRow(kSectionOctave, "Averaging", octaveAverage_);
    addRow(kSectionOctave, "Hold maximum values", octaveMax_);
    addRow(kSectionOctave, "Hold minimum values", octaveMin_);
    addRow(kSectionOctave, "Hold decay time", octaveDecay_);
    addSection("When the input goes away");
    addRow(kSectionRecording, "Keep recording", keepRecording_);
    fallbackSeconds_->setRange(KeepRecordingSettings::kMinFallbackSeconds,
                               KeepRecordingSettings::kMaxFallbackSeconds);
    fallbackSeconds_->setSuffix(" s");
    addRow(kSectionRecording, "Take the default input after", fallbackSeconds_);
    addTextRow(kSectionRecording,
               "A recording waits for the sound server or the input device and resumes by "
               "itself; the missing time is marked. While the level log runs, recording always "
               "keeps going.");
    addSection("About");
    addTextRow(kSectionAbout, "Widmo " + AnalyzerDefaults::versionBuild());

    // The cells that explain what a change does only matter with a spectrogram.
    setRowHidden(kSectionFft, changing1, !features_.featureSpectrogramEnabled());
    setRowHidden(kSectionSampleRate, changing2, !features_.featureSpectrogramEnabled());

    // Trailing sample rates the product does not offer; 96 kHz only with its switch.
    if (!features_.featureUltrasonicEnabled()) {
        const int keep = features_.featureSampleRate96Enabled() ? 3 : 2;
        for (int s = kSampleRateSegments - 1; s >= keep; --s)
            sampleRate_->removeSegmentAtIndex(s);
    }
    // Without high resolution the smallest interval goes: segment s is power s + 1.
    if (!features_.featureHighResolution())
        interval_->removeSegmentAtIndex(interval_->numberOfSegments() - 1);

    connect(fftWindowType_, &SegmentedControl::valueChanged, this,
            [this](int s) { defaults_.setPreferredFftWindowType(s); });
    connect(fftSize_, &SegmentedControl::valueChanged, this, [this](int s) {
        defaults_.setPreferredFftSize(fftSizeForSegment(s));
        refreshSelection();
    });
    connect(sampleRate_, &SegmentedControl::valueChanged, this, [this](int s) {
        defaults_.setPreferredSampleRate(float(sampleRateForSegment(s)));
        refreshSelection();
    });
    connect(interval_, &SegmentedControl::valueChanged, this, [this](int s) {
        defaults_.setPreferredIntervalSizePower(intervalPowerForSegment(s));
        refreshSelection();
    });
    connect(displaySize_, &SegmentedControl::valueChanged, this, [this](int s) {
        defaults_.setPreferredFftDisplaySize(displaySizeForSegment(s));
        refreshSelection();
    });
    connect(spectrogramWidth_, &SegmentedControl::valueChanged, this, [this](int s) {
        defaults_.setPreferredSpectrogramWidthDivisor(s + 1);
        refreshSelection();
    });
    connect(octaveBand_, &SegmentedControl::valueChanged, this, [this](int s) {
        defaults_.setOctaveRTABandsPerOctave(bandForSegment(s));
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
    connect(keepRecording_, &QCheckBox::clicked, this,
            [this](bool on) { defaults_.keepRecording().setEnabled(on); });
    connect(fallbackSeconds_, &QSpinBox::valueChanged, this,
            [this](int seconds) { defaults_.keepRecording().setFallbackSeconds(seconds); });
    connect(amplitudeScale_, &SegmentedControl::valueChanged, this,
            [this](int s) { defaults_.setPreferredValuesInDB(s == 1); });
    connect(frequencyScale_, &SegmentedControl::valueChanged, this,
            [this](int s) { defaults_.setPreferredLinearFrequency(s == 0); });

    refreshSelection();
}

int GeneralSettingsPage::fftSizeForSegment(int segment) {
    return int(std::pow(2.0f, float(segment + 8)));
}

int GeneralSettingsPage::segmentForFftSize(int fftSize) {
    return int(std::log2(float(fftSize)) - 8.0f);
}

int GeneralSettingsPage::sampleRateForSegment(int segment) {
    switch (segment) {
    case 1:
        return 48000;
    case 2:
        return 96000;
    case 3:
        return 192000;
    case 4:
        return 200000;
    case 5:
        return 250000;
    case 6:
        return 384000;
    default:
        return 44100;
    }
}

int GeneralSettingsPage::segmentForSampleRate(int sampleRate) {
    switch (sampleRate) {
    case 48000:
        return 1;
    case 96000:
        return 2;
    case 192000:
        return 3;
    case 200000:
        return 4;
    case 250000:
        return 5;
    case 384000:
        return 6;
    default:
        return 0;
    }
}

int GeneralSettingsPage::displaySizeForSegment(int segment) {
    return int(std::pow(2.0f, float(segment)) * 512.0f);
}

int GeneralSettingsPage::segmentForDisplaySize(int displaySize) {
    return int(std::log2(float(displaySize)) - 9.0f);
}

int GeneralSettingsPage::bandForSegment(int segment) {
    switch (segment) {
    case 1:
        return 3;
    case 2:
        return 6;
    case 3:
        return 12;
    default:
        return 1;
    }
}

int GeneralSettingsPage::segmentForBand(int bands) {
    switch (bands) {
    case 3:
        return 1;
    case 12:
        return 3;
    case 6:
        return 2;
    default:
        return 0;
    }
}

QString GeneralSettingsPage::intervalStringForSegment(int segment) const {
    const float rate = defaults_.preferredSampleRate();
    const int minFrames =
        int(AnalyzerDefaults::calculateMinIntervalSizeInFramesFromSampleRate(rate));
    const float ms = float(minFrames) * 1000.0f * std::pow(2.0f, float(segment)) / rate;
    return QString::asprintf("%.1fms", double(ms));
}

int GeneralSettingsPage::intervalPowerForSegment(int segment) const {
    return features_.featureHighResolution() ? segment : segment + 1;
}

void GeneralSettingsPage::refreshSelection() {
    const int shift = features_.featureHighResolution() ? 0 : 1;
    spectrogramWidth_->setSelectedSegmentIndex(
        std::max(defaults_.preferredSpectrogramWidthDivisor() - 1, 0));
    fftWindowType_->setSelectedSegmentIndex(defaults_.preferredFftWindowType());
    fftSize_->setSelectedSegmentIndex(segmentForFftSize(defaults_.preferredFftSize()));
    sampleRate_->setSelectedSegmentIndex(
        segmentForSampleRate(int(defaults_.preferredSampleRate())));
    interval_->setSelectedSegmentIndex(defaults_.preferredIntervalSizePower() - shift);
    displaySize_->setSelectedSegmentIndex(
        segmentForDisplaySize(defaults_.preferredFftDisplaySize()));

    // The titles follow the pending sample rate.
    for (int s = 0; s < interval_->numberOfSegments(); ++s)
        interval_->setTitleForSegmentAtIndex(intervalStringForSegment(s + shift), s);

    octaveBand_->setSelectedSegmentIndex(segmentForBand(defaults_.octaveRTABandsPerOctave()));
    octaveAverage_->setSelectedSegmentIndex(defaults_.octaveRTABandAverageType());
    octaveDecay_->setSelectedSegmentIndex(defaults_.octaveRTAMinMaxDecayTime());
    octaveMax_->setChecked(defaults_.octaveRTAMaxValuesEnabled());
    octaveMin_->setChecked(defaults_.octaveRTAMinValuesEnabled());
    amplitudeScale_->setSelectedSegmentIndex(defaults_.preferredValuesInDB() ? 1 : 0);
    frequencyScale_->setSelectedSegmentIndex(defaults_.preferredLinearFrequency() ? 0 : 1);
    keepRecording_->setChecked(defaults_.keepRecording().enabled());
    {
        const QSignalBlocker block(fallbackSeconds_);
        fallbackSeconds_->setValue(defaults_.keepRecording().fallbackSeconds());
    }

    refreshTimeLabel();
}

void GeneralSettingsPage::refreshTimeLabel() {
    const float rate = defaults_.preferredSampleRate();
    const int minFrames =
        int(AnalyzerDefaults::calculateMinIntervalSizeInFramesFromSampleRate(rate));
    const int intervalFrames =
        int(float(minFrames) * std::pow(2.0f, float(defaults_.preferredIntervalSizePower())));
    const int width = defaults_.calculateSpectrogramWidthWithDisplaySize(
        defaults_.preferredFftDisplaySize(), intervalFrames,
        defaults_.preferredSpectrogramWidthDivisor());
    const float seconds = float(intervalFrames) / rate * float(width);
    spectrogramLength_->setText(QString::asprintf("Length : %.1f s   Bitmap size : %d x %d pixels",
                                                  double(seconds), width,
                                                  defaults_.preferredFftDisplaySize()));
}

bool GeneralSettingsPage::isHiddenSection(int section) const {
    switch (section) {
    case kSectionSampleRate:
        return !features_.featureSampleRatesEnabled();
    case kSectionResolution:
        return !features_.featureResolutionEnabled();
    case kSectionSpectrogram:
        return !features_.featureSpectrogramEnabled();
    case kSectionSpectrum:
        return features_.featureSpectrogramEnabled() || !features_.featureSpectrumEnabled();
    case kSectionOctave:
        return features_.featureSpectrogramEnabled() || !features_.featureOctaveRTAEnabled();
    default:
        return false;
    }
}

void GeneralSettingsPage::viewWillAppear() {
    defaults_.setLastSettingsPage(kSettingsPage);
    refreshSelection();
    reloadData();
    if (!DeviceClass::isPad(this))
        setVerticalOffset(int(defaults_.lastPositionSettingsGeneral()));
    delegate_.setSettingsPopOverContentSize(preferredContentSize());
}

void GeneralSettingsPage::viewWillDisappear() {
    defaults_.setLastPositionSettingsGeneral(verticalOffset());
}

} // namespace widmo
