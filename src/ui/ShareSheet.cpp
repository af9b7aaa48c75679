#include "ui/ShareSheet.h"

#include "charts/ChartView.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "engine/AnalyzerController.h"
#include "engine/MainQueue.h"
#include "ui/AppFolders.h"
#include "ui/MessageDialogs.h"
#include "ui/ViewArrangement.h"

#include <QClipboard>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QGuiApplication>
#include <QImage>
#include <QMimeData>
#include <QSaveFile>

#include <algorithm>

namespace widmo {

ShareSheet::ShareSheet(AnalyzerDefaults& defaults, AnalyzerController& engine, ChartView& chartView,
                       ViewArrangement& arrangement, Host& host, QWidget* window)
    : defaults_(defaults), engine_(engine), chartView_(chartView), arrangement_(arrangement),
      host_(host), window_(window) {}

ShareSheet::~ShareSheet() {
    importCancel_.store(true, std::memory_order_release);
    if (importThread_.joinable())
        importThread_.join();
}

void ShareSheet::exportChartDataAsCsv() {
    const QString path = QFileDialog::getSaveFileName(
        window_, QStringLiteral("Export Data as CSV"),
        AppFolders::urlInDocumentsWithFileName(QStringLiteral("chart.csv")).toLocalFile(),
        QStringLiteral("CSV files (*.csv)"));
    if (path.isEmpty())
        return;
    if (!chartView_.writeCsvOfChart(path))
        MessageDialogs::showMessage(QStringLiteral("The chart data could not be saved."), QString(),
                                    QStringLiteral("OK"), {}, nullptr);
}

void ShareSheet::copyChartDataAsCsv() {
    const QUrl url = AppFolders::urlInTempWithFileName(QStringLiteral("chart.csv"));
    auto* mime = new QMimeData;
    mime->setText(QString::fromLatin1(chartView_.csvOfChart()));
    if (chartView_.writeCsvOfChart(url.toLocalFile())) {
        AppFolders::excludeFromBackupURL(url);
        mime->setUrls({url});
    }
    QGuiApplication::clipboard()->setMimeData(mime);
}

const char* const ShareSheet::kImportShortenedMessage =
    "Imported audio file time is %.1fs. Maximum spectrogram time for current settings is "
    "%.1fs. Time was shortened. Try to change resolution settings before import.";

const QString ShareSheet::kChartDataCsv = QStringLiteral("Chart data CSV");

void ShareSheet::chooseImportOrExport() {
    // Beside the audio file and the chart's picture, the chart's numbers as CSV.
    const bool audio = defaults_.features().featureImportExportAudio();
    QStringList choices{QStringLiteral("Chart image PNG"), kChartDataCsv};
    if (audio)
        choices.prepend(QStringLiteral("Audio file"));
    MessageDialogs::showActionSheetWithTitle(
        audio ? QStringLiteral("What do you want to import or export?")
              : QStringLiteral("What do you want to export?"),
        window_, QStringLiteral("Cancel"), choices,
        [this, choices, alive = std::weak_ptr<int>(lifeToken_)](int button) {
            if (alive.expired() || button < 1 || button > choices.size())
                return;
            const QString& choice = choices[button - 1];
            if (choice == kChartDataCsv)
                chartDataActions();
            else
                exportImportActions(choice == QLatin1String("Audio file") ? 0 : 1);
        });
}

void ShareSheet::chartDataActions() {
    MessageDialogs::showActionSheetWithTitle(
        kChartDataCsv, window_, QStringLiteral("Cancel"),
        {QStringLiteral("Export"), QStringLiteral("Send a copy")},
        [this, alive = std::weak_ptr<int>(lifeToken_)](int button) {
            if (alive.expired())
                return;
            if (button == 1)
                exportChartDataAsCsv();
            else if (button == 2)
                copyChartDataAsCsv();
        });
}

void ShareSheet::exportImportActions(int32_t type) {
    const QStringList buttons =
        type == 0
            ? QStringList{QStringLiteral("Export"), QStringLiteral("Import"),
                          QStringLiteral("Send a copy"), QStringLiteral("Open in another app")}
            : QStringList{QStringLiteral("Export"), QStringLiteral("Send a copy"),
                          QStringLiteral("Open in another app")};
    MessageDialogs::showActionSheetWithTitle(
        type == 0 ? QStringLiteral("Audio file") : QStringLiteral("Chart image PNG"), window_,
        QStringLiteral("Cancel"), buttons,
        [this, type, alive = std::weak_ptr<int>(lifeToken_)](int button) {
            if (alive.expired() || button < 1)
                return;
            defaults_.setTypeOfExportImport(type);
            // The image's sheet has no "Import": its buttons are one place further on.
            const int action = type == 0 || button == 1 ? button : button + 1;
            switch (action) {
            case 1:
                exportToFile();
                break;
            case 2:
                importFromFile();
                break;
            case 3:
                sendACopy();
                break;
            default:
                openInAnotherApp();
                break;
            }
        });
}

void ShareSheet::exportToFile() {
    if (defaults_.actualInterval() < 1) {
        MessageDialogs::showMessage(QStringLiteral("Nothing to export!"), QStringLiteral("OK"));
        return;
    }
    host_.stopAnalyzerWithRefreshButtonsEnable(true);
    MainQueue::async(
        [this] {
            defaults_.setIsExport(true);
            openImportExportDialog();
        },
        this);
}

void ShareSheet::importFromFile() {
    host_.stopAnalyzerWithRefreshButtonsEnable(true);
    MainQueue::async(
        [this] {
            defaults_.setIsExport(false);
            openImportExportDialog();
        },
        this);
}

void ShareSheet::openImportExportDialog() {
    auto* dialog = new QFileDialog(window_);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setDirectory(AppFolders::documentDirectory().toLocalFile());
    const bool image = defaults_.typeOfExportImport() == 1;
    if (defaults_.isExport()) {
        dialog->setAcceptMode(QFileDialog::AcceptSave);
        dialog->setWindowTitle(image ? QStringLiteral("Export chart (PNG)")
                                     : QStringLiteral("Export audio file (WAV)"));
        dialog->setNameFilter(image ? QStringLiteral("PNG image (*.png)")
                                    : QStringLiteral("WAV audio file (*.wav)"));
        dialog->setDefaultSuffix(image ? QStringLiteral("png") : QStringLiteral("wav"));
        dialog->selectFile(image ? QStringLiteral("chart.png") : QStringLiteral("recording.wav"));
        connect(dialog, &QFileDialog::fileSelected, this, [this](const QString& path) {
            if (!path.isEmpty())
                writeExportFile(path);
        });
    } else {
        dialog->setAcceptMode(QFileDialog::AcceptOpen);
        dialog->setFileMode(QFileDialog::ExistingFile);
        dialog->setWindowTitle(QStringLiteral("Import audio file"));
        dialog->setNameFilters(
            {QStringLiteral("Audio files (*.wav *.wave *.aif *.aiff *.aifc *.flac *.ogg *.oga "
                            "*.opus *.mp3 *.au *.snd *.caf *.w64 *.rf64)"),
             QStringLiteral("All files (*)")});
        connect(dialog, &QFileDialog::fileSelected, this, [this](const QString& path) {
            if (!path.isEmpty())
                importAudioFileWithURL(QUrl::fromLocalFile(path), {});
        });
    }
    dialog->open();
}

bool ShareSheet::writeExportFile(const QString& path) {
    if (defaults_.typeOfExportImport() == 1) {
        // Written whole or not at all: a viewer never sees half a picture.
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) ||
            !arrangement_.imageOfViewOnScreen().save(&file, "PNG") || !file.commit()) {
            qWarning("error %d from %s", int(file.error()), "QSaveFile");
            MessageDialogs::showMessage(
                QStringLiteral("The picture could not be exported to %1: %2.")
                    .arg(QDir::toNativeSeparators(path), file.errorString()),
                QStringLiteral("OK"));
            return false;
        }
        return true;
    }
    QString error;
    if (!AppFolders::writeAudioDataToFileURL(defaults_, QUrl::fromLocalFile(path), true, &error)) {
        MessageDialogs::showMessage(QStringLiteral("The recording could not be exported to %1: %2.")
                                        .arg(QDir::toNativeSeparators(path), error),
                                    QStringLiteral("OK"));
        return false;
    }
    return true;
}

void ShareSheet::sendACopy() {
    if (defaults_.actualInterval() == 0) {
        MessageDialogs::showMessage(QStringLiteral("Nothing to share!"), QStringLiteral("OK"));
        return;
    }
    host_.blockButtonsForRebuild();
    host_.stopAnalyzerWithRefreshButtonsEnable(false);
    MainQueue::async(
        [this] {
            auto* items = new QMimeData;
            const QString appName = QGuiApplication::applicationDisplayName();
            if (defaults_.typeOfExportImport() == 1) {
                const bool spectrogram = arrangement_.spectrogramOnScreen();
                items->setText(
                    spectrogram ? QStringLiteral("%1 - Spectrogram").arg(appName)
                                : QStringLiteral("%1 - %2").arg(appName, chartView_.nameOfChart()));
                items->setImageData(arrangement_.imageOfViewOnScreen());
            } else {
                items->setText(appName);
                removeExportedTempFile();
                const QUrl url = AppFolders::urlInTempWithFileName(QStringLiteral("recording.wav"));
                AppFolders::writeAudioDataToFileURL(defaults_, url, true);
                AppFolders::excludeFromBackupURL(url);
                // The file stays while the clipboard may still be pasted from:
                // until the next copy or the end of the session.
                exportTempFileURL_ = url;
                items->setUrls({url});
            }
            QGuiApplication::clipboard()->setMimeData(items);
            host_.unblockButtonsAfterRebuild();
        },
        this);
}

void ShareSheet::removeExportedTempFile() {
    if (exportTempFileURL_.isEmpty())
        return;
    QFile::remove(exportTempFileURL_.toLocalFile());
    exportTempFileURL_.clear();
}

void ShareSheet::openInAnotherApp() {
    if (defaults_.actualInterval() == 0) {
        MessageDialogs::showMessage(QStringLiteral("Nothing to open in another app!"),
                                    QStringLiteral("OK"));
        return;
    }
    defaults_.setDataValid(true);
    const bool image = defaults_.typeOfExportImport() == 1;
    const QUrl url = AppFolders::urlInTempWithFileName(image ? QStringLiteral("chart.png")
                                                             : QStringLiteral("recording.wav"));
    if (!writeExportFile(url.toLocalFile())) {
        host_.refreshTransport(true);
        return;
    }
    AppFolders::excludeFromBackupURL(url);
    if (!QDesktopServices::openUrl(url)) {
        MessageDialogs::showMessage(
            QStringLiteral("There is no application on your device to open %1 file type.")
                .arg(image ? QStringLiteral("PNG") : QStringLiteral("WAV")),
            QString(), QStringLiteral("Cancel"), {}, {});
        QFile::remove(url.toLocalFile());
    }
    host_.refreshTransport(true);
}

void ShareSheet::importAudioFileWithURL(const QUrl& url, std::function<void()> finishBlock) {
    if (importRunning_)
        return;
    if (!AppFolders::copyTemporaryAudioFileWithURL(url)) {
        MessageDialogs::showMessage(QStringLiteral("This file cannot be imported."),
                                    QStringLiteral("Cancel"));
        return;
    }
    const QString staged = AppFolders::stagedImportPath(url);
    double rate = 0.0;
    double seconds = 0.0;
    if (AppFolders::getImportedSampleRateAndTimeAndReturnValues(staged, [&](double r, double s) {
            rate = r;
            seconds = s;
        })) {
        QFile::remove(staged);
        MessageDialogs::showMessage(QStringLiteral("This file cannot be read."),
                                    QStringLiteral("Cancel"));
        return;
    }
    if (float(rate) != defaults_.sampleRate()) {
        MessageDialogs::showMessage(
            QStringLiteral("File sample rate is %1Hz. Spectrogram sample rate is %2Hz. Do you "
                           "want to convert the sample rate and import to the current "
                           "spectrogram context?")
                .arg(int(rate))
                .arg(int(defaults_.sampleRate())),
            QString(), QStringLiteral("Cancel"), {QStringLiteral("OK")},
            [this, staged, seconds, finishBlock = std::move(finishBlock),
             alive = std::weak_ptr<int>(lifeToken_)](int button) mutable {
                if (alive.expired())
                    return;
                if (button == 1)
                    importAudioFile(staged, seconds, std::move(finishBlock));
                else
                    QFile::remove(staged);
            });
        return;
    }
    importAudioFile(staged, seconds, std::move(finishBlock));
}

void ShareSheet::importAudioFile(const QString& stagedPath, double timeLength,
                                 std::function<void()> finishBlock) {
    if (importRunning_)
        return;
    importRunning_ = true;
    host_.stopAnalyzerAndRunBlock([this, stagedPath, timeLength,
                                   finishBlock = std::move(finishBlock)]() mutable {
        // The document takes the current settings; an imported one is read-only.
        defaults_.setReadOnly(false);
        defaults_.recalculateDocumentSettings();
        const double maxTime = double(defaults_.spectrogramDuration());
        defaults_.setReadOnly(true);
        defaults_.setTimeOfDocument(float(std::min(timeLength, maxTime)));
        engine_.rebuildDataWithClear();
        defaults_.setDataValid(false);
        host_.refreshTransport(false);

        if (importThread_.joinable())
            importThread_.join();
        importCancel_.store(false, std::memory_order_release);
        // Reading and converting a long file takes seconds: a worker thread
        // reads it, and the wait view shows how far it got.
        importThread_ = std::thread([this, stagedPath, timeLength, maxTime,
                                     finishBlock = std::move(finishBlock)]() mutable {
            int shown = -1;
            const bool ok = AppFolders::readImportedAudioData(
                defaults_, stagedPath,
                [&](int64_t done, int64_t total) {
                    const int percent =
                        total > 0 ? int(std::min<int64_t>(100, done * 100 / total)) : 0;
                    if (percent == shown)
                        return;
                    shown = percent;
                    MainQueue::async(
                        [this, percent] {
                            arrangement_.setWaitText(
                                QStringLiteral("Please wait... %1%").arg(percent));
                        },
                        this);
                },
                &importCancel_);
            MainQueue::async(
                [this, ok, timeLength, maxTime, finishBlock = std::move(finishBlock)]() mutable {
                    arrangement_.setWaitText(QStringLiteral("Please wait..."));
                    engine_.recalculateDataWithFinishBlock([this, ok, timeLength, maxTime,
                                                            finishBlock =
                                                                std::move(finishBlock)]() mutable {
                        defaults_.setDataValid(true);
                        importRunning_ = false;
                        host_.unblockButtonsAfterRebuild();
                        if (!ok)
                            MessageDialogs::showMessage(QStringLiteral("This file cannot be read."),
                                                        QStringLiteral("Cancel"));
                        else if (timeLength > maxTime + 1e-3)
                            MessageDialogs::showMessage(
                                QString::asprintf(kImportShortenedMessage, timeLength, maxTime),
                                QStringLiteral("OK"));
                        if (finishBlock)
                            finishBlock();
                    });
                },
                this);
        });
    });
}

void ShareSheet::importAudioFileAndDeleteWithURL(const QUrl& url) {
    host_.stopAnalyzerWithRefreshButtonsEnable(true);
    importAudioFileWithURL(url, [this] { host_.unblockButtonsAfterRebuild(); });
}

} // namespace widmo
