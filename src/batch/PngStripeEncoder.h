#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

class QIODevice;

namespace widmo {

class SpectrogramCanvas;

/// Encodes a large image as an RGB PNG with its compression spread over
/// threads: the rows are cut into stripes of `kStripeRows`, each stripe is
/// filtered (PNG's "Sub" filter) and deflated on its own (zlib level 1, run
/// length strategy: spectrograms are mostly runs of close colours), and the
/// pieces are joined into one zlib stream, their checksums combined.
///
/// The stripes do not depend on how many threads encode them, so the file's
/// bytes are the same for any number of threads. Level 1 with the run-length
/// strategy compresses a 10-minute spectrogram about 10 times faster than the
/// default level of the usual PNG writers, for files about a third larger.
///
/// Threading: `begin` first; then `encodeStripe` may run on any threads at
/// once, each stripe once, while the image is not changed (the device is
/// written under the encoder's mutex); `finish` after every stripe.
class PngStripeEncoder {
public:
    static constexpr int kStripeRows = 32;

    /// `canvas` (its frame drawn) must stay alive and unchanged until `write`.
    explicit PngStripeEncoder(const SpectrogramCanvas& canvas);

    int stripeCount() const { return static_cast<int>(stripes_.size()); }
    /// Writes the PNG's start to `device`, which must stay open until `finish`.
    bool begin(QIODevice* device);
    /// Filters and compresses stripe `stripe` (0 .. stripeCount - 1), then
    /// writes every stripe that is done and follows those written, and frees
    /// them: only stripes finished out of order wait in memory.
    void encodeStripe(int stripe);
    /// After every stripe: the checksum and the end. False when the device
    /// failed (its error string says why).
    bool finish();
    /// `begin`, every stripe and `finish` on the calling thread.
    bool write(QIODevice* device);

private:
    struct Stripe {
        std::vector<uint8_t> deflated;
        uint32_t adler = 1;
        uint64_t bytes = 0; ///< filtered bytes in, for the checksum's combination
        bool done = false;
    };
    void writeReady(int stripe);

    const SpectrogramCanvas& image_;
    std::vector<Stripe> stripes_;
    std::mutex writeMutex_; ///< the device and the fields below
    QIODevice* device_ = nullptr;
    size_t nextToWrite_ = 0;
    unsigned long adler_ = 1;
    bool failed_ = false;
};

} // namespace widmo
