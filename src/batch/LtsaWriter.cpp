#include "batch/LtsaWriter.h"

#include "batch/PngStripeEncoder.h"

namespace widmo {

LtsaWriter::LtsaWriter(const QString& stem, int32_t bins, double binHz, double stretchSeconds,
                       const QString& unit, int32_t canvasRows)
    : stem_(stem), bins_(bins), binHz_(binHz), stretchSeconds_(stretchSeconds), unit_(unit),
      csv_(stem + QStringLiteral(".ltsa.csv")), npy_(stem + QStringLiteral(".ltsa.npy")),
      canvas_(canvasRows, SpectrogramCanvas::columnLimit(canvasRows)) {}

LtsaWriter::~LtsaWriter() = default;

QStringList LtsaWriter::outputPaths(const QString& stem) {
    return {stem + QStringLiteral(".ltsa.png"), stem + QStringLiteral(".ltsa.csv"),
            stem + QStringLiteral(".ltsa.npy"), stem + QStringLiteral(".ltsa.json")};
}

bool LtsaWriter::fail(const OutputFile& f) {
    error_ = f.error().isEmpty() ? QStringLiteral("cannot write %1").arg(f.path()) : f.error();
    return false;
}

bool LtsaWriter::begin() {
    if (!csv_.open())
        return fail(csv_);
    if (!npy_.open())
        return fail(npy_);
    QByteArray header = "start_s";
    for (int32_t b = 0; b < bins_; ++b)
        header += ',' + QByteArray::number(b * binHz_, 'f', 4);
    header += '\n';
    if (!csv_.write(header))
        return fail(csv_);
    if (!numpy_.begin(&npy_.file(), bins_))
        return fail(npy_);
    return true;
}

bool LtsaWriter::addRow(double startSeconds, const float* levelsDB) {
    const QByteArray start = QByteArray::number(startSeconds, 'f', 3);
    if (!starts_.isEmpty())
        starts_ += ',';
    starts_ += start;
    QByteArray line = start;
    line.reserve(bins_ * 9);
    for (int32_t b = 0; b < bins_; ++b)
        line += ',' + QByteArray::number(static_cast<double>(levelsDB[b]), 'f', 3);
    line += '\n';
    if (!csv_.write(line))
        return fail(csv_);
    if (!numpy_.addRow(levelsDB))
        return fail(npy_);
    return true;
}

bool LtsaWriter::finish(const SpectrogramCanvas::Frame& frame, const AnalyzerDefaults& defaults) {
    if (!numpy_.finish())
        return fail(npy_);
    if (!csv_.commit())
        return fail(csv_);
    if (!npy_.commit())
        return fail(npy_);

    QByteArray json = "{\"unit\":\"" + unit_.toUtf8() +
                      "\",\"stretch_s\":" + QByteArray::number(stretchSeconds_, 'g', 10) +
                      ",\"rows\":" + QByteArray::number(numpy_.rows()) +
                      ",\"columns\":" + QByteArray::number(bins_) + ",\"frequencies_hz\":[";
    for (int32_t b = 0; b < bins_; ++b)
        json += (b > 0 ? "," : "") + QByteArray::number(b * binHz_, 'f', 4);
    json += "],\"start_s\":[" + starts_ + "]}\n";
    error_ = OutputFile::writeWhole(stem_ + QStringLiteral(".ltsa.json"), json);
    if (!error_.isEmpty())
        return false;

    canvas_.drawFrame(frame, defaults);
    PngStripeEncoder png(canvas_);
    OutputFile image(stem_ + QStringLiteral(".ltsa.png"));
    if (!image.open() || !png.write(&image.file()) || !image.commit())
        return fail(image);
    return true;
}

} // namespace widmo
