#include "ui/TQHelpers.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <sys/xattr.h>

namespace widmo {

namespace {

// The folder's URL text, always ending in '/', so that names can be appended.
QString folderUrlText(QStandardPaths::StandardLocation location) {
    QString path = QStandardPaths::writableLocation(location);
    QDir().mkpath(path);
    QString text = QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded);
    if (!text.endsWith(QLatin1Char('/')))
        text += QLatin1Char('/');
    return text;
}

QUrl urlInFolder(QStandardPaths::StandardLocation location, const QString& fileName) {
    // Characters allowed in a URL path stay as they are; everything else,
    // spaces included, is percent-encoded.
    const QByteArray encoded = QUrl::toPercentEncoding(fileName, "!$&'()*+,;=:@/");
    return QUrl(folderUrlText(location) + QString::fromLatin1(encoded), QUrl::StrictMode);
}

} // namespace

QUrl TQHelpers::documentDirectory() {
    return QUrl(folderUrlText(QStandardPaths::DocumentsLocation));
}

QUrl TQHelpers::urlInDocumentsWithFileName(const QString& fileName) {
    return urlInFolder(QStandardPaths::DocumentsLocation, fileName);
}

QUrl TQHelpers::urlInTempWithFileName(const QString& fileName) {
    return urlInFolder(QStandardPaths::CacheLocation, fileName);
}

QUrl TQHelpers::urlInLibraryDirWithFileName(const QString& fileName) {
    return urlInFolder(QStandardPaths::AppDataLocation, fileName);
}

void TQHelpers::excludeFromBackupURL(const QUrl& url) {
    // The freedesktop.org extended attribute that backup tools read; file
    // systems without user attributes simply refuse it, which is fine.
    const QByteArray path = QFile::encodeName(url.toLocalFile());
    if (path.isEmpty())
        return;
    static const char kValue[] = "false";
    ::setxattr(path.constData(), "user.xdg.robots.backup", kValue, sizeof kValue - 1, 0);
}

} // namespace widmo
