#include "ui/CalibrateDialog.h"

#include "core/SoundLevelSettings.h"
#include "engine/SoundLevelMonitor.h"
#include "ui/SettingsDelegate.h"

#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

namespace widmo {
namespace {

constexpr int kTickMs = 100;
// Ticks after the reset before the window opens: the reset is applied with
// the next analysed interval.
constexpr int kSettleTicks = 3;

} // namespace

CalibrateDialog::CalibrateDialog(SoundLevelSettings& settings, SettingsDelegate& delegate,
                                 double sampleRate, QWidget* parent)
    : QDialog(parent), settings_(settings), delegate_(delegate), sampleRate_(sampleRate),
      level_(new QDoubleSpinBox), measure_(new QPushButton(QStringLiteral("Measure"))),
      status_(new QLabel), timer_(new QTimer(this)) {
    setWindowTitle(QStringLiteral("Calibrate"));
    level_->setRange(40.0, 160.0);
    level_->setDecimals(1);
    level_->setSuffix(QStringLiteral(" dB SPL"));
    level_->setValue(settings_.calibratorLevel());
    status_->setWordWrap(true);
    status_->setMinimumWidth(360);
    status_->setText(QStringLiteral(
        "Put the sound calibrator on the microphone, switch it on, start the analyser and "
        "press Measure. The level is averaged over 3 seconds; Leq, the maxima and the peak "
        "start again."));
    auto* form = new QFormLayout;
    form->addRow(QStringLiteral("Calibrator level"), level_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    buttons->addButton(measure_, QDialogButtonBox::ActionRole);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(status_);
    layout->addWidget(buttons);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(measure_, &QPushButton::clicked, this, [this] { measure(); });
    timer_->setInterval(kTickMs);
    connect(timer_, &QTimer::timeout, this, [this] { takeReading(); });
}

bool CalibrateDialog::measuring() const { return timer_->isActive(); }

void CalibrateDialog::measure() {
    if (measuring())
        return;
    if (!delegate_.analyzerRecording() || delegate_.soundLevelMonitor() == nullptr) {
        status_->setText(QStringLiteral("The analyser is not running. Start it with the "
                                        "calibrator on the microphone, then press Measure."));
        emit measured(false);
        return;
    }
    settings_.setCalibratorLevel(level_->value());
    reading_ = CalibratorReading();
    settleTicks_ = kSettleTicks;
    delegate_.resetSoundLevels();
    measure_->setEnabled(false);
    status_->setText(QStringLiteral("Measuring..."));
    timer_->start();
}

void CalibrateDialog::takeReading() {
    const SoundLevelMonitor* monitor = delegate_.soundLevelMonitor();
    if (monitor == nullptr || !delegate_.analyzerRecording()) {
        timer_->stop();
        measure_->setEnabled(true);
        status_->setText(QStringLiteral("The analyser stopped during the measurement. Start it "
                                        "and press Measure again."));
        emit measured(false);
        return;
    }
    if (settleTicks_ > 0) {
        --settleTicks_;
        return;
    }
    reading_.add(monitor->energy(), monitor->levels());
    if (reading_.seconds(sampleRate_) >= kWindowSeconds)
        finish();
}

void CalibrateDialog::finish() {
    timer_->stop();
    measure_->setEnabled(true);
    const CalibratorReading::Result r = reading_.result(level_->value(), settings_.splOffset());
    if (!r.offset) {
        status_->setText(r.message);
        emit measured(false);
        return;
    }
    settings_.setSplOffset(r.offset);
    status_->setText(QStringLiteral("Calibrated: the input read %1 dBFS, so 0 dBFS is now "
                                    "%2 dB SPL and the meter reads %3 dB SPL.")
                         .arg(r.measuredDB, 0, 'f', 1)
                         .arg(*r.offset, 0, 'f', 1)
                         .arg(r.measuredDB + *r.offset, 0, 'f', 1));
    emit measured(true);
}

} // namespace widmo
