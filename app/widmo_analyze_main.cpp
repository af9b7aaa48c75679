// widmo-analyze: the analyser's analysis of audio files, without a window.

#include "batch/BatchCommand.h"
#include "core/AnalyzerDefaults.h"

#include <QGuiApplication>

#include <cstdio>

int main(int argc, char** argv) {
    // Text is drawn into the images through the GUI library, which needs a
    // platform plugin but no display: the offscreen one, unless one is forced.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Widmo"));
    QCoreApplication::setApplicationName(QStringLiteral("widmo-analyze"));
    QCoreApplication::setApplicationVersion(widmo::AnalyzerDefaults::appVersion());
    return widmo::BatchCommand::run(QCoreApplication::arguments(), stdout, stderr);
}
