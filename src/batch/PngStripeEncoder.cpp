#include "batch/PngStripeEncoder.h"

#include <QIODevice>

#include <zlib.h>

#include <algorithm>
#include <array>

namespace widmo {

namespace {

void putBigEndian(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// One PNG chunk: length, type, data, CRC of type and data.
bool writeChunk(QIODevice* device, const char type[4], const uint8_t* data, size_t size) {
    uint8_t head[8];
    putBigEndian(head, static_cast<uint32_t>(size));
    std::copy(type, type + 4, head + 4);
    uLong crc = crc32(0L, head + 4, 4);
    if (size > 0)
        crc = crc32_z(crc, data, size);
    uint8_t tail[4];
    putBigEndian(tail, static_cast<uint32_t>(crc));
    return device->write(reinterpret_cast<const char*>(head), 8) == 8 &&
           (size == 0 || device->write(reinterpret_cast<const char*>(data),
                                       static_cast<qint64>(size)) == static_cast<qint64>(size)) &&
           device->write(reinterpret_cast<const char*>(tail), 4) == 4;
}

} // namespace

PngStripeEncoder::PngStripeEncoder(const QImage& image) : image_(image) {
    stripes_.resize(static_cast<size_t>((image.height() + kStripeRows - 1) / kStripeRows));
}

void PngStripeEncoder::encodeStripe(int stripe) {
    Stripe& s = stripes_[static_cast<size_t>(stripe)];
    const int width = image_.width();
    const int first = stripe * kStripeRows;
    const int last = std::min(image_.height(), first + kStripeRows);
    const bool final = last == image_.height();
    const size_t rowBytes = 1 + static_cast<size_t>(width) * 3;
    std::vector<uint8_t> row(rowBytes);

    z_stream z{};
    // Raw deflate: the zlib header and checksum are written once for all stripes.
    deflateInit2(&z, 1, Z_DEFLATED, -15, 9, Z_RLE);
    s.deflated.resize(deflateBound(&z, static_cast<uLong>(rowBytes) * kStripeRows) + 64);
    z.next_out = s.deflated.data();
    z.avail_out = static_cast<uInt>(s.deflated.size());
    uLong adler = adler32(0L, nullptr, 0);
    for (int y = first; y < last; ++y) {
        const uint8_t* src = image_.constScanLine(y);
        // "Sub": each byte minus the same channel of the pixel to its left.
        row[0] = 1;
        uint8_t* dst = row.data() + 1;
        uint8_t left[3] = {0, 0, 0};
        for (int x = 0; x < width; ++x, src += 4, dst += 3) {
            for (int c = 0; c < 3; ++c) {
                dst[c] = static_cast<uint8_t>(src[c] - left[c]);
                left[c] = src[c];
            }
        }
        adler = adler32_z(adler, row.data(), rowBytes);
        z.next_in = row.data();
        z.avail_in = static_cast<uInt>(rowBytes);
        // The last row ends the stripe on a byte boundary (or the stream).
        const int flush = y + 1 < last ? Z_NO_FLUSH : (final ? Z_FINISH : Z_SYNC_FLUSH);
        for (;;) {
            if (z.avail_out == 0) {
                const size_t used = s.deflated.size();
                s.deflated.resize(used * 2);
                z.next_out = s.deflated.data() + used;
                z.avail_out = static_cast<uInt>(s.deflated.size() - used);
            }
            const int status = deflate(&z, flush);
            // Done when the input is taken and deflate did not run out of room.
            if (flush == Z_FINISH ? status == Z_STREAM_END : z.avail_in == 0 && z.avail_out != 0)
                break;
        }
    }
    s.deflated.resize(s.deflated.size() - z.avail_out);
    deflateEnd(&z);
    s.adler = static_cast<uint32_t>(adler);
    s.bytes = static_cast<uint64_t>(rowBytes) * static_cast<uint64_t>(last - first);
}

bool PngStripeEncoder::write(QIODevice* device) const {
    static const uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (device->write(reinterpret_cast<const char*>(signature), 8) != 8)
        return false;
    uint8_t header[13] = {};
    putBigEndian(header, static_cast<uint32_t>(image_.width()));
    putBigEndian(header + 4, static_cast<uint32_t>(image_.height()));
    header[8] = 8; // bits per channel
    header[9] = 2; // RGB
    if (!writeChunk(device, "IHDR", header, sizeof header))
        return false;

    // One zlib stream: header (deflate, 32 K window, fastest), the stripes'
    // raw deflate data in order, the Adler-32 of everything they hold.
    static const uint8_t zlibHeader[2] = {0x78, 0x01};
    if (!writeChunk(device, "IDAT", zlibHeader, 2))
        return false;
    uLong adler = adler32(0L, nullptr, 0);
    for (const Stripe& s : stripes_) {
        if (!s.deflated.empty() &&
            !writeChunk(device, "IDAT", s.deflated.data(), s.deflated.size()))
            return false;
        adler = adler32_combine64(adler, s.adler, static_cast<z_off64_t>(s.bytes));
    }
    uint8_t checksum[4];
    putBigEndian(checksum, static_cast<uint32_t>(adler));
    return writeChunk(device, "IDAT", checksum, 4) && writeChunk(device, "IEND", nullptr, 0);
}

} // namespace widmo
