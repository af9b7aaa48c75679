#include "ui/TransportControls.h"

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "engine/AnalyzerController.h"
#include "engine/AudioSessionInterface.h"
#include "ui/ToolbarImages.h"

#include <QPalette>
#include <QTimer>
#include <QToolButton>

namespace widmo {
namespace {

const QColor kStartGreen = QColor::fromRgbF(0.0f, 0.6f, 0.0f);
const QColor kRecordRed = QColor(220, 30, 30);
constexpr int kBlinkMs = 500;

QToolButton* makeButton(QWidget* window, const QString& toolTip) {
    auto* button = new QToolButton(window);
    button->setToolTip(toolTip);
    // Space belongs to start/pause, never to the button that has the focus.
    button->setFocusPolicy(Qt::NoFocus);
    button->setToolButtonStyle(Qt::ToolButtonIconOnly);
    return button;
}

} // namespace

TransportControls::TransportControls(AnalyzerDefaults& defaults, AudioSessionInterface& audio,
                                     AnalyzerController& engine, bool withPlayback,
                                     std::function<bool()> mayStart,
                                     std::function<void()> beforeRecording, QWidget* window)
    : QObject(window), defaults_(defaults), audio_(audio), engine_(engine),
      mayStart_(std::move(mayStart)), beforeRecording_(std::move(beforeRecording)),
      window_(window) {
    recordButton_ = makeButton(window, QStringLiteral("Start or pause the analyser (Space)"));
    recordButton_->setMinimumWidth(64);
    connect(recordButton_, &QToolButton::clicked, this, [this] { startStopRecorder(); });
    if (withPlayback) {
        playButton_ = makeButton(window, QStringLiteral("Play or stop the recording (P)"));
        connect(playButton_, &QToolButton::clicked, this, [this] { startStopPlayer(); });
    }
    blinkTimer_ = new QTimer(this);
    blinkTimer_->setTimerType(Qt::PreciseTimer);
    blinkTimer_->setInterval(kBlinkMs);
    connect(blinkTimer_, &QTimer::timeout, this, [this] { blink(); });
}

TransportControls::~TransportControls() = default;

void TransportControls::startStopRecorder() {
    if (audio_.isSetupInProgress())
        return;
    if (audio_.isRecording()) {
        blinkTimer_->stop();
        engine_.stopRecorder();
        emit stateChanged();
        return;
    }
    if (!mayStart_())
        return;
    if (beforeRecording_)
        beforeRecording_();
    engine_.startRecorder([this, alive = std::weak_ptr<int>(lifeToken_)](bool ok) {
        if (alive.expired())
            return;
        if (ok && engine_.workingWithTrig()) {
            tintOn_ = false;
            blinkTimer_->start();
        }
        emit stateChanged();
    });
}

void TransportControls::startStopPlayer() {
    if (playButton_ == nullptr || audio_.isSetupInProgress())
        return;
    if (audio_.isPlaying()) {
        engine_.stopPlayer();
        emit stateChanged();
        return;
    }
    if (!mayStart_() || audio_.isRecording() || defaults_.actualInterval() < 1)
        return;
    engine_.startPlayer([this, alive = std::weak_ptr<int>(lifeToken_)](bool) {
        if (!alive.expired())
            emit stateChanged();
    });
}

void TransportControls::stopBlinking() { blinkTimer_->stop(); }

bool TransportControls::blinking() const { return blinkTimer_->isActive(); }

void TransportControls::blink() {
    if (!audio_.isRecording() || engine_.trigIsStarted()) {
        blinkTimer_->stop();
        emit stateChanged();
        return;
    }
    tintOn_ = !tintOn_;
    const QColor tint = tintOn_ ? kRecordRed : window_->palette().color(QPalette::ButtonText);
    recordButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("pause"), tint));
}

void TransportControls::refresh(bool changeEnabled) {
    const QColor defaultTint = window_->palette().color(QPalette::ButtonText);
    const bool recording = audio_.isRecording();
    if (recording) {
        recordButton_->setText(QString());
        recordButton_->setToolButtonStyle(Qt::ToolButtonIconOnly);
        recordButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("pause"), defaultTint));
        recordButton_->setStyleSheet(QString());
    } else if (defaults_.features().featurePlayback()) {
        recordButton_->setText(QString());
        recordButton_->setToolButtonStyle(Qt::ToolButtonIconOnly);
        recordButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("record"), kRecordRed));
        recordButton_->setStyleSheet(QString());
    } else {
        recordButton_->setIcon(QIcon());
        recordButton_->setToolButtonStyle(Qt::ToolButtonTextOnly);
        recordButton_->setText(QStringLiteral("Start"));
        recordButton_->setStyleSheet(QStringLiteral("QToolButton { color: %1; font-weight: bold; }")
                                         .arg(kStartGreen.name()));
    }
    const bool playing = audio_.isPlaying();
    if (playButton_) {
        playButton_->setIcon(ToolbarImages::imageNamed(
            playing ? QStringLiteral("stop") : QStringLiteral("play"), defaultTint));
    }
    if (changeEnabled) {
        recordButton_->setEnabled(recording || (!playing && !defaults_.readOnly()));
        if (playButton_)
            playButton_->setEnabled(!recording);
    }
}

} // namespace widmo
