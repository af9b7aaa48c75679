#pragma once

#include "engine/AnalyzerControllerDelegate.h"
#include "engine/MainScreenInterface.h"
#include "ui/ScreenSaverInhibitor.h"
#include "ui/SettingsDelegate.h"
#include "ui/MessagePresenter.h"

#include <QUrl>
#include <QWidget>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

class QFrame;
class QLabel;
class QAbstractAnimation;
class QPushButton;
class QSettings;
class QSlider;
class QToolBar;
class QTimer;
class QToolButton;

namespace widmo {

class AnalyzerController;
class AnalyzerDefaults;
class ChartView;
class FFTManager;
class HelpWindow;
class SegmentedControl;
class LastSessionSaver;
class SettingsPanel;
class SpectrogramView;
class AudioSession;
class GainInfoPopover;
class ChartTypePopover;

/// The application's one screen: the chart area (the second chart with its
/// level meter; with the spectrogram, the spectrogram or the chart full screen
/// and the other optionally as a picture-in-picture) above a toolbar, owning
/// the analysis engine.
///
/// The toolbar follows the audio object: a green "Start" while idle (the red
/// record image in products with playback), the pause image while the
/// analyser runs. It also holds the chart-type button (products with more than
/// one second chart), the gain button (the gain panel, or the octave RTA's
/// min/max reset), the settings and the help button; with the spectrogram the
/// play/stop, spectrogram-or-chart, picture-in-picture, clear and recalculate
/// controls.
///
/// Every change of document geometry runs with the engine stopped: the screen
/// stops the analyser, shows the please-wait view with the buttons blocked,
/// and runs the change 0.5 s later (0.3 s when nothing ran).
///
/// Threading: main thread only; the engine and the audio object post their
/// callbacks to the main queue.
class MainScreen final : public QWidget,
                                 public MainScreenInterface,
                                 public AnalyzerControllerDelegate,
                                 public SettingsDelegate {
    Q_OBJECT
public:
    /// Restoration keys of the screen (own store, see `saveScreenState`).
    static constexpr const char* kTypeOfChartKey = "mainViewController.typeOfChart";
    static constexpr const char* kSpectrogramPIPKey = "mainViewController.spectrogramPIP";
    static constexpr const char* kChartPIPKey = "mainViewController.chartPIP";
    static constexpr const char* kSegmentKey =
        "mainViewController.spectrogramVsChartSegmentedControl";
    /// Waits between stopping the analyser and a rebuild, in milliseconds.
    static constexpr int kStopWaitRunningMs = 500;
    static constexpr int kStopWaitIdleMs = 300;

    /// `defaults`, `audio` and `fftManager` must outlive the screen. Creates the
    /// engine and the chart, and wires them and the alert helper to the audio
    /// object. The document is prepared by `prepareAnalyzerData`.
    MainScreen(AnalyzerDefaults& defaults, AudioSession& audio, FFTManager& fftManager,
                       QWidget* parent = nullptr);
    /// Stops the analyser and unhooks the engine from the audio object.
    ~MainScreen() override;

    /// The screen most recently created and still alive; null when none.
    static MainScreen* sharedMainScreen();

    // --- Toolbar actions -----------------------------------------------------------------

    /// Start / pause. Ignored during audio set-up and while the settings panel is open.
    void startStopRecorder();
    /// Play / stop the document (products with playback). Ignored during audio
    /// set-up, while a panel is open and while the document is empty.
    void startStopPlayer();
    /// Asks "Do you want to clear the spectrogram?"; "Yes" empties the document.
    void clearSpectrogram();
    /// Segment 0 puts the spectrogram full screen, 1 the chart; the other view
    /// follows as a picture-in-picture when its flag is set.
    void spectrogramVsChartChanged(int segment);
    /// Shows or hides the picture-in-picture of the view that is not full screen.
    void pipOnOffChanged();
    /// Recomputes the document from its samples with the current settings.
    void recalculateSpectrogram();
    /// The gain panel's value: the information popover with its recalculate button.
    void gainValueButtonPressed();
    /// The chart-type choice ("Type of the Second Chart").
    void typeOfChartChange();
    void typeOfChartSpectrumSelected() { setTypeOfChart(0); }
    void typeOfChartOscilloscopeSelected() { setTypeOfChart(1); }
    void typeOfChartOctaveRTASelected() { setTypeOfChart(2); }
    /// Opens the gain panel, or resets the octave RTA's holds.
    void gainSliderAndMinMaxButtonButton();
    /// Stores the slider's value in the setting it stands for and redraws.
    void gainSliderValueChanged(float valueDB);
    /// A click outside the gain panel closes it.
    void tapRecognizerDismissGainView();
    /// The settings panel (a popover below the settings button on a desktop).
    void settingsPopover();
    /// The help screen, in a window of its own; the analysis goes on.
    void openHelp();
    /// The chart's data (`ChartView::csvOfChart`) saved through a file dialog
    /// ("chart.csv" in the documents folder offered); a failed write is said
    /// in a message. The analysis goes on.
    void exportChartDataAsCsv();
    /// The chart's data on the clipboard: as text, and as the file "chart.csv"
    /// in the cache folder for applications that take files.
    void copyChartDataAsCsv();
    /// The chart data's sheet: "Export" (a file) or "Send a copy" (the clipboard).
    void chartDataActions();
    /// Title of the export choice and sheet for the chart's data.
    static const QString kChartDataCsv;

    // --- Import and export -----------------------------------------------------------------

    /// The share button: "What do you want to import or export?" ("Audio
    /// file", "Chart image PNG"), then the chosen kind's actions; products
    /// without audio import and export go straight to the chart image's
    /// actions (Export, Send a copy, Open in another app).
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
    /// The shortening message of an import.
    static const char* const kImportShortenedMessage;
    /// `imageOfChart` of whichever view is full screen.
    QImage imageOfChartOnScreen();
    /// An import is reading its file or recalculating.
    bool importRunning() const { return importRunning_; }
    QToolButton* shareImageButton() const { return shareImageButton_; }

signals:
    /// A file was dropped on the screen (products with audio import).
    void fileHandedIn(const QUrl& url);

public:
    // --- AnalyzerControllerDelegate -----------------------------------------------------------

    void recorderDidStop() override;
    void playerDidStop() override;

    // --- MainScreenInterface -------------------------------------------------------

    void stopAnalyzerWithoutBlockButtonsAndRunBlock(std::function<void()> block) override;
    void stopAnalyzerWithRefreshButtonsEnable(bool enable) override;

    // --- SettingsDelegate -------------------------------------------------------------------

    void settingsWillClose() override;
    void settingsNeedStopAnalyzer() override { stopAnalyzerWithRefreshButtonsEnable(true); }
    void refreshAllViews() override;
    void generateOctaveRTAIndexes() override;
    void refreshSecondChartMeasuringView() override;
    void setSettingsPopOverContentSize(QSize size) override;

    // --- Helpers -------------------------------------------------------------------------------

    /// Invalidates the document, blocks the buttons, stops the analyser and runs
    /// `block` on the main queue after the stop wait.
    void stopAnalyzerAndRunBlock(std::function<void()> block);
    void blockButtonsForRebuild();
    void unblockButtonsAfterRebuild();
    /// Images and titles from the audio state; the enabled states only when
    /// `changeEnabled`.
    void refreshPlayRecordPauseButtonsWithChangeEnabled(bool changeEnabled);
    /// The gain panel's setting, range, title and value for the chart on screen.
    void refreshGainSlider();
    void refreshMaxMinResetButton();
    void refreshSegmentedControlTypeOfChartName();
    /// Builds the document on first activation: geometry, tables, store,
    /// textures; the buttons are blocked until it is done. A last session
    /// restored with the screen's state (spectrogram products) is offered
    /// for recovery first ("Recover analysis"); "Yes" keeps its samples and
    /// recalculates them, "No" starts an empty document.
    void prepareAnalyzerData();
    /// The recovery question's text.
    static const char* const kRecoverMessage;

    // --- State restoration ----------------------------------------------------------------------

    /// Saves the settings, the last-session file with its keys (spectrogram
    /// products), then the screen's keys and the "VersionKey" tag.
    void saveScreenState(QSettings& coder);
    /// Restores the screen's keys, and the last session (spectrogram
    /// products), only from a record with this build's tag.
    void restoreScreenState(const QSettings& coder);
    void applicationFinishedRestoringState();

    // --- Parts, for the application and tests -----------------------------------------------

    AnalyzerController& analyzerController() { return *analyzerController_; }
    /// The saver of the last session; null without the spectrogram.
    LastSessionSaver* sessionSaver() const { return sessionSaver_.get(); }
    /// The record button blinks: the trigger is armed and waits.
    bool trigBlinking() const;
    ChartView* chartView() const { return chartView_; }
    /// Null in products without the spectrogram.
    SpectrogramView* spectrogramView() const { return spectrogramView_; }
    QToolButton* recordPauseButton() const { return recordPauseButton_; }
    /// The spectrogram's controls; null in products without them.
    QToolButton* playStopButton() const { return playStopButton_; }
    QToolButton* clearSpectrogramButton() const { return clearSpectrogramButton_; }
    QToolButton* recalculateButton() const { return recalculateButton_; }
    QToolButton* pipButton() const { return pipButton_; }
    SegmentedControl* spectrogramVsChartSegmentedControl() const {
        return spectrogramVsChartSegmentedControl_;
    }
    QPushButton* gainValueButton() const { return gainValueButton_; }
    /// The gain information popover once it was opened, else null.
    GainInfoPopover* gainInfoPopover() const { return gainInfoPopover_; }
    bool chartPIP() const { return chartPIP_; }
    bool spectrogramPIP() const { return spectrogramPIP_; }
    /// 0: the spectrogram fills the screen; 1: the chart does.
    int spectrogramVsChartSegment() const { return spectrogramVsChartSegment_; }
    /// A full-screen or picture-in-picture change is still animating.
    bool layoutAnimating() const;
    QToolButton* typeOfChartButton() const { return typeOfChartButton_; }
    QToolButton* gainSliderAndMaxMinResetButton() const { return gainSliderAndMaxMinResetButton_; }
    QToolButton* settingsButton() const { return settingsButton_; }
    QToolButton* helpButton() const { return helpButton_; }
    /// The help window once it was opened, else null.
    HelpWindow* helpWindow() const { return helpWindow_; }
    QFrame* gainView() const { return gainView_; }
    QSlider* gainSlider() const { return gainSlider_; }
    QLabel* gainValueLabel() const { return gainValueLabel_; }
    QLabel* gainDescriptionLabel() const { return gainDescriptionLabel_; }
    QWidget* pleaseWaitView() const { return pleaseWaitView_; }
    /// The settings panel; null before it was first opened.
    /// The tablet's chart-type list once it was opened, else null.
    ChartTypePopover* chartTypePopover() const {
        return chartTypePopover_;
    }
    SettingsPanel* settingsPanel() const {
        return settingsPanel_;
    }
    bool gainSliderButtonEnabled() const { return gainSliderButtonEnabled_; }
    bool resetMinMaxButtonEnabled() const { return resetMinMaxButtonEnabled_; }
    bool buttonsBlocked() const { return buttonsBlocked_; }
    bool screenSaverInhibited() const { return screenSaver_.isInhibited(); }
    /// A settings, help or chart-type panel is open.
    bool panelOpen() const;

    /// The gain panel's meanings.
    enum class GainMeaning { None, Oscilloscope, Spectrum, SpectrogramMinimum, SpectrogramGain };
    GainMeaning gainMeaning() const;
    /// Length of each full-screen and picture-in-picture animation.
    static constexpr int kLayoutAnimationMs = 600;

protected:
    void resizeEvent(QResizeEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void commonSetup();
    void setupEnvironment();
    void setTypeOfChart(int32_t type);
    void layoutViewPositionsWithoutAnimation();
    /// Where `view` goes: the whole chart area, or the picture-in-picture
    /// corner clear of the full-screen view's meter.
    QRect setupConstraintsForView(QWidget* view, bool fullScreen) const;
    /// The full-screen view grows into place, then the picture-in-picture (if on).
    void animateLayout();
    /// The picture-in-picture grows out of its corner (`in`) or shrinks into it.
    void animatePip(QWidget* small, bool in);
    QWidget* fullScreenView() const;
    QWidget* pipView() const;
    bool pipShown() const;
    void applyFullScreenFlags();
    void redrawViews();
    /// The blink timer's action: tints the record button in turn, and ends
    /// the blinking once the trigger fired or the recording stopped.
    void buttonRecTrigTint();
    /// The end of `prepareAnalyzerData`, after the recovery question.
    void continuePrepareAnalyzerData(bool recover, int64_t intervals);
    float gainSliderValue() const;
    QString gainInfoText() const;
    QToolButton* addToolButton(const QString& toolTip);
    /// The second action sheet of `chooseImportOrExport` for `type` (0 audio, 1 image).
    void exportImportActions(int32_t type);
    /// The file dialog of an export or an import, as `isExport` says.
    void openImportExportController();
    /// Writes the chart image (PNG) or the audio (WAV) to `path`, as
    /// `typeOfExportImport` says; false when the image could not be written.
    bool writeExportFile(const QString& path);

    AnalyzerDefaults& defaults_;
    AudioSession& audio_;
    FFTManager& fftManager_;
    MessagePresenter messages_;
    ScreenSaverInhibitor screenSaver_;

    std::unique_ptr<AnalyzerController> analyzerController_;
    std::unique_ptr<LastSessionSaver> sessionSaver_;
    QTimer* timerTrigREC_ = nullptr;
    bool trigTintOn_ = false;
    QWidget* chartArea_ = nullptr;
    ChartView* chartView_ = nullptr;
    SpectrogramView* spectrogramView_ = nullptr;
    QToolBar* toolBar_ = nullptr;
    QToolButton* recordPauseButton_ = nullptr;
    QToolButton* playStopButton_ = nullptr;
    SegmentedControl* spectrogramVsChartSegmentedControl_ = nullptr;
    QToolButton* pipButton_ = nullptr;
    QToolButton* clearSpectrogramButton_ = nullptr;
    QToolButton* recalculateButton_ = nullptr;
    QPushButton* gainValueButton_ = nullptr;
    GainInfoPopover* gainInfoPopover_ = nullptr;
    QAbstractAnimation* layoutAnimation_ = nullptr; // the one running, if any
    QFrame* pipFrame_ = nullptr;
    QToolButton* typeOfChartButton_ = nullptr;
    QToolButton* gainSliderAndMaxMinResetButton_ = nullptr;
    QToolButton* settingsButton_ = nullptr;
    QToolButton* helpButton_ = nullptr;
    QToolButton* shareImageButton_ = nullptr;
    QFrame* gainView_ = nullptr;
    QSlider* gainSlider_ = nullptr;
    QLabel* gainValueLabel_ = nullptr;
    QLabel* gainDescriptionLabel_ = nullptr;
    QWidget* pleaseWaitView_ = nullptr;
    // Panels made on first use; children of this screen, kept for reuse.
    SettingsPanel* settingsPanel_ = nullptr;
    HelpWindow* helpWindow_ = nullptr;
    ChartTypePopover* chartTypePopover_ = nullptr;

    bool chartPIP_ = false;
    bool spectrogramPIP_ = false;
    int spectrogramVsChartSegment_ = 1; // the chart fills the screen
    bool gainSliderButtonEnabled_ = false;
    bool resetMinMaxButtonEnabled_ = false;
    bool buttonsBlocked_ = false;
    bool mTrigStarted = false;
    QUrl exportTempFileURL_;
    // The import's file reading; joined before the next one and on destruction.
    std::thread importThread_;
    std::atomic<bool> importCancel_{false};
    bool importRunning_ = false;
    // Context of delayed main-queue work: dropped when the screen goes away.
    QObject delayedContext_;
    // Callbacks that may outlive the screen (audio completions, messages) hold
    // a weak reference to this and do nothing once it has expired.
    std::shared_ptr<int> lifeToken_ = std::make_shared<int>(0);
};

} // namespace widmo
