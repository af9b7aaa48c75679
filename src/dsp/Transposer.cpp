#include "dsp/Transposer.h"

#include "dsp/FFTPlanCache.h"

#include <QtGlobal>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>

namespace widmo {

namespace {

constexpr int64_t kRingMask = Transposer::kRingSize - 1;
constexpr int32_t kCompressedRing = 32768;
constexpr int64_t kCompressedMask = kCompressedRing - 1;
constexpr int32_t kTaps = 2 * Transposer::kInterpolatorHalf;
/// Kaiser window parameter and cut-off (of the compressed stream's rate) of
/// the interpolator: pass band to 0.4, stop band from 0.5, 75 dB.
constexpr double kKaiserBeta = 7.35;
constexpr double kCutoff = 0.45;
constexpr float kTwoPi = 2.0f * std::numbers::pi_v<float>;

float* allocateZeroed(size_t floats) {
    auto* p = static_cast<float*>(std::aligned_alloc(64, (floats * sizeof(float) + 63) / 64 * 64));
    if (p == nullptr)
        qFatal("Transposer: out of memory");
    std::memset(p, 0, floats * sizeof(float));
    return p;
}

/// Copies `count` samples of the ring `ring` from sample number `from` to
/// `dest`, across the ring's end.
void copyFromRing(const float* ring, int64_t from, float* dest, int32_t count) {
    const auto pos = static_cast<int32_t>(from & kRingMask);
    const int32_t first = std::min(count, Transposer::kRingSize - pos);
    std::memcpy(dest, ring + pos, size_t(first) * sizeof(float));
    std::memcpy(dest + first, ring, size_t(count - first) * sizeof(float));
}

/// The zeroth-order modified Bessel function of the first kind (its series).
double besselI0(double x) {
    double sum = 1.0, term = 1.0;
    for (int k = 1; k < 40; ++k) {
        term *= (x / (2.0 * k)) * (x / (2.0 * k));
        sum += term;
    }
    return sum;
}

/// Offset of factor `factor`'s phases in the table of every factor's.
size_t interpolatorOffset(int32_t factor) {
    // Factors 1, 2, 4, ... lie one after the other: 1 + 2 + ... + T/2 = T - 1 phases before T.
    return size_t(factor - 1) * size_t(kTaps);
}

float wrap(float a) { return a - kTwoPi * std::nearbyint(a / kTwoPi); }

} // namespace

Transposer::Transposer() : Transposer(FFTPlanCache::shared()) {}

Transposer::Transposer(FFTPlanCache& plans) : plans_(plans) {
    inputBuffer_ = allocateZeroed(kRingSize);
    analysisWindow_ = allocateZeroed(kMaxFrame);
    synthesisWeight_ = allocateZeroed(kMaxFrame);
    frameData_ = allocateZeroed(kMaxFrame);
    spectrum_ = allocateZeroed(kMaxFrame + 2);
    inverse_ = allocateZeroed(2 * kMaxFrame);
    previousSpectrum_ = allocateZeroed(kMaxFrame + 2);
    turn_ = allocateZeroed(kMaxFrame / 2 + 1);
    peakBins_ = static_cast<int32_t*>(std::aligned_alloc(64, kMaxFrame / 2 * sizeof(int32_t)));
    if (peakBins_ == nullptr)
        qFatal("Transposer: out of memory");
    previousTurn_ = allocateZeroed(kMaxFrame / 2 + 1);
    compressed_ = allocateZeroed(kCompressedRing);
    interpolators_ = allocateZeroed(size_t(2 * kMaxFactor - 1) * kTaps);
    // Each factor T: phase r interpolates at r / T of a compressed sample,
    // tap m at the offset K - 1 - m + r / T; every phase sums to 1, so a
    // steady level passes unchanged.
    const double k = kInterpolatorHalf;
    for (int32_t factor = 1; factor <= kMaxFactor; factor *= 2) {
        float* table = interpolators_ + interpolatorOffset(factor);
        for (int32_t r = 0; r < factor; ++r) {
            double sum = 0.0;
            for (int32_t m = 0; m < kTaps; ++m) {
                const double t = k - 1.0 - m + double(r) / factor;
                const double x = 2.0 * kCutoff * t;
                const double sinc =
                    x == 0.0 ? 1.0 : std::sin(std::numbers::pi * x) / (std::numbers::pi * x);
                const double edge = std::max(0.0, 1.0 - (t / k) * (t / k));
                const double h = 2.0 * kCutoff * sinc * besselI0(kKaiserBeta * std::sqrt(edge)) /
                                 besselI0(kKaiserBeta);
                table[r * kTaps + m] = float(h);
                sum += h;
            }
            for (int32_t m = 0; m < kTaps; ++m)
                table[r * kTaps + m] = float(table[r * kTaps + m] / sum);
        }
    }
}

Transposer::~Transposer() {
    for (float* p :
         {inputBuffer_, analysisWindow_, synthesisWeight_, frameData_, spectrum_, inverse_,
          previousSpectrum_, turn_, previousTurn_, compressed_, interpolators_})
        std::free(p);
    std::free(peakBins_);
}

bool Transposer::preparePlans(FFTPlanCache& plans) {
    bool ok = true;
    for (int32_t m = kMinFrame; m <= kMaxFrame; m *= 2) {
        ok = plans.plan(m) != nullptr && ok;
        ok = plans.complexPlan(m, FFTW_BACKWARD) != nullptr && ok;
    }
    return ok;
}

int32_t Transposer::frameSize(int32_t sampleRate) {
    const auto wanted = uint32_t(std::max(sampleRate, 1) + 191) / 192u;
    return std::clamp(int32_t(std::bit_ceil(wanted)), kMinFrame, kMaxFrame);
}

int32_t Transposer::latencySamples(int32_t sampleRate, int32_t factor) {
    const int32_t m = frameSize(sampleRate);
    return m - m / 4 + kInterpolatorHalf * std::max(factor, 1);
}

void Transposer::setupTransposition() {
    mTooSlow_ = false;
    mTooSlowCounter_ = 0;
    mRegionTooSlowCounter_ = 0;
    inputSampleID_.store(0, std::memory_order_release);
    lastDataInCount_.store(0, std::memory_order_release);
    std::memset(inputBuffer_, 0, size_t(kRingSize) * sizeof(float));
    pendingFactor_ = -1;
    restartAt(0);
}

void Transposer::setFilter20kHzOn(bool filterOn, int32_t factor, int32_t sampleRate) {
    const int32_t clamped =
        factor < 1 ? 0
                   : static_cast<int32_t>(std::bit_floor(uint32_t(std::min(factor, kMaxFactor))));
    const int64_t input = inputSampleID_.load(std::memory_order_acquire);
    if (sampleRate != sampleRate_) {
        sampleRate_ = sampleRate;
        filterOn_ = filterOn;
        factor_ = clamped;
        pendingFactor_ = -1;
        heterodyne_.prepare(sampleRate);
        configure();
        restartAt(input);
        return;
    }
    if (filterOn != filterOn_) {
        filterOn_ = filterOn;
        configure();
    }
    if (clamped == (pendingFactor_ >= 0 ? pendingFactor_ : factor_))
        return;
    if (factor_ == 0 || clamped == 0 || outputSampleID_ == startSampleID_ ||
        mode_ == Mode::Heterodyne) {
        // Nothing heard yet (or nothing to fade): at once, from the newest input.
        factor_ = clamped;
        pendingFactor_ = -1;
        configure();
        restartAt(input);
        return;
    }
    pendingFactor_ = clamped;
    pendingJump_ = false;
    fadeIn_ = 0;
    fadeDone_ = 0;
}

void Transposer::setMode(Mode mode) {
    if (mode == mode_)
        return;
    mode_ = mode;
    heterodyne_.reset();
    restartAt(inputSampleID_.load(std::memory_order_acquire));
}

void Transposer::configure() {
    if (factor_ <= 0 || sampleRate_ <= 0) {
        frame_ = 0;
        return;
    }
    frame_ = frameSize(sampleRate_);
    hop_ = frame_ / 4;
    segment_ = frame_ / factor_;
    segmentHop_ = hop_ / factor_;
    phases_ = interpolators_ + interpolatorOffset(factor_);
    const double m = frame_;
    for (int32_t i = 0; i < frame_; ++i)
        analysisWindow_[i] = float(0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / m));
    // The analysis window times this weight is a Hann window of M / T points
    // over the middle of the frame. (At T = 1 the weight is 1: the analysis
    // window itself is the Hann of M points.)
    for (int32_t u = 0; u < segment_; ++u) {
        if (factor_ == 1) {
            synthesisWeight_[u] = 1.0f;
            continue;
        }
        const double hann = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * u / segment_);
        synthesisWeight_[u] = float(hann / analysisWindow_[frame_ / 2 - segment_ / 2 + u]);
    }
    firstKeptBin_ =
        filterOn_ ? std::clamp(int32_t(std::ceil(kFilterCutHz * m / sampleRate_)), 1, frame_ / 2)
                  : 1;
}

void Transposer::restartAt(int64_t position) {
    mTooSlow_ = false;
    mTooSlowCounter_ = 0;
    mRegionTooSlowCounter_ = 0;
    transpSampleID_ = position;
    outputSampleID_ = position;
    startSampleID_ = position;
    framesDone_ = 0;
    pendingJump_ = false;
    std::memset(compressed_, 0, size_t(kCompressedRing) * sizeof(float));
    phasesValid_ = false;
}

void Transposer::addNewData(const float* data, int32_t count) {
    if (count <= 0)
        return;
    const int64_t id = inputSampleID_.load(std::memory_order_relaxed);
    const int32_t kept = std::min(count, kRingSize);
    const int64_t from = id + (count - kept);
    const auto pos = static_cast<int32_t>(from & kRingMask);
    const int32_t first = std::min(kept, kRingSize - pos);
    const float* src = data + (count - kept);
    std::memcpy(inputBuffer_ + pos, src, size_t(first) * sizeof(float));
    std::memcpy(inputBuffer_, src + first, size_t(kept - first) * sizeof(float));
    lastDataInCount_.store(count, std::memory_order_relaxed);
    // Published after the samples: the reader never reads beyond this count.
    inputSampleID_.store(id + count, std::memory_order_release);
}

void Transposer::transformFrame() {
    const int32_t m = frame_;
    const int32_t s = segment_;
    // The compressed samples this frame reaches first are cleared (the ones
    // before it already hold the earlier frames' parts).
    const int64_t at = framesDone_ * segmentHop_;
    const int64_t clearFrom = framesDone_ == 0 ? at : at + s - segmentHop_;
    for (int64_t c = clearFrom; c < at + s; ++c)
        compressed_[c & kCompressedMask] = 0.0f;

    fftwf_plan forward = plans_.plannedPlan(m);
    fftwf_plan backward = plans_.plannedComplexPlan(m, FFTW_BACKWARD);
    if (forward == nullptr || backward == nullptr)
        return; // not planned yet: this frame stays silent

    copyFromRing(inputBuffer_, transpSampleID_, frameData_, m);
    for (int32_t i = 0; i < m; ++i)
        frameData_[i] *= analysisWindow_[i];
    fftwf_execute_dft_r2c(forward, frameData_, reinterpret_cast<fftwf_complex*>(spectrum_));

    // Phase vocoder with the phases locked to the peaks: the turn of a peak's
    // bin k over one hop H is 2 pi k H / M plus its deviation; over the
    // compressed hop H / T the output turns 1 / T of it. Every bin around a
    // peak (up to the lowest bin between it and the next) is turned as its
    // peak is, so that a tone's window keeps its shape: bins of the window's
    // side lobes, left to themselves, would read a turn one whole cycle off
    // and beat with the main lobe every T frames. A bin's output phase is its
    // input phase plus the turn it was given, so only the turn is kept, and
    // the angle between this frame's and the last one's value of a peak is
    // the only arc tangent a region costs. (Whole turns are counted in
    // integers, so the phases stay precise.)
    const int32_t half = m / 2;
    const float perFactor = 1.0f / float(factor_);
    float* power = frameData_; // the frame's samples are no longer needed
    float loudest = 0.0f;
    for (int32_t k = firstKeptBin_; k < half; ++k) {
        power[k] =
            spectrum_[2 * k] * spectrum_[2 * k] + spectrum_[2 * k + 1] * spectrum_[2 * k + 1];
        loudest = std::max(loudest, power[k]);
    }
    // Peaks: local maxima less than 100 dB below the frame's loudest bin
    // (the rest are side lobes of the window and rounding noise, which turn
    // with their neighbours).
    const float floor = loudest * 1e-10f;
    int32_t peaks = 0;
    for (int32_t k = firstKeptBin_; k < half; ++k) {
        const bool above = k == firstKeptBin_ || power[k] > power[k - 1];
        const bool notBelow = k + 1 == half || power[k] >= power[k + 1];
        if (above && notBelow && power[k] > floor)
            peakBins_[peaks++] = k;
    }
    std::memset(inverse_, 0, size_t(2 * m) * sizeof(float));
    int32_t regionStart = firstKeptBin_;
    for (int32_t p = 0; p < peaks; ++p) {
        const int32_t peak = peakBins_[p];
        // The region ends at the lowest bin before the next peak.
        int32_t end = half;
        if (p + 1 < peaks) {
            end = peak + 1;
            for (int32_t k = peak + 1; k < peakBins_[p + 1]; ++k)
                if (power[k] < power[end])
                    end = k;
        }
        float turn = 0.0f;
        if (phasesValid_) {
            const float re = spectrum_[2 * peak], im = spectrum_[2 * peak + 1];
            const float pre = previousSpectrum_[2 * peak], pim = previousSpectrum_[2 * peak + 1];
            // The peak's phase now minus its phase a hop ago.
            const float advance = std::atan2(im * pre - re * pim, re * pre + im * pim);
            const float binTurn = kTwoPi * float(int64_t(peak) * hop_ % m) / float(m);
            const float deviation = wrap(advance - binTurn);
            const float outputTurn = kTwoPi * float(int64_t(peak) * segmentHop_ % m) / float(m);
            turn = wrap(previousTurn_[peak] - binTurn - deviation + outputTurn +
                        deviation * perFactor);
        }
        const float c = std::cos(turn);
        const float sn = std::sin(turn);
        for (int32_t k = regionStart; k < end; ++k) {
            const float re = spectrum_[2 * k];
            const float im = spectrum_[2 * k + 1];
            inverse_[2 * k] = re * c - im * sn;
            inverse_[2 * k + 1] = re * sn + im * c;
            turn_[k] = turn;
        }
        regionStart = end;
    }
    if (peaks == 0)
        std::memset(turn_, 0, size_t(half) * sizeof(float));
    std::swap(turn_, previousTurn_);
    std::swap(spectrum_, previousSpectrum_);
    phasesValid_ = true;
    auto* values = reinterpret_cast<fftwf_complex*>(inverse_);
    fftwf_execute_dft(backward, values, values);

    // Only positive frequencies went in: the real signal is twice the real
    // part, M times the windowed frame; the weight and 1 / 2 of the window
    // sum make the overlap-added middles sum to the input's level.
    const float scale = 1.0f / float(m);
    const int32_t middle = m / 2 - s / 2;
    for (int32_t u = 0; u < s; ++u)
        compressed_[(at + u) & kCompressedMask] +=
            inverse_[2 * (middle + u)] * synthesisWeight_[u] * scale;
}

int64_t Transposer::readyUntil() const {
    if (mode_ == Mode::Heterodyne)
        return inputSampleID_.load(std::memory_order_acquire);
    // Output j (from the restart) needs the compressed samples up to j / T,
    // which are complete once every frame starting at or before them is in.
    return startSampleID_ + framesDone_ * hop_;
}

void Transposer::interpolate(float* out, int32_t count) {
    // The factor is a power of two: shifts and masks instead of divisions.
    const int shift = std::countr_zero(uint32_t(factor_));
    const int64_t mask = factor_ - 1;
    int64_t j = outputSampleID_ - startSampleID_;
    for (int32_t i = 0; i < count; ++i, ++j) {
        const int64_t q = j >> shift;
        const auto r = int32_t(j & mask);
        const float* taps = phases_ + size_t(r) * kTaps;
        const int64_t base = q - kTaps + 1;
        const auto pos = static_cast<int32_t>(base & kCompressedMask);
        float sum = 0.0f;
        if (pos + kTaps <= kCompressedRing) {
            // Eight running sums, which the compiler keeps in one vector.
            const float* c = compressed_ + pos;
            float part[8] = {};
            for (int32_t t = 0; t < kTaps; t += 8)
                for (int32_t v = 0; v < 8; ++v)
                    part[v] += c[t + v] * taps[t + v];
            sum = ((part[0] + part[4]) + (part[1] + part[5])) +
                  ((part[2] + part[6]) + (part[3] + part[7]));
        } else {
            for (int32_t t = 0; t < kTaps; ++t)
                sum += compressed_[(base + t) & kCompressedMask] * taps[t];
        }
        out[i] = sum;
    }
}

void Transposer::fade(float* out, int32_t count) {
    const int32_t length = std::max(1, int32_t(kFadeSeconds * sampleRate_));
    if (fadeIn_ > 0) {
        for (int32_t i = 0; i < count && fadeIn_ > 0; ++i, --fadeIn_)
            out[i] *= 1.0f - float(fadeIn_) / float(length);
        return;
    }
    if (pendingFactor_ < 0 && !pendingJump_)
        return;
    for (int32_t i = 0; i < count; ++i) {
        const int32_t done = fadeDone_ + i;
        out[i] *= done >= length ? 0.0f : 1.0f - float(done) / float(length);
    }
    fadeDone_ += count;
    if (fadeDone_ < length)
        return;
    fadeIn_ = length;
    if (pendingJump_) {
        // Faded out: the output moves on to one block and one request behind
        // what the input allows, the delay it settled at when it started.
        pendingJump_ = false;
        const int64_t behind = lastDataInCount_.load(std::memory_order_relaxed) + count;
        outputSampleID_ = std::max(outputSampleID_, readyUntil() - behind);
    }
    if (pendingFactor_ < 0)
        return;
    // Faded out: the new factor starts on the input of the last frame, so
    // that its first output is ready at once.
    factor_ = pendingFactor_;
    pendingFactor_ = -1;
    configure();
    const int64_t input = inputSampleID_.load(std::memory_order_acquire);
    restartAt(std::max<int64_t>(0, input - frame_));
}

bool Transposer::getTransposedData(float* out, int32_t count) {
    if (count <= 0)
        return true;
    if (mode_ == Mode::Transpose && (factor_ <= 0 || frame_ <= 0)) {
        std::memset(out, 0, size_t(count) * sizeof(float));
        return true;
    }
    const int64_t input = inputSampleID_.load(std::memory_order_acquire);
    if (mode_ == Mode::Transpose) {
        // A reader a whole ring behind would read input (or compressed
        // samples) already written over: it starts over at the newest frame.
        const int64_t compressedBehind =
            (transpSampleID_ + frame_ - outputSampleID_) / factor_ + segment_ + kTaps;
        if (input - transpSampleID_ > kRingSize - kMaxFrame ||
            compressedBehind > kCompressedRing - kMaxFrame)
            restartAt(std::max<int64_t>(0, input - frame_));
        while (transpSampleID_ + frame_ <= input) {
            transformFrame();
            transpSampleID_ += hop_;
            ++framesDone_;
        }
    } else if (input - outputSampleID_ > kRingSize / 2) {
        restartAt(input);
    }

    const int64_t ready = readyUntil();
    // The first output after a start waits for one input block more, so that
    // the blocks' arrival does not starve the requests after it.
    const int32_t margin =
        outputSampleID_ == startSampleID_ ? lastDataInCount_.load(std::memory_order_relaxed) : 0;
    if (outputSampleID_ + count + margin > ready) {
        std::memset(out, 0, size_t(count) * sizeof(float));
        fade(out, count);
        if (ready - startSampleID_ > kStartUpSamples) {
            ++mTooSlowCounter_;
            if (mTooSlowCounter_ >= kTooSlowRequests && !mTooSlow_) {
                mTooSlow_ = true;
                return false;
            }
        }
        return true;
    }
    mTooSlowCounter_ = 0;
    if (mode_ == Mode::Transpose) {
        interpolate(out, count);
    } else {
        copyFromRing(inputBuffer_, outputSampleID_, out, count);
        heterodyne_.process(out, out, count);
    }
    outputSampleID_ += count;
    // A late block makes the requests before it silent and the output fall
    // behind; once it lies more than three blocks and two requests behind
    // what the input allows, it fades out and moves up (see `fade`).
    const int32_t block = lastDataInCount_.load(std::memory_order_relaxed);
    if (pendingFactor_ < 0 && !pendingJump_ && fadeIn_ == 0 &&
        ready - outputSampleID_ > 3 * int64_t(block) + 2 * int64_t(count)) {
        pendingJump_ = true;
        fadeDone_ = 0;
    }
    fade(out, count);
    if (++mRegionTooSlowCounter_ >= kRegionRequests) {
        mRegionTooSlowCounter_ = 0;
        mTooSlowCounter_ = 0;
    }
    return true;
}

} // namespace widmo
