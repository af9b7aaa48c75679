#include "dsp/FFTManager.h"

#include "core/AnalyzerDefaults.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/VectorHelpers.h"

#include <QtGlobal>

#include <algorithm>
#include <bit>
#include <cmath>
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

enum WindowType : int32_t { Rectangle = 0, Blackman = 1, Hamming = 2, Hanning = 3 };

} // namespace

FFTManager::FFTManager(AnalyzerDefaults& defaults) : FFTManager(defaults, FFTPlanCache::shared()) {}

FFTManager::FFTManager(AnalyzerDefaults& defaults, FFTPlanCache& plans)
    : mDefaults(defaults), mSpectrumAnalysis(&plans) {
    mWindow = fftwf_alloc_real(kWindowFloats);
    mRealData = fftwf_alloc_real(kWindowFloats);
    mSpectrum = fftwf_alloc_complex(kOutFloats + 1);
    if (!mWindow || !mRealData || !mSpectrum)
        qFatal("FFT engine: out of memory for the transform scratch");
    std::memset(mWindow, 0, kWindowFloats * sizeof(float));
    std::memset(mRealData, 0, kWindowFloats * sizeof(float));
    std::memset(mSpectrum, 0, (kOutFloats + 1) * sizeof(fftwf_complex));

    mWindowBuffersBlock = zeroedFloats(kSlots * kWindowFloats);
    mBuffersOutBlock = zeroedFloats(kSlots * kOutFloats);
    for (size_t s = 0; s < kSlots; ++s) {
        mFFTWindowBuffers[s] = mWindowBuffersBlock + s * kWindowFloats;
        mBuffersOut[s] = mBuffersOutBlock + s * kOutFloats;
    }
    if (mDefaults.features().featureVoiceEGG()) {
        mEggBuffersBlock = zeroedFloats(kSlots * kWindowFloats);
        for (size_t s = 0; s < kSlots; ++s)
            mEggBuffers[s] = mEggBuffersBlock + s * kWindowFloats;
    }
}

FFTManager::~FFTManager() {
    std::free(mEggBuffersBlock);
    std::free(mBuffersOutBlock);
    std::free(mWindowBuffersBlock);
    fftwf_free(mSpectrum);
    fftwf_free(mRealData);
    fftwf_free(mWindow);
}

FFTManager& FFTManager::sharedManager() {
    static FFTManager manager(AnalyzerDefaults::sharedDefaults());
    return manager;
}

void FFTManager::preparePlans() { mSpectrumAnalysis->prepareAll(mDefaults.fftSize()); }

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

void FFTManager::przeliczWithFFTWindowBufor(const float* fftWindowBufor, float* wyjsciowyBufor) {
    const int32_t n = mDefaults.fftSize();
    const int32_t m = std::min(mDefaults.fftOutSize(), n / 2);
    // Planned before the scratch is filled: planning a new size measures on
    // scratch arrays of its own, but must not run between fill and execute.
    fftwf_plan plan = mSpectrumAnalysis->plan(n);
    if (!plan) {
        qWarning("FFT size %d is not a power of two in 256..65536; spectrum left empty", n);
        std::memset(wyjsciowyBufor, 0, static_cast<size_t>(std::max(m, 0)) * sizeof(float));
        return;
    }

    const int32_t type = mDefaults.fftWindowType();
    if (type != Rectangle) {
        prepareWindow();
        VectorHelpers::multiply(fftWindowBufor, mWindow, mRealData, n);
    } else {
        std::memcpy(mRealData, fftWindowBufor, static_cast<size_t>(n) * sizeof(float));
    }

    fftwf_execute_dft_r2c(plan, mRealData, mSpectrum);

    // FFTW gives the plain DFT; the packed real transform this scale is
    // defined on gives twice that, hence 2 * s (exact: a power of two).
    const float s2 = 2.0f * amplitudeScale(type, n);
    // Bin 0's imaginary part is where the packed layout keeps the Nyquist
    // term, which is dropped; FFTW keeps Nyquist at bin N/2, never read here.
    mSpectrum[0][1] = 0.0f;
    VectorHelpers::scaledSquaredMagnitudes(&mSpectrum[0][0], s2, wyjsciowyBufor, m);
}

void FFTManager::copyFromRing(const float* store, int32_t position, int32_t storeSize, float* dest,
                              int32_t count) const {
    if (position < 0 || storeSize <= 0 || !store) {
        std::memset(dest, 0, static_cast<size_t>(count) * sizeof(float));
        return;
    }
    int32_t p = position % storeSize;
    int32_t done = 0;
    // Normally one or two pieces: up to the store's end, then from its start.
    while (done < count) {
        const int32_t piece = std::min(storeSize - p, count - done);
        std::memcpy(dest + done, store + p, static_cast<size_t>(piece) * sizeof(float));
        done += piece;
        p = 0;
    }
}

void FFTManager::przeliczFFTDlaIntervalIndex(int64_t intervalIndex, const float* audioDataBuffer,
                                             int32_t audioDataPos, int32_t dataBufferSize,
                                             float** fftWindowData, float** fftDataOut) {
    const auto slot = static_cast<size_t>(slotOfInterval(intervalIndex));
    float* windowBuffer = mFFTWindowBuffers[slot];
    float* out = mBuffersOut[slot];
    if (fftWindowData)
        *fftWindowData = windowBuffer;
    if (fftDataOut)
        *fftDataOut = out;

    const int32_t n = std::clamp(mDefaults.fftSize(), 0, kMaxFFTSize);
    copyFromRing(audioDataBuffer, audioDataPos, dataBufferSize, windowBuffer, n);
    if (mEggBuffers[slot]) {
        const auto& egg = mDefaults.eggBuffersData();
        const bool eggValid = static_cast<int64_t>(egg.size()) >= dataBufferSize;
        copyFromRing(eggValid ? egg.data() : nullptr, audioDataPos, dataBufferSize,
                     mEggBuffers[slot], n);
    }
    przeliczWithFFTWindowBufor(windowBuffer, out);
}

void FFTManager::przeliczFFTDlaIntervalIndex(int64_t intervalIndex, float** fftWindowData,
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
    przeliczFFTDlaIntervalIndex(intervalIndex, store.data(), position, storeSize, fftWindowData,
                                fftDataOut);
}

void FFTManager::podajFFTDlaIntervalIndex(int64_t intervalIndex, float** fftWindowData,
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
