#include "dsp/MicrophoneCalibration.h"

#include <QFile>
#include <QRegularExpression>
#include <QStringDecoder>

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

constexpr int kMaxLines = 100000;
constexpr double kMaxLevelDB = 60.0;

// A decimal number as calibration files write it (no locale, no hex).
const QRegularExpression& numberPattern() {
    static const QRegularExpression re(
        QStringLiteral(R"(^[+-]?(\d+\.?\d*|\.\d+)([eE][+-]?\d+)?$)"));
    return re;
}

// What some programs write for a value they could not compute.
const QRegularExpression& nonFinitePattern() {
    static const QRegularExpression re(QStringLiteral(R"(^[+-]?(nan|inf|infinity)$)"),
                                       QRegularExpression::CaseInsensitiveOption);
    return re;
}

const QRegularExpression& separatorPattern() {
    static const QRegularExpression re(QStringLiteral(R"(\s*,\s*|\s+)"));
    return re;
}

const QRegularExpression& sensitivityPattern() {
    static const QRegularExpression re(
        QStringLiteral(
            R"((sens\s*factor|sensitivity)\s*=\s*([+-]?(\d+\.?\d*|\.\d+)([eE][+-]?\d+)?))"),
        QRegularExpression::CaseInsensitiveOption);
    return re;
}

// The line as quoted in a message: at most 60 characters.
QString quoted(const QString& line) {
    return QStringLiteral(" (\"%1\")")
        .arg(line.size() > 60 ? line.left(57) + QStringLiteral("...") : line);
}

} // namespace

std::optional<MicrophoneCalibration> MicrophoneCalibration::load(const QString& path,
                                                                 QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error != nullptr)
            *error = QStringLiteral("%1: cannot read: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    return parse(file.readAll(), path, error);
}

std::optional<MicrophoneCalibration>
MicrophoneCalibration::parse(const QByteArray& bytes, const QString& name, QString* error) {
    MicrophoneCalibration calibration;
    int lineNumber = 0;
    const auto fail = [&](const QString& reason) {
        if (error != nullptr)
            *error = lineNumber > 0
                         ? QStringLiteral("%1, line %2: %3").arg(name).arg(lineNumber).arg(reason)
                         : QStringLiteral("%1: %2").arg(name, reason);
        return std::nullopt;
    };

    qsizetype start = 0;
    if (bytes.startsWith("\xEF\xBB\xBF"))
        start = 3; // UTF-8 byte order mark
    QString previousFrequency;
    while (start < bytes.size()) {
        qsizetype end = bytes.indexOf('\n', start);
        if (end < 0)
            end = bytes.size();
        const QByteArray raw = bytes.mid(start, end - start);
        start = end + 1;
        if (++lineNumber > kMaxLines)
            return fail(QStringLiteral("more than %1 lines").arg(kMaxLines));
        if (raw.contains('\0'))
            return fail(QStringLiteral("not text (a NUL byte)"));
        QStringDecoder decoder(QStringDecoder::Utf8);
        const QString decoded = decoder(raw);
        if (decoder.hasError())
            return fail(QStringLiteral("not text (invalid UTF-8)"));
        const QString line = decoded.trimmed();
        if (line.isEmpty())
            continue;
        const QChar first = line.front();
        if (first == QLatin1Char('*') || first == QLatin1Char('#') || first == QLatin1Char('"')) {
            const QRegularExpressionMatch m = sensitivityPattern().match(line);
            if (m.hasMatch() && !calibration.sensitivityDBFS_) {
                calibration.sensitivityDBFS_ = m.captured(2).toDouble();
                QString text = line;
                if (text.startsWith(QLatin1Char('"')))
                    text.remove(0, 1);
                if (text.endsWith(QLatin1Char('"')))
                    text.chop(1);
                calibration.sensitivityText_ = text.trimmed();
            }
            continue;
        }

        const QStringList fields = line.split(separatorPattern());
        double values[3] = {0.0, 0.0, 0.0};
        bool isPoint = fields.size() == 2 || fields.size() == 3;
        for (qsizetype i = 0; isPoint && i < fields.size(); ++i) {
            const QString& f = fields[i];
            if (nonFinitePattern().match(f).hasMatch())
                return fail(QStringLiteral("%1 is not a finite number").arg(f) + quoted(line));
            if (!numberPattern().match(f).hasMatch()) {
                isPoint = false;
                break;
            }
            bool ok = false;
            values[i] = f.toDouble(&ok);
            if (!ok || !std::isfinite(values[i])) // beyond the range of a double
                return fail(QStringLiteral("%1 is not a finite number").arg(f) + quoted(line));
        }
        if (!isPoint)
            return fail(QStringLiteral("neither a point (frequency, level[, phase]) nor a "
                                       "comment") +
                        quoted(line));
        const double frequency = values[0];
        const double level = values[1];
        if (!(frequency > 0.0))
            return fail(QStringLiteral("frequency %1 is not positive").arg(fields[0]) +
                        quoted(line));
        if (!calibration.points_.empty() && !(frequency > calibration.points_.back().frequency))
            return fail(QStringLiteral("frequency %1 is not above the previous %2")
                            .arg(fields[0], previousFrequency) +
                        quoted(line));
        if (std::abs(level) > kMaxLevelDB)
            return fail(
                QStringLiteral("level %1 dB is beyond ±%2 dB").arg(fields[1]).arg(kMaxLevelDB) +
                quoted(line));
        calibration.points_.push_back({frequency, level});
        previousFrequency = fields[0];
    }
    lineNumber = 0;
    if (calibration.points_.empty())
        return fail(QStringLiteral("no calibration points (no line holds a frequency and a "
                                   "level)"));
    return calibration;
}

double MicrophoneCalibration::correctionDB(double frequency) const {
    if (points_.empty())
        return 0.0;
    if (!(frequency > points_.front().frequency))
        return -points_.front().levelDB;
    if (frequency >= points_.back().frequency)
        return -points_.back().levelDB;
    const auto upper = std::upper_bound(points_.begin(), points_.end(), frequency,
                                        [](double f, const Point& p) { return f < p.frequency; });
    const Point& b = *upper;
    const Point& a = *(upper - 1);
    const double t = std::log(frequency / a.frequency) / std::log(b.frequency / a.frequency);
    return -(a.levelDB + t * (b.levelDB - a.levelDB));
}

void MicrophoneCalibration::fillPowerFactors(float* factors, int count, double binHz) const {
    for (int k = 0; k < count; ++k) {
        // Bin 0 (0 Hz) lies below any point: the lowest point's value.
        const double db = correctionDB(static_cast<double>(k) * binHz);
        factors[k] = static_cast<float>(std::pow(10.0, db / 10.0));
    }
}

} // namespace widmo
