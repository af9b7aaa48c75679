#include "ui/CaptureWaitBanner.h"

#include "audio/AudioSession.h"

namespace widmo {

CaptureWaitBanner::CaptureWaitBanner(AudioSession& audio, QWidget* parent)
    : QLabel(parent), audio_(audio) {
    setObjectName(QStringLiteral("captureWaitBanner"));
    setFocusPolicy(Qt::NoFocus);
    setAlignment(Qt::AlignCenter);
    setMargin(6);
    setAutoFillBackground(true);
    QPalette amber = palette();
    amber.setColor(QPalette::Window, QColor(120, 80, 0));
    amber.setColor(QPalette::WindowText, Qt::white);
    setPalette(amber);
    tick_.setInterval(500);
    connect(&tick_, &QTimer::timeout, this, &CaptureWaitBanner::refresh);
    connect(&audio_, &AudioSession::waitingChanged, this, &CaptureWaitBanner::refresh);
    refresh();
}

QString CaptureWaitBanner::textFor(const QString& waiting, qint64 ms) {
    const qint64 seconds = ms / 1000;
    const QString elapsed =
        seconds >= 3600
            ? QStringLiteral("%1:%2:%3")
                  .arg(seconds / 3600)
                  .arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'))
                  .arg(seconds % 60, 2, 10, QLatin1Char('0'))
            : QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1 %2 since capture stopped. The recording resumes by itself; the "
                          "missing time is marked.")
        .arg(waiting, elapsed);
}

void CaptureWaitBanner::refresh() {
    const bool waiting = audio_.isWaitingForInput();
    if (waiting) {
        setText(textFor(audio_.waitingText(), audio_.waitingMs()));
        if (!tick_.isActive())
            tick_.start();
    } else {
        tick_.stop();
    }
    setVisible(waiting);
}

} // namespace widmo
