#pragma once

#include <QString>

#include <atomic>

namespace widmo {

/// Whether this process may write the state every copy of a product shares:
/// its settings, its restoration store, the last-session file and the
/// temporary files in the cache folder.
///
/// The first copy of a product takes a lock file beside its settings
/// (`<config>/Widmo/<product>.lock`) and writes as before. A second copy of
/// the same product finds the lock held by a live process and runs with the
/// shared state read-only: it reads the settings, writes nothing back and
/// leaves the first copy's last-session file alone. A lock left by a process
/// that died is taken over. When the configuration folder cannot be written
/// at all (a read-only file system, no permission), settings are read but not
/// saved either.
///
/// Threading: `acquire`, `release` and the texts on the main thread;
/// `writable` and `mode` from any thread.
class SharedStateAccess {
public:
    enum class Mode {
        Writable,           ///< this copy owns the shared state
        AnotherCopyRunning, ///< the lock is held by a running copy
        FolderNotWritable,  ///< the configuration folder cannot be written
    };

    /// Takes the lock of product `applicationName` in `configFolder` (empty:
    /// the user's configuration folder). Returns the mode, which `writable`
    /// and `mode` answer from now on.
    static Mode acquire(const QString& applicationName, const QString& configFolder = QString());
    /// Gives the lock back; the shared state is writable again (the end of a
    /// program, or of a test).
    static void release();

    static bool writable() { return mode() == Mode::Writable; }
    static Mode mode() { return mode_.load(std::memory_order_acquire); }

    /// Added to the window title while the shared state is read-only, e.g.
    /// " (read-only: another copy is running)"; empty when writable.
    static QString titleSuffix();
    /// One sentence for the user naming what is not saved and why; empty when
    /// writable.
    static QString explanation();

private:
    static inline std::atomic<Mode> mode_{Mode::Writable};
};

} // namespace widmo
