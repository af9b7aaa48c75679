#include "batch/PngStripeEncoder.h"

#include "batch/SpectrogramCanvas.h"

#include <QIODevice>

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>

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
    uint32_t crc = libdeflate_crc32(0, head + 4, 4);
    if (size > 0)
        crc = libdeflate_crc32(crc, data, size);
    uint8_t tail[4];
    putBigEndian(tail, static_cast<uint32_t>(crc));
    return device->write(reinterpret_cast<const char*>(head), 8) == 8 &&
           (size == 0 || device->write(reinterpret_cast<const char*>(data),
                                       static_cast<qint64>(size)) == static_cast<qint64>(size)) &&
           device->write(reinterpret_cast<const char*>(tail), 4) == 4;
}

} // namespace

PngStripeEncoder::PngStripeEncoder(const SpectrogramCanvas& image) : image_(image) {
    stripes_.resize(static_cast<size_t>((image.height() + kStripeRows - 1) / kStripeRows));
}

void PngStripeEncoder::encodeStripe(int stripe) {
    Stripe& s = stripes_[static_cast<size_t>(stripe)];
    const int width = image_.width();
    const int first = stripe * kStripeRows;
    const int last = std::min(image_.height(), first + kStripeRows);
    const bool final = last == image_.height();
    const size_t rowBytes = 1 + static_cast<size_t>(width) * 3;
    const auto count = static_cast<size_t>(last - first);
    // The stripe's rows as they are, then filtered into the buffer deflate
    // reads, each row after its filter-type byte; both buffers are the
    // thread's own, kept from stripe to stripe (fresh ones would cost a page
    // fault every 4 KiB).
    thread_local std::vector<uint8_t> plain;
    thread_local std::vector<uint8_t> rows;
    plain.resize(rowBytes * count);
    rows.resize(rowBytes * count);
    image_.rgbRows(first, last - first, plain.data(), rowBytes);
    for (size_t y = 0; y < count; ++y) {
        const uint8_t* __restrict in = plain.data() + y * rowBytes;
        uint8_t* __restrict out = rows.data() + y * rowBytes;
        // "Sub": each byte minus the same channel of the pixel to its left.
        out[0] = 1;
        std::memcpy(out + 1, in, 3);
        for (size_t k = 3; k + 1 < rowBytes; ++k)
            out[k + 1] = static_cast<uint8_t>(in[k] - in[k - 3]);
    }

    z_stream z{};
    // Raw deflate: the zlib header and checksum are written once for all stripes.
    deflateInit2(&z, 1, Z_DEFLATED, -15, 9, Z_RLE);
    s.deflated.resize(deflateBound(&z, static_cast<uLong>(rows.size())) + 64);
    z.next_out = s.deflated.data();
    z.avail_out = static_cast<uInt>(s.deflated.size());
    z.next_in = rows.data();
    z.avail_in = static_cast<uInt>(rows.size());
    // The stripe ends on a byte boundary (or ends the stream).
    deflate(&z, final ? Z_FINISH : Z_SYNC_FLUSH);
    // libdeflate's checksums run about ten times faster than zlib's.
    const uint32_t adler = libdeflate_adler32(1, rows.data(), rows.size());
    s.deflated.resize(s.deflated.size() - z.avail_out);
    deflateEnd(&z);
    s.adler = static_cast<uint32_t>(adler);
    s.bytes = rows.size();
    writeReady(stripe);
}

bool PngStripeEncoder::begin(QIODevice* device) {
    device_ = device;
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
    return writeChunk(device, "IDAT", zlibHeader, 2);
}

void PngStripeEncoder::writeReady(int stripe) {
    const std::lock_guard<std::mutex> lock(writeMutex_);
    stripes_[static_cast<size_t>(stripe)].done = true;
    // In stripe order: a stripe done early waits for those before it.
    while (nextToWrite_ < stripes_.size() && stripes_[nextToWrite_].done) {
        Stripe& s = stripes_[nextToWrite_++];
        if (!s.deflated.empty() &&
            !writeChunk(device_, "IDAT", s.deflated.data(), s.deflated.size()))
            failed_ = true;
        adler_ = adler32_combine64(adler_, s.adler, static_cast<z_off64_t>(s.bytes));
        std::vector<uint8_t>().swap(s.deflated);
    }
}

bool PngStripeEncoder::finish() {
    uint8_t checksum[4];
    putBigEndian(checksum, static_cast<uint32_t>(adler_));
    return !failed_ && nextToWrite_ == stripes_.size() &&
           writeChunk(device_, "IDAT", checksum, 4) && writeChunk(device_, "IEND", nullptr, 0);
}

bool PngStripeEncoder::write(QIODevice* device) {
    if (!begin(device))
        return false;
    for (int s = 0; s < stripeCount(); ++s)
        encodeStripe(s);
    return finish();
}

} // namespace widmo
