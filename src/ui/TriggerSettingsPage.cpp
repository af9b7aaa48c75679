#include "ui/TriggerSettingsPage.h"

#include "core/AnalyzerDefaults.h"
#include "render/DeviceClass.h"
#include "ui/FloatSlider.h"
#include "ui/SettingsDelegate.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QSlider>

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

constexpr int kValueLabelWidth = 80;

// A slider with its value label at the right.
QWidget* sliderCell(QSlider* slider, QLabel* label) {
    auto* cell = new QWidget;
    cell->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    auto* layout = new QHBoxLayout(cell);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(slider, 1);
    label->setFixedWidth(kValueLabelWidth);
    label->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    layout->addWidget(label);
    return cell;
}

QSlider* frequencySlider() {
    auto* slider = new QSlider(Qt::Horizontal);
    slider->setRange(0, TriggerSettingsPage::kFrequencySteps);
    slider->setPageStep(TriggerSettingsPage::kFrequencySteps / 20);
    return slider;
}

} // namespace

TriggerSettingsPage::TriggerSettingsPage(AnalyzerDefaults& defaults, SettingsDelegate& delegate,
                                         QWidget* parent)
    : SectionedPage(parent), defaults_(defaults), delegate_(delegate), trig_(new QCheckBox),
      automaticStop_(new QCheckBox), energySave_(new QCheckBox),
      level_(new FloatSlider(kMinTrigLevel, kMaxTrigLevel, int(kMaxTrigLevel - kMinTrigLevel))),
      levelLabel_(new QLabel), minFrequency_(frequencySlider()), minFrequencyLabel_(new QLabel),
      maxFrequency_(frequencySlider()), maxFrequencyLabel_(new QLabel) {
    setTitle("Trigger");

    addSection("Recording trigger");
    addRow(kSectionTrigger, "Wait for the trigger", trig_);
    addRow(kSectionTrigger, "Stop when the spectrogram is full", automaticStop_);
    addRow(kSectionTrigger, "Save energy: no display while waiting", energySave_);
    addSection("Trigger level");
    addRow(kSectionLevel, sliderCell(level_, levelLabel_));
    addSection("Frequency band");
    addRow(kSectionBand, "From", sliderCell(minFrequency_, minFrequencyLabel_));
    addRow(kSectionBand, "To", sliderCell(maxFrequency_, maxFrequencyLabel_));

    connect(trig_, &QCheckBox::clicked, this, [this](bool on) { defaults_.setTrigOn(on); });
    connect(automaticStop_, &QCheckBox::clicked, this,
            [this](bool on) { defaults_.setTrigAutomaticStop(on); });
    connect(energySave_, &QCheckBox::clicked, this,
            [this](bool on) { defaults_.setTrigEnergySaveMode(on ? 1.0f : 0.0f); });
    connect(level_, &FloatSlider::floatValueChanged, this, [this](float dB) {
        defaults_.setTrigLevel(dB);
        refreshTrigSlidersAndLabels();
    });
    connect(minFrequency_, &QSlider::valueChanged, this,
            [this](int p) { writeBand(p, maxFrequency_->value(), true); });
    connect(maxFrequency_, &QSlider::valueChanged, this,
            [this](int p) { writeBand(minFrequency_->value(), p, false); });

    refreshSwitches();
    refreshTrigSlidersAndLabels();
}

float TriggerSettingsPage::maxFrequency() const { return defaults_.preferredSampleRate() * 0.5f; }

float TriggerSettingsPage::frequencyForPosition(int position) const {
    const float t = float(std::clamp(position, 0, kFrequencySteps)) / float(kFrequencySteps);
    return kLowestFrequency * std::pow(maxFrequency() / kLowestFrequency, t);
}

int TriggerSettingsPage::positionForFrequency(float hz) const {
    if (hz <= kLowestFrequency)
        return 0;
    const float t = std::log(hz / kLowestFrequency) / std::log(maxFrequency() / kLowestFrequency);
    return std::clamp(int(std::lround(t * float(kFrequencySteps))), 0, kFrequencySteps);
}

QString TriggerSettingsPage::frequencyLabel(float hz) {
    if (hz >= 1000.0f)
        return QString::asprintf("%.2f kHz", double(hz / 1000.0f));
    return QString::asprintf("%.0f Hz", double(hz));
}

void TriggerSettingsPage::writeBand(int minPosition, int maxPosition, bool minMoved) {
    if (minPosition >= maxPosition) {
        // The moved limit pushes the other one along, within the slider's range.
        if (minMoved) {
            minPosition = std::min(minPosition, kFrequencySteps - 1);
            maxPosition = minPosition + 1;
        } else {
            maxPosition = std::max(maxPosition, 1);
            minPosition = maxPosition - 1;
        }
    }
    const float top = maxFrequency();
    defaults_.setTrigMinFrequency(frequencyForPosition(minPosition) / top);
    defaults_.setTrigMaxFrequency(
        maxPosition >= kFrequencySteps ? 1.0f : frequencyForPosition(maxPosition) / top);
    refreshTrigSlidersAndLabels();
}

void TriggerSettingsPage::refreshSwitches() {
    trig_->setChecked(defaults_.trigOn());
    automaticStop_->setChecked(defaults_.trigAutomaticStop());
    energySave_->setChecked(defaults_.trigEnergySaveMode() != 0.0f);
}

void TriggerSettingsPage::refreshTrigSlidersAndLabels() {
    const float top = maxFrequency();
    const float minHz = defaults_.trigMinFrequency() * top;
    const float maxHz = defaults_.trigMaxFrequency() * top;
    level_->setFloatValue(defaults_.trigLevel());
    {
        const QSignalBlocker a(minFrequency_);
        const QSignalBlocker b(maxFrequency_);
        minFrequency_->setValue(positionForFrequency(minHz));
        maxFrequency_->setValue(positionForFrequency(maxHz));
    }
    levelLabel_->setText(QString::asprintf("%.0f dB", double(defaults_.trigLevel())));
    minFrequencyLabel_->setText(frequencyLabel(minHz));
    maxFrequencyLabel_->setText(frequencyLabel(maxHz));
}

void TriggerSettingsPage::viewWillAppear() {
    defaults_.setLastSettingsPage(kSettingsPage);
    refreshSwitches();
    refreshTrigSlidersAndLabels();
    reloadData();
    if (!DeviceClass::isPad(this))
        setVerticalOffset(int(defaults_.lastPositionSettingsTrig()));
    delegate_.setSettingsPopOverContentSize(preferredContentSize());
}

void TriggerSettingsPage::viewWillDisappear() {
    defaults_.setLastPositionSettingsTrig(verticalOffset());
}

} // namespace widmo
