// Writes pictures of the settings pages and the help screen, as a tablet
// shows them, for the products widmo and widmo-studio, and the main screen of
// widmo-voice measuring a voice and EGG pair played into the test sink:
//   widmo_ui_screenshots <folder>
// Needs a display and a sound server (the test services).

#include "RecordingSettingsDelegate.h"
#include "TestSignals.h"
#include "audio/TQAudio.h"
#include "charts/ChartView.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"
#include "render/DeviceClass.h"
#include "ui/AppDelegate.h"
#include "ui/HelpViewController.h"
#include "ui/MainViewController.h"
#include "ui/SettingsRootViewController.h"

#include <QApplication>
#include <QDir>
#include <QMainWindow>
#include <QPixmap>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QToolButton>

#include <cstdio>

namespace {

bool save(QWidget* widget, const QString& path) {
    QTest::qWait(100);
    const bool ok = widget->grab().save(path, "PNG");
    std::printf("%s %s\n", ok ? "wrote" : "FAILED", qPrintable(path));
    return ok;
}

bool shoot(const QString& product, const widmo::AnalyzerFeatures& features, const QDir& out) {
    using Root = widmo::SettingsRootViewController;
    widmo::AnalyzerDefaults defaults(features, "screenshots-" + product);
    defaults.copyCurrentToPreferred();
    widmo::TQAudio audio(defaults, features);
    widmo::test::RecordingSettingsDelegate delegate;
    Root panel(defaults, features, audio, delegate);
    const char* names[] = {"root", "general", "display", "trigger", "audio-input"};
    bool ok = true;
    defaults.setLastSettingsPage(Root::kPageRoot);
    panel.presentAt(QPoint(640, 0));
    for (int page = Root::kPageRoot; page < Root::kPageCount; ++page) {
        if (!panel.isPageOffered(page))
            continue;
        panel.openPage(page);
        ok &= save(&panel, out.filePath(QString("settings-%1-%2.png").arg(names[page], product)));
    }
    panel.closeSettings();

    widmo::HelpViewController help(features);
    help.resize(widmo::TQTableViewController::kPopoverWidth, 760);
    help.show();
    ok &= save(&help, out.filePath(QString("help-%1.png").arg(product)));
    return ok;
}

/// widmo-voice analysing a 196 Hz voice with an EGG closed for 45 % of each
/// cycle, its oscilloscope showing the normalised glottal cycle.
bool shootVoiceMainScreen(const QDir& out) {
    const widmo::AnalyzerFeatures features = widmo::AnalyzerFeatures::voiceProduct();
    widmo::AnalyzerDefaults defaults(features, "screenshots-main-voice");
    widmo::TQAudio audio(defaults, features);
    widmo::FFTManager fft(defaults);
    widmo::AppDelegate app(defaults, audio, fft);
    if (!app.didFinishLaunchingWithOptions() || !QTest::qWaitForWindowExposed(app.window()))
        return false;
    app.window()->resize(1000, 640);
    widmo::MainViewController* screen = app.mainViewController();
    if (!QTest::qWaitFor([&] { return app.dataPrepared() && !screen->buttonsBlocked(); }, 5000))
        return false;
    const int32_t n = defaults.fftSize();
    widmo::FFTPlanCache::shared().complexPlan(n, FFTW_FORWARD);
    widmo::FFTPlanCache::shared().complexPlan(n, FFTW_BACKWARD);

    constexpr double f0 = 196.0;
    const auto voice = [](double t) {
        double v = 0.0;
        for (int k = 1; k <= 6; ++k)
            v += std::sin(2.0 * std::numbers::pi * k * f0 * t) / (k * k);
        return float(0.2 * v);
    };
    widmo::test::SinkPlayer signal(48000, 20.0, voice,
                                   [](double t) { return widmo::test::eggContact(f0, 0.45, t); });
    if (!signal.start())
        return false;
    screen->typeOfChartOsciloscopeSelected();
    QTest::mouseClick(screen->recordPauseButton(), Qt::LeftButton);
    QTest::qWait(2500);
    const bool ok = save(app.window(), out.filePath("main-widmo-voice.png"));
    QTest::mouseClick(screen->recordPauseButton(), Qt::LeftButton);
    QTest::qWait(300);
    app.applicationWillTerminate();
    return ok;
}

} // namespace

int main(int argc, char** argv) {
    QTemporaryDir home;
    qputenv("HOME", home.path().toLocal8Bit());
    QApplication app(argc, argv);
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <folder>\n", argv[0]);
        return 2;
    }
    const QDir out(QString::fromLocal8Bit(argv[1]));
    widmo::DeviceClass::setForcedIdiom(widmo::DeviceClass::Idiom::Tablet);
    bool ok = shoot("widmo", widmo::AnalyzerFeatures::spectrumProduct(), out);
    ok &= shoot("widmo-studio", widmo::AnalyzerFeatures::studioProduct(), out);
    ok &= shootVoiceMainScreen(out);
    return ok ? 0 : 1;
}
