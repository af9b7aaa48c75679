#include "charts/ChartData.h"

#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace widmo {

namespace {
// Each hold moves by this much per drawn frame once its timer has run out.
constexpr float kHoldDecayStepDB = 0.2f;
} // namespace

ChartData::ChartData(AnalyzerDefaults& defaults)
    : mDefaults(defaults), mFftResultSlots(static_cast<size_t>(kRingSlots) * kSlotSize, 0.0f),
      mRawCopy(kSlotSize + 2, 0.0f), mWindowCopy(kMaxWindowSize, 0.0f) {
    if (mDefaults.features().featureVoiceEGG()) {
        eggFilter_ = std::make_unique<EGGFilter>();
        mEggResultSlots.assign(static_cast<size_t>(kRingSlots) * kEggSlotSize, 0.0f);
    }
    clearData();
}

void ChartData::addFFTdata(const float* fftData, const float* fftWindowData,
                           const float* eggWindowData) {
    if (fftData == nullptr || fftWindowData == nullptr)
        return;
    const int32_t n = std::clamp(mDefaults.fftOutSize(), 0, kSlotSize);
    const int32_t windowSize = std::clamp(mDefaults.fftSize(), 0, kMaxWindowSize);

    const int32_t s = mCurrentResultSlot;
    mCurrentResultSlot = (s + 1) % kRingSlots;

    // The engine's slot is rewritten when the analysis runs 256 intervals ahead,
    // and the RTA reads it again at every frame: keep our own copy. The two
    // zeros after the spectrum are the band edges' reads past its end (the
    // Nyquist term is not part of the spectrum).
    std::memcpy(mRawCopy.data(), fftData, static_cast<size_t>(n) * sizeof(float));
    mRawCopy[static_cast<size_t>(n)] = 0.0f;
    mRawCopy[static_cast<size_t>(n) + 1] = 0.0f;
    std::memcpy(mWindowCopy.data(), fftWindowData, static_cast<size_t>(windowSize) * sizeof(float));
    mRAWFFTData = mRawCopy.data();
    mFFTWindowData = mWindowCopy.data();

    // A window spreads a sine over more than one bin: the total power is the
    // sine's times the window's noise bandwidth, which is divided out so that
    // a sine of peak A reads 20 log10 A with every window and size.
    double sum = 0.0;
    for (int32_t i = 0; i < n; ++i)
        sum += fftData[i];
    sum /= FFTManager::noiseBandwidthBins(mDefaults.fftWindowType(), mDefaults.fftSize());
    // No floor: silence is minus infinity, which the level meter shows as no signal.
    levelDB_ = static_cast<float>(10.0 * std::log10(sum));

    float* slot = mFftResultSlots.data() + static_cast<size_t>(s) * kSlotSize;
    if (mDefaults.valuesInDB())
        convertPowerToDecibels(mRawCopy.data(), slot, n);
    else
        convertPowerToMagnitude(mRawCopy.data(), slot, n);

    if (eggFilter_)
        measureEgg(eggWindowData, windowSize, s);

    mFFTOutData = slot;
}

void ChartData::measureEgg(const float* eggWindowData, int32_t windowSize, int32_t slot) {
    float* out = mEggResultSlots.data() + static_cast<size_t>(slot) * kEggSlotSize;
    mCQ = ClosedQuotientResult{};
    mEGGOutData = nullptr;
    closedQuotient_ = 0.0f;
    if (eggWindowData == nullptr || !eggFilter_->bandLimit(eggWindowData, out, windowSize))
        return;
    mCQ = EGGFilter::measureClosedQuotient(out, windowSize);
    closedQuotient_ = mCQ.closedQuotient;
    mEGGOutData = out;
}

void ChartData::clearData() {
    mEGGOutData = nullptr;
    mCQ = ClosedQuotientResult{};
    closedQuotient_ = 0.0f;
    mFFTWindowData = nullptr;
    mFFTOutData = nullptr;
    mRAWFFTData = nullptr;
    levelDB_ = kFloorDB;
    clearOctaveRTAValues();
}

void ChartData::clearOctaveRTAValues() {
    mOctaveRTAValues.fill(kFloorDB);
    mNewOctaveRTAValues.fill(kFloorDB);
    clearOctaveRTAMinMaxLevels();
}

void ChartData::clearOctaveRTAMinMaxLevels() {
    mOctaveRTAMinValues.fill(0.0f);
    mOctaveRTAMaxValues.fill(kFloorDB);
    mOctaveRTAMinTimer.fill(1.0f);
    mOctaveRTAMaxTimer.fill(1.0f);
    mOctaveRTAMinStarted.fill(false);
}

void ChartData::averageCoefficients(int32_t averageType, float* attack, float* release) {
    switch (averageType) {
    case 1:
        *attack = 0.6f;
        *release = 0.15f;
        break;
    case 2:
        *attack = 0.7f;
        *release = 0.3f;
        break;
    case 3:
        *attack = 1.0f;
        *release = 1.0f;
        break;
    default:
        *attack = 0.5f;
        *release = 0.075f;
        break;
    }
}

void ChartData::octaveBandPowers(const AnalyzerDefaults& defaults, const float* raw,
                                 float* bandPowers) {
    const int32_t n = std::clamp(defaults.fftOutSize(), 0, kSlotSize);
    const int32_t minIndex = defaults.octaveRTAMinIndex();
    const int32_t maxIndex = std::min(defaults.octaveRTAMaxIndex(), kBands - 2);
    if (minIndex < 0 || maxIndex < minIndex || n < 2)
        return;
    const int32_t* f = defaults.octaveRTAIndexesFloor();
    const float* p = defaults.octaveRTAIndexFraction();
    // The two edge bins weighted by the edges' fractional positions, the bins
    // in between summed.
    const auto edgeValue = [&](int32_t edge, int32_t i) {
        return raw[i] + (raw[i + 1] - raw[i]) * p[edge];
    };
    float lowerEdge = edgeValue(minIndex, std::clamp(f[minIndex], 1, n));
    for (int32_t b = minIndex; b <= maxIndex; ++b) {
        const float upperEdge = edgeValue(b + 1, std::clamp(f[b + 1], 0, n));
        const int32_t lo = std::max(1, f[b]);
        const int32_t hi = std::min(f[b + 1], n);
        float sum = (lowerEdge + upperEdge) * 0.5f;
        for (int32_t j = lo + 1; j < hi; ++j)
            sum += raw[j];
        bandPowers[b] = sum;
        lowerEdge = upperEdge;
    }
}

void ChartData::updateOctaveRTA(bool refreshEveryFrame, double timeSinceLastDraw) {
    if (mFFTOutData == nullptr || mRAWFFTData == nullptr || !mDefaults.octaveRTAValid())
        return;
    const int32_t n = std::clamp(mDefaults.fftOutSize(), 0, kSlotSize);
    const int32_t minIndex = mDefaults.octaveRTAMinIndex();
    const int32_t maxIndex = std::min(mDefaults.octaveRTAMaxIndex(), kBands - 2);
    if (minIndex < 0 || maxIndex < minIndex || n < 2)
        return;
    // 1. Band powers.
    octaveBandPowers(mDefaults, mRAWFFTData, mNewOctaveRTAValues.data());

    // 2. To dB, floor -144 dB. Only the bands in use: the others keep -144.
    convertPowerToDecibels(mNewOctaveRTAValues.data() + minIndex,
                           mNewOctaveRTAValues.data() + minIndex, maxIndex - minIndex + 1);

    // 3. Averaging and holds.
    float attack = 0.0f;
    float release = 0.0f;
    averageCoefficients(mDefaults.octaveRTABandAverageType(), &attack, &release);
    const bool minOn = mDefaults.octaveRTAMinValuesEnabled();
    const bool maxOn = mDefaults.octaveRTAMaxValuesEnabled();
    const int32_t decaySeconds = mDefaults.octaveRTAMinMaxDecayTime();
    const auto decayTime = static_cast<float>(decaySeconds);
    const auto dt = static_cast<float>(timeSinceLastDraw);

    for (auto b = static_cast<size_t>(minIndex); b <= static_cast<size_t>(maxIndex); ++b) {
        const float newValue = mNewOctaveRTAValues[b];
        const float old = mOctaveRTAValues[b];
        float& minimum = mOctaveRTAMinValues[b];
        float& maximum = mOctaveRTAMaxValues[b];
        float& minTimer = mOctaveRTAMinTimer[b];
        float& maxTimer = mOctaveRTAMaxTimer[b];
        bool& started = mOctaveRTAMinStarted[b];

        // The minimum starts at the first falling frame, so that the rise from
        // silence after a reset leaves no minimum at the floor.
        if (minOn && !started) {
            if (newValue < old) {
                started = true;
                minimum = 0.0f;
            } else {
                minimum = old;
            }
        }

        const float c = newValue > old ? attack : release;
        const float value = old + (newValue - old) * c;

        if (decaySeconds == 0) {
            minTimer = 0.0f;
            maxTimer = 0.0f;
        } else {
            if (minOn && refreshEveryFrame) {
                if (started && minTimer < 0.0f)
                    minimum += kHoldDecayStepDB;
                minTimer -= dt;
            } else {
                minTimer = decayTime;
            }
            if (maxOn && refreshEveryFrame) {
                if (maxTimer < 0.0f)
                    maximum -= kHoldDecayStepDB;
                maxTimer -= dt;
            } else {
                maxTimer = decayTime;
            }
        }

        if (minOn && started && minimum > value) {
            minimum = value;
            minTimer = decayTime;
        }
        if (maxOn && maximum < value) {
            maximum = value;
            maxTimer = decayTime;
        }
        maximum = std::max(maximum, value);
        mOctaveRTAValues[b] = value;
    }
}

} // namespace widmo
