#include "ui/SoundLevelPage.h"

#include "core/AnalyzerDefaults.h"
#include "ui/AppFolders.h"
#include "ui/SegmentedControl.h"
#include "ui/SettingsDelegate.h"

#include <QCheckBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>

namespace widmo {

SoundLevelPage::SoundLevelPage(AnalyzerDefaults& defaults, SettingsDelegate& delegate,
                               QWidget* parent)
    : SectionedPage(parent), defaults_(defaults), delegate_(delegate),
      weighting_(
          new SegmentedControl({QStringLiteral("Z"), QStringLiteral("A"), QStringLiteral("C")})),
      timeWeighting_(new SegmentedControl({QStringLiteral("Fast"), QStringLiteral("Slow")})),
      weightDisplays_(new QCheckBox), reset_(new QPushButton(QStringLiteral("Reset"))),
      log_(new QCheckBox), logPeriod_(new QDoubleSpinBox), logPath_(new QLabel),
      logFile_(new QPushButton(QStringLiteral("Choose file..."))) {
    setTitle("Sound level");

    const int meter = addSection("Meter");
    addRow(meter, "Frequency weighting", weighting_);
    addRow(meter, "Time weighting", timeWeighting_);
    addRow(meter, "Weight the spectrum, RTA and spectrogram", weightDisplays_);
    addRow(meter, "Leq, maxima and peak", reset_);
    auto* note = new QLabel(QStringLiteral(
        "Weighting changes apply from the next start of the analyser. The microphone's "
        "calibration is set per input on the Audio input page."));
    note->setWordWrap(true);
    addRow(meter, note);

    const int logSection = addSection("Level log");
    addRow(logSection, "Write while recording", log_);
    logPeriod_->setRange(SoundLevelSettings::kMinLogPeriod, SoundLevelSettings::kMaxLogPeriod);
    logPeriod_->setDecimals(1);
    logPeriod_->setSingleStep(0.1);
    logPeriod_->setSuffix(QStringLiteral(" s"));
    addRow(logSection, "One line every", logPeriod_);
    logPath_->setWordWrap(true);
    logPath_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto* fileCell = new QWidget;
    auto* fileLayout = new QHBoxLayout(fileCell);
    fileLayout->setContentsMargins(0, 0, 0, 0);
    fileLayout->addWidget(logPath_, 1);
    fileLayout->addWidget(logFile_);
    addRow(logSection, fileCell);

    connect(weighting_, &SegmentedControl::valueChanged, this,
            [this](int index) { defaults_.soundLevels().setWeighting(index); });
    connect(timeWeighting_, &SegmentedControl::valueChanged, this,
            [this](int index) { defaults_.soundLevels().setSlow(index == 1); });
    connect(weightDisplays_, &QCheckBox::clicked, this,
            [this](bool on) { defaults_.soundLevels().setWeightDisplays(on); });
    connect(reset_, &QPushButton::clicked, this, [this] { delegate_.resetSoundLevels(); });
    connect(log_, &QCheckBox::clicked, this, [this](bool on) {
        SoundLevelSettings& s = defaults_.soundLevels();
        // A log needs a file: the first time, one in the documents folder.
        if (on && s.logPath().isEmpty())
            s.setLogPath(QDir(AppFolders::documentDirectory().toLocalFile())
                             .filePath(QStringLiteral("widmo-levels.csv")));
        s.setLogEnabled(on);
        refresh();
    });
    connect(logPeriod_, &QDoubleSpinBox::valueChanged, this,
            [this](double seconds) { defaults_.soundLevels().setLogPeriod(seconds); });
    connect(logFile_, &QPushButton::clicked, this, [this] {
        const QString path = QFileDialog::getSaveFileName(
            this, QStringLiteral("Level log"),
            defaults_.soundLevels().logPath().isEmpty()
                ? AppFolders::documentDirectory().toLocalFile()
                : defaults_.soundLevels().logPath(),
            QStringLiteral("CSV files (*.csv)"), nullptr, QFileDialog::DontConfirmOverwrite);
        if (!path.isEmpty()) {
            defaults_.soundLevels().setLogPath(path);
            refresh();
        }
    });
    refresh();
}

void SoundLevelPage::refresh() {
    const SoundLevelSettings& settings = defaults_.soundLevels();
    weighting_->setSelectedSegmentIndex(settings.weighting());
    timeWeighting_->setSelectedSegmentIndex(settings.slow() ? 1 : 0);
    weightDisplays_->setChecked(settings.weightDisplays());
    log_->setChecked(settings.logEnabled());
    {
        const QSignalBlocker quiet(logPeriod_);
        logPeriod_->setValue(settings.logPeriod());
    }
    logPath_->setText(settings.logPath().isEmpty()
                          ? QStringLiteral("No file chosen")
                          : QStringLiteral("%1 (appended to)").arg(settings.logPath()));
}

void SoundLevelPage::viewWillAppear() {
    defaults_.setLastSettingsPage(kSettingsPage);
    refresh();
}

} // namespace widmo
