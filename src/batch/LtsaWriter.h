#pragma once

#include "batch/NumpyWriter.h"
#include "batch/OutputFile.h"
#include "batch/SpectrogramCanvas.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

namespace widmo {

class AnalyzerDefaults;

/// Writes a long-term spectral average as it is made, one row per stretch:
/// STEM.ltsa.csv ("start_s" and one column per FFT bin, levels in dB),
/// STEM.ltsa.npy (the same levels as float32, one row per stretch),
/// STEM.ltsa.json (the unit, the bins' frequencies and the rows' start
/// times) and STEM.ltsa.png (one column per stretch, drawn by the caller
/// into `canvas`). Nothing carries its final name before `finish`.
///
/// Threading: one thread at a time.
class LtsaWriter {
public:
    /// `bins` levels a row, bin k at k × `binHz`; `unit` names them in the
    /// side file ("dB" or "dB SPL"); `canvasRows` rows of the image.
    LtsaWriter(const QString& stem, int32_t bins, double binHz, double stretchSeconds,
               const QString& unit, int32_t canvasRows);
    ~LtsaWriter();

    /// Opens the temporary files; false with `error`.
    bool begin();
    /// Appends the row of the stretch that starts at `startSeconds`.
    bool addRow(double startSeconds, const float* levelsDB);
    int64_t rows() const { return numpy_.rows(); }
    /// The image's columns, one per row added (the caller makes room).
    SpectrogramCanvas& canvas() { return canvas_; }
    /// Writes the side file and the image, and gives every file its final name.
    bool finish(const SpectrogramCanvas::Frame& frame, const AnalyzerDefaults& defaults);
    QString error() const { return error_; }

    static QStringList outputPaths(const QString& stem);

private:
    bool fail(const OutputFile& f);

    QString stem_;
    int32_t bins_;
    double binHz_;
    double stretchSeconds_;
    QString unit_;
    OutputFile csv_;
    OutputFile npy_;
    NumpyWriter numpy_;
    QByteArray starts_;
    SpectrogramCanvas canvas_;
    QString error_;
};

} // namespace widmo
