#include "ui/MainScreen.h"

#include "audio/AudioSession.h"
#include "charts/ChartScrollView.h"
#include "charts/ChartView.h"
#include "charts/HeterodyneBand.h"
#include "charts/SpectrogramView.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "core/LastSessionFile.h"
#include "core/SharedStateAccess.h"
#include "engine/AnalyzerController.h"
#include "engine/LastSessionSaver.h"
#include "engine/MainQueue.h"
#include "render/DeviceClass.h"
#include "render/LevelMeterView.h"
#include "render/SpectrogramScrollView.h"
#include "ui/AppFolders.h"
#include "ui/AppLifecycle.h"
#include "ui/CaptureWaitBanner.h"
#include "ui/ChartTypePopover.h"
#include "ui/GainPanel.h"
#include "ui/HelpWindow.h"
#include "ui/MessageDialogs.h"
#include "ui/SegmentedControl.h"
#include "ui/SettingsPanel.h"
#include "ui/ToolbarImages.h"
#include "ui/TransportControls.h"
#include "ui/ViewArrangement.h"

#include <QApplication>
#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QGuiApplication>
#include <QKeySequence>
#include <QMimeData>
#include <QPalette>
#include <QSettings>
#include <QShortcut>
#include <QToolBar>
#include <QToolButton>
#include <QVBoxLayout>

namespace widmo {
namespace {

MainScreen* gSharedMainScreen = nullptr;

} // namespace

const char* const MainScreen::kRecoverMessage =
    "The application has been terminated due to memory pressure. Do you want to recover and "
    "recalculate the last recording?";

MainScreen::MainScreen(AnalyzerDefaults& defaults, AudioSession& audio, FFTManager& fftManager,
                       QWidget* parent)
    : QWidget(parent), defaults_(defaults), audio_(audio), fftManager_(fftManager),
      screenSaver_(QGuiApplication::applicationDisplayName()) {
    gSharedMainScreen = this;
    setupEnvironment();
    commonSetup();
}

MainScreen::~MainScreen() {
    // An import still reading its file is cancelled before the engine goes.
    shareSheet_.reset();
    analyzerController_->stopRecorder();
    analyzerController_->stopPlayer();
    analyzerController_->setSessionSaver(nullptr);
    sessionSaver_.reset(); // finishes a save still running
    audio_.setMainScreen(nullptr);
    audio_.setMessages(nullptr);
    // The engine unhooks itself from the audio object; the chart it shows goes
    // with this widget afterwards.
    analyzerController_.reset();
    if (gSharedMainScreen == this)
        gSharedMainScreen = nullptr;
}

MainScreen* MainScreen::sharedMainScreen() { return gSharedMainScreen; }

void MainScreen::setupEnvironment() {
    analyzerController_ = std::make_unique<AnalyzerController>(defaults_, fftManager_, audio_);
    analyzerController_->setDelegate(this);
    analyzerController_->setMainScreen(this);
    analyzerController_->setMessages(&messages_);
    audio_.setMainScreen(this);
    audio_.setMessages(&messages_);
    MessageDialogs::setMainScreen(this);
    // A copy that may not write the shared state keeps no last-session file:
    // the file and its keys belong to the copy that owns them.
    if (defaults_.features().featureSpectrogramEnabled() && SharedStateAccess::writable()) {
        sessionSaver_ = std::make_unique<LastSessionSaver>(
            defaults_, *analyzerController_, LastSessionFile::defaultPath(),
            [] { return AppLifecycle::restorationStore(); },
            [](const QString& path) {
                AppFolders::excludeFromBackupURL(QUrl::fromLocalFile(path));
            },
            [this](const QString& path, const QString& reason) {
                const QString text =
                    QStringLiteral("The recording cannot be kept for recovery: %1 could not be "
                                   "written (%2). The recording goes on; the previous copy is "
                                   "kept.")
                        .arg(QDir::toNativeSeparators(path), reason);
                MainQueue::async(
                    [this, text] { messages_.showMessage(text, QStringLiteral("OK")); }, this);
            });
        analyzerController_->setSessionSaver(sessionSaver_.get());
    }
}

QToolButton* MainScreen::addToolButton(const QString& toolTip) {
    auto* button = new QToolButton(toolBar_);
    button->setToolTip(toolTip);
    // Space belongs to start/pause, never to the button that has the focus.
    button->setFocusPolicy(Qt::NoFocus);
    button->setToolButtonStyle(Qt::ToolButtonIconOnly);
    toolBar_->addWidget(button);
    return button;
}

void MainScreen::commonSetup() {
    const AnalyzerFeatures& features = defaults_.features();
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);

    chartArea_ = new QWidget(this);
    chartArea_->setAutoFillBackground(true);
    QPalette dark = chartArea_->palette();
    dark.setColor(QPalette::Window, Qt::black);
    chartArea_->setPalette(dark);
    layout->addWidget(chartArea_, 1);

    chartView_ = new ChartView(defaults_, chartArea_);
    chartView_->setFullScreen(true);
    if (features.featureSpectrogramEnabled()) {
        spectrogramView_ = new SpectrogramView(defaults_, chartArea_);
        // The spectrogram's meter shows the level the chart measures.
        chartView_->chart()->setSecondLevelMeterView(spectrogramView_->levelMeterView());
        // The chart shows the spectrum of the interval under the spectrogram's cursor.
        spectrogramView_->scroll()->setDelegateChart(chartView_);
        // Tuned with the mouse: as the audio page's field does, playback (which
        // reads the listening settings on its own thread) stops first, a
        // recording takes the tuning at once.
        spectrogramView_->setTuningHandler([this](double hz) {
            if (audio_.isPlaying())
                stopAnalyzerWithRefreshButtonsEnable(true);
            HeterodyneBand::setTuning(defaults_, hz);
            audio_.refreshListening();
            refreshAllViews();
        });
    }
    analyzerController_->setChartViews(chartView_, spectrogramView_);
    arrangement_ =
        new ViewArrangement(chartArea_, chartView_, spectrogramView_, features.featurePIPEnabled());
    connect(arrangement_, &ViewArrangement::arrangementChanged, this, [this] {
        syncArrangementControls();
        refreshGain();
    });

    // A recording that waits for its input says so above the toolbar.
    layout->addWidget(new CaptureWaitBanner(audio_, this));

    toolBar_ = new QToolBar(this);
    toolBar_->setMovable(false);
    toolBar_->setIconSize(QSize(24, 24));
    layout->addWidget(toolBar_);

    transport_ = new TransportControls(
        defaults_, audio_, *analyzerController_,
        features.featureSpectrogramEnabled() && features.featurePlayback(),
        [this] { return !panelOpen() && !buttonsBlocked_; },
        [this] {
            // The recording measures with the calibration of the input it opens.
            const AudioDevice input = audio_.currentInput();
            if (!input.isNull())
                defaults_.soundLevels().setDevice(QString::fromUtf8(input.id));
        },
        this);
    connect(transport_, &TransportControls::stateChanged, this, [this] { refreshTransport(true); });
    toolBar_->addWidget(transport_->recordButton());
    if (transport_->playButton())
        toolBar_->addWidget(transport_->playButton());
    if (features.featureSpectrogramEnabled()) {
        spectrogramVsChartSegmentedControl_ =
            new SegmentedControl({QStringLiteral("Spectrogram"), QStringLiteral("Spectrum")});
        spectrogramVsChartSegmentedControl_->setToolTip(
            QStringLiteral("Spectrogram or chart full screen (Tab)"));
        spectrogramVsChartSegmentedControl_->setFocusPolicy(Qt::NoFocus);
        toolBar_->addWidget(spectrogramVsChartSegmentedControl_);
        connect(spectrogramVsChartSegmentedControl_, &SegmentedControl::valueChanged, this,
                [this](int segment) { spectrogramVsChartChanged(segment); });
    }
    if (features.featureSecondChartSelectionEnabled()) {
        typeOfChartButton_ = addToolButton(QStringLiteral("Type of the second chart"));
        typeOfChartButton_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
        connect(typeOfChartButton_, &QToolButton::clicked, this, [this] { typeOfChartChange(); });
    }
    if (features.featurePIPEnabled()) {
        pipButton_ = addToolButton(QStringLiteral("Picture-in-picture of the other view"));
        connect(pipButton_, &QToolButton::clicked, this, [this] { pipOnOffChanged(); });
    }
    auto* flexibleButtonItem = new QWidget(toolBar_);
    flexibleButtonItem->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    toolBar_->addWidget(flexibleButtonItem);
    if (features.featureSpectrogramEnabled()) {
        clearSpectrogramButton_ = addToolButton(QStringLiteral("Clear the spectrogram"));
        connect(clearSpectrogramButton_, &QToolButton::clicked, this,
                [this] { clearSpectrogram(); });
        recalculateButton_ =
            addToolButton(QStringLiteral("Recalculate the spectrogram with the current settings"));
        connect(recalculateButton_, &QToolButton::clicked, this,
                [this] { recalculateSpectrogram(); });
    }
    gainPanel_ = new GainPanel(
        defaults_, *chartView_, *arrangement_, features.featureSpectrogramEnabled(),
        [this] { return !audio_.isRecording() && !audio_.isPlaying() && !buttonsBlocked_; }, this);
    connect(gainPanel_, &GainPanel::recalculateRequested, this,
            [this] { recalculateSpectrogram(); });
    toolBar_->addWidget(gainPanel_->button());
    shareSheet_ = std::make_unique<ShareSheet>(defaults_, *analyzerController_, *chartView_,
                                               *arrangement_, *this, this);
    shareImageButton_ = addToolButton(QStringLiteral("Import or export (Ctrl+E)"));
    connect(shareImageButton_, &QToolButton::clicked, this,
            [this] { shareSheet_->chooseImportOrExport(); });
    settingsButton_ = addToolButton(QStringLiteral("Settings (Ctrl+,)"));
    connect(settingsButton_, &QToolButton::clicked, this, [this] { settingsPopover(); });
    helpButton_ = addToolButton(QStringLiteral("Help (F1)"));
    connect(helpButton_, &QToolButton::clicked, this, [this] { openHelp(); });

    const QColor tint = palette().color(QPalette::ButtonText);
    settingsButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("settings"), tint));
    helpButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("help"), tint));
    shareImageButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("share"), tint));
    if (typeOfChartButton_)
        typeOfChartButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("chart"), tint));
    if (pipButton_)
        pipButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("pip"), tint));
    if (clearSpectrogramButton_)
        clearSpectrogramButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("clear"), tint));
    if (recalculateButton_)
        recalculateButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("recalculate"), tint));

    addShortcuts();
    syncArrangementControls();
    // Audio files dropped on the window are imported (`fileHandedIn`).
    setAcceptDrops(features.featureImportExportAudio());

    refreshSegmentedControlTypeOfChartName();
    refreshGain();
    refreshTransport(true);
}

void MainScreen::addShortcuts() {
    // Keyboard: the desktop's ways to the toolbar's main actions.
    auto shortcut = [this](const QKeySequence& keys, std::function<void()> action) {
        auto* s = new QShortcut(keys, this);
        s->setContext(Qt::WindowShortcut);
        connect(s, &QShortcut::activated, this, std::move(action));
    };
    shortcut(QKeySequence(Qt::Key_Space), [this] {
        if (transport_->recordButton()->isEnabled())
            transport_->startStopRecorder();
    });
    shortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma), [this] {
        if (settingsButton_->isEnabled())
            settingsPopover();
    });
    shortcut(QKeySequence(QKeySequence::HelpContents), [this] { openHelp(); });
    shortcut(QKeySequence(Qt::CTRL | Qt::Key_E), [this] {
        if (shareImageButton_->isEnabled())
            shareSheet_->chooseImportOrExport();
    });
    shortcut(QKeySequence(Qt::CTRL | Qt::Key_Q), [] { QApplication::closeAllWindows(); });
    if (QToolButton* play = transport_->playButton()) {
        shortcut(QKeySequence(Qt::Key_P), [this, play] {
            if (play->isEnabled())
                transport_->startStopPlayer();
        });
    }
    if (spectrogramVsChartSegmentedControl_) {
        shortcut(QKeySequence(Qt::Key_Tab), [this] {
            if (!buttonsBlocked_)
                spectrogramVsChartChanged(arrangement_->segment() == 0 ? 1 : 0);
        });
    }
}

void MainScreen::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    if (arrangement_)
        arrangement_->layoutWithoutAnimation();
}

void MainScreen::syncArrangementControls() {
    if (spectrogramVsChartSegmentedControl_)
        spectrogramVsChartSegmentedControl_->setSelectedSegmentIndex(arrangement_->segment());
    if (pipButton_)
        pipButton_->setChecked(arrangement_->pipShown());
}

void MainScreen::spectrogramVsChartChanged(int segment) {
    if (spectrogramView_ == nullptr)
        return;
    gainPanel_->closeAll();
    if (!arrangement_->setSegment(segment))
        syncArrangementControls();
}

void MainScreen::pipOnOffChanged() { arrangement_->togglePip(); }

bool MainScreen::panelOpen() const {
    const bool settingsOpen = settingsPanel_ != nullptr && settingsPanel_->isOpen();
    const bool typeOpen = chartTypePopover_ != nullptr && chartTypePopover_->isVisible();
    return settingsOpen || typeOpen || gainPanel_->infoOpen();
}

// --- Start and stop ----------------------------------------------------------------------------

void MainScreen::recorderDidStop() { refreshTransport(true); }

void MainScreen::playerDidStop() { refreshTransport(true); }

void MainScreen::clearSpectrogram() {
    if (spectrogramView_ == nullptr || buttonsBlocked_ || audio_.isRecording() ||
        audio_.isPlaying())
        return;
    MessageDialogs::showMessage(QStringLiteral("Do you want to clear the spectrogram?"), this,
                                QString(), QStringLiteral("Cancel"), {QStringLiteral("Yes")},
                                [this, alive = std::weak_ptr<int>(lifeToken_)](int button) {
                                    if (alive.expired() || button != 1)
                                        return;
                                    stopAnalyzerAndRunBlock([this] {
                                        analyzerController_->prepareData();
                                        defaults_.setDataValid(true);
                                        unblockButtonsAfterRebuild();
                                    });
                                });
}

void MainScreen::recalculateSpectrogram() {
    if (spectrogramView_ == nullptr || buttonsBlocked_ || audio_.isRecording() ||
        audio_.isPlaying())
        return;
    gainPanel_->closeAll();
    stopAnalyzerAndRunBlock([this] {
        analyzerController_->recalculateDataWithFinishBlock(
            [this] { unblockButtonsAfterRebuild(); });
    });
}

void MainScreen::refreshTransport(bool changeEnabled) {
    transport_->refresh(changeEnabled && !buttonsBlocked_);
    const bool recording = audio_.isRecording();
    const bool playing = audio_.isPlaying();
    if (changeEnabled && !buttonsBlocked_) {
        const bool idle = !recording && !playing;
        for (QToolButton* b : {recalculateButton_, clearSpectrogramButton_})
            if (b)
                b->setEnabled(idle);
    }
    // Every stop passes here, whatever its reason: a stopped analysis shows no level.
    if (!recording && !playing) {
        chartView_->levelMeterView()->showEmpty();
        if (spectrogramView_)
            spectrogramView_->levelMeterView()->showEmpty();
    }
    screenSaver_.setInhibited(recording);
    toolBar_->update();
}

void MainScreen::stopAnalyzerWithRefreshButtonsEnable(bool enable) {
    transport_->stopBlinking();
    analyzerController_->stopPlayer();
    analyzerController_->stopRecorder();
    refreshTransport(enable);
}

void MainScreen::stopAnalyzerAndRunBlock(std::function<void()> block) {
    const bool running = audio_.isPlaying() || audio_.isRecording();
    const int wait = running ? kStopWaitRunningMs : kStopWaitIdleMs;
    defaults_.setDataValid(false);
    blockButtonsForRebuild();
    stopAnalyzerWithRefreshButtonsEnable(false);
    whenStopped(wait, std::move(block));
}

void MainScreen::stopAnalyzerWithoutBlockButtonsAndRunBlock(std::function<void()> block) {
    const bool running = audio_.isPlaying() || audio_.isRecording();
    const int wait = running ? kStopWaitRunningMs : kStopWaitIdleMs;
    stopAnalyzerWithRefreshButtonsEnable(true);
    whenStopped(wait, std::move(block));
}

void MainScreen::whenStopped(int waitMs, std::function<void()> block) {
    // The pause lets the sound server's last callbacks end; the analysis of
    // the intervals they brought may still run and is waited for too, since
    // the block may change the geometry it reads.
    MainQueue::asyncAfter(
        std::chrono::milliseconds(waitMs),
        [this, block = std::move(block)]() mutable {
            analyzerController_->afterQueuedAnalysis(std::move(block), &delayedContext_);
        },
        &delayedContext_);
}

void MainScreen::blockButtonsForRebuild() {
    buttonsBlocked_ = true;
    gainPanel_->closeAll();
    arrangement_->showWait(true);
    for (QToolButton* b :
         {transport_->recordButton(), gainPanel_->button(), settingsButton_,
          transport_->playButton(), clearSpectrogramButton_, recalculateButton_, shareImageButton_})
        if (b)
            b->setEnabled(false);
    toolBar_->update();
    arrangement_->redrawViews();
}

void MainScreen::unblockButtonsAfterRebuild() {
    buttonsBlocked_ = false;
    arrangement_->showWait(false);
    settingsButton_->setEnabled(true);
    shareImageButton_->setEnabled(true);
    gainPanel_->refreshButton(buttonsBlocked_);
    refreshTransport(true);
    arrangement_->redrawViews();
}

void MainScreen::importAudioFileAndDeleteWithURL(const QUrl& url) {
    shareSheet_->importAudioFileAndDeleteWithURL(url);
}

void MainScreen::prepareAnalyzerData() {
    defaults_.setDataValid(false);
    blockButtonsForRebuild();
    MainQueue::async(
        [this] {
            const int64_t intervals = defaults_.actualInterval();
            defaults_.recalculateDocumentSettings();
            // A store from other settings is never offered.
            const bool offer =
                defaults_.features().featureSpectrogramEnabled() && intervals >= 1 &&
                static_cast<int64_t>(defaults_.audioBuffersData().size() * sizeof(float)) ==
                    defaults_.audioBufferByteSize();
            if (!offer) {
                continuePrepareAnalyzerData(false, intervals);
                return;
            }
            messages_.showMessage(
                QString::fromLatin1(kRecoverMessage), QStringLiteral("Recover analysis"),
                QStringLiteral("No"), {QStringLiteral("Yes")},
                [this, intervals, alive = std::weak_ptr<int>(lifeToken_)](int button) {
                    if (!alive.expired())
                        continuePrepareAnalyzerData(button == 1, intervals);
                });
        },
        &delayedContext_);
}

void MainScreen::continuePrepareAnalyzerData(bool recover, int64_t intervals) {
    if (!recover) {
        defaults_.setActualInterval(0);
        std::vector<float>().swap(defaults_.audioBuffersData());
        defaults_.setReadOnly(false);
        defaults_.setTimeOfDocument(0.0f);
    }
    // Geometry, index tables, sample store and textures in one chain; the
    // first rebuild keeps a restored store.
    analyzerController_->prepareTextures();
    analyzerController_->rebuildDataWithClear();
    defaults_.generateAllIndexes();
    defaults_.setDataValid(true);
    // The band tables were built with the index tables: the octave RTA may
    // read them from now on.
    defaults_.setOctaveRTAValid(true);
    if (!recover) {
        unblockButtonsAfterRebuild();
        return;
    }
    defaults_.setActualInterval(intervals);
    analyzerController_->recalculateDataWithFinishBlock([this] {
        refreshTransport(true);
        unblockButtonsAfterRebuild();
    });
}

// --- Chart type ----------------------------------------------------------------------------------

void MainScreen::typeOfChartChange() {
    const AnalyzerFeatures& features = defaults_.features();
    if (DeviceClass::isPad(this)) {
        // A popover list with the chart on screen ticked.
        if (!chartTypePopover_) {
            auto* popover = new ChartTypePopover(features, this);
            connect(popover, &ChartTypePopover::typeOfChartSelected, this,
                    [this, popover](int32_t type) {
                        setTypeOfChart(type);
                        popover->close();
                    });
            chartTypePopover_ = popover;
        }
        ChartTypePopover* popover = chartTypePopover_;
        popover->setTypeOfChart(chartView_->typeOfChart());
        popover->presentFrom(typeOfChartButton_);
        return;
    }
    QStringList titles;
    std::vector<int32_t> types;
    const auto offer = [&](bool on, const char* title, int32_t type) {
        if (on) {
            titles << QString::fromLatin1(title);
            types.push_back(type);
        }
    };
    offer(features.featureSpectrumEnabled(), "Spectrum", 0);
    offer(features.featureOscilloscopeEnabled(), "Oscilloscope", 1);
    offer(features.featureOctaveRTAEnabled(), "Octave RTA", 2);
    MessageDialogs::showActionSheetWithTitle(
        QStringLiteral("Type of the Second Chart"), this, QStringLiteral("Cancel"), titles,
        [this, alive = std::weak_ptr<int>(lifeToken_), types](int button) {
            if (!alive.expired() && button >= 1 && size_t(button) <= types.size())
                setTypeOfChart(types[size_t(button - 1)]);
        });
}

void MainScreen::setTypeOfChart(int32_t type) {
    chartView_->setTypeOfChart(type);
    refreshSegmentedControlTypeOfChartName();
    refreshGain();
    chartView_->setNeedsDisplayWithSubviews();
}

void MainScreen::refreshSegmentedControlTypeOfChartName() {
    if (typeOfChartButton_)
        typeOfChartButton_->setText(chartView_->nameOfChart());
    if (spectrogramVsChartSegmentedControl_)
        spectrogramVsChartSegmentedControl_->setTitleForSegmentAtIndex(chartView_->nameOfChart(),
                                                                       1);
}

void MainScreen::refreshGain() {
    gainPanel_->refresh();
    gainPanel_->refreshButton(buttonsBlocked_);
}

// --- Settings ------------------------------------------------------------------------------------

void MainScreen::settingsPopover() {
    if (buttonsBlocked_)
        return;
    if (!settingsPanel_)
        settingsPanel_ = new SettingsPanel(defaults_, defaults_.features(), audio_, *this, this);
    SettingsPanel* settings = settingsPanel_;
    if (settings->isOpen())
        return;
    gainPanel_->closeAll();
    // The pages edit the pending copies; closing applies them (settingsWillClose).
    defaults_.copyCurrentToPreferred();
    settings->presentFrom(settingsButton_);
}

void MainScreen::openHelp() {
    // The help is a reference read beside the chart: the analysis goes on.
    if (!helpWindow_) {
        auto* help = new HelpWindow(defaults_.features(), this);
        help->setWindowFlag(Qt::Window);
        help->setWindowTitle(QGuiApplication::applicationDisplayName() + QStringLiteral(" Help"));
        help->resize(640, 720);
        helpWindow_ = help;
    }
    helpWindow_->show();
    helpWindow_->raise();
    helpWindow_->activateWindow();
}

void MainScreen::settingsWillClose() {
    // The level axis follows a calibration made or forgotten on the way.
    chartView_->prepareTextures();
    if (defaults_.preferredChange() == AnalyzerDefaults::PreferredChange::None) {
        refreshAllViews();
        return;
    }
    stopAnalyzerAndRunBlock([this] {
        bool fftSizeChanged = false;
        const AnalyzerDefaults::PreferredChange change =
            defaults_.applyPreferredSettings(&fftSizeChanged);
        refreshGain();
        if (change == AnalyzerDefaults::PreferredChange::Geometry) {
            // New geometry: a new, empty document.
            analyzerController_->rebuildDataWithClear();
            defaults_.setDataValid(true);
            unblockButtonsAfterRebuild();
            return;
        }
        // Display settings: the document stays and is computed again.
        analyzerController_->prepareTextures();
        analyzerController_->recalculateDataWithFinishBlock(
            [this] { unblockButtonsAfterRebuild(); });
    });
}

const SoundLevelMonitor* MainScreen::soundLevelMonitor() const {
    return &analyzerController_->levelMonitor();
}

void MainScreen::resetSoundLevels() { analyzerController_->levelMonitor().requestReset(); }

bool MainScreen::analyzerRecording() const { return audio_.isRecording(); }

void MainScreen::refreshAllViews() { arrangement_->redrawViews(); }

void MainScreen::generateOctaveRTAIndexes() {
    defaults_.setOctaveRTAValid(false);
    MainQueue::asyncAfter(
        std::chrono::milliseconds(kStopWaitIdleMs),
        [this] {
            defaults_.generateOctaveRTAIndexes();
            chartView_->clearOctaveRTAValues();
            chartView_->turnOffMeasuring();
            defaults_.setOctaveRTAValid(true);
            refreshAllViews();
        },
        &delayedContext_);
}

void MainScreen::refreshSecondChartMeasuringView() {
    chartView_->chart()->refreshMeasuringLabels();
    gainPanel_->refreshButton(buttonsBlocked_);
    refreshAllViews();
}

void MainScreen::setSettingsPopOverContentSize(QSize size) {
    // The popover takes the size its page asks for, below its navigation bar;
    // on a phone the panel covers the window and keeps its size.
    SettingsPanel* settings = settingsPanel_;
    if (settings != nullptr && settings->isOpen() && settings->isWindow())
        settings->resize(size.width(), size.height() + SettingsPanel::kNavigationBarHeight);
}

// --- State restoration
// ----------------------------------------------------------------------------

void MainScreen::saveScreenState(QSettings& store) {
    defaults_.saveDefaults();
    // The document's keys go with the last-session file, only when it was written.
    if (sessionSaver_)
        sessionSaver_->saveNow(store);
    store.setValue(QLatin1String(kTypeOfChartKey), chartView_->typeOfChart());
    store.setValue(QLatin1String(kSpectrogramPIPKey), arrangement_->spectrogramPIP());
    store.setValue(QLatin1String(kChartPIPKey), arrangement_->chartPIP());
    store.setValue(QLatin1String(kSegmentKey), arrangement_->segment());
    store.setValue(QLatin1String(AnalyzerDefaults::kVersionKey),
                   QLatin1String(AnalyzerDefaults::kVersionTag));
    store.sync();
}

void MainScreen::restoreScreenState(const QSettings& store) {
    if (store.value(QLatin1String(AnalyzerDefaults::kVersionKey)).toString() !=
        QLatin1String(AnalyzerDefaults::kVersionTag))
        return;
    const AnalyzerFeatures& features = defaults_.features();
    if (features.featureSpectrogramEnabled() && SharedStateAccess::writable())
        LastSessionFile::restore(store, LastSessionFile::defaultPath(), defaults_);
    if (features.featureSecondChartEnabled() && store.contains(QLatin1String(kTypeOfChartKey))) {
        bool ok = false;
        const int type = store.value(QLatin1String(kTypeOfChartKey)).toInt(&ok);
        if (ok && type >= 0 && type <= 2)
            chartView_->setTypeOfChart(type);
    }
    const bool spectrogramPIP =
        store.value(QLatin1String(kSpectrogramPIPKey), arrangement_->spectrogramPIP()).toBool();
    const bool chartPIP =
        store.value(QLatin1String(kChartPIPKey), arrangement_->chartPIP()).toBool();
    int segment = arrangement_->segment();
    if (store.contains(QLatin1String(kSegmentKey)))
        segment = store.value(QLatin1String(kSegmentKey)).toInt() == 0 ? 0 : 1;
    arrangement_->restore(chartPIP, spectrogramPIP, segment);
}

void MainScreen::applicationFinishedRestoringState() {
    syncArrangementControls();
    refreshSegmentedControlTypeOfChartName();
    refreshGain();
    arrangement_->layoutWithoutAnimation();
}

void MainScreen::dragEnterEvent(QDragEnterEvent* event) {
    const QList<QUrl> urls = event->mimeData()->urls();
    if (!urls.isEmpty() && urls.first().isLocalFile())
        event->acceptProposedAction();
}

void MainScreen::dropEvent(QDropEvent* event) {
    const QList<QUrl> urls = event->mimeData()->urls();
    if (urls.isEmpty() || !urls.first().isLocalFile())
        return;
    event->acceptProposedAction();
    emit fileHandedIn(urls.first());
}

} // namespace widmo
