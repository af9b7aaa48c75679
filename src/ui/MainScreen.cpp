#include "ui/MainScreen.h"

#include "audio/AudioSession.h"
#include "charts/ChartScrollView.h"
#include "charts/ChartView.h"
#include "charts/SpectrogramView.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "core/LastSessionFile.h"
#include "engine/AnalyzerController.h"
#include "engine/LastSessionSaver.h"
#include "engine/MainQueue.h"
#include "render/DeviceClass.h"
#include "render/LevelMeterView.h"
#include "render/SpectrogramScrollView.h"
#include "ui/AppLifecycle.h"
#include "ui/HelpWindow.h"
#include "ui/SegmentedControl.h"
#include "ui/SettingsPanel.h"
#include "ui/AppFolders.h"
#include "ui/MessageDialogs.h"
#include "ui/ToolbarImages.h"
#include "ui/GainInfoPopover.h"
#include "ui/ChartTypePopover.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QFileDialog>
#include <QFrame>
#include <QGuiApplication>
#include <QImage>
#include <QKeySequence>
#include <QLabel>
#include <QMimeData>
#include <QPalette>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QSaveFile>
#include <QSettings>
#include <QShortcut>
#include <QSlider>
#include <QTimer>
#include <QToolBar>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>

namespace widmo {
namespace {

MainScreen* gSharedMainScreen = nullptr;

// The gain slider works in whole decibels, as its label shows them.
struct GainRange {
    int minimum;
    int maximum;
};
constexpr GainRange kGainRangeDB{0, 70};
constexpr GainRange kMinimumLevelRange{-144, -10};

// The picture-in-picture: a third of the chart area's width and height, kept
// this far from the area's edges (and from the full-screen view's meter).
constexpr double kPipFraction = 1.0 / 3.0;
constexpr int kPipMargin = 8;
// Below the full-screen view's measuring read-out, which runs along its top.
constexpr int kPipTop = 46;

const QColor kStartGreen = QColor::fromRgbF(0.0f, 0.6f, 0.0f);
const QColor kRecordRed = QColor(220, 30, 30);

} // namespace

const char* const MainScreen::kRecoverMessage =
    "The application has been terminated due to memory pressure. Do you want to recover and "
    "recalculate the last recording?";

MainScreen::MainScreen(AnalyzerDefaults& defaults, AudioSession& audio,
                                       FFTManager& fftManager, QWidget* parent)
    : QWidget(parent), defaults_(defaults), audio_(audio), fftManager_(fftManager),
      screenSaver_(QGuiApplication::applicationDisplayName()) {
    gSharedMainScreen = this;
    setupEnvironment();
    commonSetup();
}

MainScreen::~MainScreen() {
    importCancel_.store(true, std::memory_order_release);
    if (importThread_.joinable())
        importThread_.join();
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

MainScreen* MainScreen::sharedMainScreen() {
    return gSharedMainScreen;
}

void MainScreen::setupEnvironment() {
    analyzerController_ = std::make_unique<AnalyzerController>(defaults_, fftManager_, audio_);
    analyzerController_->setDelegate(this);
    analyzerController_->setMainScreen(this);
    analyzerController_->setMessages(&messages_);
    audio_.setMainScreen(this);
    audio_.setMessages(&messages_);
    MessageDialogs::setMainScreen(this);
    if (defaults_.features().featureSpectrogramEnabled()) {
        sessionSaver_ = std::make_unique<LastSessionSaver>(
            defaults_, *analyzerController_, LastSessionFile::defaultPath(),
            [] { return AppLifecycle::restorationStore(); },
            [](const QString& path) {
                AppFolders::excludeFromBackupURL(QUrl::fromLocalFile(path));
            });
        analyzerController_->setSessionSaver(sessionSaver_.get());
    }
    timerTrigREC_ = new QTimer(this);
    timerTrigREC_->setTimerType(Qt::PreciseTimer);
    timerTrigREC_->setInterval(500);
    connect(timerTrigREC_, &QTimer::timeout, this, [this] { buttonRecTrigTint(); });
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
        spectrogramVsChartSegment_ = 0;
    }
    analyzerController_->setChartViews(chartView_, spectrogramView_);

    // A thin light edge around the picture-in-picture sets it off from the
    // view under it; it stands one pixel out behind the small view.
    pipFrame_ = new QFrame(chartArea_);
    pipFrame_->setStyleSheet(QStringLiteral("QFrame { background: rgb(110, 110, 110); }"));
    pipFrame_->hide();

    pleaseWaitView_ = new QLabel(QStringLiteral("Please wait..."), chartArea_);
    auto* wait = static_cast<QLabel*>(pleaseWaitView_);
    wait->setAlignment(Qt::AlignCenter);
    wait->setStyleSheet(QStringLiteral("QLabel { background: rgba(0, 0, 0, 160); color: white; "
                                       "font-size: 18px; border-radius: 8px; }"));
    wait->hide();

    toolBar_ = new QToolBar(this);
    toolBar_->setMovable(false);
    toolBar_->setIconSize(QSize(24, 24));
    layout->addWidget(toolBar_);

    recordPauseButton_ = addToolButton(QStringLiteral("Start or pause the analyser (Space)"));
    recordPauseButton_->setMinimumWidth(64);
    connect(recordPauseButton_, &QToolButton::clicked, this, [this] { startStopRecorder(); });
    if (features.featureSpectrogramEnabled() && features.featurePlayback()) {
        playStopButton_ = addToolButton(QStringLiteral("Play or stop the recording (P)"));
        connect(playStopButton_, &QToolButton::clicked, this, [this] { startStopPlayer(); });
    }
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
    gainSliderAndMaxMinResetButton_ = addToolButton(QStringLiteral("Gain"));
    connect(gainSliderAndMaxMinResetButton_, &QToolButton::clicked, this,
            [this] { gainSliderAndMinMaxButtonButton(); });
    shareImageButton_ = addToolButton(QStringLiteral("Import or export (Ctrl+E)"));
    connect(shareImageButton_, &QToolButton::clicked, this, [this] { chooseImportOrExport(); });
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

    // The gain panel: a popup, so a click anywhere outside closes it.
    gainView_ = new QFrame(this, Qt::Popup);
    gainView_->setFrameShape(QFrame::StyledPanel);
    auto* gainLayout = new QVBoxLayout(gainView_);
    gainDescriptionLabel_ = new QLabel(gainView_);
    gainSlider_ = new QSlider(Qt::Horizontal, gainView_);
    gainSlider_->setMinimumWidth(280);
    gainValueLabel_ = new QLabel(gainView_);
    gainValueLabel_->setAlignment(Qt::AlignCenter);
    gainLayout->addWidget(gainDescriptionLabel_);
    gainLayout->addWidget(gainSlider_);
    gainLayout->addWidget(gainValueLabel_);
    if (features.featureSpectrogramEnabled()) {
        // The spectrogram's level settings act on new columns; the information
        // popover says so and offers to recalculate the document at once.
        gainValueButton_ = new QPushButton(QStringLiteral("Info..."), gainView_);
        gainValueButton_->setFocusPolicy(Qt::NoFocus);
        gainLayout->addWidget(gainValueButton_, 0, Qt::AlignHCenter);
        connect(gainValueButton_, &QPushButton::clicked, this,
                [this] { gainValueButtonPressed(); });
    }
    connect(gainSlider_, &QSlider::valueChanged, this,
            [this](int value) { gainSliderValueChanged(float(value)); });

    // Keyboard: the desktop's ways to the toolbar's main actions.
    auto shortcut = [this](const QKeySequence& keys, std::function<void()> action) {
        auto* s = new QShortcut(keys, this);
        s->setContext(Qt::WindowShortcut);
        connect(s, &QShortcut::activated, this, std::move(action));
    };
    shortcut(QKeySequence(Qt::Key_Space), [this] {
        if (recordPauseButton_->isEnabled())
            startStopRecorder();
    });
    shortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma), [this] {
        if (settingsButton_->isEnabled())
            settingsPopover();
    });
    shortcut(QKeySequence(QKeySequence::HelpContents), [this] { openHelp(); });
    shortcut(QKeySequence(Qt::CTRL | Qt::Key_E), [this] {
        if (shareImageButton_->isEnabled())
            chooseImportOrExport();
    });
    shortcut(QKeySequence(Qt::CTRL | Qt::Key_Q), [] { QApplication::closeAllWindows(); });
    if (playStopButton_) {
        shortcut(QKeySequence(Qt::Key_P), [this] {
            if (playStopButton_->isEnabled())
                startStopPlayer();
        });
    }
    if (spectrogramVsChartSegmentedControl_) {
        shortcut(QKeySequence(Qt::Key_Tab), [this] {
            if (!buttonsBlocked_)
                spectrogramVsChartChanged(spectrogramVsChartSegment_ == 0 ? 1 : 0);
        });
    }

    applyFullScreenFlags();
    // Audio files dropped on the window are imported (`fileHandedIn`).
    setAcceptDrops(features.featureImportExportAudio());

    refreshSegmentedControlTypeOfChartName();
    refreshGainSlider();
    refreshPlayRecordPauseButtonsWithChangeEnabled(true);
}

void MainScreen::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    layoutViewPositionsWithoutAnimation();
}

void MainScreen::layoutViewPositionsWithoutAnimation() {
    if (!chartArea_)
        return;
    // An animation cut short leaves its views where it stopped: this puts
    // every view where the flags say, at once.
    if (layoutAnimation_ != nullptr) {
        layoutAnimation_->stop();
        layoutAnimation_->deleteLater();
        layoutAnimation_ = nullptr;
    }
    // The full-screen view fills the area above the toolbar, the other one is
    // a picture-in-picture or hidden; the wait view sits centred on top.
    chartArea_->updateGeometry();
    const QRect area = chartArea_->rect();
    QWidget* full = fullScreenView();
    full->setGeometry(setupConstraintsForView(full, true));
    full->show();
    full->lower();
    if (QWidget* pip = pipView()) {
        pip->setGeometry(setupConstraintsForView(pip, false));
        pip->setVisible(pipShown());
        pipFrame_->setGeometry(pip->geometry().adjusted(-1, -1, 1, 1));
        pipFrame_->setVisible(pipShown());
        pipFrame_->raise();
        pip->raise();
    }
    const QSize wait(220, 64);
    pleaseWaitView_->setGeometry(
        QRect(area.center() - QPoint(wait.width() / 2, wait.height() / 2), wait));
    pleaseWaitView_->raise();
}

QWidget* MainScreen::fullScreenView() const {
    if (spectrogramView_ != nullptr && spectrogramVsChartSegment_ == 0)
        return spectrogramView_;
    return chartView_;
}

QWidget* MainScreen::pipView() const {
    if (spectrogramView_ == nullptr)
        return nullptr;
    return spectrogramVsChartSegment_ == 0 ? static_cast<QWidget*>(chartView_) : spectrogramView_;
}

bool MainScreen::pipShown() const {
    if (!defaults_.features().featurePIPEnabled())
        return false;
    return spectrogramVsChartSegment_ == 0 ? chartPIP_ : spectrogramPIP_;
}

QRect MainScreen::setupConstraintsForView(QWidget* view, bool fullScreen) const {
    const QRect area = chartArea_->rect();
    if (fullScreen)
        return area;
    const int w = int(area.width() * kPipFraction);
    const int h = int(area.height() * kPipFraction);
    // The spectrogram's meter is at its left, the chart's at its right: the
    // picture-in-picture takes the top corner on the other side.
    if (view == chartView_)
        return QRect(area.right() + 1 - kPipMargin - w, kPipTop, w, h);
    const int left = chartView_->fullScreenMargins().width() + kPipMargin;
    return QRect(left, kPipTop, w, h);
}

void MainScreen::applyFullScreenFlags() {
    if (spectrogramView_ == nullptr)
        return;
    const bool spectrogramFull = spectrogramVsChartSegment_ == 0;
    spectrogramView_->setFullScreen(spectrogramFull);
    chartView_->setFullScreen(!spectrogramFull);
    if (spectrogramVsChartSegmentedControl_)
        spectrogramVsChartSegmentedControl_->setSelectedSegmentIndex(spectrogramVsChartSegment_);
    if (pipButton_)
        pipButton_->setChecked(pipShown());
}

bool MainScreen::layoutAnimating() const {
    return layoutAnimation_ != nullptr && layoutAnimation_->state() == QAbstractAnimation::Running;
}

void MainScreen::animateLayout() {
    QWidget* full = fullScreenView();
    const QRect from = full->isVisible() ? full->geometry() : setupConstraintsForView(full, false);
    layoutViewPositionsWithoutAnimation();
    QWidget* pip = pipView();
    if (pip != nullptr)
        pip->hide();
    // First the full-screen view grows into place under the other one...
    auto* grow = new QPropertyAnimation(full, "geometry", this);
    grow->setDuration(kLayoutAnimationMs);
    grow->setEasingCurve(QEasingCurve::InOutQuad);
    grow->setStartValue(from);
    grow->setEndValue(setupConstraintsForView(full, true));
    full->setGeometry(from);
    layoutAnimation_ = grow;
    connect(grow, &QAbstractAnimation::finished, this, [this, grow] {
        if (layoutAnimation_ != grow)
            return;
        grow->deleteLater();
        layoutAnimation_ = nullptr;
        QWidget* small = pipView();
        if (small != nullptr && pipShown())
            animatePip(small, true); // ...then the picture-in-picture grows out of its corner
        else
            MainQueue::asyncAfter(
                std::chrono::milliseconds(200), [this] { redrawViews(); }, &delayedContext_);
    });
    grow->start();
}

void MainScreen::animatePip(QWidget* small, bool in) {
    const QRect target = setupConstraintsForView(small, false);
    const QRect point(target.center(), QSize(1, 1));
    auto* anim = new QPropertyAnimation(small, "geometry", this);
    anim->setDuration(kLayoutAnimationMs);
    anim->setEasingCurve(QEasingCurve::OutQuad);
    anim->setStartValue(in ? point : small->geometry());
    anim->setEndValue(in ? target : point);
    small->setGeometry(anim->startValue().toRect());
    small->show();
    small->raise();
    pipFrame_->hide(); // back when the view has arrived
    pleaseWaitView_->raise();
    layoutAnimation_ = anim;
    connect(anim, &QAbstractAnimation::finished, this, [this, anim, small, in] {
        if (layoutAnimation_ != anim)
            return;
        anim->deleteLater();
        layoutAnimation_ = nullptr;
        if (!in)
            small->hide();
        pipFrame_->setGeometry(small->geometry().adjusted(-1, -1, 1, 1));
        pipFrame_->setVisible(in);
        pipFrame_->stackUnder(small);
        MainQueue::asyncAfter(
            std::chrono::milliseconds(200), [this] { redrawViews(); }, &delayedContext_);
    });
    anim->start();
}

void MainScreen::redrawViews() {
    chartView_->setNeedsDisplayWithSubviews();
    if (spectrogramView_)
        spectrogramView_->setNeedsDisplayWithSubviews();
}

void MainScreen::spectrogramVsChartChanged(int segment) {
    if (spectrogramView_ == nullptr)
        return;
    segment = segment == 0 ? 0 : 1;
    if (segment == spectrogramVsChartSegment_) {
        applyFullScreenFlags();
        return;
    }
    spectrogramVsChartSegment_ = segment;
    applyFullScreenFlags();
    gainView_->hide();
    refreshGainSlider();
    animateLayout();
}

void MainScreen::pipOnOffChanged() {
    if (spectrogramView_ == nullptr || !defaults_.features().featurePIPEnabled())
        return;
    bool& flag = spectrogramVsChartSegment_ == 0 ? chartPIP_ : spectrogramPIP_;
    QWidget* small = pipView();
    const QRect from = small->geometry();
    const bool wasShown = small->isVisible();
    flag = !flag;
    applyFullScreenFlags();
    layoutViewPositionsWithoutAnimation();
    if (flag || wasShown) {
        small->setGeometry(from);
        animatePip(small, flag);
    }
}

bool MainScreen::panelOpen() const {
    const bool settingsOpen =
        settingsPanel_ != nullptr && settingsPanel_->isOpen();
    const bool typeOpen =
        chartTypePopover_ != nullptr && chartTypePopover_->isVisible();
    const bool gainInfoOpen =
        gainInfoPopover_ != nullptr && gainInfoPopover_->isVisible();
    return settingsOpen || typeOpen || gainInfoOpen;
}

// --- Start and stop ----------------------------------------------------------------------------

void MainScreen::startStopRecorder() {
    if (audio_.isSetupInProgress())
        return;
    if (audio_.isRecording()) {
        timerTrigREC_->stop();
        analyzerController_->stopRecorder();
        refreshPlayRecordPauseButtonsWithChangeEnabled(true);
        return;
    }
    if (panelOpen() || buttonsBlocked_)
        return;
    analyzerController_->startRecorder([this, alive = std::weak_ptr<int>(lifeToken_)](bool ok) {
        if (alive.expired())
            return;
        if (ok) {
            mTrigStarted = false;
            if (analyzerController_->workingWithTrig()) {
                trigTintOn_ = false;
                timerTrigREC_->start();
            }
        }
        refreshPlayRecordPauseButtonsWithChangeEnabled(true);
    });
}

bool MainScreen::trigBlinking() const { return timerTrigREC_->isActive(); }

void MainScreen::buttonRecTrigTint() {
    if (!audio_.isRecording() || analyzerController_->trigIsStarted()) {
        timerTrigREC_->stop();
        mTrigStarted = analyzerController_->trigIsStarted();
        refreshPlayRecordPauseButtonsWithChangeEnabled(true);
        return;
    }
    trigTintOn_ = !trigTintOn_;
    const QColor tint = trigTintOn_ ? kRecordRed : palette().color(QPalette::ButtonText);
    recordPauseButton_->setIcon(ToolbarImages::imageNamed(QStringLiteral("pause"), tint));
}

void MainScreen::recorderDidStop() { refreshPlayRecordPauseButtonsWithChangeEnabled(true); }

void MainScreen::playerDidStop() { refreshPlayRecordPauseButtonsWithChangeEnabled(true); }

void MainScreen::startStopPlayer() {
    if (spectrogramView_ == nullptr || playStopButton_ == nullptr || audio_.isSetupInProgress())
        return;
    if (audio_.isPlaying()) {
        analyzerController_->stopPlayer();
        refreshPlayRecordPauseButtonsWithChangeEnabled(true);
        return;
    }
    if (panelOpen() || buttonsBlocked_ || audio_.isRecording() || defaults_.actualInterval() < 1)
        return;
    analyzerController_->startPlayer([this, alive = std::weak_ptr<int>(lifeToken_)](bool) {
        if (!alive.expired())
            refreshPlayRecordPauseButtonsWithChangeEnabled(true);
    });
}

void MainScreen::clearSpectrogram() {
    if (spectrogramView_ == nullptr || buttonsBlocked_ || audio_.isRecording() ||
        audio_.isPlaying())
        return;
    MessageDialogs::showMessage(QStringLiteral("Do you want to clear the spectrogram?"), this, QString(),
                           QStringLiteral("Cancel"), {QStringLiteral("Yes")},
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
    if (gainInfoPopover_)
        gainInfoPopover_->close();
    gainView_->hide();
    stopAnalyzerAndRunBlock([this] {
        analyzerController_->recalculateDataWithFinishBlock(
            [this] { unblockButtonsAfterRebuild(); });
    });
}

void MainScreen::refreshPlayRecordPauseButtonsWithChangeEnabled(bool changeEnabled) {
    const AnalyzerFeatures& features = defaults_.features();
    const QColor defaultTint = palette().color(QPalette::ButtonText);
    const bool recording = audio_.isRecording();
    if (recording) {
        recordPauseButton_->setText(QString());
        recordPauseButton_->setToolButtonStyle(Qt::ToolButtonIconOnly);
        recordPauseButton_->setIcon(
            ToolbarImages::imageNamed(QStringLiteral("pause"), defaultTint));
        recordPauseButton_->setStyleSheet(QString());
    } else if (features.featurePlayback()) {
        recordPauseButton_->setText(QString());
        recordPauseButton_->setToolButtonStyle(Qt::ToolButtonIconOnly);
        recordPauseButton_->setIcon(
            ToolbarImages::imageNamed(QStringLiteral("record"), kRecordRed));
        recordPauseButton_->setStyleSheet(QString());
    } else {
        recordPauseButton_->setIcon(QIcon());
        recordPauseButton_->setToolButtonStyle(Qt::ToolButtonTextOnly);
        recordPauseButton_->setText(QStringLiteral("Start"));
        recordPauseButton_->setStyleSheet(
            QStringLiteral("QToolButton { color: %1; font-weight: bold; }")
                .arg(kStartGreen.name()));
    }
    const bool playing = audio_.isPlaying();
    if (playStopButton_) {
        playStopButton_->setIcon(ToolbarImages::imageNamed(
            playing ? QStringLiteral("stop") : QStringLiteral("play"), defaultTint));
    }
    if (changeEnabled && !buttonsBlocked_) {
        recordPauseButton_->setEnabled(recording || (!playing && !defaults_.readOnly()));
        const bool idle = !recording && !playing;
        for (QToolButton* b : {recalculateButton_, clearSpectrogramButton_})
            if (b)
                b->setEnabled(idle);
        if (playStopButton_)
            playStopButton_->setEnabled(!recording);
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
    timerTrigREC_->stop();
    analyzerController_->stopPlayer();
    analyzerController_->stopRecorder();
    refreshPlayRecordPauseButtonsWithChangeEnabled(enable);
}

void MainScreen::stopAnalyzerAndRunBlock(std::function<void()> block) {
    const bool running = audio_.isPlaying() || audio_.isRecording();
    const int wait = running ? kStopWaitRunningMs : kStopWaitIdleMs;
    defaults_.setDataValid(false);
    blockButtonsForRebuild();
    stopAnalyzerWithRefreshButtonsEnable(false);
    MainQueue::asyncAfter(std::chrono::milliseconds(wait), std::move(block), &delayedContext_);
}

void MainScreen::stopAnalyzerWithoutBlockButtonsAndRunBlock(std::function<void()> block) {
    const bool running = audio_.isPlaying() || audio_.isRecording();
    const int wait = running ? kStopWaitRunningMs : kStopWaitIdleMs;
    stopAnalyzerWithRefreshButtonsEnable(true);
    MainQueue::asyncAfter(std::chrono::milliseconds(wait), std::move(block), &delayedContext_);
}

void MainScreen::blockButtonsForRebuild() {
    buttonsBlocked_ = true;
    gainView_->hide();
    pleaseWaitView_->raise();
    pleaseWaitView_->show();
    for (QToolButton* b :
         {recordPauseButton_, gainSliderAndMaxMinResetButton_, settingsButton_, playStopButton_,
          clearSpectrogramButton_, recalculateButton_, shareImageButton_})
        if (b)
            b->setEnabled(false);
    if (gainInfoPopover_)
        gainInfoPopover_->close();
    toolBar_->update();
    redrawViews();
}

void MainScreen::unblockButtonsAfterRebuild() {
    buttonsBlocked_ = false;
    pleaseWaitView_->hide();
    settingsButton_->setEnabled(true);
    shareImageButton_->setEnabled(true);
    refreshMaxMinResetButton();
    refreshPlayRecordPauseButtonsWithChangeEnabled(true);
    redrawViews();
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
        refreshPlayRecordPauseButtonsWithChangeEnabled(true);
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
    refreshGainSlider();
    chartView_->setNeedsDisplayWithSubviews();
}

void MainScreen::refreshSegmentedControlTypeOfChartName() {
    if (typeOfChartButton_)
        typeOfChartButton_->setText(chartView_->nameOfChart());
    if (spectrogramVsChartSegmentedControl_)
        spectrogramVsChartSegmentedControl_->setTitleForSegmentAtIndex(chartView_->nameOfChart(),
                                                                       1);
}

// --- Gain panel
// ------------------------------------------------------------------------------------

MainScreen::GainMeaning MainScreen::gainMeaning() const {
    if (fullScreenView() == spectrogramView_) {
        return defaults_.valuesInDB() ? GainMeaning::SpectrogramMinimum
                                      : GainMeaning::SpectrogramGain;
    }
    switch (chartView_->typeOfChart()) {
    case 0:
        return GainMeaning::Spectrum;
    case 1:
        return GainMeaning::Oscilloscope;
    default:
        return GainMeaning::None;
    }
}

float MainScreen::gainSliderValue() const {
    switch (gainMeaning()) {
    case GainMeaning::Spectrum:
        return defaults_.spectrumGainDB();
    case GainMeaning::Oscilloscope:
        return defaults_.oscilloscopeGainDB();
    case GainMeaning::SpectrogramMinimum:
        return defaults_.spectrogramValuesInDBMinimumLevelDB();
    case GainMeaning::SpectrogramGain:
        return defaults_.spectrogramLinearValuesGainDB();
    case GainMeaning::None:
        break;
    }
    return 0.0f;
}

QString MainScreen::gainInfoText() const {
    switch (gainMeaning()) {
    case GainMeaning::Oscilloscope:
        return QStringLiteral("Oscilloscope input level gain");
    case GainMeaning::Spectrum:
        return QStringLiteral("Spectrum level gain");
    case GainMeaning::SpectrogramMinimum:
        return QStringLiteral("Spectrogram minimum level");
    case GainMeaning::SpectrogramGain:
        return QStringLiteral("Spectrogram level gain");
    case GainMeaning::None:
        break;
    }
    return {};
}

void MainScreen::refreshGainSlider() {
    const GainMeaning meaning = gainMeaning();
    const QSignalBlocker quiet(gainSlider_);
    const GainRange range =
        meaning == GainMeaning::SpectrogramMinimum ? kMinimumLevelRange : kGainRangeDB;
    gainSlider_->setRange(range.minimum, range.maximum);
    gainSlider_->setValue(int(std::lround(gainSliderValue())));
    switch (meaning) {
    case GainMeaning::Oscilloscope:
        gainDescriptionLabel_->setText(QStringLiteral("Oscilloscope input level gain (dB)"));
        break;
    case GainMeaning::SpectrogramMinimum:
        gainDescriptionLabel_->setText(QStringLiteral("Spectrogram minimum level (dB)"));
        break;
    case GainMeaning::SpectrogramGain:
        gainDescriptionLabel_->setText(QStringLiteral("Spectrogram level gain (dB)"));
        break;
    default:
        gainDescriptionLabel_->setText(QStringLiteral("Spectrum level gain (dB)"));
        break;
    }
    gainValueLabel_->setText(QString::asprintf("%.0fdB", double(gainSliderValue())));
    refreshMaxMinResetButton();
}

void MainScreen::gainSliderValueChanged(float valueDB) {
    switch (gainMeaning()) {
    case GainMeaning::Spectrum:
        defaults_.setSpectrumGainDB(valueDB);
        break;
    case GainMeaning::Oscilloscope:
        defaults_.setOscilloscopeGainDB(valueDB);
        break;
    case GainMeaning::SpectrogramMinimum:
        // New columns take the level; the stored ones keep theirs until a recalculation.
        defaults_.setSpectrogramValuesInDBMinimumLevelDB(valueDB);
        gainValueLabel_->setText(QString::asprintf("%.0fdB", double(valueDB)));
        return;
    case GainMeaning::SpectrogramGain:
        defaults_.setSpectrogramLinearValuesGainDB(valueDB);
        gainValueLabel_->setText(QString::asprintf("%.0fdB", double(valueDB)));
        return;
    case GainMeaning::None:
        return;
    }
    gainValueLabel_->setText(QString::asprintf("%.0fdB", double(valueDB)));
    // The labels follow the gain through the chart's debounce.
    chartView_->refreshTextures();
    chartView_->setNeedsDisplayWithSubviews();
}

void MainScreen::refreshMaxMinResetButton() {
    const QColor tint = palette().color(QPalette::ButtonText);
    gainSliderButtonEnabled_ = gainMeaning() != GainMeaning::None;
    resetMinMaxButtonEnabled_ = false;
    QString image = QStringLiteral("Gain");
    if (!gainSliderButtonEnabled_ && chartView_->typeOfChart() == 2) {
        const bool minOn = defaults_.octaveRTAMinValuesEnabled();
        const bool maxOn = defaults_.octaveRTAMaxValuesEnabled();
        if (minOn || maxOn) {
            resetMinMaxButtonEnabled_ = true;
            image = minOn && maxOn ? QStringLiteral("reset_maxmin")
                    : minOn        ? QStringLiteral("reset_min")
                                   : QStringLiteral("reset_max");
        }
    }
    gainSliderAndMaxMinResetButton_->setIcon(ToolbarImages::imageNamed(image, tint));
    gainSliderAndMaxMinResetButton_->setToolTip(
        resetMinMaxButtonEnabled_ ? QStringLiteral("Reset the minimum and maximum")
                                  : QStringLiteral("Gain"));
    if (!buttonsBlocked_)
        gainSliderAndMaxMinResetButton_->setEnabled(gainSliderButtonEnabled_ ||
                                                    resetMinMaxButtonEnabled_);
}

void MainScreen::gainSliderAndMinMaxButtonButton() {
    if (resetMinMaxButtonEnabled_) {
        chartView_->clearOctaveRTAMinMaxLevels();
        chartView_->setNeedsDisplayWithSubviews();
        return;
    }
    if (!gainSliderButtonEnabled_)
        return;
    refreshGainSlider();
    gainView_->adjustSize();
    // Above the button, kept inside the screen.
    const QPoint anchor = gainSliderAndMaxMinResetButton_->mapToGlobal(
        QPoint(gainSliderAndMaxMinResetButton_->width(), 0));
    gainView_->move(anchor - QPoint(gainView_->width(), gainView_->height() + 4));
    gainView_->show();
}

void MainScreen::tapRecognizerDismissGainView() { gainView_->hide(); }

void MainScreen::gainValueButtonPressed() {
    if (gainValueButton_ == nullptr)
        return;
    if (!gainInfoPopover_) {
        gainInfoPopover_ = new GainInfoPopover(this);
        connect(gainInfoPopover_, &GainInfoPopover::recalculateRequested, this,
                [this] { recalculateSpectrogram(); });
    }
    const GainMeaning meaning = gainMeaning();
    const bool spectrogram =
        meaning == GainMeaning::SpectrogramMinimum || meaning == GainMeaning::SpectrogramGain;
    const bool idle = !audio_.isRecording() && !audio_.isPlaying();
    gainInfoPopover_->setText(gainInfoText());
    gainInfoPopover_->setValue(QString::asprintf("%.0fdB", double(gainSliderValue())));
    gainInfoPopover_->setRecalculateButtonHidden(!spectrogram);
    gainInfoPopover_->setRecalculateButtonEnable(spectrogram && idle && !buttonsBlocked_);
    gainView_->hide();
    gainInfoPopover_->presentFrom(gainSliderAndMaxMinResetButton_);
}

// --- Settings ------------------------------------------------------------------------------------

void MainScreen::settingsPopover() {
    if (buttonsBlocked_)
        return;
    if (!settingsPanel_)
        settingsPanel_ =
            new SettingsPanel(defaults_, defaults_.features(), audio_, *this, this);
    SettingsPanel* settings = settingsPanel_;
    if (settings->isOpen())
        return;
    gainView_->hide();
    // The pages edit the pending copies; closing applies them (settingsWillClose).
    defaults_.copyCurrentToPreferred();
    settings->presentFrom(settingsButton_);
}

void MainScreen::exportChartDataAsCsv() {
    if (chartView_ == nullptr)
        return;
    const QString path = QFileDialog::getSaveFileName(
        this, QStringLiteral("Export Data as CSV"),
        AppFolders::urlInDocumentsWithFileName(QStringLiteral("chart.csv")).toLocalFile(),
        QStringLiteral("CSV files (*.csv)"));
    if (path.isEmpty())
        return;
    if (!chartView_->writeCsvOfChart(path))
        MessageDialogs::showMessage(QStringLiteral("The chart data could not be saved."), QString(),
                               QStringLiteral("OK"), {}, nullptr);
}

void MainScreen::copyChartDataAsCsv() {
    if (chartView_ == nullptr)
        return;
    const QUrl url = AppFolders::urlInTempWithFileName(QStringLiteral("chart.csv"));
    auto* mime = new QMimeData;
    mime->setText(QString::fromLatin1(chartView_->csvOfChart()));
    if (chartView_->writeCsvOfChart(url.toLocalFile())) {
        AppFolders::excludeFromBackupURL(url);
        mime->setUrls({url});
    }
    QGuiApplication::clipboard()->setMimeData(mime);
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
    if (defaults_.preferredChange() == AnalyzerDefaults::PreferredChange::None) {
        refreshAllViews();
        return;
    }
    stopAnalyzerAndRunBlock([this] {
        bool fftSizeChanged = false;
        const AnalyzerDefaults::PreferredChange change =
            defaults_.applyPreferredSettings(&fftSizeChanged);
        refreshGainSlider();
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

void MainScreen::refreshAllViews() { redrawViews(); }

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
    refreshMaxMinResetButton();
    refreshAllViews();
}

void MainScreen::setSettingsPopOverContentSize(QSize size) {
    // The popover takes the size its page asks for, below its navigation bar;
    // on a phone the panel covers the window and keeps its size.
    SettingsPanel* settings = settingsPanel_;
    if (settings != nullptr && settings->isOpen() && settings->isWindow())
        settings->resize(size.width(),
                         size.height() + SettingsPanel::kNavigationBarHeight);
}

// --- State restoration
// ----------------------------------------------------------------------------

void MainScreen::saveScreenState(QSettings& coder) {
    defaults_.saveDefaults();
    // The document's keys go with the last-session file, only when it was written.
    if (sessionSaver_)
        sessionSaver_->saveNow(coder);
    coder.setValue(QLatin1String(kTypeOfChartKey), chartView_->typeOfChart());
    coder.setValue(QLatin1String(kSpectrogramPIPKey), spectrogramPIP_);
    coder.setValue(QLatin1String(kChartPIPKey), chartPIP_);
    coder.setValue(QLatin1String(kSegmentKey), spectrogramVsChartSegment_);
    coder.setValue(QLatin1String(AnalyzerDefaults::kVersionKey),
                   QLatin1String(AnalyzerDefaults::kVersionTag));
    coder.sync();
}

void MainScreen::restoreScreenState(const QSettings& coder) {
    if (coder.value(QLatin1String(AnalyzerDefaults::kVersionKey)).toString() !=
        QLatin1String(AnalyzerDefaults::kVersionTag))
        return;
    const AnalyzerFeatures& features = defaults_.features();
    if (features.featureSpectrogramEnabled())
        LastSessionFile::restore(coder, LastSessionFile::defaultPath(), defaults_);
    if (features.featureSecondChartEnabled() && coder.contains(QLatin1String(kTypeOfChartKey))) {
        bool ok = false;
        const int type = coder.value(QLatin1String(kTypeOfChartKey)).toInt(&ok);
        if (ok && type >= 0 && type <= 2)
            chartView_->setTypeOfChart(type);
    }
    if (features.featurePIPEnabled()) {
        spectrogramPIP_ = coder.value(QLatin1String(kSpectrogramPIPKey), spectrogramPIP_).toBool();
        chartPIP_ = coder.value(QLatin1String(kChartPIPKey), chartPIP_).toBool();
    }
    if (coder.contains(QLatin1String(kSegmentKey)))
        spectrogramVsChartSegment_ = coder.value(QLatin1String(kSegmentKey)).toInt() == 0 ? 0 : 1;
}

void MainScreen::applicationFinishedRestoringState() {
    if (spectrogramView_ == nullptr)
        spectrogramVsChartSegment_ = 1;
    applyFullScreenFlags();
    refreshSegmentedControlTypeOfChartName();
    refreshGainSlider();
    layoutViewPositionsWithoutAnimation();
}

// --- Import and export -------------------------------------------------------------------------

const char* const MainScreen::kImportShortenedMessage =
    "Imported audio file time is %.1fs. Maximum spectrogram time for current settings is "
    "%.1fs. Time was shortened. Try to change resolution settings before import.";

const QString MainScreen::kChartDataCsv = QStringLiteral("Chart data CSV");

void MainScreen::chooseImportOrExport() {
    // Beside the audio file and the chart's picture, the chart's numbers as CSV.
    const bool audio = defaults_.features().featureImportExportAudio();
    QStringList choices{QStringLiteral("Chart image PNG"), kChartDataCsv};
    if (audio)
        choices.prepend(QStringLiteral("Audio file"));
    MessageDialogs::showActionSheetWithTitle(
        audio ? QStringLiteral("What do you want to import or export?")
              : QStringLiteral("What do you want to export?"),
        this, QStringLiteral("Cancel"), choices,
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

void MainScreen::chartDataActions() {
    MessageDialogs::showActionSheetWithTitle(kChartDataCsv, this, QStringLiteral("Cancel"),
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

void MainScreen::exportImportActions(int32_t type) {
    const QStringList buttons =
        type == 0
            ? QStringList{QStringLiteral("Export"), QStringLiteral("Import"),
                          QStringLiteral("Send a copy"), QStringLiteral("Open in another app")}
            : QStringList{QStringLiteral("Export"), QStringLiteral("Send a copy"),
                          QStringLiteral("Open in another app")};
    MessageDialogs::showActionSheetWithTitle(
        type == 0 ? QStringLiteral("Audio file") : QStringLiteral("Chart image PNG"), this,
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

void MainScreen::exportToFile() {
    if (defaults_.actualInterval() < 1) {
        MessageDialogs::showMessage(QStringLiteral("Nothing to export!"), QStringLiteral("OK"));
        return;
    }
    stopAnalyzerWithRefreshButtonsEnable(true);
    MainQueue::async(
        [this] {
            defaults_.setIsExport(true);
            openImportExportController();
        },
        &delayedContext_);
}

void MainScreen::importFromFile() {
    stopAnalyzerWithRefreshButtonsEnable(true);
    MainQueue::async(
        [this] {
            defaults_.setIsExport(false);
            openImportExportController();
        },
        &delayedContext_);
}

void MainScreen::openImportExportController() {
    auto* dialog = new QFileDialog(this);
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

QImage MainScreen::imageOfChartOnScreen() {
    if (spectrogramView_ != nullptr && spectrogramVsChartSegment_ == 0)
        return spectrogramView_->imageOfChart();
    return chartView_->imageOfChart();
}

bool MainScreen::writeExportFile(const QString& path) {
    if (defaults_.typeOfExportImport() == 1) {
        // Written whole or not at all: a viewer never sees half a picture.
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || !imageOfChartOnScreen().save(&file, "PNG") ||
            !file.commit()) {
            qWarning("error %d from %s", int(file.error()), "QSaveFile");
            return false;
        }
        return true;
    }
    AppFolders::writeAudioDataToFileURL(defaults_, QUrl::fromLocalFile(path), true);
    return true;
}

void MainScreen::sendACopy() {
    if (defaults_.actualInterval() == 0) {
        MessageDialogs::showMessage(QStringLiteral("Nothing to share!"), QStringLiteral("OK"));
        return;
    }
    blockButtonsForRebuild();
    stopAnalyzerWithRefreshButtonsEnable(false);
    MainQueue::async(
        [this] {
            auto* items = new QMimeData;
            const QString appName = QGuiApplication::applicationDisplayName();
            if (defaults_.typeOfExportImport() == 1) {
                const bool spectrogram =
                    spectrogramView_ != nullptr && spectrogramVsChartSegment_ == 0;
                items->setText(spectrogram ? QStringLiteral("%1 - Spectrogram").arg(appName)
                                           : QStringLiteral("%1 - %2").arg(
                                                 appName, chartView_->nameOfChart()));
                items->setImageData(imageOfChartOnScreen());
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
            unblockButtonsAfterRebuild();
        },
        &delayedContext_);
}

void MainScreen::removeExportedTempFile() {
    if (exportTempFileURL_.isEmpty())
        return;
    QFile::remove(exportTempFileURL_.toLocalFile());
    exportTempFileURL_.clear();
}

void MainScreen::openInAnotherApp() {
    if (defaults_.actualInterval() == 0) {
        MessageDialogs::showMessage(QStringLiteral("Nothing to open in another app!"),
                               QStringLiteral("OK"));
        return;
    }
    defaults_.setDataValid(true);
    const bool image = defaults_.typeOfExportImport() == 1;
    const QUrl url = AppFolders::urlInTempWithFileName(image ? QStringLiteral("chart.png")
                                                            : QStringLiteral("recording.wav"));
    writeExportFile(url.toLocalFile());
    AppFolders::excludeFromBackupURL(url);
    if (!QDesktopServices::openUrl(url)) {
        MessageDialogs::showMessage(
            QStringLiteral("There is no application on your device to open %1 file type.")
                .arg(image ? QStringLiteral("PNG") : QStringLiteral("WAV")),
            QString(), QStringLiteral("Cancel"), {}, {});
        QFile::remove(url.toLocalFile());
    }
    refreshPlayRecordPauseButtonsWithChangeEnabled(true);
}

void MainScreen::importAudioFileWithURL(const QUrl& url,
                                                std::function<void()> finishBlock) {
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

void MainScreen::importAudioFile(const QString& stagedPath, double timeLength,
                                         std::function<void()> finishBlock) {
    if (importRunning_)
        return;
    importRunning_ = true;
    stopAnalyzerAndRunBlock([this, stagedPath, timeLength,
                             finishBlock = std::move(finishBlock)]() mutable {
        // The document takes the current settings; an imported one is read-only.
        defaults_.setReadOnly(false);
        defaults_.recalculateDocumentSettings();
        const double maxTime = double(defaults_.spectrogramDuration());
        defaults_.setReadOnly(true);
        defaults_.setTimeOfDocument(float(std::min(timeLength, maxTime)));
        analyzerController_->rebuildDataWithClear();
        defaults_.setDataValid(false);
        refreshPlayRecordPauseButtonsWithChangeEnabled(false);

        auto* wait = static_cast<QLabel*>(pleaseWaitView_);
        if (importThread_.joinable())
            importThread_.join();
        importCancel_.store(false, std::memory_order_release);
        // Reading and converting a long file takes seconds: a worker thread
        // reads it, and the wait view shows how far it got.
        importThread_ = std::thread([this, wait, stagedPath, timeLength, maxTime,
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
                    QMetaObject::invokeMethod(
                        wait,
                        [wait, percent] {
                            wait->setText(QStringLiteral("Please wait... %1%").arg(percent));
                        },
                        Qt::QueuedConnection);
                },
                &importCancel_);
            MainQueue::async(
                [this, ok, timeLength, maxTime, finishBlock = std::move(finishBlock)]() mutable {
                    static_cast<QLabel*>(pleaseWaitView_)
                        ->setText(QStringLiteral("Please wait..."));
                    analyzerController_->recalculateDataWithFinishBlock(
                        [this, ok, timeLength, maxTime,
                         finishBlock = std::move(finishBlock)]() mutable {
                            defaults_.setDataValid(true);
                            importRunning_ = false;
                            unblockButtonsAfterRebuild();
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
                &delayedContext_);
        });
    });
}

void MainScreen::importAudioFileAndDeleteWithURL(const QUrl& url) {
    stopAnalyzerWithRefreshButtonsEnable(true);
    importAudioFileWithURL(url, [this] { unblockButtonsAfterRebuild(); });
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
