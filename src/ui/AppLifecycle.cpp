#include "ui/AppLifecycle.h"

#include "audio/AudioSession.h"
#include "audio/JackNode.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "core/ProgramCommandLine.h"
#include "core/SettingsStore.h"
#include "core/SharedStateAccess.h"
#include "dsp/FFTManager.h"
#include "engine/AnalyzerController.h"
#include "engine/MainQueue.h"
#include "ui/AppFolders.h"
#include "ui/AudioInputPage.h"
#include "ui/MainScreen.h"
#include "ui/MessageDialogs.h"
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

AppLifecycle::AppLifecycle(AnalyzerDefaults& defaults, AudioSession& audio, FFTManager& fftManager,
                           QObject* parent)
    : QObject(parent), defaults_(defaults), audio_(audio), fftManager_(fftManager) {}

AppLifecycle::~AppLifecycle() = default;

std::unique_ptr<QSettings> AppLifecycle::restorationStore() {
    return std::make_unique<QSettings>(
        QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Widmo"),
        QCoreApplication::applicationName() + QStringLiteral("-state"));
}

bool AppLifecycle::showMainWindow() {
    window_ = std::make_unique<QMainWindow>();
    window_->setWindowTitle(QGuiApplication::applicationDisplayName() +
                            SharedStateAccess::titleSuffix());
    window_->setWindowIcon(ToolbarImages::applicationIcon());
    auto* screen = new MainScreen(defaults_, audio_, fftManager_, window_.get());
    mainScreen_ = screen;
    window_->setCentralWidget(screen);
    connect(screen, &MainScreen::fileHandedIn, this,
            [this](const QUrl& url) { importIntoApp(url); });
    mDataPrepared = false;
    mWasImport = false;

    const std::unique_ptr<QSettings> store = restorationStore();
    if (!window_->restoreGeometry(store->value(QLatin1String(kWindowGeometryKey)).toByteArray()))
        window_->resize(1000, 640);
    screen->restoreScreenState(*store);
    screen->applicationFinishedRestoringState();

    connect(qApp, &QGuiApplication::applicationStateChanged, this,
            [this](Qt::ApplicationState state) {
                if (state == Qt::ApplicationActive)
                    enterForeground();
                else if (state == Qt::ApplicationHidden || state == Qt::ApplicationSuspended)
                    leaveForeground();
            });
    window_->show();
    if (!SharedStateAccess::writable()) {
        const QString why = SharedStateAccess::explanation();
        std::fprintf(stderr, "%s: %s\n", qPrintable(QCoreApplication::applicationName()),
                     qPrintable(why));
        MainQueue::async([why] { MessageDialogs::showMessage(why, QStringLiteral("OK")); }, this);
    }
    // The first activation: a bare X server without a window manager never
    // reports the window as active.
    MainQueue::async([this] { enterForeground(); }, this);
    return true;
}

void AppLifecycle::leaveForeground() {
    mWasImport = false;
    if (!mainScreen_ || audio_.isSetupInProgress())
        return;
    mainScreen_->stopAnalyzerWithRefreshButtonsEnable(true);
    audio_.deactivateAudioSession();
}

void AppLifecycle::enterForeground() {
    if (mDataPrepared || mWasImport || !mainScreen_)
        return;
    mainScreen_->prepareAnalyzerData();
    mDataPrepared = true;
}

void AppLifecycle::prepareToQuit() {
    if (mainScreen_ && !SharedStateAccess::writable()) {
        mainScreen_->stopAnalyzerWithRefreshButtonsEnable(false);
        return; // the settings, the screen's state and the temporary files are another copy's
    }
    if (mainScreen_) {
        mainScreen_->stopAnalyzerWithRefreshButtonsEnable(false);
        const std::unique_ptr<QSettings> store = restorationStore();
        mainScreen_->saveScreenState(*store);
        store->setValue(QLatin1String(kWindowGeometryKey), window_->saveGeometry());
        store->sync();
    }
    for (const char* name : kTemporaryFiles)
        QFile::remove(AppFolders::urlInTempWithFileName(QLatin1String(name)).toLocalFile());
}

void AppLifecycle::importIntoApp(const QUrl& url) {
    if (!defaults_.features().featureImportExportAudio() || !mainScreen_)
        return;
    mWasImport = true;
    MainQueue::async(
        [this, url] {
            MessageDialogs::showMessage(
                QStringLiteral("Do you want to import the file into the current spectrogram "
                               "context?"),
                QString(), QStringLiteral("No"), {QStringLiteral("Yes")},
                [this, url, screen = QPointer<MainScreen>(mainScreen_)](int b) {
                    if (!screen)
                        return;
                    // A launch to import skipped the first preparation; it
                    // runs now, before the import replaces its document.
                    if (!mDataPrepared) {
                        mWasImport = false;
                        enterForeground();
                    }
                    if (b == 1)
                        screen->importAudioFileAndDeleteWithURL(url);
                });
        },
        this);
}

int AppLifecycle::run(int argc, char** argv, const AnalyzerFeatures& features,
                      const QString& applicationName, const QString& displayName, bool audioNode) {
    // --help and --version are answered before the application object: they
    // need no display (a package's check runs them on a build machine).
    QStringList rawArguments;
    for (int i = 0; i < argc; ++i)
        rawArguments << QString::fromLocal8Bit(argv[i]);
    const ProgramCommandLine::Program program{applicationName, displayName,
                                              features.featureImportExportAudio()};
    if (const auto status =
            ProgramCommandLine::answerInformationOption(rawArguments, program, stdout))
        return *status;

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
    SharedStateAccess::acquire(applicationName);

    // Every FFT size planned (and the large ones refined) on a thread of its
    // own, the current size first: the analysis never stops to plan, and a
    // change of size later costs nothing. Wisdom makes this milliseconds
    // after the first run.
    FFTManager::sharedManager().preparePlansInBackground();

    int status = 0;
    {
        AppLifecycle delegate(AnalyzerDefaults::sharedDefaults(), AudioSession::sharedAudio(),
                              FFTManager::sharedManager());
        QObject::connect(&app, &QCoreApplication::aboutToQuit, &delegate,
                         [&delegate] { delegate.prepareToQuit(); });
        // The node is made before the window, so that the audio-input page
        // finds it, and goes before the engine it feeds.
        std::unique_ptr<JackNode> node;
        if (audioNode)
            node = std::make_unique<JackNode>();
        delegate.showMainWindow();
        AnalyzerController& engine = delegate.mainScreen()->analyzerController();
        if (node) {
            engine.setAudioEffect(node.get());
            node->setDelegate(&engine);
            // Left on: published as soon as a JACK server answers, quietly.
            if (SettingsStore().readBool(QLatin1String(AudioInputPage::kAudioEffectEnabledKey)))
                node->setEnabled(true, true);
        }
        // Qt has taken its own options out of the arguments by now. A file
        // manager hands over every selected file (Exec=... %F); the document
        // holds one, so the first is imported and the rest are named.
        const QStringList files = ProgramCommandLine::fileArguments(QCoreApplication::arguments());
        if (!files.isEmpty()) {
            if (!program.opensFiles) {
                std::fprintf(stderr, "%s: opens no files (widmo-studio does); ignored: %s\n",
                             qPrintable(applicationName),
                             qPrintable(files.join(QLatin1String(", "))));
            } else {
                delegate.importIntoApp(
                    QUrl::fromLocalFile(QFileInfo(files.first()).absoluteFilePath()));
                if (files.size() > 1)
                    std::fprintf(stderr, "%s: imports one file at a time; ignored: %s\n",
                                 qPrintable(applicationName),
                                 qPrintable(files.mid(1).join(QLatin1String(", "))));
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
    SharedStateAccess::release(); // the lock file goes: the next start needs no stale-lock check
    std::fflush(nullptr);
    std::_Exit(status);
}

} // namespace widmo
