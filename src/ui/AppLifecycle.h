#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

#include <memory>

class QMainWindow;
class QSettings;

namespace widmo {

class AnalyzerDefaults;
class AnalyzerFeatures;
class FFTManager;
class MainScreen;
class AudioSession;

/// The application's life: builds the window with the main screen, restores
/// the screen's state, prepares the analyser on the first activation, stops
/// it when the application is hidden or suspended, and saves the state and
/// removes the temporary export files when the application quits (window
/// closed, session ended, SIGTERM or SIGINT).
///
/// On a desktop a window that merely loses the focus stays active: the
/// analyser keeps running beside other programs. Only a hidden or suspended
/// application counts as leaving the foreground.
///
/// Threading: main thread only.
class AppLifecycle : public QObject {
    Q_OBJECT
public:
    /// Files of a session's exports, removed at termination (cache folder).
    static constexpr const char* kTemporaryFiles[] = {"recording.wav", "chart.png"};

    /// `defaults`, `audio` and `fftManager` must outlive the delegate.
    AppLifecycle(AnalyzerDefaults& defaults, AudioSession& audio, FFTManager& fftManager,
                 QObject* parent = nullptr);
    /// Closes the window; the main screen stops the analyser.
    ~AppLifecycle() override;

    /// Builds and shows the window, restores the main screen from the
    /// restoration store and follows the application's state from then on.
    bool showMainWindow();
    /// Stops the analyser and releases the audio session, unless a start is
    /// still being set up.
    void leaveForeground();
    /// The first call prepares the analyser's document; later calls do nothing.
    void enterForeground();
    /// Saves the state and settings; removes the temporary export files.
    void prepareToQuit();
    /// A file handed to the application (named on the command line or dropped
    /// on the window). Products with audio import ask "Do you want to import
    /// the file into the current spectrogram context?" and on "Yes" import it;
    /// other products ignore it.
    void importIntoApp(const QUrl& url);
    /// The application was opened to import a file.
    bool wasImport() const { return mWasImport; }

    QMainWindow* window() const { return window_.get(); }
    MainScreen* mainScreen() const { return mainScreen_; }
    bool dataPrepared() const { return mDataPrepared; }

    /// The restoration store: the main screen's keys and the window's geometry,
    /// in a settings file of their own beside the application's settings.
    static std::unique_ptr<QSettings> restorationStore();

    /// The whole program: one application object, the product `features`,
    /// the shared settings, FFT engine and audio object, the event loop.
    /// `applicationName` names the settings files and the window. With
    /// `audioNode` the product offers the JACK node: it feeds the main
    /// screen's engine and is turned on at start when the user left it on.
    /// `--help` and `--version` are answered on standard output before any
    /// window (no display needed) and end the program with status 0. The
    /// first argument that is not an option names a file to import
    /// (`importIntoApp`); further files are named on standard error and
    /// ignored, as are all files in products without audio import.
    static int run(int argc, char** argv, const AnalyzerFeatures& features,
                   const QString& applicationName, const QString& displayName,
                   bool audioNode = false);

private:
    AnalyzerDefaults& defaults_;
    AudioSession& audio_;
    FFTManager& fftManager_;
    std::unique_ptr<QMainWindow> window_;
    MainScreen* mainScreen_ = nullptr; // owned by the window
    bool mDataPrepared = false;
    bool mWasImport = false;
};

} // namespace widmo
