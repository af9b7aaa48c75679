// Writes pictures of the settings pages and the help screen, as a tablet
// shows them, for the products widmo and widmo-studio:
//   widmo_ui_screenshots <folder>
// Needs a display and a sound server (the test services).

#include "RecordingSettingsDelegate.h"
#include "audio/TQAudio.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "render/DeviceClass.h"
#include "ui/HelpViewController.h"
#include "ui/SettingsRootViewController.h"

#include <QApplication>
#include <QDir>
#include <QPixmap>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

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
    return ok ? 0 : 1;
}
