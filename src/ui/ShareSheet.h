#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

class QWidget;

namespace widmo {

class AnalyzerController;
class AnalyzerDefaults;
class ChartView;
class ViewArrangement;

/// The share button's flows: what to import or export ("Audio file", "Chart
/// image PNG", "Chart data CSV"), then the chosen kind's actions: export to a
/// file, import an audio file, send a copy (the clipboard), open in another
/// application. Imports read the file on a worker thread into a new
/// read-only document and recalculate it; products without audio import and
/// export offer only the chart's image and data.
///
/// Threading: main thread, except the import's file reading, which runs on a
/// thread of its own that posts its progress and end back to the main thread.
class ShareSheet final : public QObject {
    Q_OBJECT
public:
    /// What the flows ask of the main screen.
    class Host {
    public:
        virtual ~Host() = default;
        /// Stops recording and playback and refreshes the buttons (their
        /// enabled states too when `enable`).
        virtual void stopAnalyzerWithRefreshButtonsEnable(bool enable) = 0;
        /// Invalidates the document, blocks the buttons, stops the analyser
        /// and runs `block` after the stop wait.
        virtual void stopAnalyzerAndRunBlock(std::function<void()> block) = 0;
        virtual void blockButtonsForRebuild() = 0;
        virtual void unblockButtonsAfterRebuild() = 0;
        /// The transport buttons from the audio state.
        virtual void refreshTransport(bool changeEnabled) = 0;
    };

    /// The shortening message of an import.
    static const char* const kImportShortenedMessage;
    /// Title of the export choice and sheet for the chart's data.
    static const QString kChartDataCsv;

    /// Dialogs and messages are window-modal to `window`.
    ShareSheet(AnalyzerDefaults& defaults, AnalyzerController& engine, ChartView& chartView,
               ViewArrangement& arrangement, Host& host, QWidget* window);
    /// Cancels a running import's reading and waits for its thread.
    ~ShareSheet() override;

    /// "What do you want to import or export?", then the chosen kind's actions.
    void chooseImportOrExport();
    /// Stops the analyser and opens the file dialog that saves the chart image
    /// (PNG) or the document's audio (WAV), as `typeOfExportImport` says.
    /// "Nothing to export!" for an empty document.
    void exportToFile();
    /// Stops the analyser and opens the file dialog that picks an audio file
    /// to import (`importAudioFileWithURL`).
    void importFromFile();
    /// Puts the chart image (with its subject as text), or the document's WAV
    /// file ("recording.wav" in the cache folder), on the clipboard.
    /// "Nothing to share!" for an empty document.
    void sendACopy();
    /// Writes "chart.png" or "recording.wav" in the cache folder and opens it
    /// with the desktop's default application for its type; says so when
    /// there is none. "Nothing to open in another app!" for an empty document.
    void openInAnotherApp();
    /// The chart's data (`ChartView::csvOfChart`) saved through a file dialog
    /// ("chart.csv" in the documents folder offered); a failed write is said
    /// in a message. The analysis goes on.
    void exportChartDataAsCsv();
    /// The chart's data on the clipboard: as text, and as the file "chart.csv"
    /// in the cache folder for applications that take files.
    void copyChartDataAsCsv();
    /// The chart data's sheet: "Export" (a file) or "Send a copy" (the clipboard).
    void chartDataActions();
    /// Deletes the file of the last "Send a copy" of audio, if any.
    void removeExportedTempFile();

    /// Stages a copy of the local file `url`, checks that it is audio, asks
    /// whether to convert another sample rate, then imports it
    /// (`importAudioFile`). A failed check ends in a message and leaves the
    /// document as it was. `finishBlock` runs after a completed import only.
    void importAudioFileWithURL(const QUrl& url, std::function<void()> finishBlock);
    /// Imports the staged file `stagedPath` of `timeLength` seconds: a new
    /// empty read-only document with the current settings, the file read into
    /// it on a worker thread (progress on the wait view, the buttons blocked),
    /// then every spectrum recalculated; a file longer than the spectrogram is
    /// cut, and a message names both lengths.
    void importAudioFile(const QString& stagedPath, double timeLength,
                         std::function<void()> finishBlock);
    /// A file handed to the application: stops the analyser and imports it.
    /// The file itself is left in place (only the staged copy is deleted).
    void importAudioFileAndDeleteWithURL(const QUrl& url);
    /// An import is reading its file or recalculating.
    bool importRunning() const { return importRunning_; }

private:
    /// The second action sheet for `type` (0 audio, 1 image).
    void exportImportActions(int32_t type);
    /// The file dialog of an export or an import, as `isExport` says.
    void openImportExportDialog();
    /// Writes the chart image (PNG) or the audio (WAV) to `path`, as
    /// `typeOfExportImport` says; false when the image could not be written.
    bool writeExportFile(const QString& path);

    AnalyzerDefaults& defaults_;
    AnalyzerController& engine_;
    ChartView& chartView_;
    ViewArrangement& arrangement_;
    Host& host_;
    QWidget* window_;
    QUrl exportTempFileURL_;
    // The import's file reading; joined before the next one and on destruction.
    std::thread importThread_;
    std::atomic<bool> importCancel_{false};
    bool importRunning_ = false;
    // Callbacks that may outlive the sheet (messages) hold a weak reference
    // to this and do nothing once it has expired.
    std::shared_ptr<int> lifeToken_ = std::make_shared<int>(0);
};

} // namespace widmo
