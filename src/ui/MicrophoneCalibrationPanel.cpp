#include "ui/MicrophoneCalibrationPanel.h"

#include "audio/AudioSession.h"
#include "core/AnalyzerDefaults.h"
#include "dsp/MicrophoneCalibration.h"
#include "ui/AppFolders.h"
#include "ui/CalibrateDialog.h"
#include "ui/MessageDialogs.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QPushButton>

namespace widmo {
namespace {

// The reference level of a sensitivity figure: dBFS at 94 dB SPL (1 Pa).
constexpr double kSensitivityReferenceDB = 94.0;

} // namespace

MicrophoneCalibrationPanel::MicrophoneCalibrationPanel(AnalyzerDefaults& defaults,
                                                       AudioSession& audio,
                                                       SettingsDelegate& delegate, QWidget* parent)
    : QWidget(parent), defaults_(defaults), audio_(audio), delegate_(delegate), device_(new QLabel),
      file_(new QLabel), offset_(new QLabel),
      choose_(new QPushButton(QStringLiteral("Choose file..."))),
      remove_(new QPushButton(QStringLiteral("Remove file"))),
      useSensitivity_(new QPushButton(QStringLiteral("Use file's sensitivity"))),
      calibrate_(new QPushButton(QStringLiteral("Calibrate..."))),
      forget_(new QPushButton(QStringLiteral("Forget offset"))) {
    for (QLabel* label : {device_, file_, offset_}) {
        label->setWordWrap(true);
        label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    }
    auto* layout = new QGridLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(device_, 0, 0, 1, 3);
    layout->addWidget(file_, 1, 0, 1, 3);
    layout->addWidget(choose_, 2, 0);
    layout->addWidget(remove_, 2, 1);
    layout->addWidget(offset_, 3, 0, 1, 3);
    layout->addWidget(calibrate_, 4, 0);
    layout->addWidget(useSensitivity_, 4, 1);
    layout->addWidget(forget_, 4, 2);

    connect(choose_, &QPushButton::clicked, this, [this] {
        const QString path = QFileDialog::getOpenFileName(
            this, QStringLiteral("Microphone calibration file"),
            AppFolders::documentDirectory().toLocalFile(),
            QStringLiteral("Calibration files (*.txt *.cal *.frd *.csv);;All files (*)"));
        if (!path.isEmpty())
            chooseFile(path);
    });
    connect(remove_, &QPushButton::clicked, this, [this] {
        defaults_.soundLevels().setCalibrationFile(QString());
        refresh();
    });
    connect(useSensitivity_, &QPushButton::clicked, this, [this] {
        QString error;
        const auto calibration =
            MicrophoneCalibration::load(defaults_.soundLevels().calibrationFile(), &error);
        if (calibration && calibration->sensitivityDBFS())
            defaults_.soundLevels().setSplOffset(kSensitivityReferenceDB -
                                                 *calibration->sensitivityDBFS());
        refresh();
    });
    connect(calibrate_, &QPushButton::clicked, this, [this] { calibrate(); });
    connect(forget_, &QPushButton::clicked, this, [this] {
        defaults_.soundLevels().setSplOffset(std::nullopt);
        refresh();
    });
    refresh();
}

void MicrophoneCalibrationPanel::refresh() {
    SoundLevelSettings& settings = defaults_.soundLevels();
    const AudioDevice input = audio_.currentInput();
    if (!input.isNull() && QString::fromUtf8(input.id) != settings.device())
        settings.setDevice(QString::fromUtf8(input.id));
    device_->setText(input.isNull() ? QStringLiteral("No input device")
                                    : QStringLiteral("Microphone on %1").arg(input.description));

    bool hasSensitivity = false;
    const QString path = settings.calibrationFile();
    if (path.isEmpty()) {
        file_->setText(QStringLiteral("No calibration file: the microphone is taken as flat."));
    } else {
        QString error;
        const auto calibration = MicrophoneCalibration::load(path, &error);
        if (!calibration) {
            file_->setText(error);
        } else {
            const auto& points = calibration->points();
            QString text = QStringLiteral("%1: %2 points, %3 Hz to %4 Hz")
                               .arg(QFileInfo(path).fileName())
                               .arg(points.size())
                               .arg(points.front().frequency, 0, 'g', 6)
                               .arg(points.back().frequency, 0, 'g', 6);
            if (!calibration->sensitivityText().isEmpty())
                text += QStringLiteral("\n") + calibration->sensitivityText();
            file_->setText(text);
            hasSensitivity = calibration->sensitivityDBFS().has_value();
        }
    }
    const auto offset = settings.splOffset();
    offset_->setText(offset ? QStringLiteral("0 dBFS = %1 dB SPL: levels are in %2.")
                                  .arg(*offset, 0, 'f', 1)
                                  .arg(settings.unit())
                            : QStringLiteral("Not calibrated: levels are in dBFS."));
    remove_->setEnabled(!path.isEmpty());
    useSensitivity_->setEnabled(hasSensitivity);
    forget_->setEnabled(offset.has_value());
    calibrate_->setEnabled(!input.isNull());
}

bool MicrophoneCalibrationPanel::chooseFile(const QString& path) {
    QString error;
    const auto calibration = MicrophoneCalibration::load(path, &error);
    if (!calibration) {
        MessageDialogs::showMessage(error, QStringLiteral("OK"));
        return false;
    }
    SoundLevelSettings& settings = defaults_.soundLevels();
    settings.setCalibrationFile(path);
    // A file that states the microphone's sensitivity calibrates a new input.
    if (!settings.splOffset() && calibration->sensitivityDBFS())
        settings.setSplOffset(kSensitivityReferenceDB - *calibration->sensitivityDBFS());
    refresh();
    return true;
}

void MicrophoneCalibrationPanel::calibrate() {
    auto* dialog = new CalibrateDialog(defaults_.soundLevels(), delegate_,
                                       double(defaults_.sampleRate()), this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &CalibrateDialog::measured, this, [this] { refresh(); });
    dialog->open();
}

} // namespace widmo
