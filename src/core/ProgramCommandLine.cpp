#include "core/ProgramCommandLine.h"

#include "core/WidmoVersion.h"

namespace widmo {

QString ProgramCommandLine::versionText(const QString& name) {
    return QStringLiteral("%1 %2\n").arg(name, QLatin1String(WIDMO_VERSION_STRING));
}

QString ProgramCommandLine::helpText(const Program& program) {
    // The man pages (app/man) list the same options; tests/package/cli.sh
    // compares the two, so a new option here needs its entry there.
    QString text =
        QStringLiteral("Usage: %1 [options]%2\n"
                       "%3, the real-time sound analyser, in a window.\n"
                       "\n"
                       "Options:\n"
                       "  -h, --help       this text\n"
                       "  -V, --version    the program's name and version\n")
            .arg(program.name, program.opensFiles ? QStringLiteral(" [FILE...]") : QString(),
                 program.displayName);
    if (program.opensFiles)
        text += QStringLiteral(
            "  FILE             an audio file (WAV, FLAC, Ogg, Opus, MP3, AIFF, ...) to import\n"
            "                   into the document after a question; of several files the\n"
            "                   first is imported and the others are named on standard\n"
            "                   error and ignored\n");
    else
        text += QStringLiteral("Files named on the command line are ignored (widmo-studio "
                               "imports them).\n");
    text += QStringLiteral(
        "Qt's own options (-platform, -style, -display, ...) are accepted as well.\n"
        "\n"
        "Exit status: 0 after the window is closed, Ctrl+Q, SIGTERM or SIGINT; Qt ends\n"
        "the program abnormally when no display can be opened.\n");
    return text;
}

std::optional<int> ProgramCommandLine::answerInformationOption(const QStringList& arguments,
                                                               const Program& program, FILE* out) {
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments[i];
        if (a == QLatin1String("--"))
            break;
        QString text;
        if (a == QLatin1String("-h") || a == QLatin1String("--help"))
            text = helpText(program);
        else if (a == QLatin1String("-V") || a == QLatin1String("--version"))
            text = versionText(program.name);
        else
            continue;
        std::fputs(text.toLocal8Bit().constData(), out);
        std::fflush(out);
        return 0;
    }
    return std::nullopt;
}

QStringList ProgramCommandLine::fileArguments(const QStringList& arguments) {
    QStringList files;
    bool onlyFiles = false;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments[i];
        if (!onlyFiles && a == QLatin1String("--"))
            onlyFiles = true;
        else if (onlyFiles || !a.startsWith(QLatin1Char('-')))
            files << a;
    }
    return files;
}

} // namespace widmo
