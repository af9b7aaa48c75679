#include "engine/LevelLog.h"

#include "dsp/SoundLevelMeter.h"

#include <QDateTime>
#include <QFile>

#include <cerrno>
#include <cmath>
#include <cstring>

namespace widmo {
namespace {

// Levels of silence (minus infinity) are written as empty fields.
void appendLevel(QByteArray& line, double level, double offset) {
    line += ',';
    if (std::isfinite(level))
        line += QByteArray::number(level + offset, 'f', 1);
}

} // namespace

LevelLog::~LevelLog() { close(); }

bool LevelLog::open(const QString& path, const QString& weighting, const QString& unit,
                    const QString& peakUnit, QString* error) {
    close();
    failed_ = false;
    path_ = path;
    file_ = std::fopen(QFile::encodeName(path).constData(), "ab");
    if (file_ == nullptr) {
        if (error != nullptr)
            *error = QStringLiteral("The level log %1 cannot be written: %2.")
                         .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    std::fseek(file_, 0, SEEK_END);
    if (std::ftell(file_) == 0) {
        const QString header =
            QStringLiteral("time,start_s,L%1eq_%2,L%1Fmax_%2,L%1Smax_%2,LCpeak_%3\n")
                .arg(weighting, QString(unit).remove(QLatin1Char(' ')),
                     QString(peakUnit).remove(QLatin1Char(' ')));
        const QByteArray bytes = header.toUtf8();
        if (std::fwrite(bytes.constData(), 1, size_t(bytes.size()), file_) !=
                size_t(bytes.size()) ||
            std::fflush(file_) != 0) {
            if (error != nullptr)
                *error = QStringLiteral("The level log %1 cannot be written: %2.")
                             .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
            close();
            return false;
        }
    }
    return true;
}

bool LevelLog::write(double startSeconds, const PeriodLevels& levels, double offset) {
    if (file_ == nullptr || failed_)
        return false;
    QByteArray line = QDateTime::currentDateTime().toString(Qt::ISODateWithMs).toUtf8();
    line += ',';
    line += QByteArray::number(startSeconds, 'f', 3);
    appendLevel(line, levels.leq, offset);
    appendLevel(line, levels.maxFast, offset);
    appendLevel(line, levels.maxSlow, offset);
    appendLevel(line, levels.peak, offset);
    line += '\n';
    return writeLine(line);
}

bool LevelLog::writeEvent(int64_t atMs, double startSeconds, const QString& text) {
    if (file_ == nullptr || failed_)
        return false;
    QByteArray line = QDateTime::fromMSecsSinceEpoch(atMs).toString(Qt::ISODateWithMs).toUtf8();
    line += ',';
    line += QByteArray::number(startSeconds, 'f', 3);
    line += ",,,,,";
    line += text.toUtf8();
    line += '\n';
    return writeLine(line);
}

bool LevelLog::writeLine(const QByteArray& line) {
    // Flushed per line: a kill loses at most the period under way.
    if (std::fwrite(line.constData(), 1, size_t(line.size()), file_) != size_t(line.size()) ||
        std::fflush(file_) != 0) {
        failed_ = true;
        return false;
    }
    return true;
}

void LevelLog::close() {
    if (file_ == nullptr)
        return;
    if (std::fclose(file_) != 0)
        failed_ = true;
    file_ = nullptr;
}

} // namespace widmo
