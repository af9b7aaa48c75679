#include "batch/OutputFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace widmo {

namespace {

QString temporaryName(const QString& path) {
    static std::atomic<int> counter{0};
    const QFileInfo info(path);
    return info.dir().filePath(QStringLiteral(".%1.%2-%3.part")
                                   .arg(info.fileName())
                                   .arg(QCoreApplication::applicationPid())
                                   .arg(counter.fetch_add(1)));
}

} // namespace

OutputFile::OutputFile(const QString& path) : path_(path), file_(temporaryName(path)) {}

OutputFile::~OutputFile() {
    if (!committed_ && file_.exists()) {
        file_.close();
        file_.remove();
    }
}

bool OutputFile::open() {
    if (file_.open(QIODevice::ReadWrite | QIODevice::Truncate))
        return true;
    error_ = file_.errorString();
    return false;
}

qint64 OutputFile::File::writeData(const char* data, qint64 size) {
    errno = 0;
    const qint64 written = QFile::writeData(data, size);
    if (written < size && errno != 0) {
        int none = 0;
        cause_.compare_exchange_strong(none, errno, std::memory_order_acq_rel);
    }
    return written;
}

bool OutputFile::write(const QByteArray& bytes) {
    if (file_.write(bytes) == bytes.size())
        return true;
    error_ = reason();
    return false;
}

QString OutputFile::reason() const {
    const int cause = file_.cause();
    return cause != 0 ? QString::fromLocal8Bit(std::strerror(cause)) : file_.errorString();
}

QString OutputFile::error() const {
    // A writer that used `file()` directly (the PNG encoder) leaves its
    // failure on the file only.
    if (error_.isEmpty() && (file_.cause() != 0 || file_.error() != QFileDevice::NoError))
        return reason();
    return error_;
}

bool OutputFile::commit() {
    // Flushed before the close, so that a failed last write is seen here.
    const bool failed = !file_.flush() || file_.error() != QFileDevice::NoError;
    const QString why = failed ? reason() : QString();
    file_.close();
    if (failed || file_.error() != QFileDevice::NoError) {
        error_ = failed ? why : file_.errorString();
        file_.remove();
        return false;
    }
    if (std::rename(QFile::encodeName(file_.fileName()).constData(),
                    QFile::encodeName(path_).constData()) != 0) {
        error_ = QString::fromLocal8Bit(std::strerror(errno));
        file_.remove();
        return false;
    }
    committed_ = true;
    return true;
}

QString OutputFile::writeWhole(const QString& path, const QByteArray& bytes) {
    OutputFile f(path);
    if (!f.open() || !f.write(bytes) || !f.commit())
        return f.error();
    return {};
}

} // namespace widmo
