#pragma once

#include <cstdint>
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
/// Threading: `encodeStripe` may run on any threads at once, each stripe
/// once, while the image is not changed. `write` runs after every stripe.
class PngStripeEncoder {
public:
    static constexpr int kStripeRows = 32;

    /// `canvas` (its frame drawn) must stay alive and unchanged until `write`.
    explicit PngStripeEncoder(const SpectrogramCanvas& canvas);

    int stripeCount() const { return static_cast<int>(stripes_.size()); }
    /// Filters and compresses stripe `stripe` (0 .. stripeCount - 1).
    void encodeStripe(int stripe);
    /// Writes the PNG; false when the device fails (its error string says why).
    bool write(QIODevice* device) const;

private:
    struct Stripe {
        std::vector<uint8_t> deflated;
        uint32_t adler = 1;
        uint64_t bytes = 0; ///< filtered bytes in, for the checksum's combination
    };

    const SpectrogramCanvas& image_;
    std::vector<Stripe> stripes_;
};

} // namespace widmo
