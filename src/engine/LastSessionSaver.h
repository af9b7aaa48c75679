#pragma once

#include "core/LastSessionFile.h"
#include "engine/DispatchQueue.h"

#include <QString>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class QSettings;

namespace widmo {

class AnalyzerController;
class AnalyzerDefaults;

/// Keeps the last-session file (`LastSessionFile`) up to date while the
/// document grows, so that a program killed without warning loses at most the
/// last `kPeriod` of a recording (plus the time one write takes).
///
/// While recording, every `kPeriod`, and once at every stop, a save runs on the
/// saver's own thread: it copies the samples written since its previous save
/// out of the store into a mirror of the store (only the newest
/// `spectrogramWidth` intervals, which the recovery recomputes; the store's
/// spare intervals keep that copy clear of the intake's writes), writes the
/// mirror to the file through a temporary file and a rename, and then the keys
/// that describe it into the restoration store. The keys follow the file, so a
/// kill between the two leaves keys that describe at most the file's older
/// samples.
///
/// Threading: `recordingStarted`, `recordingStopped`, `saveInBackground`,
/// `saveNow` and `waitUntilIdle` run on the main thread; the main thread only
/// posts (at most one save is pending) and never waits, except in `saveNow`
/// and `waitUntilIdle`. The save itself runs on the saver's thread, which reads
/// the store through `AnalyzerController::copyStoreInto` and creates its own
/// restoration-store object. The engine waits for the saver (`waitUntilIdle`)
/// before it replaces the store.
class LastSessionSaver {
public:
    /// Opens the restoration store; called on the saver's thread.
    using StoreFactory = std::function<std::unique_ptr<QSettings>()>;
    /// Called on the saver's thread after each successful write of the file
    /// (the application marks it as excluded from backups).
    using WrittenHook = std::function<void(const QString& path)>;
    /// Called on the saver's thread when a periodic save could not write the
    /// file (a full disk), once until a save succeeds again; `reason` is the
    /// system's. The previous file stays as it was.
    using FailedHook = std::function<void(const QString& path, const QString& reason)>;

    /// Time between two saves while recording.
    static constexpr std::chrono::milliseconds kPeriod{5000};

    /// `defaults` and `engine` must outlive the saver. Main thread.
    LastSessionSaver(AnalyzerDefaults& defaults, AnalyzerController& engine, QString path,
                     StoreFactory storeFactory, WrittenHook written = nullptr,
                     FailedHook failed = nullptr);
    /// Finishes a running save.
    ~LastSessionSaver();
    LastSessionSaver(const LastSessionSaver&) = delete;
    LastSessionSaver& operator=(const LastSessionSaver&) = delete;

    /// Periodic saves from now on. Main thread.
    void recordingStarted();
    /// Periodic saves end; one save follows in the background. Main thread.
    void recordingStopped();
    /// Queues one save unless one is pending already. Main thread.
    void saveInBackground();
    /// Waits for a running save, then writes the whole store and the keys
    /// into `coder` (not synced) on the calling thread. Main thread, engine
    /// stopped (the application's end). False when the file could not be
    /// written (the keys are then left out) or the document is empty (the
    /// file and its interval key are then removed, so nothing is offered).
    bool saveNow(QSettings& coder);
    /// Blocks until no save is pending or running. Main thread.
    void waitUntilIdle();

    const QString& path() const { return path_; }
    /// Saves finished (file and keys written). Any thread.
    int64_t savesCompleted() const { return savesCompleted_.load(std::memory_order_acquire); }
    /// Samples in the document at the newest finished save. Any thread.
    int64_t savedFrames() const { return savedFrames_.load(std::memory_order_acquire); }
    /// Longest main-thread time of one `saveInBackground`, in milliseconds.
    double maxMainThreadMs() const { return maxMainThreadMs_; }

private:
    // Taken on the main thread: the geometry may change while a save runs
    // after a stop (the store itself is replaced only after waitUntilIdle).
    struct Request {
        int64_t generation = 0;
        int64_t capacity = 0;     // samples in the store
        int64_t newestFrames = 0; // the newest samples worth copying
        LastSessionFile::Session session;
    };
    Request request() const;
    /// One save on the saver's thread.
    void save(const Request& request);

    AnalyzerDefaults& defaults_;
    AnalyzerController& engine_;
    const QString path_;
    StoreFactory storeFactory_;
    WrittenHook written_;
    FailedHook failed_;
    QTimer timer_;
    std::atomic<bool> pending_{false};
    std::atomic<int64_t> savesCompleted_{0};
    std::atomic<int64_t> savedFrames_{0};
    double maxMainThreadMs_ = 0.0;
    // The saver's thread only.
    std::vector<float> mirror_;
    int64_t mirrorGeneration_ = -1;
    int64_t copiedUpTo_ = 0;
    bool failing_ = false; // the newest save failed and was reported
    std::unique_ptr<DispatchQueue> queue_;
};

} // namespace widmo
