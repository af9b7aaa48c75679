#include "batch/NumpyWriter.h"

#include <QIODevice>

#include <bit>
#include <cstring>

namespace widmo {

QByteArray NumpyWriter::header(int64_t rows, int64_t columns) {
    // Magic, version 1.0, a 2-byte header length, then a Python dict literal
    // padded with spaces to a 16-byte multiple and ended by a newline.
    static_assert(std::endian::native == std::endian::little, "writes '<f4' as it is in memory");
    constexpr int kTotal = 128;
    QByteArray dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (" +
                      QByteArray::number(rows) + ", " + QByteArray::number(columns) + "), }";
    QByteArray out("\x93NUMPY\x01\x00", 8);
    const int length = kTotal - 10;
    out += static_cast<char>(length & 0xFF);
    out += static_cast<char>(length >> 8);
    out += dict;
    out += QByteArray(kTotal - 1 - out.size(), ' ');
    out += '\n';
    return out;
}

bool NumpyWriter::begin(QIODevice* device, int64_t columns) {
    device_ = device;
    columns_ = columns;
    rows_ = 0;
    const QByteArray h = header(0, columns);
    return device_->write(h) == h.size();
}

bool NumpyWriter::addRow(const float* values) {
    const auto bytes = static_cast<qint64>(columns_ * 4);
    ++rows_;
    return device_->write(reinterpret_cast<const char*>(values), bytes) == bytes;
}

bool NumpyWriter::finish() {
    const QByteArray h = header(rows_, columns_);
    return device_->seek(0) && device_->write(h) == h.size();
}

} // namespace widmo
