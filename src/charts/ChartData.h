#pragma once

#include "dsp/EGGFilter.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace widmo {

class AnalyzerDefaults;

/// The data side of the second chart: what each analysed interval becomes
/// before it is drawn.
///
/// `addFFTdata` takes one interval's raw power spectrum (`fftOutSize` values,
/// a full-scale sine reads 1.0) and its FFT-window samples (`fftSize` values),
/// computes the broadband level `levelDB`, and converts the spectrum into the
/// next of 16 display slots: dB with a -144 dB floor, or linear magnitude,
/// by `valuesInDB`. `updateOctaveRTA` integrates the latest raw spectrum into
/// fractional-octave bands with interpolated band edges, averages them with
/// the attack and release of `octaveRTABandAverageType`, and keeps minimum and
/// maximum holds that decay after `octaveRTAMinMaxDecayTime` seconds.
///
/// With the EGG product (`featureVoiceEGG`), each interval's second-channel
/// window also goes through the `EGGFilter` into a ring of its own, where the
/// closed quotient is measured and one normalised glottal cycle is left for
/// the chart to draw.
///
/// All buffers are allocated once, at construction, at their largest sizes;
/// nothing allocates per interval or per frame. The settings are read from the
/// `AnalyzerDefaults` at every call.
///
/// Threading: main thread only (the engine's display timer and the frame
/// callback of the chart).
class ChartData {
public:
    static constexpr int32_t kRingSlots = 16;
    static constexpr int32_t kSlotSize = 32768;
    static constexpr int32_t kMaxWindowSize = 65536;
    /// Each slot of the EGG ring takes the largest window, so every `fftSize`
    /// is measured.
    static constexpr int32_t kEggSlotSize = kMaxWindowSize;
    static constexpr int32_t kBands = 169;
    static constexpr float kFloorDB = -144.0f;

    /// `defaults` must outlive this object.
    explicit ChartData(AnalyzerDefaults& defaults);
    ChartData(const ChartData&) = delete;
    ChartData& operator=(const ChartData&) = delete;

    /// One interval: `fftData` holds `fftOutSize` power values, `fftWindowData`
    /// the `fftSize` samples of its window; both are copied here, because the
    /// FFT engine reuses its result slots while the chart still draws them.
    /// `eggWindowData` is the second channel's window of the EGG product
    /// (`fftSize` values): with that product it is filtered and measured here;
    /// when it is null, or its FFT plans are not made yet, the interval has
    /// no EGG cycle and a closed quotient of 0.
    /// A null `fftData` or `fftWindowData` is ignored.
    void addFFTdata(const float* fftData, const float* fftWindowData, const float* eggWindowData);

    /// Forgets the shown data (no spectrum, no window), `levelDB` = -144 and
    /// `clearOctaveRTAValues`.
    void clearData();
    /// Every band value to -144 dB, then `clearOctaveRTAMinMaxLevels`.
    void clearOctaveRTAValues();
    /// Minimum holds to 0 dB, maximum holds to -144 dB, both timers to 1 s,
    /// no minimum started. The averaged values stay as they are.
    void clearOctaveRTAMinMaxLevels();

    /// One drawn frame of the RTA chart: band update from the latest raw
    /// spectrum. `refreshEveryFrame` is whether the view draws every frame (the
    /// analyser runs; only then do the holds decay); `timeSinceLastDraw` in
    /// seconds counts the hold timers down. Nothing without data or while the
    /// band tables are not valid.
    void updateOctaveRTA(bool refreshEveryFrame, double timeSinceLastDraw);

    /// Broadband level of the last interval in dBFS: the spectrum's total
    /// power over the window's noise bandwidth, so that a sine of peak A reads
    /// 20 log10 A and noise of RMS r reads 20 log10 r + 3.01 with every window
    /// and FFT size. Minus infinity for an all-zero spectrum (no floor).
    float levelDB() const { return levelDB_; }
    /// Closed quotient of the last interval, 0..1: 0 without the EGG product,
    /// without a cycle, or when the cycle's points give a quotient outside
    /// 0..1; not a number when its three points coincide (no cycle at all).
    float closedQuotient() const { return closedQuotient_; }
    /// The three crossing points of the last interval's cycle, indices into
    /// `eggOutData`; all 0 without a measure.
    const ClosedQuotientResult& closedQuotientPoints() const { return mCQ; }
    /// The last interval's normalised glottal cycle: `fftSize` / 4 values in
    /// 0..1; null without the EGG product or without EGG data.
    const float* eggOutData() const { return mEGGOutData; }

    /// The display spectrum of the last interval (`fftOutSize` values, dB or
    /// linear); null when there is no data.
    const float* fftOutData() const { return mFFTOutData; }
    /// The last interval's window samples (`fftSize` values); null without data.
    const float* fftWindowData() const { return mFFTWindowData; }
    /// The last interval's raw power spectrum; null without data. Two zero
    /// values follow the `fftOutSize` values (the band edges read past the end).
    const float* rawFFTData() const { return mRAWFFTData; }
    /// Ring slot that the next interval will use (0..15).
    int32_t currentResultSlot() const { return mCurrentResultSlot; }
    /// Start of display slot `slot` (0..15).
    const float* displaySlot(int32_t slot) const {
        return mFftResultSlots.data() + static_cast<size_t>(slot) * kSlotSize;
    }

    /// Per band, indexed by band number (`octaveRTAMinIndex` .. `octaveRTAMaxIndex`).
    const std::array<float, kBands>& octaveRTAValues() const { return mOctaveRTAValues; }
    const std::array<float, kBands>& octaveRTAMinValues() const { return mOctaveRTAMinValues; }
    const std::array<float, kBands>& octaveRTAMaxValues() const { return mOctaveRTAMaxValues; }
    const std::array<float, kBands>& octaveRTAMinTimer() const { return mOctaveRTAMinTimer; }
    const std::array<float, kBands>& octaveRTAMaxTimer() const { return mOctaveRTAMaxTimer; }
    const std::array<bool, kBands>& octaveRTAMinStarted() const { return mOctaveRTAMinStarted; }

    /// Band powers of one raw power spectrum (`fftOutSize` values followed by
    /// two readable values, the band edges' reads past the end) into
    /// `bandPowers[b]` for b = `octaveRTAMinIndex` .. `octaveRTAMaxIndex` (at
    /// most 167); the other entries are left alone. Each band sums its bins,
    /// the two edge bins interpolated at the edges' fractional positions.
    /// Nothing when the band tables hold no band. Any thread.
    static void octaveBandPowers(const AnalyzerDefaults& defaults, const float* raw,
                                 float* bandPowers);

    /// Attack (rising) and release (falling) coefficients of an averaging type.
    static void averageCoefficients(int32_t averageType, float* attack, float* release);

private:
    /// Filters the EGG window into ring slot `slot` and measures it there.
    void measureEgg(const float* eggWindowData, int32_t windowSize, int32_t slot);

    AnalyzerDefaults& mDefaults;

    const float* mFFTWindowData = nullptr;
    const float* mFFTOutData = nullptr;
    const float* mRAWFFTData = nullptr;
    std::vector<float> mFftResultSlots;
    int32_t mCurrentResultSlot = 0;
    // Copies of the engine's buffers of the last interval (see addFFTdata).
    std::vector<float> mRawCopy;
    std::vector<float> mWindowCopy;
    /// Only with the EGG product: the filter and its ring of 16 output slots.
    std::unique_ptr<EGGFilter> eggFilter_;
    std::vector<float> mEggResultSlots;
    const float* mEGGOutData = nullptr;
    ClosedQuotientResult mCQ;
    std::array<float, kBands> mNewOctaveRTAValues{};
    std::array<float, kBands> mOctaveRTAValues{};
    std::array<float, kBands> mOctaveRTAMinValues{};
    std::array<float, kBands> mOctaveRTAMaxValues{};
    std::array<float, kBands> mOctaveRTAMinTimer{};
    std::array<float, kBands> mOctaveRTAMaxTimer{};
    std::array<bool, kBands> mOctaveRTAMinStarted{};
    float levelDB_ = kFloorDB;
    float closedQuotient_ = 0.0f;
};

} // namespace widmo
