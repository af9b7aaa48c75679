#pragma once

#include "audio/AudioDevice.h"

#include <QList>
#include <QObject>
#include <QString>

#include <array>

namespace widmo {

class AnalyzerDefaults;
class AudioSession;

/// The audio-input settings as a model without widgets: the three columns of
/// the input picker (input port, data source, channel), their selection, the
/// refresh rules, and the software and hardware input gains with their labels.
/// A view shows `numberOfRowsInComponent` / `titleForRow`, forwards the user's
/// choices to `didSelectRow` and the gain sliders to the gain setters, and
/// reloads everything on `selectionRefreshed`.
///
/// Threading: main thread only.
class AudioInputModel : public QObject {
    Q_OBJECT
public:
    static constexpr int kComponentPort = 0;
    static constexpr int kComponentDataSource = 1;
    static constexpr int kComponentChannel = 2;
    static constexpr int kNumberOfComponents = 3;
    /// Row height in points and column widths as fractions of the picker's width.
    static constexpr float kRowHeight = 25.0f;
    static constexpr std::array<float, 3> kComponentWidths{0.57f, 0.25f, 0.10f};
    /// Delay of a refresh after a change of inputs, in milliseconds.
    static constexpr int kRefreshDelayMs = 200;

    /// `audio` and `defaults` must outlive the model.
    AudioInputModel(AudioSession& audio, AnalyzerDefaults& defaults, QObject* parent = nullptr);

    // --- Picker ----------------------------------------------------------------------------

    int numberOfComponents() const { return kNumberOfComponents; }
    /// Ports: the available inputs. Data sources: none on this platform.
    /// Channels: min(max(channels of the current input, 1), 2).
    int numberOfRowsInComponent(int component) const;
    /// The port's description, or "%d" of row + 1 for channels; "---" for a row
    /// outside the list.
    QString titleForRow(int row, int component) const;
    /// Port: it becomes the preferred input, then a delayed refresh follows.
    /// Channel: it becomes the analysed channel. Rows out of range do nothing.
    void didSelectRow(int row, int component);
    /// The row selected in `component` by the last refresh or choice; -1 none.
    int selectedRowInComponent(int component) const;
    /// The inputs listed in column 0, as of the last refresh.
    const QList<AudioDevice>& availableInputs() const { return inputs_; }

    // --- Device rate -------------------------------------------------------------------------

    /// The current input's own sample rate in Hz as of the last refresh; 0
    /// without an input.
    int deviceSampleRate() const { return deviceRate_; }
    /// "Device rate: 48000 Hz" (empty without an input).
    QString deviceSampleRateLabel() const;
    /// When the document's rate is above the device's own: what that means
    /// for the spectrum above half the device's rate; else empty.
    QString sampleRateWarning() const;

    // --- Refresh -----------------------------------------------------------------------------

    /// Reloads the columns and selects the current input (the server's
    /// default while none is chosen), the current data source and the analysed
    /// channel (reset to 0 when the new input has fewer channels), and the
    /// device's rate; then `selectionRefreshed`.
    void refreshPickerInputSelection();
    /// With `delay` the refresh runs 0.2 s later, else at once.
    void refreshPickerInputWithDelay(bool delay);
    /// While the screen is visible and selection enabled: a device arriving or
    /// going away, or another default input, causes a delayed refresh.
    void setObservingInputChanges(bool observe);
    bool observingInputChanges() const { return observing_; }
    /// Input selection is offered only while nothing plays.
    bool inputSelectionEnabled() const;

    // --- Gains -------------------------------------------------------------------------------

    /// Software gain rule: round half away from zero; magnitudes below 3 dB snap to 0.
    static float roundSoftwareGain(float gainDB);
    /// Hardware gain rule: rounded to two decimals, half away from zero.
    static float roundHardwareGain(float gain);
    /// Takes a slider value in dB, stores the rounded value in the settings and
    /// returns it (the value the slider shows).
    float setSoftwareInputGain(float sliderValue);
    float softwareInputGain() const;
    /// "%.0f dB" of the software gain.
    QString softwareInputGainLabel() const;

    /// The platform can set the current input's gain; else the three hardware
    /// gain controls are disabled and the not-available label is shown.
    bool isInputGainSettable() const { return inputGainSettable_; }
    /// Takes a slider value 0..1, sets the rounded value and returns it.
    float setHardwareInputGain(float sliderValue);
    float hardwareInputGain() const;
    /// "%.2f" of the hardware gain.
    QString hardwareInputGainLabel() const;

signals:
    /// The columns, selections and gain labels changed; the view reloads them.
    void selectionRefreshed();

private:
    void onInputsChanged();

    AudioSession& audio_;
    AnalyzerDefaults& defaults_;
    QList<AudioDevice> inputs_;
    int channelRows_ = 1;
    int deviceRate_ = 0;
    std::array<int, kNumberOfComponents> selected_{-1, -1, -1};
    bool observing_ = false;
    bool inputGainSettable_ = false;
};

} // namespace widmo
