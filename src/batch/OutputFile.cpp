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

bool OutputFile::write(const QByteArray& bytes) {
    if (file_.write(bytes) == bytes.size())
        return true;
    error_ = file_.errorString();
    return false;
}

bool OutputFile::commit() {
    const QString why = file_.errorString();
    file_.close();
    if (file_.error() != QFileDevice::NoError) {
        error_ = why.isEmpty() ? file_.errorString() : why;
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
