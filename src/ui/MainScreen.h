#pragma once

#include "engine/AnalyzerControllerDelegate.h"
#include "engine/MainScreenInterface.h"
#include "ui/MessagePresenter.h"
#include "ui/ScreenSaverInhibitor.h"
#include "ui/SettingsDelegate.h"
#include "ui/ShareSheet.h"

#include <QUrl>
#include <QWidget>

#include <cstdint>
#include <functional>
#include <memory>

class QSettings;
class QToolBar;
class QToolButton;

namespace widmo {

class AnalyzerController;
class AnalyzerDefaults;
class AudioSession;
class ChartTypePopover;
class ChartView;
class FFTManager;
class GainPanel;
class HelpWindow;
class LastSessionSaver;
class SegmentedControl;
class SettingsPanel;
class SpectrogramView;
class TransportControls;
class ViewArrangement;

/// The application's one screen: the chart area (the second chart with its
/// level meter; with the spectrogram, the spectrogram or the chart full screen
/// and the other optionally as a picture-in-picture) above a toolbar, owning
/// the analysis engine.
///
/// It wires its parts: the view arrangement of the chart area
/// (`ViewArrangement`), the transport buttons (`TransportControls`), the gain
/// button with its panel (`GainPanel`) and the share button's flows
/// (`ShareSheet`). It keeps the toolbar's remaining controls itself (the
/// chart-type, spectrogram-or-chart, picture-in-picture, clear, recalculate,
/// settings and help buttons), the keyboard shortcuts, the document's
/// preparation and the screen's saved state.
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
                         public SettingsDelegate,
                         public ShareSheet::Host {
    Q_OBJECT
public:
    /// Restoration keys of the screen (own store, see `saveScreenState`). The
    /// key names are those of earlier versions, so their stores still load.
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

    /// Asks "Do you want to clear the spectrogram?"; "Yes" empties the document.
    void clearSpectrogram();
    /// Segment 0 puts the spectrogram full screen, 1 the chart; the other view
    /// follows as a picture-in-picture when its flag is set.
    void spectrogramVsChartChanged(int segment);
    /// Shows or hides the picture-in-picture of the view that is not full screen.
    void pipOnOffChanged();
    /// Recomputes the document from its samples with the current settings.
    void recalculateSpectrogram();
    /// The chart-type choice ("Type of the Second Chart").
    void typeOfChartChange();
    void typeOfChartSpectrumSelected() { setTypeOfChart(0); }
    void typeOfChartOscilloscopeSelected() { setTypeOfChart(1); }
    void typeOfChartOctaveRTASelected() { setTypeOfChart(2); }
    /// The settings panel (a popover below the settings button on a desktop).
    void settingsPopover();
    /// The help screen, in a window of its own; the analysis goes on.
    void openHelp();

signals:
    /// A file was dropped on the screen (products with audio import).
    void fileHandedIn(const QUrl& url);

public:
    // --- AnalyzerControllerDelegate -----------------------------------------------------------

    void recorderDidStop() override;
    void playerDidStop() override;

    // --- MainScreenInterface and ShareSheet::Host ------------------------------------------

    void stopAnalyzerWithoutBlockButtonsAndRunBlock(std::function<void()> block) override;
    void stopAnalyzerWithRefreshButtonsEnable(bool enable) override;
    void stopAnalyzerAndRunBlock(std::function<void()> block) override;
    void blockButtonsForRebuild() override;
    void unblockButtonsAfterRebuild() override;
    /// The transport buttons, the clear and recalculate buttons' enabled states
    /// (when `changeEnabled`), the level meters and the screen saver, from the
    /// audio state.
    void refreshTransport(bool changeEnabled) override;

    // --- SettingsDelegate -------------------------------------------------------------------

    void settingsWillClose() override;
    void settingsNeedStopAnalyzer() override { stopAnalyzerWithRefreshButtonsEnable(true); }
    void refreshAllViews() override;
    void generateOctaveRTAIndexes() override;
    void refreshSecondChartMeasuringView() override;
    void setSettingsPopOverContentSize(QSize size) override;
    const SoundLevelMonitor* soundLevelMonitor() const override;
    void resetSoundLevels() override;
    bool analyzerRecording() const override;

    // --- Document ---------------------------------------------------------------------------

    /// Builds the document on first activation: geometry, tables, store,
    /// textures; the buttons are blocked until it is done. A last session
    /// restored with the screen's state (spectrogram products) is offered
    /// for recovery first ("Recover analysis"); "Yes" keeps its samples and
    /// recalculates them, "No" starts an empty document.
    void prepareAnalyzerData();
    /// The recovery question's text.
    static const char* const kRecoverMessage;
    /// A file handed to the application: stops the analyser and imports it.
    void importAudioFileAndDeleteWithURL(const QUrl& url);

    // --- State restoration ----------------------------------------------------------------------

    /// Saves the settings, the last-session file with its keys (spectrogram
    /// products), then the screen's keys and the "VersionKey" tag.
    void saveScreenState(QSettings& store);
    /// Restores the screen's keys, and the last session (spectrogram
    /// products), only from a record with this build's tag.
    void restoreScreenState(const QSettings& store);
    void applicationFinishedRestoringState();

    // --- Parts, for the application and tests -----------------------------------------------

    AnalyzerController& analyzerController() { return *analyzerController_; }
    /// The saver of the last session; null without the spectrogram.
    LastSessionSaver* sessionSaver() const { return sessionSaver_.get(); }
    ChartView* chartView() const { return chartView_; }
    /// Null in products without the spectrogram.
    SpectrogramView* spectrogramView() const { return spectrogramView_; }
    ViewArrangement& arrangement() const { return *arrangement_; }
    TransportControls& transport() const { return *transport_; }
    GainPanel& gainPanel() const { return *gainPanel_; }
    ShareSheet& shareSheet() const { return *shareSheet_; }
    /// The spectrogram's controls; null in products without them.
    QToolButton* clearSpectrogramButton() const { return clearSpectrogramButton_; }
    QToolButton* recalculateButton() const { return recalculateButton_; }
    QToolButton* pipButton() const { return pipButton_; }
    SegmentedControl* spectrogramVsChartSegmentedControl() const {
        return spectrogramVsChartSegmentedControl_;
    }
    QToolButton* typeOfChartButton() const { return typeOfChartButton_; }
    QToolButton* settingsButton() const { return settingsButton_; }
    QToolButton* helpButton() const { return helpButton_; }
    QToolButton* shareImageButton() const { return shareImageButton_; }
    /// The help window once it was opened, else null.
    HelpWindow* helpWindow() const { return helpWindow_; }
    /// The tablet's chart-type list once it was opened, else null.
    ChartTypePopover* chartTypePopover() const { return chartTypePopover_; }
    /// The settings panel; null before it was first opened.
    SettingsPanel* settingsPanel() const { return settingsPanel_; }
    bool buttonsBlocked() const { return buttonsBlocked_; }
    bool screenSaverInhibited() const { return screenSaver_.isInhibited(); }
    /// A settings, help or chart-type panel is open.
    bool panelOpen() const;

protected:
    void resizeEvent(QResizeEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    /// Runs `block` after `waitMs` and once the analysis queued before has ended.
    void whenStopped(int waitMs, std::function<void()> block);
    void commonSetup();
    void setupEnvironment();
    void addShortcuts();
    void setTypeOfChart(int32_t type);
    /// The segmented control and the picture-in-picture button follow the arrangement.
    void syncArrangementControls();
    /// The gain panel's slider and button for the view on screen.
    void refreshGain();
    /// The end of `prepareAnalyzerData`, after the recovery question.
    void continuePrepareAnalyzerData(bool recover, int64_t intervals);
    void refreshSegmentedControlTypeOfChartName();
    QToolButton* addToolButton(const QString& toolTip);

    AnalyzerDefaults& defaults_;
    AudioSession& audio_;
    FFTManager& fftManager_;
    MessagePresenter messages_;
    ScreenSaverInhibitor screenSaver_;

    std::unique_ptr<AnalyzerController> analyzerController_;
    std::unique_ptr<LastSessionSaver> sessionSaver_;
    QWidget* chartArea_ = nullptr;
    ChartView* chartView_ = nullptr;
    SpectrogramView* spectrogramView_ = nullptr;
    ViewArrangement* arrangement_ = nullptr;
    TransportControls* transport_ = nullptr;
    GainPanel* gainPanel_ = nullptr;
    std::unique_ptr<ShareSheet> shareSheet_;
    QToolBar* toolBar_ = nullptr;
    SegmentedControl* spectrogramVsChartSegmentedControl_ = nullptr;
    QToolButton* pipButton_ = nullptr;
    QToolButton* clearSpectrogramButton_ = nullptr;
    QToolButton* recalculateButton_ = nullptr;
    QToolButton* typeOfChartButton_ = nullptr;
    QToolButton* settingsButton_ = nullptr;
    QToolButton* helpButton_ = nullptr;
    QToolButton* shareImageButton_ = nullptr;
    // Panels made on first use; children of this screen, kept for reuse.
    SettingsPanel* settingsPanel_ = nullptr;
    HelpWindow* helpWindow_ = nullptr;
    ChartTypePopover* chartTypePopover_ = nullptr;

    bool buttonsBlocked_ = false;
    // Context of delayed main-queue work: dropped when the screen goes away.
    QObject delayedContext_;
    // Callbacks that may outlive the screen (audio completions, messages) hold
    // a weak reference to this and do nothing once it has expired.
    std::shared_ptr<int> lifeToken_ = std::make_shared<int>(0);
};

} // namespace widmo
