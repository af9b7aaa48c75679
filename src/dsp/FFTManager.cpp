#include "dsp/FFTManager.h"

#include "core/AnalyzerDefaults.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/VectorHelpers.h"

#include <QtGlobal>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numbers>

namespace widmo {

namespace {

constexpr size_t kWindowFloats = FFTManager::kMaxFFTSize;
constexpr size_t kOutFloats = FFTManager::kMaxFFTOutSize;
constexpr size_t kSlots = FFTManager::kSlotsCount;

/// Zero-filled memory for `count` floats. calloc hands large blocks out as
/// fresh mappings, so pages that are never written cost nothing.
float* zeroedFloats(size_t count) {
    auto* p = static_cast<float*>(std::calloc(count, sizeof(float)));
    if (!p)
        qFatal("FFT engine: out of memory for %zu result values", count);
    return p;
}

/// Slots start on 64-byte boundaries (a cache line, and more than any SIMD
/// width FFTW uses), so that a slot can be handed to FFTW like its own arrays.
constexpr size_t kAlignFloats = 64 / sizeof(float);

float* aligned(float* p) {
    const auto address = reinterpret_cast<uintptr_t>(p);
    return p + ((64 - address % 64) % 64) / sizeof(float);
}

/// 64-byte aligned memory for `count` floats (a cache line: AVX-512 loads and
/// stores never straddle two), not initialised. FFTW's own allocator only
/// promises its SIMD alignment (16 or 32 bytes).
float* lineAlignedFloats(size_t count) {
    const size_t bytes = (count * sizeof(float) + 63) / 64 * 64;
    return static_cast<float*>(std::aligned_alloc(64, bytes));
}

/// Whether the slots of an `n`-point transform get their window copy and
/// spectrum with streaming stores. The 256 slots take n + n/2 floats each:
/// below 4,096 points (1.5 MB of slots at 1,024) they stay in the caches and
/// ordinary stores are cheaper (streaming costs twice as much at 256 points);
/// from 4,096 points (6 MB to 96 MB) a slot line is long gone from the caches
/// when it is written again, and streaming saves reading it from memory first
/// and keeps the transform's arrays cached (measured: about 10 % less time per
/// interval at 4,096 points).
VectorHelpers::Store slotStore(int32_t n) {
    return n >= 4096 ? VectorHelpers::Store::Streaming : VectorHelpers::Store::Cached;
}

enum WindowType : int32_t { Rectangle = 0, Blackman = 1, Hamming = 2, Hanning = 3 };

} // namespace

FFTManager::FFTManager(AnalyzerDefaults& defaults) : FFTManager(defaults, FFTPlanCache::shared()) {}

FFTManager::FFTManager(AnalyzerDefaults& defaults, FFTPlanCache& plans)
    : mDefaults(defaults), mSpectrumAnalysis(&plans) {
    mWindow = lineAlignedFloats(kWindowFloats);
    mRealData = lineAlignedFloats(kWindowFloats);
    mSpectrum = reinterpret_cast<fftwf_complex*>(lineAlignedFloats(2 * (kOutFloats + 1)));
    if (!mWindow || !mRealData || !mSpectrum)
        qFatal("FFT engine: out of memory for the transform scratch");
    std::memset(mWindow, 0, kWindowFloats * sizeof(float));
    std::memset(mRealData, 0, kWindowFloats * sizeof(float));
    std::memset(mSpectrum, 0, (kOutFloats + 1) * sizeof(fftwf_complex));

    mWindowBuffersBlock = zeroedFloats(kSlots * kWindowFloats + kAlignFloats);
    mBuffersOutBlock = zeroedFloats(kSlots * kOutFloats + kAlignFloats);
    float* windows = aligned(mWindowBuffersBlock);
    float* outs = aligned(mBuffersOutBlock);
    for (size_t s = 0; s < kSlots; ++s) {
        mFFTWindowBuffers[s] = windows + s * kWindowFloats;
        mBuffersOut[s] = outs + s * kOutFloats;
    }
    if (mDefaults.features().featureVoiceEGG()) {
        mEggBuffersBlock = zeroedFloats(kSlots * kWindowFloats + kAlignFloats);
        float* eggs = aligned(mEggBuffersBlock);
        for (size_t s = 0; s < kSlots; ++s)
            mEggBuffers[s] = eggs + s * kWindowFloats;
    }
}

FFTManager::~FFTManager() {
    std::free(mEggBuffersBlock);
    std::free(mBuffersOutBlock);
    std::free(mWindowBuffersBlock);
    std::free(mSpectrum);
    std::free(mRealData);
    std::free(mWindow);
}

FFTManager& FFTManager::sharedManager() {
    static FFTManager manager(AnalyzerDefaults::sharedDefaults());
    return manager;
}

namespace {

// The EGG filter and the transposer run on the complex plans.
bool needsComplexPlans(const AnalyzerFeatures& features) {
    return features.featureVoiceEGG() || features.featureTranspositionEnabled();
}

} // namespace

void FFTManager::preparePlans() {
    mSpectrumAnalysis->prepareAll(mDefaults.fftSize(), needsComplexPlans(mDefaults.features()));
}

void FFTManager::preparePlansInBackground() {
    mSpectrumAnalysis->startPreparing(mDefaults.fftSize(), FFTPlanCache::kPatientFromSize,
                                      needsComplexPlans(mDefaults.features()));
}

void FFTManager::prepareWindow() {
    const int32_t type = mDefaults.fftWindowType();
    const int32_t n = mDefaults.fftSize();
    if (type == mLastFFTWindowType && n == mLastFFTWindowSize)
        return;
    if (n > 0 && n <= kMaxFFTSize && type >= Blackman && type <= Hanning) {
        // Full (periodic) windows: the denominator is N, not N - 1.
        const double step = 2.0 * std::numbers::pi / n;
        for (int32_t k = 0; k < n; ++k) {
            const double c1 = std::cos(step * k);
            double w;
            if (type == Blackman)
                w = 0.42 - 0.5 * c1 + 0.08 * std::cos(2.0 * step * k);
            else if (type == Hamming)
                w = 0.54 - 0.46 * c1;
            else
                w = 0.5 * (1.0 - c1);
            mWindow[k] = static_cast<float>(w);
        }
        ++mWindowBuildCount;
    }
    mLastFFTWindowType = type;
    mLastFFTWindowSize = n;
}

float FFTManager::amplitudeScale(int32_t windowType, int32_t fftSize) {
    const float s = static_cast<float>(1.0 / fftSize);
    switch (windowType) {
    case Blackman:
        // 1 / 0.4216969185310258, deliberately not 1 / 0.42.
        return static_cast<float>(static_cast<double>(s) * 2.371371371371371);
    case Hamming:
        return static_cast<float>(static_cast<double>(s) * 1.851851851851851);
    case Hanning:
        return s + s;
    default:
        return s;
    }
}

double FFTManager::noiseBandwidthBins(int32_t windowType, int32_t fftSize) {
    // The windows are cosine sums w = a0 - a1 cos + a2 cos 2 over a full
    // period, so their mean square is exactly a0² + (a1² + a2²) / 2. By
    // Parseval a unit sine leaves (N s)² times that in the half spectrum.
    double meanSquare = 1.0;
    switch (windowType) {
    case Blackman:
        meanSquare = 0.42 * 0.42 + (0.5 * 0.5 + 0.08 * 0.08) / 2.0;
        break;
    case Hamming:
        meanSquare = 0.54 * 0.54 + 0.46 * 0.46 / 2.0;
        break;
    case Hanning:
        meanSquare = 0.25 + 0.25 / 2.0;
        break;
    default:
        break;
    }
    const double gain = static_cast<double>(amplitudeScale(windowType, fftSize)) * fftSize;
    return gain * gain * meanSquare;
}

void FFTManager::powerSpectrumOfWindow(const float* windowSamples, float* powerOut) {
    const int32_t n = mDefaults.fftSize();
    // Planned before the scratch is filled: planning a new size measures on
    // scratch arrays of its own, but must not run between fill and execute.
    fftwf_plan plan = mSpectrumAnalysis->plan(n);
    if (!plan) {
        zeroSpectrum(n, powerOut);
        return;
    }
    const int32_t type = mDefaults.fftWindowType();
    if (type != Rectangle) {
        prepareWindow();
        VectorHelpers::multiply(windowSamples, mWindow, mRealData, n);
    } else {
        std::memcpy(mRealData, windowSamples, static_cast<size_t>(n) * sizeof(float));
    }
    transformToPower(plan, mRealData, type, powerOut, VectorHelpers::Store::Cached);
}

void FFTManager::zeroSpectrum(int32_t n, float* out) const {
    qWarning("FFT size %d is not a power of two in 256..65536; spectrum left empty", n);
    const int32_t m = std::clamp(mDefaults.fftOutSize(), 0, kMaxFFTOutSize);
    std::memset(out, 0, static_cast<size_t>(m) * sizeof(float));
}

void FFTManager::transformToPower(fftwf_plan plan, float* input, int32_t windowType, float* out,
                                  VectorHelpers::Store outStore) {
    const int32_t n = mDefaults.fftSize();
    const int32_t m = std::min(mDefaults.fftOutSize(), n / 2);
    fftwf_execute_dft_r2c(plan, input, mSpectrum);
    // FFTW gives the plain DFT; the packed real transform this scale is
    // defined on gives twice that, hence 2 * s (exact: a power of two).
    const float s2 = 2.0f * amplitudeScale(windowType, n);
    // Bin 0's imaginary part is where the packed layout keeps the Nyquist
    // term, which is dropped; FFTW keeps Nyquist at bin N/2, never read here.
    mSpectrum[0][1] = 0.0f;
    VectorHelpers::scaledSquaredMagnitudes(&mSpectrum[0][0], s2, out, m, outStore);
}

void FFTManager::copyFromRing(const float* store, int32_t position, int32_t storeSize, float* dest,
                              const float* window, int32_t count, VectorHelpers::Store destStore) {
    if (position < 0 || storeSize <= 0 || !store) {
        std::memset(dest, 0, static_cast<size_t>(count) * sizeof(float));
        if (window)
            std::memset(mRealData, 0, static_cast<size_t>(count) * sizeof(float));
        return;
    }
    int32_t p = position % storeSize;
    int32_t done = 0;
    // Normally one or two pieces: up to the store's end, then from its start.
    while (done < count) {
        const int32_t piece = std::min(storeSize - p, count - done);
        if (window)
            VectorHelpers::copyAndMultiply(store + p, window + done, dest + done, mRealData + done,
                                           piece, destStore);
        else
            VectorHelpers::copy(store + p, dest + done, piece, destStore);
        done += piece;
        p = 0;
    }
}

void FFTManager::computeFFTForInterval(int64_t intervalIndex, const float* audioDataBuffer,
                                       int32_t audioDataPos, int32_t dataBufferSize,
                                       float** fftWindowData, float** fftDataOut) {
    resultsForInterval(intervalIndex, fftWindowData, fftDataOut, nullptr);
    const auto slot = static_cast<size_t>(slotOfInterval(intervalIndex));
    fftwf_plan plan = mSpectrumAnalysis->plan(mDefaults.fftSize());
    if (!plan) {
        const int32_t n = std::clamp(mDefaults.fftSize(), 0, kMaxFFTSize);
        copyEggChannel(slot, audioDataPos, dataBufferSize, n);
        copyFromRing(audioDataBuffer, audioDataPos, dataBufferSize, mFFTWindowBuffers[slot],
                     nullptr, n, VectorHelpers::Store::Cached);
        zeroSpectrum(mDefaults.fftSize(), mBuffersOut[slot]);
        return;
    }
    computeSlotWithPlan(plan, slot, audioDataBuffer, audioDataPos, dataBufferSize);
}

bool FFTManager::computeFFTForIntervalIfPlanned(int64_t intervalIndex, const float* audioDataBuffer,
                                                int32_t audioDataPos, int32_t dataBufferSize,
                                                float** fftWindowData, float** fftDataOut) {
    resultsForInterval(intervalIndex, fftWindowData, fftDataOut, nullptr);
    const auto slot = static_cast<size_t>(slotOfInterval(intervalIndex));
    fftwf_plan plan = mSpectrumAnalysis->plannedPlan(mDefaults.fftSize());
    if (!plan)
        return false;
    computeSlotWithPlan(plan, slot, audioDataBuffer, audioDataPos, dataBufferSize);
    return true;
}

bool FFTManager::preparePlan() { return mSpectrumAnalysis->plan(mDefaults.fftSize()) != nullptr; }

void FFTManager::copyEggChannel(size_t slot, int32_t audioDataPos, int32_t dataBufferSize,
                                int32_t n) {
    if (!mEggBuffers[slot])
        return;
    const auto& egg = mDefaults.eggBuffersData();
    const bool eggValid = static_cast<int64_t>(egg.size()) >= dataBufferSize;
    copyFromRing(eggValid ? egg.data() : nullptr, audioDataPos, dataBufferSize, mEggBuffers[slot],
                 nullptr, n, slotStore(n));
}

void FFTManager::computeSlotWithPlan(fftwf_plan plan, size_t slot, const float* audioDataBuffer,
                                     int32_t audioDataPos, int32_t dataBufferSize) {
    float* windowBuffer = mFFTWindowBuffers[slot];
    float* out = mBuffersOut[slot];
    const int32_t n = std::clamp(mDefaults.fftSize(), 0, kMaxFFTSize);
    const VectorHelpers::Store store = slotStore(n);
    copyEggChannel(slot, audioDataPos, dataBufferSize, n);
    const int32_t type = mDefaults.fftWindowType();
    if (type != Rectangle) {
        // One pass over the ring fills the slot and the windowed scratch.
        prepareWindow();
        copyFromRing(audioDataBuffer, audioDataPos, dataBufferSize, windowBuffer, mWindow, n,
                     store);
        transformToPower(plan, mRealData, type, out, store);
    } else {
        // Cached: the transform reads the copy next.
        copyFromRing(audioDataBuffer, audioDataPos, dataBufferSize, windowBuffer, nullptr, n,
                     VectorHelpers::Store::Cached);
        // Unwindowed: the slot itself is the transform's input (FFTW keeps
        // its input); the slots are aligned like the scratch the plans assume.
        const bool aligned = fftwf_alignment_of(windowBuffer) == fftwf_alignment_of(mRealData);
        if (!aligned)
            std::memcpy(mRealData, windowBuffer, static_cast<size_t>(n) * sizeof(float));
        transformToPower(plan, aligned ? windowBuffer : mRealData, type, out, store);
    }
}

void FFTManager::computeFFTForInterval(int64_t intervalIndex, float** fftWindowData,
                                       float** fftDataOut) {
    const int32_t intervalSize = mDefaults.intervalSizeInFrames();
    const int32_t storeSize = intervalSize * mDefaults.audioBuffersIntervalsCount();
    const int32_t n = mDefaults.fftSize();
    const auto& store = mDefaults.audioBuffersData();

    int32_t position = -1;
    if (intervalIndex >= 0 && storeSize > 0 && static_cast<int64_t>(store.size()) >= storeSize) {
        // The window ends with the last sample of the interval. The remainder
        // is signed: it is negative only when the window is longer than the
        // whole store at the very start, and that reads as "no data".
        const int64_t end = (intervalIndex + 1) * static_cast<int64_t>(intervalSize);
        position = static_cast<int32_t>((end + (storeSize - n)) % storeSize);
    }
    computeFFTForInterval(intervalIndex, store.data(), position, storeSize, fftWindowData,
                          fftDataOut);
}

void FFTManager::resultsForInterval(int64_t intervalIndex, float** fftWindowData,
                                    float** fftDataOut, float** eggWindowData) {
    const auto slot = static_cast<size_t>(slotOfInterval(intervalIndex));
    if (fftWindowData)
        *fftWindowData = mFFTWindowBuffers[slot];
    if (fftDataOut)
        *fftDataOut = mBuffersOut[slot];
    if (eggWindowData)
        *eggWindowData = mEggBuffers[slot];
}

int32_t FFTManager::slotOfInterval(int64_t intervalIndex) {
    const auto r = static_cast<int32_t>(intervalIndex % kSlotsCount);
    return r < 0 ? r + kSlotsCount : r;
}

void convertPowerToDecibels(const float* in, float* out, int32_t count) {
    // The float nearest 10^-14.4: silence reads -144 dB instead of -infinity.
    constexpr float kFloor = std::bit_cast<float>(0x278F6EF0u);
    VectorHelpers::powerToDecibels(in, kFloor, out, count);
}

void convertPowerToMagnitude(const float* in, float* out, int32_t count) {
    VectorHelpers::powerToMagnitude(in, out, count);
}

} // namespace widmo
