#include "core/SharedStateAccess.h"

#include <QDir>
#include <QFile>
#include <QLockFile>
#include <QStandardPaths>

#include <memory>

#include <unistd.h>

namespace widmo {

namespace {
QString gFolder;                  // the product's configuration folder
std::unique_ptr<QLockFile> gLock; // held while this copy owns the shared state
} // namespace

SharedStateAccess::Mode SharedStateAccess::acquire(const QString& applicationName,
                                                   const QString& configFolder) {
    release();
    const QString base =
        configFolder.isEmpty()
            ? QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
            : configFolder;
    gFolder = QDir(base).filePath(QStringLiteral("Widmo"));
    Mode mode = Mode::Writable;
    // access() and not the permission bits: a read-only mount says no to root too.
    if (!QDir().mkpath(gFolder) || ::access(QFile::encodeName(gFolder).constData(), W_OK) != 0) {
        mode = Mode::FolderNotWritable;
    } else {
        auto lock = std::make_unique<QLockFile>(
            QDir(gFolder).filePath(applicationName + QStringLiteral(".lock")));
        // Never stale by age: a copy left running for days keeps its lock.
        // A lock whose process is gone is still taken over (QLockFile checks the PID).
        lock->setStaleLockTime(0);
        if (lock->tryLock(0)) {
            gLock = std::move(lock);
        } else if (lock->error() == QLockFile::LockFailedError) {
            mode = Mode::AnotherCopyRunning;
        } else {
            mode = Mode::FolderNotWritable;
        }
    }
    mode_.store(mode, std::memory_order_release);
    return mode;
}

void SharedStateAccess::release() {
    gLock.reset();
    mode_.store(Mode::Writable, std::memory_order_release);
}

QString SharedStateAccess::titleSuffix() {
    switch (mode()) {
    case Mode::AnotherCopyRunning:
        return QStringLiteral(" (read-only: another copy is running)");
    case Mode::FolderNotWritable:
        return QStringLiteral(" (settings are not saved)");
    case Mode::Writable:
        break;
    }
    return QString();
}

QString SharedStateAccess::explanation() {
    switch (mode()) {
    case Mode::AnotherCopyRunning:
        return QStringLiteral("Another copy of this program is running. This copy saves no "
                              "settings and no recording for recovery; the other copy keeps its "
                              "own.");
    case Mode::FolderNotWritable:
        return QStringLiteral("Settings cannot be saved: the folder %1 cannot be written. Changes "
                              "last until the program quits.")
            .arg(QDir::toNativeSeparators(gFolder));
    case Mode::Writable:
        break;
    }
    return QString();
}

} // namespace widmo
