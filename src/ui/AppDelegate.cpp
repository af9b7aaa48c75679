#include "ui/AppDelegate.h"

#include "audio/TQAudio.h"
#include "audio/TQAudioEffect.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "core/SettingsStore.h"
#include "dsp/FFTManager.h"
#include "engine/AnalyzerController.h"
#include "engine/MainQueue.h"
#include "ui/AudioInputTableViewController.h"
#include "ui/MainViewController.h"
#include "ui/TQHelpers.h"
#include "ui/TQMessage.h"
#include "ui/ToolbarImages.h"

#include <QApplication>
#include <QFile>
#include <QFileInfo>
#include <QMainWindow>
#include <QPointer>
#include <QSettings>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#if defined(__SANITIZE_ADDRESS__)
#include <dlfcn.h>
#endif
#include <sys/socket.h>
#include <unistd.h>

namespace widmo {
namespace {

constexpr const char* kWindowGeometryKey = "window/geometry";

// SIGTERM and SIGINT end the program like a closed window: the handler only
// writes a byte, the event loop does the rest.
int gSignalPipe[2] = {-1, -1};

void onTerminationSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(gSignalPipe[1], &byte, 1);
}

void quitOnTerminationSignals(QObject* context) {
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, gSignalPipe) != 0)
        return;
    auto* notifier = new QSocketNotifier(gSignalPipe[0], QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context, [] {
        char byte = 0;
        [[maybe_unused]] const ssize_t got = ::read(gSignalPipe[0], &byte, 1);
        QApplication::closeAllWindows();
        QApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

} // namespace

AppDelegate::AppDelegate(AnalyzerDefaults& defaults, TQAudio& audio, FFTManager& fftManager,
                         QObject* parent)
    : QObject(parent), defaults_(defaults), audio_(audio), fftManager_(fftManager) {}

AppDelegate::~AppDelegate() = default;

std::unique_ptr<QSettings> AppDelegate::restorationStore() {
    return std::make_unique<QSettings>(
        QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Widmo"),
        QCoreApplication::applicationName() + QStringLiteral("-state"));
}

bool AppDelegate::didFinishLaunchingWithOptions() {
    window_ = std::make_unique<QMainWindow>();
    window_->setWindowTitle(QGuiApplication::applicationDisplayName());
    window_->setWindowIcon(ToolbarImages::applicationIcon());
    auto* screen = new MainViewController(defaults_, audio_, fftManager_, window_.get());
    mainViewController_ = screen;
    window_->setCentralWidget(screen);
    connect(screen, &MainViewController::fileHandedIn, this,
            [this](const QUrl& url) { importIntoApp(url); });
    mDataPrepared = false;
    mWasImport = false;

    const std::unique_ptr<QSettings> store = restorationStore();
    if (!window_->restoreGeometry(store->value(QLatin1String(kWindowGeometryKey)).toByteArray()))
        window_->resize(1000, 640);
    screen->decodeRestorableStateWithCoder(*store);
    screen->applicationFinishedRestoringState();

    connect(qApp, &QGuiApplication::applicationStateChanged, this,
            [this](Qt::ApplicationState state) {
                if (state == Qt::ApplicationActive)
                    applicationDidBecomeActive();
                else if (state == Qt::ApplicationHidden || state == Qt::ApplicationSuspended)
                    applicationWillResignActive();
            });
    window_->show();
    // The first activation: a bare X server without a window manager never
    // reports the window as active.
    MainQueue::async([this] { applicationDidBecomeActive(); }, this);
    return true;
}

void AppDelegate::applicationWillResignActive() {
    mWasImport = false;
    if (!mainViewController_ || audio_.isSetupInProgress())
        return;
    mainViewController_->stopAnalyzerWithRefreshButtonsEnable(true);
    audio_.deactivateAudioSession();
}

void AppDelegate::applicationDidBecomeActive() {
    if (mDataPrepared || mWasImport || !mainViewController_)
        return;
    mainViewController_->prepareAnalyzerData();
    mDataPrepared = true;
}

void AppDelegate::applicationWillTerminate() {
    if (mainViewController_) {
        mainViewController_->stopAnalyzerWithRefreshButtonsEnable(false);
        const std::unique_ptr<QSettings> store = restorationStore();
        mainViewController_->encodeRestorableStateWithCoder(*store);
        store->setValue(QLatin1String(kWindowGeometryKey), window_->saveGeometry());
        store->sync();
    }
    for (const char* name : kTemporaryFiles)
        QFile::remove(TQHelpers::urlInTempWithFileName(QLatin1String(name)).toLocalFile());
}

void AppDelegate::importIntoApp(const QUrl& url) {
    if (!defaults_.features().featureImportExportAudio() || !mainViewController_)
        return;
    mWasImport = true;
    MainQueue::async(
        [this, url] {
            TQMessage::showMessage(
                QStringLiteral("Do you want to import the file into the current spectrogram "
                               "context?"),
                QString(), QStringLiteral("No"), {QStringLiteral("Yes")},
                [this, url, screen = QPointer<MainViewController>(mainViewController_)](int b) {
                    if (!screen)
                        return;
                    // A launch to import skipped the first preparation; it
                    // runs now, before the import replaces its document.
                    if (!mDataPrepared) {
                        mWasImport = false;
                        applicationDidBecomeActive();
                    }
                    if (b == 1)
                        screen->importAudioFileAndDeleteWithURL(url);
                });
        },
        this);
}

int AppDelegate::run(int argc, char** argv, const AnalyzerFeatures& features,
                     const QString& applicationName, const QString& displayName, bool audioNode) {
    AnalyzerFeatures::selectProduct(features);
#if defined(__SANITIZE_ADDRESS__)
    // Sanitizer builds: Mesa unloads its driver when the display closes, before
    // the leak check, and the driver's process-lifetime allocations would lose
    // their attribution to it. Keep it mapped (no effect if it is elsewhere).
    dlopen("/usr/lib/x86_64-linux-gnu/dri/swrast_dri.so", RTLD_NOW | RTLD_NODELETE);
#endif
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Widmo"));
    QCoreApplication::setApplicationName(applicationName);
    QGuiApplication::setApplicationDisplayName(displayName);
    QGuiApplication::setDesktopFileName(applicationName);
    QApplication::setWindowIcon(ToolbarImages::applicationIcon());
    quitOnTerminationSignals(&app);

    // Every FFT size planned (and the large ones refined) on a thread of its
    // own, the current size first: the analysis never stops to plan, and a
    // change of size later costs nothing. Wisdom makes this milliseconds
    // after the first run.
    FFTManager::sharedManager().preparePlansInBackground();

    int status = 0;
    {
        AppDelegate delegate(AnalyzerDefaults::sharedDefaults(), TQAudio::sharedAudio(),
                             FFTManager::sharedManager());
        QObject::connect(&app, &QCoreApplication::aboutToQuit, &delegate,
                         [&delegate] { delegate.applicationWillTerminate(); });
        // The node is made before the window, so that the audio-input page
        // finds it, and goes before the engine it feeds.
        std::unique_ptr<TQAudioEffect> node;
        if (audioNode)
            node = std::make_unique<TQAudioEffect>();
        delegate.didFinishLaunchingWithOptions();
        AnalyzerController& engine = delegate.mainViewController()->analyzerController();
        if (node) {
            engine.setAudioEffect(node.get());
            node->setDelegate(&engine);
            // Left on: published as soon as a JACK server answers, quietly.
            if (SettingsStore().readBool(
                    QLatin1String(AudioInputTableViewController::kAudioEffectEnabledKey)))
                node->setEnabled(true, true);
        }
        const QStringList arguments = QCoreApplication::arguments().mid(1);
        for (const QString& argument : arguments) {
            if (!argument.startsWith(QLatin1Char('-'))) {
                delegate.importIntoApp(QUrl::fromLocalFile(QFileInfo(argument).absoluteFilePath()));
                break;
            }
        }
        status = QApplication::exec();
        if (node) {
            node->setEnabled(false);
            engine.setAudioEffect(nullptr);
            node.reset();
        }
    }
    // The window, the engine, the chart and the sound-server connection are
    // gone, and the settings and the screen's state are written and synced.
    // The process ends here without the destructors of static objects, which
    // hold nothing that still needs releasing.
    std::fflush(nullptr);
    std::_Exit(status);
}

} // namespace widmo
