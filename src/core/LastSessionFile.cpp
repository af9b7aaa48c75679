#include "core/LastSessionFile.h"

#include "core/AnalyzerDefaults.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSettings>
#include <QStandardPaths>
#include <QtGlobal>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>

namespace widmo {

namespace {

/// An integer key, only when it holds an integer (a QSettings ini file gives
/// back strings: "12" converts, "abc" or "1.5" do not).
std::optional<int64_t> integerKey(const QSettings& coder, const char* key) {
    const QVariant value = coder.value(QLatin1String(key));
    if (!value.isValid()) {
        return std::nullopt;
    }
    bool ok = false;
    const qlonglong v = value.toLongLong(&ok);
    return ok ? std::optional<int64_t>(v) : std::nullopt;
}

std::optional<float> floatKey(const QSettings& coder, const char* key) {
    const QVariant value = coder.value(QLatin1String(key));
    if (!value.isValid()) {
        return std::nullopt;
    }
    bool ok = false;
    const float v = value.toFloat(&ok);
    return ok && std::isfinite(v) ? std::optional<float>(v) : std::nullopt;
}

std::optional<bool> boolKey(const QSettings& coder, const char* key) {
    const QVariant value = coder.value(QLatin1String(key));
    if (!value.isValid()) {
        return std::nullopt;
    }
    const QString text = value.toString();
    if (value.typeId() == QMetaType::Bool || text == QLatin1String("true") ||
        text == QLatin1String("false")) {
        return value.toBool();
    }
    return std::nullopt;
}

} // namespace

LastSessionFile::Session LastSessionFile::Session::of(const AnalyzerDefaults& defaults,
                                                      int64_t intervals) {
    Session s;
    s.actualInterval = intervals;
    s.readOnly = defaults.readOnly();
    s.timeOfDocument = defaults.timeOfDocument();
    s.sampleRate = defaults.sampleRate();
    s.fftSize = defaults.fftSize();
    s.intervalSizeInFrames = defaults.intervalSizeInFrames();
    s.byteSize = defaults.audioBufferByteSize();
    s.gaps = defaults.captureGaps().gaps();
    return s;
}

bool LastSessionFile::Session::matches(const AnalyzerDefaults& defaults) const {
    // Exact: both sides come from the same settings values.
    return std::equal_to<float>()(sampleRate, defaults.sampleRate()) &&
           fftSize == defaults.fftSize() &&
           intervalSizeInFrames == defaults.intervalSizeInFrames() &&
           byteSize == defaults.audioBufferByteSize();
}

QString LastSessionFile::defaultPath() {
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    QDir().mkpath(folder);
    return QDir(folder).filePath(QLatin1String(kFileName));
}

bool LastSessionFile::write(const QString& path, const float* samples, int64_t count,
                            QString* error) {
    // QSaveFile writes a temporary file beside `path` and renames it over
    // `path` on commit; until then the old file stays as it was.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        qWarning("error %d from %s", static_cast<int>(file.error()), "QSaveFile::open");
        if (error)
            *error = file.errorString();
        return false;
    }
    const auto bytes = count * static_cast<int64_t>(sizeof(float));
    if (file.write(reinterpret_cast<const char*>(samples), bytes) != bytes) {
        // A short write on a full disk may leave no error on the device; the
        // system's errno still names the cause.
        const int cause = errno;
        const QString reason = file.error() != QFileDevice::NoError
                                   ? file.errorString()
                                   : QString::fromLocal8Bit(std::strerror(cause));
        qWarning("%s could not be written: %s", qPrintable(path), qPrintable(reason));
        if (error)
            *error = reason;
        file.cancelWriting();
        return false;
    }
    if (!file.commit()) {
        qWarning("error %d from %s", static_cast<int>(file.error()), "QSaveFile::commit");
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}

LastSessionFile::ReadResult LastSessionFile::read(const QString& path, int64_t expectedBytes,
                                                  std::vector<float>& out) {
    QFile file(path);
    if (!file.exists()) {
        return ReadResult::Missing;
    }
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        return ReadResult::Unreadable;
    }
    if (file.size() != expectedBytes || expectedBytes % int64_t{sizeof(float)} != 0) {
        return ReadResult::WrongSize;
    }
    std::vector<float> samples(static_cast<size_t>(expectedBytes) / sizeof(float));
    if (file.read(reinterpret_cast<char*>(samples.data()), expectedBytes) != expectedBytes) {
        return ReadResult::Unreadable;
    }
    out.swap(samples);
    return ReadResult::Ok;
}

void LastSessionFile::encode(QSettings& coder, const Session& session) {
    coder.setValue(QLatin1String(kActualIntervalKey),
                   static_cast<qlonglong>(session.actualInterval));
    coder.setValue(QLatin1String(kReadOnlyKey), session.readOnly);
    coder.setValue(QLatin1String(kTimeOfDocumentKey), session.timeOfDocument);
    coder.setValue(QLatin1String(kSampleRateKey), session.sampleRate);
    coder.setValue(QLatin1String(kFftSizeKey), session.fftSize);
    coder.setValue(QLatin1String(kIntervalSizeKey), session.intervalSizeInFrames);
    coder.setValue(QLatin1String(kByteSizeKey), static_cast<qlonglong>(session.byteSize));
    coder.setValue(QLatin1String(kGapsKey), CaptureGaps::encode(session.gaps));
    coder.setValue(QLatin1String(AnalyzerDefaults::kVersionKey),
                   QLatin1String(AnalyzerDefaults::kVersionTag));
}

std::optional<LastSessionFile::Session> LastSessionFile::decode(const QSettings& coder) {
    const auto interval = integerKey(coder, kActualIntervalKey);
    const auto readOnly = boolKey(coder, kReadOnlyKey);
    const auto time = floatKey(coder, kTimeOfDocumentKey);
    const auto rate = floatKey(coder, kSampleRateKey);
    const auto fft = integerKey(coder, kFftSizeKey);
    const auto size = integerKey(coder, kIntervalSizeKey);
    const auto bytes = integerKey(coder, kByteSizeKey);
    if (!interval || !readOnly || !time || !rate || !fft || !size || !bytes) {
        return std::nullopt;
    }
    // The interval index is kept in 32 bits once read: documents never reach
    // 2^31 intervals, and a larger value is not one this program wrote.
    constexpr int64_t kMax32 = std::numeric_limits<int32_t>::max();
    if (*interval < 0 || *interval > kMax32 || *fft <= 0 || *fft > kMax32 || *size <= 0 ||
        *size > kMax32 || *bytes <= 0) {
        return std::nullopt;
    }
    Session s;
    s.actualInterval = *interval;
    s.readOnly = *readOnly;
    s.timeOfDocument = *time;
    s.sampleRate = *rate;
    s.fftSize = static_cast<int32_t>(*fft);
    s.intervalSizeInFrames = static_cast<int32_t>(*size);
    s.byteSize = *bytes;
    // Written since capture gaps are kept; older stores have none.
    s.gaps = CaptureGaps::decode(coder.value(QLatin1String(kGapsKey)).toString());
    return s;
}

bool LastSessionFile::restore(const QSettings& coder, const QString& path,
                              AnalyzerDefaults& defaults) {
    bool restored = false;
    const std::optional<Session> session = decode(coder);
    if (session && session->actualInterval >= 1 && session->matches(defaults)) {
        std::vector<float> samples;
        const ReadResult result = read(path, session->byteSize, samples);
        if (result == ReadResult::Ok) {
            defaults.audioBuffersData().swap(samples);
            defaults.setActualInterval(session->actualInterval);
            defaults.setReadOnly(session->readOnly);
            defaults.setTimeOfDocument(session->timeOfDocument);
            defaults.captureGaps().restore(session->gaps);
            restored = true;
        } else if (result != ReadResult::Missing) {
            qWarning("The last session's samples (%s) were not recovered: %s", qUtf8Printable(path),
                     result == ReadResult::WrongSize ? "the file's length does not match"
                                                     : "the file cannot be read");
        }
    }
    QFile::remove(path);
    return restored;
}

} // namespace widmo
