#pragma once

#include <QObject>

#include <functional>
#include <memory>

class QTimer;
class QToolButton;
class QWidget;

namespace widmo {

class AnalyzerController;
class AnalyzerDefaults;
class AudioSessionInterface;

/// The record/pause and play/stop buttons and what they start: recording
/// through the engine (with the record button blinking while an armed
/// trigger waits) and playback of the document.
///
/// The record button is a green "Start" while idle in products without
/// playback, the red record image in those with it, and the pause image
/// while the analyser runs.
///
/// Threading: main thread only; the engine's completions arrive on it.
class TransportControls final : public QObject {
    Q_OBJECT
public:
    /// `withPlayback` adds the play/stop button. `mayStart` says whether a
    /// start is allowed now (no panel open, buttons not blocked);
    /// `beforeRecording` runs just before a recording starts. The buttons
    /// are children of `window`; the owner places them.
    TransportControls(AnalyzerDefaults& defaults, AudioSessionInterface& audio,
                      AnalyzerController& engine, bool withPlayback, std::function<bool()> mayStart,
                      std::function<void()> beforeRecording, QWidget* window);
    ~TransportControls() override;

    QToolButton* recordButton() const { return recordButton_; }
    /// Null without playback.
    QToolButton* playButton() const { return playButton_; }

    /// Start / pause. Ignored during audio set-up, and a start while
    /// `mayStart` says no.
    void startStopRecorder();
    /// Play / stop the document. Ignored during audio set-up; a start also
    /// while recording, while `mayStart` says no and while the document is empty.
    void startStopPlayer();
    /// Ends the trigger's blinking (the recording is being stopped).
    void stopBlinking();
    /// The record button blinks: the trigger is armed and waits.
    bool blinking() const;
    /// Images and titles from the audio state; the enabled states too when
    /// `changeEnabled`.
    void refresh(bool changeEnabled);

signals:
    /// A start or stop completed; the owner refreshes what depends on it.
    void stateChanged();

private:
    /// The blink timer's action: tints the record button in turn, and ends
    /// the blinking once the trigger fired or the recording stopped.
    void blink();

    AnalyzerDefaults& defaults_;
    AudioSessionInterface& audio_;
    AnalyzerController& engine_;
    std::function<bool()> mayStart_;
    std::function<void()> beforeRecording_;
    QWidget* window_;
    QToolButton* recordButton_ = nullptr;
    QToolButton* playButton_ = nullptr;
    QTimer* blinkTimer_ = nullptr;
    bool tintOn_ = false;
    // Completions that may outlive the controls hold a weak reference to this.
    std::shared_ptr<int> lifeToken_ = std::make_shared<int>(0);
};

} // namespace widmo
