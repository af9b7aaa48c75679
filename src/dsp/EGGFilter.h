#pragma once

#include <cstdint>

namespace widmo {

class FFTPlanCache;

/// The three crossing points of one glottal cycle and the closed quotient
/// they give (see `EGGFilter::measureClosedQuotient`).
struct ClosedQuotientResult {
    int32_t pkt1 = 0; ///< contact begins (index into the normalised cycle)
    int32_t pkt2 = 0; ///< contact ends
    int32_t pkt3 = 0; ///< the next contact begins
    /// (pkt2 - pkt1) / (pkt3 - pkt1); 0 when that is outside 0..1 (infinity
    /// included); not a number when all three points are equal.
    float closedQuotient = 0.0f;
};

/// The band filter of the electroglottograph (EGG) channel and the closed
/// quotient of the vocal folds measured on its output.
///
/// `bandLimit` band-limits the contact signal in the frequency domain. The
/// n real samples are read as n/2 complex values (even samples the real
/// parts, odd samples the imaginary parts), padded with n/2 zeros and
/// transformed with an n-point complex FFT. With h = n/2, the low cut zeros
/// the k = trunc(100 * h / 22050) bins at each end of the spectrum, the high
/// cut the n - 2m bins from m = trunc(7000 * h / 22050) on, and the first and
/// last bins are always zeroed. The inverse transform, scaled by 1/n, is
/// unpacked into the n output samples the same way. The even and the odd
/// samples are thereby each band-passed as a signal of their own at half the
/// rate; with the fixed constants (100 Hz, 7000 Hz, and a 44,100 Hz rate
/// assumed whatever the document's rate) the pass band of each is 50 Hz to
/// 3,500 Hz of a 44,100 Hz input: it keeps the shape of the glottal cycle
/// and removes DC, hum and the noise far above the cycle's harmonics.
///
/// The transforms run on the complex plans of the FFTW plan cache, which the
/// planning thread makes ahead (`FFTManager::preparePlansInBackground` with the
/// EGG product); `bandLimit` never plans. The work buffer is allocated once,
/// at construction, for the largest size.
///
/// Threading: one thread at a time per filter (the main thread in the
/// application: the chart's intake); it uses its own work buffer and only
/// executes plans, which FFTW allows from any thread.
class EGGFilter {
public:
    static constexpr double kSampleRate = 44100.0;
    static constexpr double kLowCutHz = 100.0;
    static constexpr double kHighCutHz = 7000.0;
    static constexpr int32_t kMinFFTSize = 256;
    static constexpr int32_t kMaxFFTSize = 65536;

    /// A filter on the plans of `plans` (the process's cache by default),
    /// which must outlive it. Both cuts on.
    explicit EGGFilter(FFTPlanCache& plans);
    EGGFilter();
    ~EGGFilter();
    EGGFilter(const EGGFilter&) = delete;
    EGGFilter& operator=(const EGGFilter&) = delete;

    bool lowFilterOn() const { return lowFilterOn_; }
    void setLowFilterOn(bool on) { lowFilterOn_ = on; }
    bool highFilterOn() const { return highFilterOn_; }
    void setHighFilterOn(bool on) { highFilterOn_ = on; }

    /// Reads `n` samples of `dataIn` and writes `n` filtered samples to
    /// `dataOut` (the two may be the same buffer). `n` must be a power of two
    /// in 256..65536. Returns false, writing nothing, for any other `n` or
    /// while the complex plans of n points are not made yet. Never
    /// allocates, locks or waits.
    bool bandLimit(const float* dataIn, float* dataOut, int32_t n);

    /// The closed quotient of the filtered signal `v` (`n` samples, n >= 4),
    /// measured with the 40 % criterion level on one cycle. Overwrites the
    /// first n/4 values of `v` with the normalised cycle (0..1, every second
    /// sample from the first downward zero crossing), which the chart draws;
    /// the crossing points index into it. Any thread; no allocation.
    static ClosedQuotientResult measureClosedQuotient(float* v, int32_t n);

private:
    FFTPlanCache& plans_;
    bool lowFilterOn_ = true;
    bool highFilterOn_ = true;
    /// n interleaved complex values (2n floats), 64-byte aligned like the plans'.
    float* fftData_ = nullptr;
};

} // namespace widmo
