#pragma once

#include <QLabel>
#include <QTimer>

namespace widmo {

class AudioSession;

/// The main window's line for a recording that waits for its input (the
/// sound server or the input device went away and keep recording is on):
/// "Waiting for the sound server… 0:12 since capture stopped", counting up
/// every half second. Hidden while capture runs. It is no message: it takes
/// neither the keyboard nor a click, so the window's shortcuts keep working.
///
/// Threading: main thread.
class CaptureWaitBanner final : public QLabel {
    Q_OBJECT
public:
    /// `audio` must outlive the banner.
    explicit CaptureWaitBanner(AudioSession& audio, QWidget* parent = nullptr);

    /// The text for `waiting` ("Waiting for …") and `ms` since the loss.
    static QString textFor(const QString& waiting, qint64 ms);

private:
    void refresh();

    AudioSession& audio_;
    QTimer tick_;
};

} // namespace widmo
