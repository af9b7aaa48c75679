#pragma once

#include <QStringList>

#include <cstdio>

namespace widmo {

/// The command line of `widmo-analyze`: options to `BatchSettings` and
/// `BatchRunner::Options`, `--help`, then the run.
class BatchCommand {
public:
    /// Exit status of a wrong command line.
    static constexpr int kUsageError = 2;

    /// Parses `arguments` (the program name first) and runs. Returns the exit
    /// status: 0 every file done, 1 some file failed, 2 a wrong option, a
    /// wrong value or nothing to do (with a line on `err`). `--help` prints
    /// the help on `out` and returns 0,
    /// `--version` the name and version. Needs a QGuiApplication (the image
    /// text); main thread.
    static int run(const QStringList& arguments, FILE* out, FILE* err);

    /// The text of `--help`.
    static QString helpText();
};

} // namespace widmo
