#pragma once

#include <QString>
#include <QStringList>

#include <cstdio>
#include <optional>

namespace widmo {

/// The command line the window programs (widmo, widmo-studio, widmo-voice)
/// share: `--help` and `--version`, answered before the application object
/// exists so that they need no display, and the files named on it. Every
/// other argument is left to Qt (-platform, -style, ...).
///
/// Threading: any thread; no state.
class ProgramCommandLine {
public:
    /// What the help says about one program.
    struct Program {
        QString name;        ///< executable name, e.g. "widmo-studio"
        QString displayName; ///< window title, e.g. "Widmo Studio"
        bool opensFiles;     ///< the product imports a file named on the command line
    };

    /// "NAME VERSION", VERSION being the CMake project's version.
    static QString versionText(const QString& name);

    /// The text of `--help` for `program`.
    static QString helpText(const Program& program);

    /// Looks for -h/--help and -V/--version in `arguments` (the program name
    /// first) before a "--". The first found is answered on `out` and its
    /// exit status (0) returned; none found: nullopt, nothing written.
    static std::optional<int> answerInformationOption(const QStringList& arguments,
                                                      const Program& program, FILE* out);

    /// The files named in `arguments` (the program name first): every
    /// argument that does not start with '-', and every one after "--".
    static QStringList fileArguments(const QStringList& arguments);
};

} // namespace widmo
