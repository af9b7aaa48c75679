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

/// The output gain, fixed by the first frame of any transposer in the process
/// (0 until then).
std::atomic<float> processOutputGain{0.0f};

float* allocateZeroed(size_t floats) {
    auto* p = static_cast<float*>(std::aligned_alloc(64, floats * sizeof(float)));
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

} // namespace

Transposer::Transposer() : Transposer(FFTPlanCache::shared()) {}

Transposer::Transposer(FFTPlanCache& plans) : plans_(plans) {
    inputBuffer_ = allocateZeroed(kRingSize);
    outputBuffer_ = allocateZeroed(kRingSize);
    hannWindow_ = allocateZeroed(kOutputFrame);
    fftOutWindow_ = allocateZeroed(kOutputFrame);
    fftData_ = allocateZeroed(2 * kOutputFrame);
    inputPhase_ = allocateZeroed(kOutputFrame / 2);
    outputPhase_ = allocateZeroed(kOutputFrame / 2);
    // The periodic Hann window: shifted copies at any hop that divides the
    // frame sum to a constant, so overlap-added frames join without a seam.
    for (int32_t i = 0; i < kOutputFrame; ++i)
        hannWindow_[i] = float(0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / kOutputFrame));
}

Transposer::~Transposer() {
    std::free(inputBuffer_);
    std::free(outputBuffer_);
    std::free(hannWindow_);
    std::free(fftOutWindow_);
    std::free(fftData_);
    std::free(inputPhase_);
    std::free(outputPhase_);
}

bool Transposer::preparePlans(FFTPlanCache& plans) {
    bool ok = plans.complexPlan(kOutputFrame, FFTW_BACKWARD) != nullptr;
    for (int32_t factor = 1; factor <= kMaxFactor; factor *= 2)
        ok = plans.complexPlan(kOutputFrame / factor, FFTW_FORWARD) != nullptr && ok;
    return ok;
}

float Transposer::outputGain() { return processOutputGain.load(std::memory_order_acquire); }

int32_t Transposer::filteredBins(int32_t frameSize, int32_t sampleRate) {
    const int32_t half = frameSize / 2;
    if (sampleRate <= 0)
        return half;
    // The M/2 kept bins span a quarter of the rate: the packed samples run at
    // half the rate, and an M-point transform of M/2 of them (zero-padded)
    // places bin M/2 at half their rate.
    return std::min(half, static_cast<int32_t>(half * kFilterCutHz / (sampleRate * 0.25)));
}

void Transposer::setupTransposition() {
    mTooSlow_ = false;
    mTooSlowCounter_ = 0;
    mRegionTooSlowCounter_ = 0;
    inputSampleID_.store(0, std::memory_order_release);
    lastDataInCount_.store(0, std::memory_order_release);
    outputSampleID_ = 0;
    transpSampleID_ = 0;
    startSampleID_ = 0;
    std::memset(inputBuffer_, 0, size_t(kRingSize) * sizeof(float));
    std::memset(outputBuffer_, 0, size_t(kRingSize) * sizeof(float));
    phasesValid_ = false;
}

void Transposer::setFilter20kHzOn(bool filterOn, int32_t factor, int32_t sampleRate) {
    filterOn_ = filterOn;
    sampleRate_ = sampleRate;
    const int32_t clamped =
        factor < 1 ? 0
                   : static_cast<int32_t>(std::bit_floor(uint32_t(std::min(factor, kMaxFactor))));
    if (clamped == factor_)
        return;
    factor_ = clamped;
    // The writer's count is only read here: the stream goes on from the
    // newest input, which is what a restart from zero on both sides means.
    restartAt(inputSampleID_.load(std::memory_order_acquire));
}

void Transposer::restartAt(int64_t position) {
    mTooSlow_ = false;
    mTooSlowCounter_ = 0;
    mRegionTooSlowCounter_ = 0;
    transpSampleID_ = position;
    outputSampleID_ = position;
    startSampleID_ = position;
    std::memset(outputBuffer_, 0, size_t(kRingSize) * sizeof(float));
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
    const int32_t m = kOutputFrame / factor_;
    const int32_t h = std::min(m, kMaxHop);
    fftwf_plan forward = plans_.plannedComplexPlan(m, FFTW_FORWARD);
    fftwf_plan backward = plans_.plannedComplexPlan(kOutputFrame, FFTW_BACKWARD);
    if (forward == nullptr || backward == nullptr)
        return; // not planned yet: this hop stays silent

    // M samples as M/2 complex values, then M/2 zeros: an M-point transform.
    copyFromRing(inputBuffer_, transpSampleID_, fftData_, m);
    std::memset(fftData_ + m, 0, size_t(m) * sizeof(float));
    auto* bins = reinterpret_cast<fftwf_complex*>(fftData_);
    fftwf_execute_dft(forward, bins, bins);
    carryPhases(m, h);

    // Bins 0..M/2-1 stay where they are; everything above them, up to the
    // 8,192 bins of the inverse, is zero.
    std::memset(fftData_ + m, 0, size_t(2 * kOutputFrame - m) * sizeof(float));
    const int32_t cut = filterOn_ ? filteredBins(m, sampleRate_) : 1;
    std::memset(fftData_, 0, size_t(2 * cut) * sizeof(float));
    fftwf_execute_dft(backward, bins, bins);

    if (lastWindowSize_ != kOutputFrame) {
        lastWindowSize_ = kOutputFrame;
        float gain = processOutputGain.load(std::memory_order_acquire);
        if (gain <= 0.0f) {
            const float mine = float(32768 / m) / float(kOutputFrame / h);
            // The first frame of the process fixes it; a concurrent first
            // frame of another transposer may win.
            processOutputGain.compare_exchange_strong(gain, mine, std::memory_order_acq_rel);
            gain = processOutputGain.load(std::memory_order_acquire);
        }
        for (int32_t i = 0; i < kOutputFrame; ++i)
            fftOutWindow_[i] = hannWindow_[i] * gain;
    }

    // The first 4,096 complex values, scaled by 1/4096, unpacked: 8,192
    // samples, windowed and added at the frame's position; then the ring
    // beyond the frame is cleared for the frames still to come.
    constexpr float kScale = 1.0f / 4096.0f;
    const auto pos = static_cast<int32_t>(transpSampleID_ & kRingMask);
    const int32_t first = std::min(kOutputFrame, kRingSize - pos);
    for (int32_t i = 0; i < first; ++i)
        outputBuffer_[pos + i] += fftData_[i] * kScale * fftOutWindow_[i];
    for (int32_t i = first; i < kOutputFrame; ++i)
        outputBuffer_[i - first] += fftData_[i] * kScale * fftOutWindow_[i];
    const auto clearFrom = static_cast<int32_t>((transpSampleID_ + kOutputFrame) & kRingMask);
    const int32_t clearFirst = std::min(kOutputFrame, kRingSize - clearFrom);
    std::memset(outputBuffer_ + clearFrom, 0, size_t(clearFirst) * sizeof(float));
    std::memset(outputBuffer_, 0, size_t(kOutputFrame - clearFirst) * sizeof(float));
}

void Transposer::carryPhases(int32_t m, int32_t h) {
    // In the packed samples a hop is H/2 complex samples, and bin k turns by
    // 2 pi k / M a sample. The turn measured since the previous frame gives
    // the bin's true frequency; divided by the factor, it is the turn the
    // output frame must show over the same hop to continue the one before.
    // (Single precision: the phases stay within one turn.)
    constexpr float kTwoPi = 2.0f * std::numbers::pi_v<float>;
    const auto wrap = [&](float a) { return a - kTwoPi * std::nearbyint(a / kTwoPi); };
    const float perFactor = 1.0f / float(factor_);
    // A bin's turn over one hop counts modulo T turns, not one: divided by T
    // it must still tell the T possible output turns apart.
    const int32_t turnsModulus = m * factor_;
    for (int32_t k = 0; k < m / 2; ++k) {
        const float re = fftData_[2 * k];
        const float im = fftData_[2 * k + 1];
        const float phase = std::atan2(im, re);
        float output = phase;
        if (phasesValid_) {
            const float binTurn = kTwoPi * float((h / 2) * k % turnsModulus) / float(m);
            const float deviation = wrap(phase - inputPhase_[k] - binTurn);
            output = wrap(outputPhase_[k] + (binTurn + deviation) * perFactor);
        }
        inputPhase_[k] = phase;
        outputPhase_[k] = output;
        const float magnitude = std::sqrt(re * re + im * im);
        fftData_[2 * k] = magnitude * std::cos(output);
        fftData_[2 * k + 1] = magnitude * std::sin(output);
    }
    phasesValid_ = true;
}

bool Transposer::getTransposedData(float* out, int32_t count) {
    if (count <= 0)
        return true;
    if (factor_ > 0) {
        const int32_t m = kOutputFrame / factor_;
        const int32_t h = std::min(m, kMaxHop);
        const int64_t input = inputSampleID_.load(std::memory_order_acquire);
        // A reader a whole ring behind would read input already written over:
        // it starts over at the newest frame instead.
        if (input - transpSampleID_ > kRingSize - kOutputFrame)
            restartAt(input - m - 1);
        // A whole frame and one more sample.
        while (transpSampleID_ + m < input) {
            transformFrame();
            transpSampleID_ += h;
        }
    }

    const int32_t lastBlock = lastDataInCount_.load(std::memory_order_relaxed);
    if (outputSampleID_ + count + lastBlock >= transpSampleID_) {
        std::memset(out, 0, size_t(count) * sizeof(float));
        if (transpSampleID_ - startSampleID_ > kStartUpSamples) {
            ++mTooSlowCounter_;
            if (mTooSlowCounter_ >= kTooSlowRequests && !mTooSlow_) {
                mTooSlow_ = true;
                return false;
            }
        }
        return true;
    }
    mTooSlowCounter_ = 0;
    copyFromRing(outputBuffer_, outputSampleID_, out, count);
    outputSampleID_ += count;
    if (++mRegionTooSlowCounter_ >= kRegionRequests) {
        mRegionTooSlowCounter_ = 0;
        mTooSlowCounter_ = 0;
    }
    return true;
}

} // namespace widmo
