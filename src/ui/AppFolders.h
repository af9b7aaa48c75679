#pragma once

#include "audio/AudioFileReader.h"

#include <QString>
#include <QUrl>

#include <atomic>
#include <functional>

namespace widmo {

class AnalyzerDefaults;

/// File locations of the application: documents, caches and the application's
/// data folder. Each folder is created when first asked for.
///
/// Threading: any thread.
class AppFolders {
public:
    /// The user's documents folder, as a URL ending in '/'.
    static QUrl documentDirectory();
    /// `fileName`, percent-encoded for a URL path, appended to the documents URL.
    static QUrl urlInDocumentsWithFileName(const QString& fileName);
    /// The same in the user's cache folder (kept across runs, unlike /tmp).
    static QUrl urlInTempWithFileName(const QString& fileName);
    /// The same in the application's data folder.
    static QUrl urlInLibraryDirWithFileName(const QString& fileName);
    /// Marks a file as not to be backed up (the "user.xdg.robots.backup"
    /// extended attribute); errors, such as a file system without user
    /// attributes, are ignored.
    static void excludeFromBackupURL(const QUrl& url);

    // --- Audio files ---------------------------------------------------------------------

    /// Writes the samples the spectrogram shows as a WAV file (mono, 32-bit
    /// float, at the document's rate): the intervals max(actualInterval -
    /// spectrogramWidth, 0) .. actualInterval - 1 of the ring store, oldest
    /// first, through a temporary file renamed over the target. False when the
    /// file exists and `overwrite` is false (`error` untouched), or when the
    /// file could not be written (a full disk: `error` says why, and an older
    /// file of that name is kept). Main thread, engine stopped (the store must
    /// not change while it is written).
    static bool writeAudioDataToFileURL(const AnalyzerDefaults& defaults, const QUrl& url,
                                        bool overwrite, QString* error = nullptr);
    /// Where an import of `source` is staged: "imported_recording" in the
    /// cache folder, with the source's suffix (libsndfile falls back on the
    /// suffix for formats without a header of their own, such as MP3).
    static QString stagedImportPath(const QUrl& source);
    /// Removes any staged import, then copies `source` (a local file) to
    /// `stagedImportPath(source)`. False when the copy fails (a folder, a file
    /// that cannot be read).
    static bool copyTemporaryAudioFileWithURL(const QUrl& source);
    /// Opens the staged file `stagedPath` and, when it is audio that can be
    /// read, calls `values` with its sample rate (Hz) and its length
    /// (seconds). Returns true on an ERROR (the file could not be read), false
    /// after `values` was called.
    static bool getImportedSampleRateAndTimeAndReturnValues(
        const QString& stagedPath, const std::function<void(double rate, double seconds)>& values);
    /// Reads the staged file into the document's store from interval 0, as
    /// mono at the document's rate (libsoxr converts another rate), at most
    /// `spectrogramWidth` intervals, sets `actualInterval` to the intervals read
    /// (a short last one counts) and deletes the staged file. `progress` gets
    /// the file's frames read and its frame count; `cancel`, when set, stops
    /// the read. True when the read ended without an error. Any thread but the
    /// real-time one, with the engine stopped and the store prepared empty for
    /// the current geometry; nothing else touches the store meanwhile.
    static bool readImportedAudioData(AnalyzerDefaults& defaults, const QString& stagedPath,
                                      const AudioFileReader::Progress& progress = {},
                                      const std::atomic<bool>* cancel = nullptr);
};

} // namespace widmo
