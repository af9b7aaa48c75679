#include "ui/AppFolders.h"

#include "core/AnalyzerDefaults.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryFile>

#include <sndfile.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <vector>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

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

QUrl AppFolders::documentDirectory() {
    return QUrl(folderUrlText(QStandardPaths::DocumentsLocation));
}

QUrl AppFolders::urlInDocumentsWithFileName(const QString& fileName) {
    return urlInFolder(QStandardPaths::DocumentsLocation, fileName);
}

QUrl AppFolders::urlInTempWithFileName(const QString& fileName) {
    return urlInFolder(QStandardPaths::CacheLocation, fileName);
}

QUrl AppFolders::urlInLibraryDirWithFileName(const QString& fileName) {
    return urlInFolder(QStandardPaths::AppDataLocation, fileName);
}

void AppFolders::excludeFromBackupURL(const QUrl& url) {
    // The freedesktop.org extended attribute that backup tools read; file
    // systems without user attributes simply refuse it, which is fine.
    const QByteArray path = QFile::encodeName(url.toLocalFile());
    if (path.isEmpty())
        return;
    static const char kValue[] = "false";
    ::setxattr(path.constData(), "user.xdg.robots.backup", kValue, sizeof kValue - 1, 0);
}

bool AppFolders::writeAudioDataToFileURL(const AnalyzerDefaults& defaults, const QUrl& url,
                                         bool overwrite, QString* error) {
    const QString path = url.toLocalFile();
    if (!overwrite && QFileInfo::exists(path))
        return false;
    const auto fail = [&](const QString& reason) {
        qWarning("%s could not be written: %s", qPrintable(path), qPrintable(reason));
        if (error)
            *error = reason;
        return false;
    };
    // Written under a temporary name beside the target and renamed over it at
    // the end: a full disk leaves the previous file, never half a new one.
    QTemporaryFile part(path + QStringLiteral(".XXXXXX.part"));
    if (!part.open())
        return fail(part.errorString());
    // The permissions a newly created file gets (a temporary file is private).
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(part.handle(), 0666 & ~mask);
    SF_INFO info{};
    info.samplerate = int(std::lround(defaults.sampleRate()));
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    // libsndfile writes through its own descriptor; QTemporaryFile keeps the
    // name and removes the file unless it is renamed.
    SNDFILE* file = sf_open_fd(part.handle(), SFM_WRITE, &info, SF_FALSE);
    if (file == nullptr)
        return fail(QString::fromUtf8(sf_strerror(nullptr)));
    const std::vector<float>& store = defaults.audioBuffersData();
    const int64_t frames = defaults.intervalSizeInFrames();
    const int64_t ringFrames = frames * defaults.audioBuffersIntervalsCount();
    const int64_t last = defaults.actualInterval();
    QString writeError;
    if (frames > 0 && ringFrames > 0 && int64_t(store.size()) >= ringFrames) {
        for (int64_t k = std::max<int64_t>(last - defaults.spectrogramWidth(), 0); k < last; ++k) {
            const int64_t start = (k * frames) % ringFrames;
            if (sf_writef_float(file, store.data() + start, frames) != frames) {
                writeError = QString::fromUtf8(sf_strerror(file));
                break;
            }
        }
    }
    // The header's sizes are written at close; a full disk shows there too.
    sf_write_sync(file);
    if (sf_close(file) != 0 && writeError.isEmpty())
        writeError = QStringLiteral("the file could not be completed");
    if (writeError.isEmpty() && ::fsync(part.handle()) != 0)
        writeError = QString::fromLocal8Bit(std::strerror(errno));
    if (!writeError.isEmpty())
        return fail(writeError);
    QFile::remove(path);
    if (!part.rename(path))
        return fail(part.errorString());
    part.setAutoRemove(false);
    return true;
}

QString AppFolders::stagedImportPath(const QUrl& source) {
    const QString suffix = QFileInfo(source.toLocalFile()).suffix().toLower();
    const QString name =
        QStringLiteral("imported_recording.") + (suffix.isEmpty() ? QStringLiteral("wav") : suffix);
    return urlInTempWithFileName(name).toLocalFile();
}

bool AppFolders::copyTemporaryAudioFileWithURL(const QUrl& source) {
    const QString staged = stagedImportPath(source);
    QFile::remove(staged);
    const QString path = source.toLocalFile();
    if (path.isEmpty() || !QFileInfo(path).isFile())
        return false;
    return QFile::copy(path, staged);
}

bool AppFolders::getImportedSampleRateAndTimeAndReturnValues(
    const QString& stagedPath, const std::function<void(double, double)>& values) {
    AudioFileReader reader;
    if (!reader.open(QFile::encodeName(stagedPath).toStdString())) {
        qWarning("%s", reader.errorText().c_str());
        return true;
    }
    if (values)
        values(reader.sampleRate(), reader.duration());
    return false;
}

bool AppFolders::readImportedAudioData(AnalyzerDefaults& defaults, const QString& stagedPath,
                                       const AudioFileReader::Progress& progress,
                                       const std::atomic<bool>* cancel) {
    AudioFileReader reader;
    std::vector<float> samples;
    const int64_t frames = defaults.intervalSizeInFrames();
    const int64_t maxFrames = frames * defaults.spectrogramWidth();
    std::vector<float>& store = defaults.audioBuffersData();
    bool ok = reader.open(QFile::encodeName(stagedPath).toStdString());
    if (ok && frames > 0 && int64_t(store.size()) >= maxFrames) {
        ok = reader.readMono(samples, double(defaults.sampleRate()),
                             AudioFileReader::kMixAllChannels, maxFrames,
                             [&](int64_t done, int64_t total) {
                                 if (cancel != nullptr && cancel->load(std::memory_order_acquire))
                                     reader.cancel();
                                 if (progress)
                                     progress(done, total);
                             });
        // What was read before an error is kept, as the intervals read so far.
        std::copy(samples.begin(), samples.end(), store.begin());
        defaults.setActualInterval((int64_t(samples.size()) + frames - 1) / frames);
    }
    if (!reader.errorText().empty())
        qWarning("%s", reader.errorText().c_str());
    reader.close();
    QFile::remove(stagedPath);
    return ok;
}

} // namespace widmo
