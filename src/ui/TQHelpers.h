#pragma once

#include <QString>
#include <QUrl>

namespace widmo {

/// File locations of the application: documents, caches and the application's
/// data folder. Each folder is created when first asked for.
///
/// Threading: any thread.
class TQHelpers {
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
};

} // namespace widmo
