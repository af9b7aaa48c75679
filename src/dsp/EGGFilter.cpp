#include "dsp/EGGFilter.h"

#include "dsp/FFTPlanCache.h"

#include <QtGlobal>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace widmo {

namespace {

// The normalised cycle's levels that delimit the scans for its first minimum,
// its maximum and its second minimum.
constexpr float kHighLevel = 0.7f;
constexpr float kLowLevel = 0.3f;
// The criterion level between the first minimum and the maximum.
constexpr float kCriterion = 0.4f;

} // namespace

EGGFilter::EGGFilter() : EGGFilter(FFTPlanCache::shared()) {}

EGGFilter::EGGFilter(FFTPlanCache& plans) : plans_(plans) {
    fftData_ = static_cast<float*>(std::aligned_alloc(64, 2 * kMaxFFTSize * sizeof(float)));
    if (!fftData_)
        qFatal("EGG filter: out of memory for the work buffer");
    std::memset(fftData_, 0, 2 * kMaxFFTSize * sizeof(float));
}

EGGFilter::~EGGFilter() { std::free(fftData_); }

bool EGGFilter::bandLimit(const float* dataIn, float* dataOut, int32_t n) {
    if (n < kMinFFTSize || n > kMaxFFTSize || !std::has_single_bit(static_cast<uint32_t>(n)))
        return false;
    const int32_t h = n / 2;
    fftwf_plan forward = plans_.plannedComplexPlan(n, FFTW_FORWARD);
    fftwf_plan backward = plans_.plannedComplexPlan(n, FFTW_BACKWARD);
    if (forward == nullptr || backward == nullptr)
        return false;

    // The interleaved work buffer holds the n samples as h complex values
    // (even samples real, odd samples imaginary), then h zeros.
    std::memcpy(fftData_, dataIn, static_cast<size_t>(n) * sizeof(float));
    std::memset(fftData_ + n, 0, static_cast<size_t>(n) * sizeof(float));
    auto* bins = reinterpret_cast<fftwf_complex*>(fftData_);
    fftwf_execute_dft(forward, bins, bins);

    const auto zero = [&](int32_t from, int32_t to) {
        if (to > from)
            std::memset(bins + from, 0, static_cast<size_t>(to - from) * sizeof(fftwf_complex));
    };
    const double binsPerHz = h / (kSampleRate * 0.5);
    if (lowFilterOn_) {
        const int32_t k = std::min(h, static_cast<int32_t>(kLowCutHz * binsPerHz));
        zero(0, k);
        zero(n - k, n);
    }
    if (highFilterOn_) {
        const int32_t m = std::min(h, static_cast<int32_t>(kHighCutHz * binsPerHz));
        zero(m, n - m);
    }
    zero(0, 1);
    zero(n - 1, n);

    fftwf_execute_dft(backward, bins, bins);
    const float scale = 1.0f / static_cast<float>(n);
    for (int32_t i = 0; i < n; ++i)
        dataOut[i] = fftData_[i] * scale;
    return true;
}

ClosedQuotientResult EGGFilter::measureClosedQuotient(float* v, int32_t n) {
    ClosedQuotientResult r;
    if (n < 4)
        return r;
    // The limits start at -9 and 9, far outside any sample, so that an empty
    // signal normalises to not-a-number and finds no point.
    float max = -9.0f;
    float min = 9.0f;
    for (int32_t i = 0; i < n; ++i) {
        max = std::max(max, v[i]);
        min = std::min(min, v[i]);
    }

    // The cycle starts at the last downward zero crossing before the signal
    // first dips below half its minimum (the closing phase of the folds).
    int32_t z = 0;
    for (int32_t i = 1; i < n / 2; ++i) {
        if (v[i] < 0.0f && v[i - 1] > 0.0f)
            z = i;
        if (z >= 1 && v[i] < 0.5f * min)
            break;
    }

    // Normalised to 0..1 and decimated by two in place (z + 2k >= k: a value
    // is read before it is overwritten). The filter passes the even and the odd
    // samples separately; every second sample keeps to one of the two.
    const int32_t q = n / 4;
    const float range = max - min;
    for (int32_t k = 0; k < q; ++k)
        v[k] = (v[z + 2 * k] - min) / range;

    // A: the first minimum, up to the first value above 0.7.
    float m1 = 1.0f;
    int32_t a1 = 0;
    int32_t i1 = 0;
    for (int32_t k = 0; k < q; ++k) {
        if (v[k] < m1) {
            m1 = v[k];
            a1 = k;
        }
        if (v[k] > kHighLevel) {
            i1 = k;
            break;
        }
    }
    // B: the maximum, up to the first value below 0.3.
    float peak = 0.0f;
    int32_t a2 = i1;
    int32_t i2 = i1;
    for (int32_t k = i1; k < q; ++k) {
        if (v[k] > peak) {
            peak = v[k];
            a2 = k;
        }
        if (v[k] < kLowLevel) {
            i2 = k;
            break;
        }
    }
    // C: the second minimum, up to the next value above 0.7.
    float m2 = 1.0f;
    int32_t a3 = i2;
    for (int32_t k = i2; k < q; ++k) {
        if (v[k] < m2) {
            m2 = v[k];
            a3 = k;
        }
        if (v[k] > kHighLevel)
            break;
    }

    const float t = m1 + (peak - m1) * kCriterion;
    const auto firstFrom = [&](int32_t from, bool above) {
        for (int32_t k = from; k < q; ++k)
            if (above ? v[k] > t : v[k] < t)
                return k;
        return int32_t{0}; // not found
    };
    r.pkt1 = firstFrom(a1, true);
    r.pkt2 = firstFrom(a2, false);
    r.pkt3 = firstFrom(a3, true);

    // Infinity (equal first and third points) is out of range like a negative
    // quotient; 0/0 stays not-a-number.
    const float cq = static_cast<float>(r.pkt2 - r.pkt1) / static_cast<float>(r.pkt3 - r.pkt1);
    r.closedQuotient = (cq > 1.0f || cq < 0.0f) ? 0.0f : cq;
    return r;
}

} // namespace widmo
