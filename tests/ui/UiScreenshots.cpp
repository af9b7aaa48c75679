// Writes pictures of the settings pages and the help screen, as a tablet
// shows them, for the products widmo and widmo-studio, the main screen of
// widmo-voice measuring a voice and EGG pair played into the test sink, and
// widmo-studio's spectrogram of a sweep and a voice-like tone in each colour
// scheme, logarithmic and linear, and with the spectrum as a picture-in-picture:
// and widmo-studio listening by heterodyne to bat-like calls, its tuned band shaded:
//   widmo_ui_screenshots <folder> [heterodyne]
// Needs a display and a sound server (the test services).

#include "RecordingSettingsDelegate.h"
#include "TestSignals.h"
#include "audio/AudioSession.h"
#include "charts/ChartView.h"
#include "charts/SpectrogramView.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"
#include "render/DeviceClass.h"
#include "render/SpectrogramScrollView.h"
#include "ui/AppLifecycle.h"
#include "ui/HelpWindow.h"
#include "ui/MainScreen.h"
#include "ui/SettingsPanel.h"
#include "ui/TransportControls.h"
#include "ui/ViewArrangement.h"

#include <QApplication>
#include <QDir>
#include <QMainWindow>
#include <QPixmap>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QToolButton>

#include <cmath>
#include <cstdio>
#include <numbers>

namespace {

bool save(QWidget* widget, const QString& path) {
    QTest::qWait(100);
    const bool ok = widget->grab().save(path, "PNG");
    std::printf("%s %s\n", ok ? "wrote" : "FAILED", qPrintable(path));
    return ok;
}

bool shoot(const QString& product, const widmo::AnalyzerFeatures& features, const QDir& out) {
    using Root = widmo::SettingsPanel;
    widmo::AnalyzerDefaults defaults(features, "screenshots-" + product);
    defaults.copyCurrentToPreferred();
    widmo::AudioSession audio(defaults, features);
    widmo::test::RecordingSettingsDelegate delegate;
    Root panel(defaults, features, audio, delegate);
    const char* names[] = {"root", "general", "display", "trigger", "audio-input", "sound-level"};
    static_assert(std::size(names) == Root::kPageCount);
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

    widmo::HelpWindow help(features);
    help.resize(widmo::SectionedPage::kPopoverWidth, 760);
    help.show();
    ok &= save(&help, out.filePath(QString("help-%1.png").arg(product)));
    return ok;
}

/// One product's main screen in a 1000 x 640 window, its document prepared.
struct ProductWindow {
    ProductWindow(const widmo::AnalyzerFeatures& product, const QString& store)
        : features(product), defaults(features, store), audio(defaults, features), fft(defaults),
          app(defaults, audio, fft) {}
    bool launch() {
        if (!app.showMainWindow() || !QTest::qWaitForWindowExposed(app.window()))
            return false;
        app.window()->resize(1000, 640);
        widmo::MainScreen* screen = app.mainScreen();
        return QTest::qWaitFor([&] { return app.dataPrepared() && !screen->buttonsBlocked(); },
                               10000);
    }
    widmo::AnalyzerFeatures features;
    widmo::AnalyzerDefaults defaults;
    widmo::AudioSession audio;
    widmo::FFTManager fft;
    widmo::AppLifecycle app;
};

/// widmo-voice analysing a 196 Hz voice with an EGG closed for 45 % of each
/// cycle, its oscilloscope showing the normalised glottal cycle.
bool shootVoiceMainScreen(const QDir& out) {
    ProductWindow main(widmo::AnalyzerFeatures::voiceProduct(), "screenshots-main-voice");
    if (!main.launch())
        return false;
    widmo::AppLifecycle& app = main.app;
    widmo::MainScreen* screen = app.mainScreen();
    const int32_t n = main.defaults.fftSize();
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
    screen->typeOfChartOscilloscopeSelected();
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    QTest::qWait(2500);
    const bool ok = save(app.window(), out.filePath("main-widmo-voice.png"));
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    QTest::qWait(300);
    app.prepareToQuit();
    return ok;
}

/// widmo-studio recording a repeating sweep over a 220 Hz tone with its
/// harmonics, then each colour scheme and frequency axis of the document.
bool shootStudioSpectrogram(const QDir& out) {
    ProductWindow main(widmo::AnalyzerFeatures::studioProduct(), "screenshots-main-studio");
    if (!main.launch())
        return false;
    widmo::AppLifecycle& app = main.app;
    widmo::AnalyzerDefaults& defaults = main.defaults;
    widmo::MainScreen* screen = app.mainScreen();
    const auto ready = [&] {
        return QTest::qWaitFor(
            [&] {
                return app.dataPrepared() && !screen->buttonsBlocked() &&
                       !screen->arrangement().layoutAnimating();
            },
            10000);
    };
    if (!ready())
        return false;
    // The spectrogram full screen, the spectrum beside it.
    screen->spectrogramVsChartChanged(0);
    screen->typeOfChartSpectrumSelected();
    if (!ready())
        return false;
    const auto signal = [](double t) {
        // A sweep from 300 Hz to 6 kHz every 3 s, exponential in frequency.
        const double period = 3.0;
        const double u = std::fmod(t, period);
        const double k = std::log(20.0) / period;
        const double sweep = std::sin(2.0 * std::numbers::pi * 300.0 * (std::exp(k * u) - 1.0) / k);
        double voice = 0.0;
        for (int h = 1; h <= 8; ++h)
            voice += std::sin(2.0 * std::numbers::pi * h * 220.0 * t) / h;
        return float(0.15 * sweep + 0.08 * voice);
    };
    widmo::test::SinkPlayer player(48000, 30.0, signal, [](double) { return 0.0f; });
    if (!player.start())
        return false;
    // Recording, with the spectrum as a picture-in-picture.
    screen->pipOnOffChanged();
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    QTest::qWait(9000);
    bool ok = save(app.window(), out.filePath("spectrogram-pip-widmo-studio.png"));
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    QTest::qWait(300);
    player.stop();
    screen->pipOnOffChanged();
    if (!ready())
        return false;
    const char* schemes[] = {"colour", "black", "white"};
    for (const bool linear : {false, true}) {
        for (int scheme = 0; scheme < 3; ++scheme) {
            defaults.copyCurrentToPreferred();
            defaults.setPreferredSpectrogramColorType(scheme);
            defaults.setPreferredLinearFrequency(linear);
            screen->settingsWillClose();
            if (!ready())
                return false;
            QTest::qWait(300);
            ok &= save(app.window(),
                       out.filePath(QString("spectrogram-%1-%2-widmo-studio.png")
                                        .arg(schemes[scheme], linear ? "linear" : "log")));
        }
    }
    // The cursor on the recording: its read-out, and the spectrum of that
    // interval in the picture-in-picture.
    screen->pipOnOffChanged();
    if (!ready())
        return false;
    widmo::SpectrogramScrollView* scroll = screen->spectrogramView()->scroll();
    // A click places the cursor, as a user places it.
    QTest::mouseClick(scroll, Qt::LeftButton, {},
                      QPoint(int(scroll->width() * 0.96), int(scroll->height() * 0.55)));
    QTest::qWait(800);
    ok &= save(app.window(), out.filePath("spectrogram-measuring-widmo-studio.png"));
    app.prepareToQuit();
    return ok;
}

/// widmo-studio at 192 kHz listening by heterodyne tuned to 45 kHz while a
/// train of pipistrelle-like calls (70 to 46 kHz in 6 ms, ten a second) plays
/// into the ultrasonic microphone: the tuned band shaded on the spectrogram.
bool shootHeterodyneBand(const QDir& out) {
    widmo::test::UltrasonicMicrophone microphone;
    if (!microphone.isLoaded())
        return false;
    ProductWindow main(widmo::AnalyzerFeatures::studioProduct(), "screenshots-heterodyne");
    if (!main.launch())
        return false;
    widmo::AppLifecycle& app = main.app;
    widmo::AnalyzerDefaults& defaults = main.defaults;
    widmo::MainScreen* screen = app.mainScreen();
    defaults.copyCurrentToPreferred();
    defaults.setPreferredSampleRate(192000.0f);
    defaults.setPreferredLinearFrequency(true);
    screen->settingsWillClose();
    if (!QTest::qWaitFor([&] { return !screen->buttonsBlocked(); }, 10000))
        return false;
    screen->spectrogramVsChartChanged(0);
    defaults.setRecordingTranspositionOn(true);
    defaults.setListeningMode(1);
    defaults.setHeterodyneTuningHz(45000.0f);
    defaults.setHeterodyneBandHz(5000.0f);
    main.audio.refreshListening();
    const auto call = [](double t) {
        const double period = 0.1;
        const double length = 0.006;
        const double u = std::fmod(t, period);
        if (u >= length)
            return 0.0f;
        // Exponential sweep 70 -> 46 kHz under a Hann envelope.
        const double k = std::log(46.0 / 70.0) / length;
        const double phase = 2.0 * std::numbers::pi * 70000.0 * (std::exp(k * u) - 1.0) / k;
        const double envelope = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * u / length);
        return float(0.5 * envelope * std::sin(phase));
    };
    widmo::test::SinkPlayer player(192000, 30.0, call, call,
                                   widmo::test::UltrasonicMicrophone::sinkName());
    if (!player.start())
        return false;
    if (!QTest::qWaitFor(
            [&] {
                for (const widmo::AudioDevice& d : main.audio.availableInputs())
                    if (d.id == widmo::test::UltrasonicMicrophone::kSourceName)
                        main.audio.setPreferredInput(d);
                return main.audio.preferredInput().id ==
                       widmo::test::UltrasonicMicrophone::kSourceName;
            },
            5000))
        return false;
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    QTest::qWait(8000);
    const bool ok = save(app.window(), out.filePath("heterodyne-band-widmo-studio.png"));
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    QTest::qWait(300);
    player.stop();
    app.prepareToQuit();
    return ok;
}

/// widmo measuring a 1 kHz tone at -26 dBFS with a microphone calibrated to
/// 0 dBFS = 120 dB SPL and A weighting: the meter in dBA with LAeq, LAFmax and
/// LCpeak beside it.
bool shootSoundLevels(const QDir& out) {
    ProductWindow main(widmo::AnalyzerFeatures::spectrumProduct(), "screenshots-levels");
    if (!main.launch())
        return false;
    widmo::AppLifecycle& app = main.app;
    widmo::MainScreen* screen = app.mainScreen();
    widmo::SoundLevelSettings& levels = main.defaults.soundLevels();
    levels.setDevice(QString::fromUtf8(main.audio.currentInput().id));
    levels.setWeighting(widmo::SoundLevelSettings::kWeightingA);
    levels.setSplOffset(120.0);
    screen->chartView()->prepareTextures();
    const float a = float(std::pow(10.0, -26.0 / 20.0));
    widmo::test::SinkPlayer tone(
        48000, 20.0,
        [a](double t) { return a * float(std::sin(2.0 * std::numbers::pi * 1000.0 * t)); },
        [](double) { return 0.0f; });
    if (!tone.start())
        return false;
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    QTest::qWait(3000);
    const bool ok = save(app.window(), out.filePath("levels-widmo.png"));
    QTest::mouseClick(screen->transport().recordButton(), Qt::LeftButton);
    QTest::qWait(300);
    app.prepareToQuit();
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
    // A second argument "heterodyne" writes that picture only.
    if (argc > 2 && QString::fromLocal8Bit(argv[2]) == QLatin1String("heterodyne"))
        return shootHeterodyneBand(out) ? 0 : 1;
    bool ok = shoot("widmo", widmo::AnalyzerFeatures::spectrumProduct(), out);
    ok &= shoot("widmo-studio", widmo::AnalyzerFeatures::studioProduct(), out);
    ok &= shootVoiceMainScreen(out);
    ok &= shootStudioSpectrogram(out);
    ok &= shootSoundLevels(out);
    ok &= shootHeterodyneBand(out);
    return ok ? 0 : 1;
}
