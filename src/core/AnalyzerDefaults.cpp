#include "core/AnalyzerDefaults.h"

#include "core/SettingsStore.h"
#include "core/WidmoVersion.h"

#include <QtGlobal>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <type_traits>
#include <variant>

namespace widmo {

namespace {

AnalyzerDefaults* sharedInstance = nullptr;

template <typename T> T clampValue(T v, T lo, T hi) { return std::min(std::max(v, lo), hi); }

// Rounds to nearest with halves away from zero, as the geometry rules require.
int32_t roundAway(double v) { return static_cast<int32_t>(std::round(v)); }

const QLatin1String kIntervalKey("analyzerDefaults.intervalSizeInFrames");
const QLatin1String kDisplaySizeKey("analyzerDefaults.fftDisplaySize");

} // namespace

struct AnalyzerDefaults::PersistedField {
    const char* key;
    std::variant<bool AnalyzerDefaults::*, int32_t AnalyzerDefaults::*, float AnalyzerDefaults::*>
        field;
    /// Whether the settings screens of a product with these features can
    /// produce the value; null for booleans, which must read 0 or 1.
    bool (*offered)(double value, const AnalyzerFeatures& features) = nullptr;
};

namespace {

// NaN is in no range.
bool inRange(double v, double lo, double hi) { return v >= lo && v <= hi; }

bool isPowerOfTwoIn(double v, double lo, double hi) {
    return inRange(v, lo, hi) && std::exp2(std::round(std::log2(v))) == v;
}

// The sample-rate control offers the standard rates, 96 kHz with its switch
// and the ultrasonic ones with theirs; without rates it is hidden.
bool sampleRateOffered(double v, const AnalyzerFeatures& f) {
    if (!f.featureSampleRatesEnabled())
        return v == 44100.0;
    const double top = f.featureUltrasonicEnabled()     ? 384000.0
                       : f.featureSampleRate96Enabled() ? 96000.0
                                                        : 48000.0;
    const double rates[] = {44100.0, 48000.0, 96000.0, 192000.0, 200000.0, 250000.0, 384000.0};
    return v <= top && std::find(std::begin(rates), std::end(rates), v) != std::end(rates);
}

// Ranges of the controls that write each setting: segments, sliders and gain
// panels. The output gain and the transposition octaves have no control in
// these products; their ranges are those the audio code accepts.
using Offered = bool (*)(double, const AnalyzerFeatures&);
constexpr Offered kExportType = [](double v, const AnalyzerFeatures&) { return inRange(v, 0, 1); };
constexpr Offered kOnOff = [](double v, const AnalyzerFeatures&) { return v == 0 || v == 1; };
constexpr Offered kTrigLevel = [](double v, const AnalyzerFeatures&) {
    return inRange(v, -120, 0);
};
constexpr Offered kFraction = [](double v, const AnalyzerFeatures&) { return inRange(v, 0, 1); };
constexpr Offered kInputGain = [](double v, const AnalyzerFeatures&) {
    return inRange(v, -20, 40);
};
constexpr Offered kGain = [](double v, const AnalyzerFeatures&) { return inRange(v, 0, 70); };
constexpr Offered kMinimumLevel = [](double v, const AnalyzerFeatures&) {
    return inRange(v, -144, -10);
};
constexpr Offered kFftSize = [](double v, const AnalyzerFeatures&) {
    return isPowerOfTwoIn(v, 256, 65536);
};
constexpr Offered kWindowType = [](double v, const AnalyzerFeatures&) { return inRange(v, 0, 3); };
constexpr Offered kIntervalPower = [](double v, const AnalyzerFeatures& f) {
    return inRange(v, f.featureHighResolution() ? 0 : 1, 4);
};
constexpr Offered kDisplaySize = [](double v, const AnalyzerFeatures&) {
    return isPowerOfTwoIn(v, 512, 4096);
};
// Recomputed from the geometry at every start; only a frequency is kept.
constexpr Offered kLogStart = [](double v, const AnalyzerFeatures&) {
    return inRange(v, 0.001, 192000);
};
constexpr Offered kBands = [](double v, const AnalyzerFeatures&) {
    return v == 1 || v == 3 || v == 6 || v == 12;
};
constexpr Offered kSegment3 = [](double v, const AnalyzerFeatures&) { return inRange(v, 0, 2); };
constexpr Offered kDecay = [](double v, const AnalyzerFeatures&) { return inRange(v, 0, 5); };
constexpr Offered kOctaves = [](double v, const AnalyzerFeatures&) { return inRange(v, 1, 4); };
constexpr Offered kListeningOctaves = [](double v, const AnalyzerFeatures&) {
    return inRange(v, 1, 6);
};
constexpr Offered kPlaybackType = [](double v, const AnalyzerFeatures&) {
    return inRange(v, 0, 3);
};
constexpr Offered kTuning = [](double v, const AnalyzerFeatures&) { return inRange(v, 0, 200000); };
constexpr Offered kListeningBand = [](double v, const AnalyzerFeatures&) {
    return v == 2500 || v == 5000 || v == 10000;
};
constexpr Offered kWidthDivisor = [](double v, const AnalyzerFeatures&) {
    return inRange(v, 1, 5);
};

} // namespace

const std::vector<AnalyzerDefaults::PersistedField>& AnalyzerDefaults::persistedFields() {
    using D = AnalyzerDefaults;
    static const std::vector<PersistedField> fields = {
        {"analyzerDefaults.typeOfExportImport", &D::typeOfExportImport_, kExportType},
        {"analyzerDefaults.spectrogramGridOn", &D::spectrogramGridOn_},
        {"analyzerDefaults.trigOn", &D::trigOn_},
        {"analyzerDefaults.trigAutomaticStop", &D::trigAutomaticStop_},
        {"analyzerDefaults.trigLevel", &D::trigLevel_, kTrigLevel},
        {"analyzerDefaults.trigMinFrequency", &D::trigMinFrequency_, kFraction},
        {"analyzerDefaults.trigMaxFrequency", &D::trigMaxFrequency_, kFraction},
        {"analyzerDefaults.trigEnergySaveMode", &D::trigEnergySaveMode_, kOnOff},
        {"analyzerDefaults.softwareInputGainValue", &D::softwareInputGainValue_, kInputGain},
        {"analyzerDefaults.outputGainValue", &D::outputGainValue_, kInputGain},
        {"analyzerDefaults.spectrogramLinearValuesWzmocnienieDB",
         &D::spectrogramLinearValuesGainDB_, kGain},
        {"analyzerDefaults.spectrogramValuesInDBMinimumLevelDB",
         &D::spectrogramValuesInDBMinimumLevelDB_, kMinimumLevel},
        {"analyzerDefaults.fftSize", &D::fftSize_, kFftSize},
        {"analyzerDefaults.fftWindowType", &D::fftWindowType_, kWindowType},
        {"analyzerDefaults.sampleRate", &D::sampleRate_, sampleRateOffered},
        // The key's name says frames but it holds the power; kept for old stores.
        {"analyzerDefaults.intervalSizeInFrames", &D::intervalSizePower_, kIntervalPower},
        {"analyzerDefaults.fftDisplaySize", &D::fftDisplaySize_, kDisplaySize},
        {"analyzerDefaults.valuesInDB", &D::valuesInDB_},
        {"analyzerDefaults.linearFrequency", &D::linearFrequency_},
        {"analyzerDefaults.logStartFrequency", &D::logStartFrequency_, kLogStart},
        {"analyzerDefaults.octaveRTABand", &D::octaveRTABandsPerOctave_, kBands},
        {"analyzerDefaults.octaveRTABandAverageType", &D::octaveRTABandAverageType_, kSegment3},
        {"analyzerDefaults.spectrogramColorType", &D::spectrogramColorType_, kSegment3},
        {"analyzerDefaults.octaveRTAMinValuesEnabled", &D::octaveRTAMinValuesEnabled_},
        {"analyzerDefaults.octaveRTAMaxValuesEnabled", &D::octaveRTAMaxValuesEnabled_},
        {"analyzerDefaults.octaveRTAMinMaxDecayTime", &D::octaveRTAMinMaxDecayTime_, kDecay},
        {"analyzerDefaults.playbackTranspType", &D::playbackTranspType_, kPlaybackType},
        {"analyzerDefaults.recordingTranspositionOn", &D::recordingTranspositionOn_},
        {"analyzerDefaults.playbackSlowDownOctaves", &D::playbackSlowDownOctaves_, kOctaves},
        {"analyzerDefaults.realTimeTranspFilterBelow20kHz", &D::realTimeTranspFilterBelow20kHz_},
        {"analyzerDefaults.realTimeTransposeOctavesDown", &D::realTimeTransposeOctavesDown_,
         kListeningOctaves},
        {"analyzerDefaults.listeningMode", &D::listeningMode_, kOnOff},
        {"analyzerDefaults.heterodyneTuningHz", &D::heterodyneTuningHz_, kTuning},
        {"analyzerDefaults.heterodyneBandHz", &D::heterodyneBandHz_, kListeningBand},
        {"analyzerDefaults.spectrogramWidthMianownik", &D::spectrogramWidthDivisor_, kWidthDivisor},
        {"analyzerDefaults.audioDefaultToSpeaker", &D::audioDefaultToSpeaker_},
    };
    return fields;
}

AnalyzerDefaults::AnalyzerDefaults(const AnalyzerFeatures& features, const QString& storeName)
    : features_(features), storeName_(storeName), soundLevels_(storeName),
      keepRecording_(storeName, features.featureRecordTrig()),
      mConvertBuffersOut_(static_cast<float*>(std::calloc(
          static_cast<size_t>(kConvertBuffersCount) * kConvertBufferCapacity, sizeof(float)))),
      logPoints_(kLogTablesCapacity, 0.0f), octaveRTAIndexesFloor_(kOctaveRTACapacity, 0),
      octaveRTAIndexFraction_(kOctaveRTACapacity, 0.0f),
      octaveRTAFrequencies_(kOctaveRTACapacity, 0.0f),
      spectrogramLogInMiddleIndexes_(kLogTablesCapacity, 0),
      spectrogramLogIndexes_(kLogTablesCapacity, 0) {
    loadDefaults();
    recalculateDocumentSettings();
    generateAllIndexes();
}

void AnalyzerDefaults::FreeDeleter::operator()(float* p) const { std::free(p); }

AnalyzerDefaults::~AnalyzerDefaults() {
    if (sharedInstance == this)
        sharedInstance = nullptr;
}

AnalyzerDefaults& AnalyzerDefaults::sharedDefaults() {
    static std::unique_ptr<AnalyzerDefaults> instance;
    if (!instance) {
        instance = std::make_unique<AnalyzerDefaults>();
        sharedInstance = instance.get();
    }
    return *instance;
}

void AnalyzerDefaults::archiveDefaultsSettings() {
    if (sharedInstance)
        sharedInstance->saveDefaults();
}

// --- Persistence ----------------------------------------------------------------------

void AnalyzerDefaults::saveDefaults() {
    SettingsStore store(storeName_);
    for (const PersistedField& f : persistedFields()) {
        const QString key = QString::fromLatin1(f.key);
        std::visit(
            [&](auto member) {
                using T = std::remove_reference_t<decltype(this->*member)>;
                if constexpr (std::is_same_v<T, bool>)
                    store.writeBool(key, this->*member);
                else if constexpr (std::is_same_v<T, int32_t>)
                    store.writeInt(key, this->*member);
                else
                    store.writeFloat(key, this->*member);
            },
            f.field);
    }
    store.writeString(QString::fromLatin1(kVersionKey), QString::fromLatin1(kVersionTag));
    store.sync();
}

void AnalyzerDefaults::loadDefaults() {
    const SettingsStore store(storeName_);
    // A store written by a build with another tag is ignored as a whole.
    if (store.readString(QString::fromLatin1(kVersionKey)) != QLatin1String(kVersionTag))
        return;
    // A damaged or hand-edited store can hold values that no screen offers and
    // that the geometry cannot size a document from (a display size of 2^31,
    // an infinite rate): each such value keeps its default, said once here.
    const auto replaced = [](const char* key, double value, double byDefault) {
        qWarning("Settings: %s = %.10g is not offered by the settings screens; using %.10g", key,
                 value, byDefault);
    };
    const float minEdge = trigMinFrequency_;
    const float maxEdge = trigMaxFrequency_;
    for (const PersistedField& f : persistedFields()) {
        const QString key = QString::fromLatin1(f.key);
        if (!store.contains(key))
            continue;
        // A reduced device would size a document from these that it cannot hold.
        if (!cpu64bit_ && (key == kIntervalKey || key == kDisplaySizeKey))
            continue;
        const std::optional<double> number = store.readNumber(key);
        std::visit(
            [&](auto member) {
                using T = std::remove_reference_t<decltype(this->*member)>;
                const double v = number.value_or(std::numeric_limits<double>::quiet_NaN());
                bool offered = false;
                if constexpr (std::is_same_v<T, bool>)
                    offered = v == 0.0 || v == 1.0;
                else if constexpr (std::is_same_v<T, int32_t>)
                    offered = std::trunc(v) == v && f.offered(v, features_);
                else
                    offered = f.offered(v, features_);
                if (!offered) {
                    replaced(f.key, v, static_cast<double>(this->*member));
                    return;
                }
                if constexpr (std::is_same_v<T, bool>)
                    this->*member = v != 0.0;
                else
                    this->*member = static_cast<T>(v);
            },
            f.field);
    }
    // The trigger screen keeps its band's lower edge at or below the upper one.
    if (trigMinFrequency_ > trigMaxFrequency_) {
        replaced("analyzerDefaults.trigMinFrequency", double(trigMinFrequency_), double(minEdge));
        replaced("analyzerDefaults.trigMaxFrequency", double(trigMaxFrequency_), double(maxEdge));
        trigMinFrequency_ = minEdge;
        trigMaxFrequency_ = maxEdge;
    }
}

QString AnalyzerDefaults::appVersion() { return QStringLiteral(WIDMO_VERSION_STRING); }

QString AnalyzerDefaults::build() { return QStringLiteral(WIDMO_BUILD_STRING); }

QString AnalyzerDefaults::versionBuild() {
    QString text = QStringLiteral("v%1").arg(appVersion());
    if (appVersion() != build())
        text = QStringLiteral("%1(%2)").arg(text, build());
    return text;
}

// --- Preferred values -------------------------------------------------------------------

AnalyzerDefaults::PreferredChange AnalyzerDefaults::preferredChange() const {
    if (preferredIntervalSizePower_ != intervalSizePower_ || preferredSampleRate_ != sampleRate_ ||
        preferredFftDisplaySize_ != fftDisplaySize_ ||
        preferredSpectrogramWidthDivisor_ != spectrogramWidthDivisor_)
        return PreferredChange::Geometry;
    if (preferredFftSize_ != fftSize_ || preferredFftWindowType_ != fftWindowType_ ||
        preferredValuesInDB_ != valuesInDB_ || preferredLinearFrequency_ != linearFrequency_ ||
        preferredLogStartFrequency_ != logStartFrequency_ ||
        preferredSpectrogramColorType_ != spectrogramColorType_)
        return PreferredChange::Display;
    return PreferredChange::None;
}

AnalyzerDefaults::PreferredChange AnalyzerDefaults::applyPreferredSettings(bool* fftSizeChanged) {
    const PreferredChange change = preferredChange();
    const bool newFftSize = clampValue(preferredFftSize_, 256, 65536) != fftSize_;
    if (fftSizeChanged)
        *fftSizeChanged = change != PreferredChange::None && newFftSize;
    if (change == PreferredChange::None)
        return change;

    if (change == PreferredChange::Geometry) {
        readOnly_ = false;
        fftDisplaySize_ = clampValue(preferredFftDisplaySize_, 512, 4096);
        sampleRate_ = clampValue(preferredSampleRate_, 44100.0f, 384000.0f);
        intervalSizePower_ = clampValue(preferredIntervalSizePower_, 0, 4);
        spectrogramWidthDivisor_ = clampValue(preferredSpectrogramWidthDivisor_, 1, 5);
    }
    fftSize_ = clampValue(preferredFftSize_, 256, 65536);
    fftWindowType_ = clampValue(preferredFftWindowType_, 0, 3);
    valuesInDB_ = preferredValuesInDB_;
    linearFrequency_ = preferredLinearFrequency_;
    // The lower edge of the logarithmic axis always follows from the geometry;
    // the preferred value is deliberately not used.
    logStartFrequency_ = 20.0f;
    spectrogramColorType_ = clampValue(preferredSpectrogramColorType_, 0, 2);

    // A geometry change is finished by the engine's rebuild, which recalculates.
    if (change == PreferredChange::Display)
        recalculateDocumentSettings();
    return change;
}

void AnalyzerDefaults::copyCurrentToPreferred() {
    preferredSampleRate_ = sampleRate_;
    preferredIntervalSizePower_ = intervalSizePower_;
    preferredFftDisplaySize_ = fftDisplaySize_;
    preferredSpectrogramWidthDivisor_ = spectrogramWidthDivisor_;
    preferredFftSize_ = fftSize_;
    preferredFftWindowType_ = fftWindowType_;
    preferredValuesInDB_ = valuesInDB_;
    preferredLinearFrequency_ = linearFrequency_;
    preferredLogStartFrequency_ = logStartFrequency_;
    preferredSpectrogramColorType_ = spectrogramColorType_;
}

// --- Document geometry --------------------------------------------------------------------

float AnalyzerDefaults::calculateMinIntervalSizeInFramesFromSampleRate(float sampleRate) {
    const double power = std::trunc(std::log2(static_cast<double>(sampleRate) * 0.0005));
    return static_cast<float>(std::pow(2.0, power + 1.0));
}

int AnalyzerDefaults::calculateSpectrogramWidthWithDisplaySize(int displaySize, int intervalSize,
                                                               int spectrogramWidthDivisor) const {
    // A fixed budget shared between display rows and interval length.
    float w =
        static_cast<float>(122268852.23388672 / ((displaySize * 4.0 * 2 + intervalSize) * 1.4));
    if (!cpu64bit_)
        w *= 0.5f;
    return static_cast<int>(w / static_cast<float>(spectrogramWidthDivisor));
}

int AnalyzerDefaults::roundUpTo125Series(float value, int minimum, int maximum) {
    int x = 1;
    if (value > 1.0f) {
        do {
            const int p = static_cast<int>(std::pow(10.0, std::trunc(std::log10(x))));
            const int d = x / p;
            if (d == 5)
                x = 10 * p;
            if (d == 2)
                x = 5 * p;
            if (d == 1)
                x = 2 * p;
            // Past the maximum the answer is the maximum; stopping there also keeps an
            // infinite value from running x out of range.
        } while (static_cast<float>(x) < value && x < maximum);
    }
    return std::min(std::max(x, minimum), maximum);
}

float AnalyzerDefaults::intervalSizeInSeconds() {
    const AnalyzerDefaults& d = sharedDefaults();
    const double frames = std::pow(2.0, d.intervalSizePower_) *
                          std::trunc(calculateMinIntervalSizeInFramesFromSampleRate(d.sampleRate_));
    return static_cast<float>(frames / static_cast<double>(d.sampleRate_));
}

void AnalyzerDefaults::recalculateDocumentSettings() {
    fftOutSize_ = fftSize_ / 2;
    maxFrequency_ = sampleRate_ * 0.5f;
    // One FFT bin wide, but never below 20 Hz.
    const float binWidth = maxFrequency_ / static_cast<float>(fftOutSize_);
    logStartFrequency_ = static_cast<float>(std::max(static_cast<double>(binWidth), 20.0));
    logIntervalDelta_ =
        static_cast<float>(std::log2(static_cast<double>(maxFrequency_ / logStartFrequency_)));

    minIntervalSizeInFrames_ =
        static_cast<int32_t>(calculateMinIntervalSizeInFramesFromSampleRate(sampleRate_));
    intervalSizeInFrames_ =
        static_cast<int32_t>(std::pow(2.0, intervalSizePower_) * minIntervalSizeInFrames_);
    segmentSize_ = roundAway((2048.0 / fftDisplaySize_) * 64.0);
    spectrogramWidth_ = calculateSpectrogramWidthWithDisplaySize(
        fftDisplaySize_, intervalSizeInFrames_, spectrogramWidthDivisor_);

    const float t = static_cast<float>(intervalSizeInFrames_) / sampleRate_;
    spectrogramDuration_ = t * static_cast<float>(spectrogramWidth_);
    // A read-only document is shown no longer than it was recorded.
    if (readOnly_ && timeOfDocument_ < spectrogramDuration_) {
        spectrogramDuration_ = timeOfDocument_;
        spectrogramWidth_ = static_cast<int32_t>(timeOfDocument_ / t);
    }
    // Without a spectrogram the document is a two-second ring feeding the charts.
    if (!features_.featureSpectrogramEnabled()) {
        spectrogramDuration_ = 2.0f;
        spectrogramWidth_ = static_cast<int32_t>(2.0f / t);
    }

    // 40 % more segments than the width needs, plus two, so the engine can write
    // ahead while the display lags.
    segmentCount_ = roundAway((spectrogramWidth_ / segmentSize_ + 2) * 1.4);
    audioBuffersIntervalsCount_ = (segmentCount_ + 1) * segmentSize_;
    audioBufferByteSize_ = intervalSizeInFrames_ * audioBuffersIntervalsCount_ * 4;

    const float hundredths = static_cast<float>(
        std::round(static_cast<double>(spectrogramDuration_) / (spectrogramWidth_ / 15.0) * 100.0));
    timeLabelStep_ = static_cast<float>(roundUpTo125Series(hundredths, 1, 1000)) / 100.0f;
    timeLabelCount_ = static_cast<int32_t>(spectrogramDuration_ / timeLabelStep_) + 1;

    spectrumFrequencyTexturesMinValue_ = static_cast<float>(
        roundUpTo125Series(static_cast<float>(maxFrequency_ / (fftOutSize_ / 15.0)), 10, 10000));
    spectrumFrequencyTexturesCount_ =
        static_cast<int32_t>(maxFrequency_ / spectrumFrequencyTexturesMinValue_) + 1;
    // The spectrogram's step stops at 1000 Hz, the spectrum's at 10 kHz.
    spectrogramFrequencyTexturesMinValue_ = static_cast<float>(roundUpTo125Series(
        static_cast<float>(maxFrequency_ / (fftDisplaySize_ / 15.0)), 100, 1000));
    spectrogramFrequencyTexturesCount_ =
        static_cast<int32_t>(maxFrequency_ / spectrogramFrequencyTexturesMinValue_) + 1;
}

// --- Frequency index tables ------------------------------------------------------------------

void AnalyzerDefaults::generateAllIndexes() {
    generateOctaveRTAIndexes();
    generateLogarithmicIndexes();
    generateLogarithmicPoints();
}

void AnalyzerDefaults::generateOctaveRTAIndexes() {
    const int bands = octaveRTABandsPerOctave_;
    octaveRTAMinIndex_ = -1;
    octaveRTAMaxIndex_ = 14 * bands;
    const double binWidth = static_cast<double>(maxFrequency_) / fftOutSize_;
    const double half = std::pow(2.0, 0.5 / bands);
    // Centres 15.625 * 2^(i/B): a base-two series through 1000 Hz at i = 6B.
    for (int i = 0; i <= 14 * bands && i < kOctaveRTACapacity; ++i) {
        const double centre = std::pow(2.0, static_cast<double>(i) / bands) * 15.625;
        const double lower = centre / half;
        const double x = lower / binWidth;
        octaveRTAIndexesFloor_[i] = static_cast<int32_t>(x);
        octaveRTAIndexFraction_[i] = static_cast<float>(x - std::trunc(x));
        octaveRTAFrequencies_[i] = static_cast<float>(centre);
        if (i >= 2 && lower > binWidth && octaveRTAMinIndex_ < 0)
            octaveRTAMinIndex_ = i;
        if (centre < static_cast<double>(maxFrequency_))
            octaveRTAMaxIndex_ = i;
    }
}

void AnalyzerDefaults::generateLogarithmicIndexes() {
    const int n = fftOutSize_;
    const double rowsPerOctave = static_cast<double>(fftDisplaySize_);
    int32_t count = 0;
    int32_t previousRow = 0;
    for (int i = 0; i < n; ++i) {
        const double f = static_cast<double>(i) * maxFrequency_ / n;
        const float row = std::round(std::log2(static_cast<float>(f / logStartFrequency_)) *
                                     static_cast<float>(rowsPerOctave) / logIntervalDelta_);
        // Rows no bin reaches (the low end) are skipped rather than repeated.
        if (!(row >= 1.0f))
            continue;
        const auto r = static_cast<int32_t>(row);
        if (r != previousRow) {
            spectrogramLogInMiddleIndexes_[count] = i;
            spectrogramLogIndexes_[count] = r;
            ++count;
            previousRow = r;
        }
    }
    spectrogramLogIndexesCount_ = count;
}

void AnalyzerDefaults::generateLogarithmicPoints() {
    const int n = fftOutSize_;
    for (int i = 0; i < n; ++i) {
        const float f = maxFrequency_ * static_cast<float>(i) / static_cast<float>(n);
        // Bin 0 lands at minus infinity: 0 Hz has no place on a logarithmic axis.
        logPoints_[i] = static_cast<float>(std::log2(static_cast<double>(f) / logStartFrequency_) /
                                           logIntervalDelta_);
    }
}

float* AnalyzerDefaults::nextConvertBuffer() {
    float* out = mConvertBuffersOut_.get() +
                 static_cast<ptrdiff_t>(mActualConvertBufferOut_) * kConvertBufferCapacity;
    mActualConvertBufferOut_ = (mActualConvertBufferOut_ + 1) % kConvertBuffersCount;
    return out;
}

const float* AnalyzerDefaults::interlaceToSpectrogramFFTData(const float* fftData) {
    float* out = nextConvertBuffer();
    interlaceToSpectrogramFFTData(fftData, out);
    return out;
}

void AnalyzerDefaults::interlaceToSpectrogramFFTData(const float* fftData, float* out) const {
    const int rows = fftDisplaySize_;
    const float r = static_cast<float>(fftSize_) * 0.5f / static_cast<float>(rows);
    const int k = static_cast<int>(r);
    if (k >= 2) {
        // Summed, not averaged: a row holds the power of all its bins.
        for (int j = 0; j < rows; ++j) {
            float sum = 0.0f;
            for (int b = j * k; b < j * k + k; ++b)
                sum += fftData[b];
            out[j] = sum;
        }
    } else if (k == 1) {
        std::copy(fftData, fftData + rows, out);
    } else {
        const int m = static_cast<int>(1.0f / r);
        for (int j = 0; j < rows; ++j)
            out[j] = fftData[j / m];
    }
}

const float* AnalyzerDefaults::convertToLogarithmicScaleFFTData(const float* fftData) {
    float* out = nextConvertBuffer();
    convertToLogarithmicScaleFFTData(fftData, out);
    return out;
}

void AnalyzerDefaults::convertToLogarithmicScaleFFTData(const float* fftData, float* out) const {
    for (int j = 0; j + 1 < spectrogramLogIndexesCount_; ++j) {
        const int lo = spectrogramLogInMiddleIndexes_[j];
        const int hi = spectrogramLogInMiddleIndexes_[j + 1];
        // The logarithmic column keeps the peak of its bins.
        out[j] = *std::max_element(fftData + lo, fftData + std::max(hi, lo + 1));
    }
}

} // namespace widmo
