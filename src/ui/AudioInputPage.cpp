#include "ui/AudioInputPage.h"

#include "audio/AudioInputModel.h"
#include "audio/AudioSession.h"
#include "audio/JackNode.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "core/SettingsStore.h"
#include "dsp/Heterodyne.h"
#include "render/DeviceClass.h"
#include "ui/FloatSlider.h"
#include "ui/MessageDialogs.h"
#include "ui/MicrophoneCalibrationPanel.h"
#include "ui/SegmentedControl.h"
#include "ui/SettingsDelegate.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QSignalBlocker>

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

using Picker = AudioInputModel;

constexpr int kPickerVisibleRows = 4;
constexpr int kValueLabelWidth = 60;

QWidget* gainCell(QLabel* title, FloatSlider* slider, QLabel* value) {
    auto* cell = new QWidget;
    auto* layout = new QHBoxLayout(cell);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(title);
    layout->addWidget(slider, 1);
    value->setFixedWidth(kValueLabelWidth);
    value->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    layout->addWidget(value);
    return cell;
}

} // namespace

AudioInputPage::AudioInputPage(AnalyzerDefaults& defaults, AudioSession& audio,
                               SettingsDelegate& delegate, QWidget* parent)
    : SectionedPage(parent), defaults_(defaults), audio_(audio), delegate_(delegate),
      dataSource_(new Picker(audio, defaults, this)), picker_(new QWidget),
      notAvailablePlaying_(new QLabel("Input selection is not available during playback.")),
      deviceRate_(new QLabel), rateWarning_(new QLabel), softwareLabel_(new QLabel("Gain")),
      softwareSlider_(new FloatSlider(kMinSoftwareGain, kMaxSoftwareGain,
                                      int(kMaxSoftwareGain - kMinSoftwareGain))),
      softwareValue_(new QLabel), hardwareLabel_(new QLabel("Gain")),
      hardwareSlider_(new FloatSlider(0.0f, 1.0f, 100)), hardwareValue_(new QLabel),
      hardwareNotAvailable_(new QLabel("The hardware gain of this input cannot be set.")) {
    setTitle("Audio input");

    // The picker: three titled lists side by side, in the platform picker's
    // proportions of the width.
    auto* pickerLayout = new QGridLayout(picker_);
    pickerLayout->setContentsMargins(0, 0, 0, 0);
    pickerLayout->setVerticalSpacing(2);
    const QStringList titles{"Input", "Source", "Channel"};
    const int listHeight = int(Picker::kRowHeight) * kPickerVisibleRows + 4;
    float used = 0.0f;
    for (int c = 0; c < Picker::kNumberOfComponents; ++c) {
        auto* column = new QListWidget(picker_);
        column->setFixedHeight(listHeight);
        column->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        column->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
        columns_[size_t(c)] = column;
        pickerLayout->addWidget(new QLabel(titles[c], picker_), 0, c);
        pickerLayout->addWidget(column, 1, c);
        const float share = Picker::kComponentWidths[size_t(c)];
        pickerLayout->setColumnStretch(c, int(std::lround(share * 100.0f)));
        used += share;
        connect(column, &QListWidget::currentRowChanged, this, [this, c](int row) {
            if (row < 0)
                return;
            // A running capture keeps its device; stopping lets the next start
            // open the chosen one. The channel applies to a running capture.
            if (c == Picker::kComponentPort && audio_.isRecording())
                delegate_.settingsNeedStopAnalyzer();
            dataSource_->didSelectRow(row, c);
        });
    }
    pickerLayout->setColumnStretch(Picker::kNumberOfComponents,
                                   int(std::lround((1.0f - used) * 100.0f)));

    addSection("Audio input");
    pickerRow_ = addRow(kSectionInput, picker_);
    notAvailablePlaying_->setWordWrap(true);
    playingRow_ = addRow(kSectionInput, notAvailablePlaying_);
    deviceRateRow_ = addRow(kSectionInput, deviceRate_);
    rateWarning_->setWordWrap(true);
    rateWarningRow_ = addRow(kSectionInput, rateWarning_);
    addSection("Software input gain");
    addRow(kSectionSoftwareGain, gainCell(softwareLabel_, softwareSlider_, softwareValue_));
    addSection("Hardware input gain");
    addRow(kSectionHardwareGain, gainCell(hardwareLabel_, hardwareSlider_, hardwareValue_));
    hardwareNotAvailable_->setWordWrap(true);
    hardwareNotAvailableRow_ = addRow(kSectionHardwareGain, hardwareNotAvailable_);

    connect(dataSource_, &Picker::selectionRefreshed, this, &AudioInputPage::reloadPicker);
    connect(softwareSlider_, &FloatSlider::floatValueChanged, this, [this](float dB) {
        softwareSlider_->setFloatValue(dataSource_->setSoftwareInputGain(dB));
        refreshGainLabels();
    });
    connect(hardwareSlider_, &FloatSlider::floatValueChanged, this, [this](float gain) {
        hardwareSlider_->setFloatValue(dataSource_->setHardwareInputGain(gain));
        refreshGainLabels();
    });

    effect_ = JackNode::sharedAudioEffect();
    if (effect_ != nullptr) {
        addSection("JACK node");
        effectSwitch_ = new QCheckBox("Analyse the sound other programs route through Widmo");
        addRow(kSectionAudioEffect, effectSwitch_);
        effectStatus_ = new QLabel;
        effectStatus_->setWordWrap(true);
        addRow(kSectionAudioEffect, effectStatus_);
        connect(effectSwitch_, &QCheckBox::toggled, this, &AudioInputPage::setAudioEffectEnabled);
        connect(effect_, &JackNode::publishedChanged, this, &AudioInputPage::refreshAudioEffect);
        connect(effect_, &JackNode::transportStateChangedNotification, this,
                &AudioInputPage::refreshAudioEffect);
        refreshAudioEffect();
    }

    addOutputSections();
    refreshInputSelectionEnabled();
    refreshPickerInputSelection();
}

void AudioInputPage::addOutputSections() {
    const AnalyzerFeatures& features = defaults_.features();
    const QStringList octaves{"1", "2", "3", "4"};
    if (features.featureTranspositionEnabled()) {
        const int section = addSection("Listening to ultrasound");
        transpositionSwitch_ = new QCheckBox("Listen to the input while recording");
        addRow(section, transpositionSwitch_);
        listeningMode_ = new SegmentedControl({"Transposition", "Heterodyne"});
        addRow(section, "Mode", listeningMode_);
        transpositionOctaves_ = new SegmentedControl({"1", "2", "3", "4", "5", "6"});
        addRow(section, "Octaves down", transpositionOctaves_);
        transpositionFilter_ = new QCheckBox("Remove everything below 20 kHz first");
        addRow(section, transpositionFilter_);
        tuningField_ = new QDoubleSpinBox;
        tuningField_->setDecimals(1);
        tuningField_->setSingleStep(0.5);
        tuningField_->setSuffix(" kHz");
        tuningField_->setKeyboardTracking(false);
        addRow(section, "Tuned to", tuningField_);
        bandControl_ = new SegmentedControl({"2.5 kHz", "5 kHz", "10 kHz"});
        addRow(section, "Band", bandControl_);
        connect(transpositionSwitch_, &QCheckBox::toggled, this, [this](bool on) {
            changeOutputSetting([this, on] { defaults_.setRecordingTranspositionOn(on); });
        });
        connect(listeningMode_, &SegmentedControl::valueChanged, this, [this](int mode) {
            changeListeningSetting([this, mode] { defaults_.setListeningMode(mode); });
        });
        connect(transpositionOctaves_, &SegmentedControl::valueChanged, this, [this](int k) {
            changeListeningSetting([this, k] { defaults_.setRealTimeTransposeOctavesDown(k + 1); });
        });
        connect(transpositionFilter_, &QCheckBox::toggled, this, [this](bool on) {
            changeListeningSetting([this, on] { defaults_.setRealTimeTranspFilterBelow20kHz(on); });
        });
        connect(tuningField_, &QDoubleSpinBox::valueChanged, this, [this](double kHz) {
            changeListeningSetting(
                [this, kHz] { defaults_.setHeterodyneTuningHz(float(kHz * 1000.0)); });
        });
        connect(bandControl_, &SegmentedControl::valueChanged, this, [this](int k) {
            changeListeningSetting([this, k] {
                defaults_.setHeterodyneBandHz(
                    float(Heterodyne::kBands[size_t(std::clamp(k, 0, 2))]));
            });
        });
    }
    if (features.featurePlayback()) {
        const int section = addSection("Playback");
        if (features.featureTranspositionEnabled()) {
            playbackType_ =
                new SegmentedControl({"As recorded", "Slowed down", "Transposed", "Heterodyne"});
            addRow(section, "Play", playbackType_);
            playbackOctaves_ = new SegmentedControl(octaves);
            addRow(section, "Octaves", playbackOctaves_);
            connect(playbackType_, &SegmentedControl::valueChanged, this, [this](int type) {
                changeOutputSetting([this, type] { defaults_.setPlaybackTranspType(type); });
            });
            connect(playbackOctaves_, &SegmentedControl::valueChanged, this, [this](int k) {
                changeOutputSetting([this, k] { defaults_.setPlaybackSlowDownOctaves(k + 1); });
            });
        }
        outputSlider_ =
            new FloatSlider(kMinOutputGain, kMaxOutputGain, int(kMaxOutputGain - kMinOutputGain));
        outputValue_ = new QLabel;
        addRow(section, gainCell(new QLabel("Listening level"), outputSlider_, outputValue_));
        connect(outputSlider_, &FloatSlider::floatValueChanged, this, [this](float dB) {
            changeListeningSetting([this, dB] { defaults_.setOutputGainValue(dB); });
        });
    }
    refreshOutputControls();

    const int calibration = addSection("Microphone calibration");
    calibrationPanel_ = new MicrophoneCalibrationPanel(defaults_, audio_, delegate_);
    addRow(calibration, calibrationPanel_);
}

void AudioInputPage::changeOutputSetting(const std::function<void()>& change) {
    if (audio_.isRecording() || audio_.isPlaying())
        delegate_.settingsNeedStopAnalyzer();
    change();
    refreshOutputControls();
}

void AudioInputPage::changeListeningSetting(const std::function<void()>& change) {
    // A recording takes them at once (the audio object copies them into
    // atomics); playback reads the settings themselves on its real-time
    // thread, so it stops first, and the next playback uses them.
    if (audio_.isPlaying())
        delegate_.settingsNeedStopAnalyzer();
    change();
    audio_.refreshListening();
    refreshOutputControls();
}

void AudioInputPage::refreshOutputControls() {
    const auto octaveSegment = [](int32_t octaves) { return std::clamp(octaves, 1, 4) - 1; };
    if (transpositionSwitch_) {
        const QSignalBlocker a(transpositionSwitch_);
        const QSignalBlocker b(transpositionFilter_);
        const QSignalBlocker c(tuningField_);
        transpositionSwitch_->setChecked(defaults_.recordingTranspositionOn());
        const bool heterodyne = defaults_.listeningMode() == 1;
        listeningMode_->setSelectedSegmentIndex(heterodyne ? 1 : 0);
        transpositionOctaves_->setSelectedSegmentIndex(
            std::clamp(defaults_.realTimeTransposeOctavesDown(), 1, 6) - 1);
        transpositionFilter_->setChecked(defaults_.realTimeTranspFilterBelow20kHz());
        // The tuning reaches up to where the band still fits below half the rate.
        const double band = defaults_.heterodyneBandHz();
        const auto rate = int32_t(defaults_.sampleRate());
        tuningField_->setRange(0.0, Heterodyne::highestTuning(rate, band) / 1000.0);
        tuningField_->setValue(double(defaults_.heterodyneTuningHz()) / 1000.0);
        const auto bandIndex =
            std::find(Heterodyne::kBands.begin(), Heterodyne::kBands.end(), band);
        bandControl_->setSelectedSegmentIndex(bandIndex == Heterodyne::kBands.end()
                                                  ? 1
                                                  : int(bandIndex - Heterodyne::kBands.begin()));
        transpositionOctaves_->setEnabled(!heterodyne);
        transpositionFilter_->setEnabled(!heterodyne);
        tuningField_->setEnabled(heterodyne);
        bandControl_->setEnabled(heterodyne);
    }
    if (playbackType_) {
        const int32_t type = defaults_.playbackTranspType();
        playbackType_->setSelectedSegmentIndex(type >= 0 && type <= 3 ? type : 0);
        playbackOctaves_->setSelectedSegmentIndex(
            octaveSegment(defaults_.playbackSlowDownOctaves()));
        playbackOctaves_->setEnabled(type == 1);
    }
    if (outputSlider_) {
        const QSignalBlocker quiet(outputSlider_);
        outputSlider_->setFloatValue(defaults_.outputGainValue());
        outputValue_->setText(QString::asprintf("%.0f dB", double(defaults_.outputGainValue())));
    }
}

AudioInputPage::~AudioInputPage() { dataSource_->setObservingInputChanges(false); }

QListWidget* AudioInputPage::inputSourcePickerColumn(int component) const {
    if (component < 0 || component >= Picker::kNumberOfComponents)
        return nullptr;
    return columns_[size_t(component)];
}

void AudioInputPage::refreshPickerInputSelection() { dataSource_->refreshPickerInputSelection(); }

void AudioInputPage::refreshPickerInputWithDelay(bool delay) {
    dataSource_->refreshPickerInputWithDelay(delay);
}

void AudioInputPage::refreshInputSelectionEnabled() {
    inputSelectionEnabled_ = dataSource_->inputSelectionEnabled();
    setRowHidden(kSectionInput, pickerRow_, !inputSelectionEnabled_);
    setRowHidden(kSectionInput, playingRow_, inputSelectionEnabled_);
    softwareSlider_->setEnabled(inputSelectionEnabled_);
    softwareLabel_->setEnabled(inputSelectionEnabled_);
    refreshGainLabels();
}

void AudioInputPage::reloadPicker() {
    // The calibration follows the input device.
    if (calibrationPanel_ != nullptr)
        calibrationPanel_->refresh();
    for (int c = 0; c < Picker::kNumberOfComponents; ++c) {
        QListWidget* column = columns_[size_t(c)];
        const QSignalBlocker blocker(column);
        column->clear();
        for (int r = 0; r < dataSource_->numberOfRowsInComponent(c); ++r) {
            auto* item = new QListWidgetItem(dataSource_->titleForRow(r, c), column);
            item->setSizeHint(QSize(0, int(Picker::kRowHeight)));
        }
        column->setCurrentRow(dataSource_->selectedRowInComponent(c));
    }
    // The server converts the device's rate to the document's silently; the
    // page says what that means for the spectrum.
    deviceRate_->setText(dataSource_->deviceSampleRateLabel());
    rateWarning_->setText(dataSource_->sampleRateWarning());
    setRowHidden(kSectionInput, deviceRateRow_, deviceRate_->text().isEmpty());
    setRowHidden(kSectionInput, rateWarningRow_, rateWarning_->text().isEmpty());
    refreshGainLabels();
}

void AudioInputPage::refreshGainLabels() {
    softwareSlider_->setFloatValue(dataSource_->softwareInputGain());
    softwareValue_->setText(dataSource_->softwareInputGainLabel());

    const bool settable = inputSelectionEnabled_ && dataSource_->isInputGainSettable();
    hardwareSlider_->setEnabled(settable);
    hardwareLabel_->setEnabled(settable);
    hardwareValue_->setEnabled(settable);
    setRowHidden(kSectionHardwareGain, hardwareNotAvailableRow_,
                 dataSource_->isInputGainSettable());
    if (dataSource_->isInputGainSettable()) {
        hardwareSlider_->setFloatValue(dataSource_->hardwareInputGain());
        hardwareValue_->setText(dataSource_->hardwareInputGainLabel());
    }
}

void AudioInputPage::viewWillAppear() {
    defaults_.setLastSettingsPage(kSettingsPage);
    refreshInputSelectionEnabled();
    if (inputSelectionEnabled_) {
        dataSource_->setObservingInputChanges(true);
        refreshPickerInputWithDelay(false);
    }
    reloadData();
    if (!DeviceClass::isPad(this))
        setVerticalOffset(int(defaults_.lastPositionSettingsAudioInput()));
    delegate_.setSettingsPopOverContentSize(preferredContentSize());
}

void AudioInputPage::viewWillDisappear() {
    dataSource_->setObservingInputChanges(false);
    defaults_.setLastPositionSettingsAudioInput(verticalOffset());
}

void AudioInputPage::setAudioEffectEnabled(bool enabled) {
    if (enabled != effect_->enabled() && !effect_->setEnabled(enabled)) {
        const QSignalBlocker blocker(effectSwitch_);
        effectSwitch_->setChecked(false);
        MessageDialogs::showMessage(
            effect_->lastFailure() == JackNode::Failure::NoServer
                ? QString::fromLatin1(kNoJackServerMessage)
                : QStringLiteral("The JACK node could not be started; the log says why."),
            QStringLiteral("OK"));
    }
    SettingsStore store;
    store.writeBool(QLatin1String(kAudioEffectEnabledKey), effect_->enabled());
    refreshAudioEffect();
}

void AudioInputPage::refreshAudioEffect() {
    {
        const QSignalBlocker blocker(effectSwitch_);
        effectSwitch_->setChecked(effect_->enabled());
    }
    QString status;
    if (effect_->published()) {
        status = QStringLiteral("Ports %1, %2 pass to %3, %4. ")
                     .arg(effect_->inputPortName(0), effect_->inputPortName(1),
                          effect_->outputPortName(0), effect_->outputPortName(1));
        status += effect_->connected()
                      ? QStringLiteral("Connected: while the analyser runs it shows this sound.")
                      : QStringLiteral("Not connected.");
        const int rate = effect_->sampleRate();
        if (rate != int(std::lround(defaults_.sampleRate())))
            status += QStringLiteral(" The JACK server runs at %1 Hz: choose %1 Hz as the sample "
                                     "rate to analyse it.")
                          .arg(rate);
    } else if (effect_->enabled()) {
        status = QStringLiteral("Waiting for the JACK server.");
    }
    effectStatus_->setText(status);
    setRowHidden(kSectionAudioEffect, 1, status.isEmpty());
}

} // namespace widmo
