#include "audio/AudioInputModel.h"

#include "audio/AudioSession.h"
#include "core/AnalyzerDefaults.h"

#include <QTimer>

#include <algorithm>
#include <cmath>

namespace widmo {

AudioInputModel::AudioInputModel(AudioSession& audio, AnalyzerDefaults& defaults, QObject* parent)
    : QObject(parent), audio_(audio), defaults_(defaults) {
    connect(&audio_, &AudioSession::availableInputsChanged, this,
            &AudioInputModel::onInputsChanged);
}

int AudioInputModel::numberOfRowsInComponent(int component) const {
    switch (component) {
    case kComponentPort:
        return int(inputs_.size());
    case kComponentDataSource:
        return 0; // the sound server has no selectable data sources (microphone positions)
    case kComponentChannel:
        return channelRows_;
    default:
        return 0;
    }
}

QString AudioInputModel::titleForRow(int row, int component) const {
    if (row < 0 || row >= numberOfRowsInComponent(component))
        return "---";
    if (component == kComponentPort)
        return inputs_[row].description;
    return QString::asprintf("%d", row + 1);
}

void AudioInputModel::didSelectRow(int row, int component) {
    if (row < 0 || row >= numberOfRowsInComponent(component))
        return;
    selected_[size_t(component)] = row;
    if (component == kComponentPort) {
        audio_.setPreferredInput(inputs_[row]);
        refreshPickerInputWithDelay(true);
    } else if (component == kComponentChannel) {
        audio_.setCurrentInputChannel(row);
    }
}

int AudioInputModel::selectedRowInComponent(int component) const {
    if (component < 0 || component >= kNumberOfComponents)
        return -1;
    return selected_[size_t(component)];
}

void AudioInputModel::refreshPickerInputSelection() {
    inputs_ = audio_.availableInputs();
    const AudioDevice current = audio_.currentInput();
    channelRows_ = std::min(std::max(current.isNull() ? 0 : current.channels, 1), 2);
    deviceRate_ = current.isNull() ? 0 : current.sampleRate;

    selected_[kComponentPort] = -1;
    for (int i = 0; i < int(inputs_.size()); ++i) {
        if (!current.isNull() && inputs_[i].id == current.id) {
            selected_[kComponentPort] = i;
            break;
        }
    }
    selected_[kComponentDataSource] = -1;
    int channel = int(audio_.currentInputChannel());
    if (channel >= channelRows_) {
        channel = 0;
        audio_.setCurrentInputChannel(0);
    }
    selected_[kComponentChannel] = channel;
    inputGainSettable_ = audio_.isInputGainSettable();
    emit selectionRefreshed();
}

void AudioInputModel::refreshPickerInputWithDelay(bool delay) {
    if (delay)
        QTimer::singleShot(kRefreshDelayMs, this, &AudioInputModel::refreshPickerInputSelection);
    else
        refreshPickerInputSelection();
}

void AudioInputModel::setObservingInputChanges(bool observe) { observing_ = observe; }

QString AudioInputModel::deviceSampleRateLabel() const {
    if (deviceRate_ <= 0)
        return QString();
    return QString("Device rate: %1 Hz").arg(deviceRate_);
}

QString AudioInputModel::sampleRateWarning() const {
    const int chosen = int(std::lround(defaults_.sampleRate()));
    if (deviceRate_ <= 0 || chosen <= deviceRate_)
        return QString();
    // The server converts the device's samples to the chosen rate: nothing
    // above the device's own Nyquist frequency was ever captured.
    return QString("The input runs at %1 Hz and is converted to %2 Hz: content above %3 Hz is "
                   "not real (only the converter's slope).")
        .arg(deviceRate_)
        .arg(chosen)
        .arg(deviceRate_ / 2);
}

bool AudioInputModel::inputSelectionEnabled() const { return !audio_.isPlaying(); }

void AudioInputModel::onInputsChanged() {
    // A device arrived or went away: the platform settles its list first.
    if (observing_ && inputSelectionEnabled())
        refreshPickerInputWithDelay(true);
}

float AudioInputModel::roundSoftwareGain(float gainDB) {
    const float rounded = std::round(gainDB);
    return std::fabs(rounded) < 3.0f ? 0.0f : rounded;
}

float AudioInputModel::roundHardwareGain(float gain) { return std::round(gain * 100.0f) / 100.0f; }

float AudioInputModel::setSoftwareInputGain(float sliderValue) {
    const float value = roundSoftwareGain(sliderValue);
    defaults_.setSoftwareInputGainValue(value);
    return value;
}

float AudioInputModel::softwareInputGain() const { return defaults_.softwareInputGainValue(); }

QString AudioInputModel::softwareInputGainLabel() const {
    return QString::asprintf("%.0f dB", double(defaults_.softwareInputGainValue()));
}

float AudioInputModel::setHardwareInputGain(float sliderValue) {
    const float value = roundHardwareGain(sliderValue);
    if (inputGainSettable_)
        audio_.setInputGain(value);
    return value;
}

float AudioInputModel::hardwareInputGain() const { return audio_.inputGain(); }

QString AudioInputModel::hardwareInputGainLabel() const {
    return QString::asprintf("%.2f", double(audio_.inputGain()));
}

} // namespace widmo
