// widmo-analyze: the analyser's analysis of audio files, without a window.

#include "batch/BatchCommand.h"
#include "core/AnalyzerDefaults.h"

#include <QGuiApplication>

#include <cstdio>

namespace {

// Qt's messages go to standard error as usual, except the notices about the
// runtime folder (unset, or set but missing): the command uses none, and batch
// systems rarely provide one, so they would only stand between the user and
// the lines about the files.
QtMessageHandler standardHandler = nullptr;

void messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& text) {
    if (type == QtWarningMsg && text.startsWith(QLatin1String("QStandardPaths: ")) &&
        (text.contains(QLatin1String("XDG_RUNTIME_DIR")) ||
         text.contains(QLatin1String("runtime directory"))))
        return;
    if (standardHandler)
        standardHandler(type, context, text);
    else
        std::fprintf(stderr, "%s\n",
                     qFormatLogMessage(type, context, text).toLocal8Bit().constData());
}

} // namespace

int main(int argc, char** argv) {
    standardHandler = qInstallMessageHandler(messageHandler);
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
