#pragma once

#include <QByteArray>

#include <cstdint>

class QIODevice;

namespace widmo {

/// Writes a two-dimensional little-endian float32 NumPy array (.npy, format
/// 1.0) row by row, when the number of rows is not known beforehand: the
/// header is written with room for any row count and rewritten by `finish`.
///
/// Threading: one thread at a time.
class NumpyWriter {
public:
    /// Writes the header for rows of `columns` values at the device's start.
    bool begin(QIODevice* device, int64_t columns);
    /// Appends one row of `columns` values.
    bool addRow(const float* values);
    /// Seeks back and writes the header with the real row count.
    bool finish();
    int64_t rows() const { return rows_; }

    /// The header of a (rows, columns) float32 array, padded to 128 bytes.
    static QByteArray header(int64_t rows, int64_t columns);

private:
    QIODevice* device_ = nullptr;
    int64_t columns_ = 0;
    int64_t rows_ = 0;
};

} // namespace widmo
