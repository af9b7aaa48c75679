#pragma once

#include "dsp/VectorHelpers.h"

#include <fftw3.h>

#include <array>
#include <cstdint>

namespace widmo {

class AnalyzerDefaults;
class FFTPlanCache;

/// Turns one analysis interval of the sample store into a power spectrum and
/// keeps the last 256 results in slots.
///
/// For interval i it takes the `fftSize` samples ending with the interval out
/// of the ring-shaped store, applies the window of `fftWindowType`, runs a real
/// forward FFT (FFTW, single precision) and leaves `fftOutSize` squared
/// magnitudes in slot i mod 256. The scale is that of a packed real transform
/// that returns twice the DFT: a full-scale sine centred on a bin reads 1.0
/// with every window (Blackman: 0.992, its correction factor is deliberately
/// 1/0.42169), bin 0 of a constant c reads 4c², and the Nyquist term is dropped.
///
/// The settings are read from the `AnalyzerDefaults` at every call; nothing is
/// copied. All buffers are allocated once, at the largest sizes the settings
/// allow (65,536-point window, 32,768 results), zero-filled; pages a smaller
/// `fftSize` never touches cost no memory. EGG slot buffers exist only when the
/// product has `featureVoiceEGG`.
///
/// Threading: no lock of its own. The transforms and `prepareWindow` share
/// scratch buffers: calls must not overlap; the analysis queue makes them all,
/// one interval at a time. `resultsForInterval` only hands out pointers;
/// callers read a slot only after its computation finished. `preparePlans` runs
/// once on a non-real-time thread before the first transform; if it has not,
/// the first transform of a size plans that size itself (the analysis queue is
/// not real-time). Nothing here runs on the real-time audio thread. The one
/// exception to "the analysis queue makes them all" is the recording trigger,
/// which calls `computeFFTForIntervalIfPlanned` on the audio delivery queue while
/// the analysis queue is idle: that call never plans and never takes the
/// planner's lock, so `preparePlan` must have run first (at arming).
class FFTManager {
public:
    static constexpr int32_t kMaxFFTSize = 65536;
    static constexpr int32_t kMaxFFTOutSize = kMaxFFTSize / 2;
    static constexpr int32_t kSlotsCount = 256;

    /// Reads fftSize, fftOutSize, fftWindowType, intervalSizeInFrames,
    /// audioBuffersIntervalsCount, audioBuffersData, eggBuffersData and the
    /// product's featureVoiceEGG from `defaults` at every call (no copies).
    /// Uses the process's FFTW plan cache. `defaults` must outlive the manager.
    explicit FFTManager(AnalyzerDefaults& defaults);
    /// The same with an explicit plan cache (tests); `plans` must outlive it.
    FFTManager(AnalyzerDefaults& defaults, FFTPlanCache& plans);
    ~FFTManager();
    FFTManager(const FFTManager&) = delete;
    FFTManager& operator=(const FFTManager&) = delete;

    /// The process's instance, on AnalyzerDefaults::sharedDefaults(). The first
    /// call must come before any concurrent use.
    static FFTManager& sharedManager();

    /// Makes (or loads from wisdom) the FFTW plans of every size the settings
    /// allow, the current `fftSize` first; with `featureVoiceEGG` or
    /// `featureTranspositionEnabled` also the complex plans of the EGG filter
    /// (`EGGFilter`) and the transposer (`Transposer`). Non-real-time thread, before the
    /// first transform; idempotent. Blocks while planning: about 2.5 s in all
    /// on a first run, milliseconds once the wisdom file exists.
    void preparePlans();
    /// The same on a planning thread of the plan cache, which then also
    /// refines the large sizes (FFTW_PATIENT); returns at once. A transform
    /// that needs a size before it is planned waits for that size. The
    /// application calls this once at launch.
    void preparePlansInBackground();

    /// Rebuilds the window table when `fftWindowType` or `fftSize` changed
    /// since the last build. Types 1 Blackman, 2 Hamming, 3 Hann fill it; any
    /// other type leaves the table as it is.
    void prepareWindow();

    /// Windows `windowSamples` (`fftSize` samples, left unchanged),
    /// transforms it and writes `fftOutSize` power values to `powerOut`.
    /// The two must not overlap. `fftSize` must be a power of two in
    /// 256..65536; for any other size the output is zero-filled and a warning
    /// logged.
    void powerSpectrumOfWindow(const float* windowSamples, float* powerOut);

    /// Fills the slot of `intervalIndex` with the `fftSize` samples of the
    /// store `audioDataBuffer` (`dataBufferSize` samples, a ring) starting at
    /// `audioDataPos` (wrapping to the store's start; -1 or any negative
    /// position: zeros), copies the EGG channel alike when the product has it,
    /// and computes the slot's spectrum. Returns the slot's window and result
    /// buffers through the two out pointers (either may be null).
    void computeFFTForInterval(int64_t intervalIndex, const float* audioDataBuffer,
                               int32_t audioDataPos, int32_t dataBufferSize, float** fftWindowData,
                               float** fftDataOut);
    /// `computeFFTForInterval` for a caller that must not wait: it never plans
    /// and never takes the planner's lock. When the current `fftSize` has no
    /// plan yet it computes nothing, leaves the slot as it was and returns
    /// false (the out pointers are set all the same); true when the slot holds
    /// the new spectrum. The recording trigger calls it on the audio delivery
    /// queue after `preparePlan` at arming.
    bool computeFFTForIntervalIfPlanned(int64_t intervalIndex, const float* audioDataBuffer,
                                        int32_t audioDataPos, int32_t dataBufferSize,
                                        float** fftWindowData, float** fftDataOut);
    /// Makes the plan of the current `fftSize` unless it exists (waiting for the
    /// planner meanwhile; milliseconds with wisdom). Non-real-time thread; false
    /// when that size cannot be planned.
    bool preparePlan();

    /// The same for the window that ends with the last sample of interval
    /// `intervalIndex` in `audioBuffersData`: N = fftSize samples, reaching
    /// back into earlier intervals (across the ring's start) when N exceeds the
    /// interval. A negative index, or a store smaller than its geometry,
    /// gives an all-zero window.
    void computeFFTForInterval(int64_t intervalIndex, float** fftWindowData, float** fftDataOut);

    /// The interval's slot buffers, computing nothing; eggWindowData is null
    /// without the EGG product. Any out pointer may be null.
    void resultsForInterval(int64_t intervalIndex, float** fftWindowData, float** fftDataOut,
                            float** eggWindowData);

    /// Slot of an interval: index mod 256, taken into 0..255 for negative ones.
    static int32_t slotOfInterval(int64_t intervalIndex);
    /// Scale applied to the FFT's real and imaginary parts for `windowType`
    /// and `fftSize`, in the packed real transform's convention (before the
    /// factor of two that brings FFTW's DFT to that convention).
    static float amplitudeScale(int32_t windowType, int32_t fftSize);
    /// Sum of the `fftOutSize` power values that a sine of amplitude 1 gives
    /// with `windowType` and `fftSize` (256..65536), whatever its frequency
    /// between bin 1 and Nyquist: the window's equivalent noise bandwidth in
    /// bins, taken with this engine's amplitude scale (so 1 for Rectangle,
    /// 1.363 for Hamming). Dividing a spectrum's total power by it gives the
    /// broadband power in which a sine of peak A reads A². Any thread.
    static double noiseBandwidthBins(int32_t windowType, int32_t fftSize);
    /// The window table (65,536 entries; the first `fftSize` valid after
    /// `prepareWindow` for types 1..3).
    const float* window() const { return mWindow; }
    /// How many times the window table has been rebuilt (diagnostics, tests).
    int64_t windowBuildCount() const { return mWindowBuildCount; }

private:
    /// Copies `count` samples of the ring `store` from `position` into the
    /// slot buffer `dest` (written as `destStore` says) and, windowed when
    /// `window` is set, into `mRealData`: the ring is read once. A negative
    /// position or no store gives zeros.
    void copyFromRing(const float* store, int32_t position, int32_t storeSize, float* dest,
                      const float* window, int32_t count, VectorHelpers::Store destStore);
    /// Zero-fills `out` after an unplannable size, with a warning.
    void zeroSpectrum(int32_t n, float* out) const;
    /// Transforms `input` (`mRealData` or an array aligned like it) into `out`
    /// with the scale of `windowType`, written as `outStore` says.
    void transformToPower(fftwf_plan plan, float* input, int32_t windowType, float* out,
                          VectorHelpers::Store outStore);
    /// Copies the EGG channel's `n` samples into the slot when the product has it.
    void copyEggChannel(size_t slot, int32_t audioDataPos, int32_t dataBufferSize, int32_t n);
    /// The slot's copy and spectrum with `plan` (not null) for the current `fftSize`.
    void computeSlotWithPlan(fftwf_plan plan, size_t slot, const float* audioDataBuffer,
                             int32_t audioDataPos, int32_t dataBufferSize);

    AnalyzerDefaults& mDefaults;
    /// The FFTW plans, one per size (serves every `fftSize` up to 65,536).
    FFTPlanCache* mSpectrumAnalysis;
    /// Window coefficients for the current `fftSize` and `fftWindowType`.
    float* mWindow = nullptr;
    int32_t mLastFFTWindowType = 0;
    int32_t mLastFFTWindowSize = 0;
    /// Scratch: the windowed time-domain block (65,536, 64-byte aligned).
    float* mRealData = nullptr;
    /// Scratch: the transform's bins 0..N/2, interleaved re/im (32,769
    /// complex values, 64-byte aligned).
    fftwf_complex* mSpectrum = nullptr;
    /// Per slot: the raw (unwindowed) samples of the FFT window.
    std::array<float*, kSlotsCount> mFFTWindowBuffers{};
    /// Per slot: the power spectrum, `fftOutSize` values.
    std::array<float*, kSlotsCount> mBuffersOut{};
    /// Per slot: the EGG channel over the same window; null without the EGG product.
    std::array<float*, kSlotsCount> mEggBuffers{};
    // One zero-filled block each for the slot arrays above (calloc: untouched
    // pages stay unmapped); the slots start 64 bytes aligned inside them.
    float* mWindowBuffersBlock = nullptr;
    float* mBuffersOutBlock = nullptr;
    float* mEggBuffersBlock = nullptr;
    int64_t mWindowBuildCount = 0;
};

/// Adds 10^-14.4 (float bits 0x278F6EF0) then 10*log10, so silence reads
/// -144 dB and a full-scale sine 0 dB; in and out may be the same buffer
/// (otherwise disjoint). Nothing for count <= 0. Any thread.
void convertPowerToDecibels(const float* in, float* out, int32_t count);
/// sqrt of each value; nothing for count <= 0; in and out may be the same
/// buffer (otherwise disjoint). Any thread.
void convertPowerToMagnitude(const float* in, float* out, int32_t count);

} // namespace widmo
