#pragma once

#include "core/AnalyzerFeatures.h"
#include "core/CaptureGaps.h"
#include "core/KeepRecordingSettings.h"
#include "core/SoundLevelSettings.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace widmo {

class SettingsStore;

/// Every user setting, the geometry of the current analysis document, the
/// frequency index tables and the document's sample store.
///
/// Construction sets the defaults, loads the persisted settings, derives the
/// document geometry and builds the index tables. `sharedDefaults` is the
/// process's one instance; tests may build their own.
///
/// Threading: the main thread writes settings and geometry, and only while the
/// analysis engine is stopped; that is what makes the unlocked reads from the
/// audio delivery queue and the analysis queue safe. The analysis path writes
/// only `actualInterval` and `dataValid`, which are atomics. The conversions
/// (`interlaceToSpectrogramFFTData`, `convertToLogarithmicScaleFFTData`) are
/// called from the analysis queue only.
class AnalyzerDefaults {
public:
    /// Outcome of applying the settings screen's pending ("preferred") values.
    enum class PreferredChange {
        None,     ///< nothing differs
        Display,  ///< display settings changed; the document is kept and recalculated
        Geometry, ///< the document geometry changed; the document must be rebuilt and cleared
    };

    static constexpr int kConvertBuffersCount = 128;
    static constexpr int kConvertBufferCapacity = 16384;
    static constexpr int kLogTablesCapacity = 32768;
    static constexpr int kOctaveRTACapacity = 169;
    static constexpr const char* kVersionTag = "kzr4410pwmq2093xa";
    static constexpr const char* kVersionKey = "VersionKey";

    /// Builds an instance from `features`; loads from the store `storeName`
    /// (see `SettingsStore`; empty = the application's own).
    explicit AnalyzerDefaults(const AnalyzerFeatures& features = AnalyzerFeatures::sharedFeatures(),
                              const QString& storeName = QString());
    ~AnalyzerDefaults();
    AnalyzerDefaults(const AnalyzerDefaults&) = delete;
    AnalyzerDefaults& operator=(const AnalyzerDefaults&) = delete;

    /// The process's instance, created on first call (first call from the main thread).
    static AnalyzerDefaults& sharedDefaults();
    /// Saves the shared instance's settings if it exists; otherwise does nothing.
    static void archiveDefaultsSettings();

    /// Writes the persisted settings and the version tag, then syncs the store.
    void saveDefaults();
    /// Reads the persisted settings when the store carries this build's tag;
    /// otherwise keeps every default. A value that this product's settings
    /// screens cannot produce (out of its control's range, not one of its
    /// choices, NaN, of the wrong kind) keeps its default, with one warning
    /// per value. Runs once, during construction.
    void loadDefaults();

    /// The application's short version ("0.1.0"), its build number, and the text
    /// shown to users: "v0.1.0", or "v0.1.0(42)" when the build differs.
    static QString appVersion();
    static QString build();
    static QString versionBuild();

    // --- Applying the settings screen's pending values -------------------------

    /// Which kind of change applying the preferred values would make; the caller
    /// stops the engine first when this is not `None`.
    PreferredChange preferredChange() const;
    /// Applies the preferred values with their clamps. With `Geometry` the caller
    /// rebuilds and clears the document; with `Display` the geometry has been
    /// recalculated here and the document is kept. `fftSizeChanged` is set when
    /// the display textures must be prepared again.
    PreferredChange applyPreferredSettings(bool* fftSizeChanged = nullptr);
    /// Copies every current value into its preferred shadow (the settings screen opens).
    void copyCurrentToPreferred();

    // --- Document geometry -------------------------------------------------------

    /// Recomputes every derived field from the settings. Engine must be stopped.
    void recalculateDocumentSettings();
    /// 2^(trunc(log2(sampleRate * 0.0005)) + 1): about 1 ms, as a power of two.
    static float calculateMinIntervalSizeInFramesFromSampleRate(float sampleRate);
    /// Spectrogram columns for a display size, interval length and divisor.
    int calculateSpectrogramWidthWithDisplaySize(int displaySize, int intervalSize,
                                                 int spectrogramWidthDivisor) const;
    /// Smallest member of 1, 2, 5, 10, 20, 50, ... not below `value`, then
    /// clamped to [minimum, maximum].
    static int roundUpTo125Series(float value, int minimum, int maximum);
    /// Length of one interval in seconds, from the shared instance's settings.
    static float intervalSizeInSeconds();

    // --- Frequency index tables --------------------------------------------------

    /// Rebuilds the octave-band, logarithmic-row and logarithmic-point tables.
    void generateAllIndexes();
    void generateOctaveRTAIndexes();
    void generateLogarithmicIndexes();
    void generateLogarithmicPoints();
    /// Maps `fftOutSize` power values onto `fftDisplaySize` linear rows. The
    /// result lives in the conversion ring and stays valid for 128 conversions.
    const float* interlaceToSpectrogramFFTData(const float* fftData);
    /// Maps `fftOutSize` power values onto `spectrogramLogIndexesCount - 1`
    /// logarithmic rows (peak per row); value j belongs at row
    /// `spectrogramLogIndexes()[j]`. Same lifetime as above.
    const float* convertToLogarithmicScaleFFTData(const float* fftData);
    /// The same two conversions into a caller's buffer (`fftDisplaySize`
    /// values, resp. `spectrogramLogIndexesCount - 1`), for readers off the
    /// analysis queue (the measuring cursor). Any thread while the geometry holds.
    void interlaceToSpectrogramFFTData(const float* fftData, float* out) const;
    void convertToLogarithmicScaleFFTData(const float* fftData, float* out) const;

    // --- Plain settings and state --------------------------------------------------

    bool cpu64bit() const { return cpu64bit_; }
    void setCpu64bit(bool v) { cpu64bit_ = v; }
    bool dataValid() const { return dataValid_.load(std::memory_order_acquire); }
    void setDataValid(bool v) { dataValid_.store(v, std::memory_order_release); }
    bool octaveRTAValid() const { return octaveRTAValid_.load(std::memory_order_acquire); }
    void setOctaveRTAValid(bool v) { octaveRTAValid_.store(v, std::memory_order_release); }
    bool readOnly() const { return readOnly_; }
    void setReadOnly(bool v) { readOnly_ = v; }
    bool isExport() const { return isExport_; }
    void setIsExport(bool v) { isExport_ = v; }
    bool spectrogramGridOn() const { return spectrogramGridOn_; }
    void setSpectrogramGridOn(bool v) { spectrogramGridOn_ = v; }
    bool trigOn() const { return trigOn_; }
    void setTrigOn(bool v) { trigOn_ = v; }
    bool trigAutomaticStop() const { return trigAutomaticStop_; }
    void setTrigAutomaticStop(bool v) { trigAutomaticStop_ = v; }
    bool audioDefaultToSpeaker() const { return audioDefaultToSpeaker_; }
    void setAudioDefaultToSpeaker(bool v) { audioDefaultToSpeaker_ = v; }
    bool valuesInDB() const { return valuesInDB_; }
    void setValuesInDB(bool v) { valuesInDB_ = v; }
    bool linearFrequency() const { return linearFrequency_; }
    void setLinearFrequency(bool v) { linearFrequency_ = v; }
    bool octaveRTAMinValuesEnabled() const { return octaveRTAMinValuesEnabled_; }
    void setOctaveRTAMinValuesEnabled(bool v) { octaveRTAMinValuesEnabled_ = v; }
    bool octaveRTAMaxValuesEnabled() const { return octaveRTAMaxValuesEnabled_; }
    void setOctaveRTAMaxValuesEnabled(bool v) { octaveRTAMaxValuesEnabled_ = v; }
    bool recordingTranspositionOn() const { return recordingTranspositionOn_; }
    void setRecordingTranspositionOn(bool v) { recordingTranspositionOn_ = v; }
    bool realTimeTranspFilterBelow20kHz() const { return realTimeTranspFilterBelow20kHz_; }
    void setRealTimeTranspFilterBelow20kHz(bool v) { realTimeTranspFilterBelow20kHz_ = v; }
    float timeOfDocument() const { return timeOfDocument_; }
    void setTimeOfDocument(float v) { timeOfDocument_ = v; }
    int32_t lastSettingsPage() const { return lastSettingsPage_; }
    void setLastSettingsPage(int32_t v) { lastSettingsPage_ = v; }
    int32_t typeOfExportImport() const { return typeOfExportImport_; }
    void setTypeOfExportImport(int32_t v) { typeOfExportImport_ = v; }
    float trigLevel() const { return trigLevel_; }
    void setTrigLevel(float v) { trigLevel_ = v; }
    float trigMinFrequency() const { return trigMinFrequency_; }
    void setTrigMinFrequency(float v) { trigMinFrequency_ = v; }
    float trigMaxFrequency() const { return trigMaxFrequency_; }
    void setTrigMaxFrequency(float v) { trigMaxFrequency_ = v; }
    float trigEnergySaveMode() const { return trigEnergySaveMode_; }
    void setTrigEnergySaveMode(float v) { trigEnergySaveMode_ = v; }
    float softwareInputGainValue() const { return softwareInputGainValue_; }
    void setSoftwareInputGainValue(float v) { softwareInputGainValue_ = v; }
    float outputGainValue() const { return outputGainValue_; }
    void setOutputGainValue(float v) { outputGainValue_ = v; }
    float spectrogramLinearValuesGainDB() const { return spectrogramLinearValuesGainDB_; }
    void setSpectrogramLinearValuesGainDB(float v) { spectrogramLinearValuesGainDB_ = v; }
    float spectrogramValuesInDBMinimumLevelDB() const {
        return spectrogramValuesInDBMinimumLevelDB_;
    }
    void setSpectrogramValuesInDBMinimumLevelDB(float v) {
        spectrogramValuesInDBMinimumLevelDB_ = v;
    }
    float spectrumGainDB() const { return spectrumGainDB_; }
    void setSpectrumGainDB(float v) { spectrumGainDB_ = v; }
    float oscilloscopeGainDB() const { return oscilloscopeGainDB_; }
    void setOscilloscopeGainDB(float v) { oscilloscopeGainDB_ = v; }
    float sampleRate() const { return sampleRate_; }
    void setSampleRate(float v) { sampleRate_ = v; }
    int32_t intervalSizePower() const { return intervalSizePower_; }
    void setIntervalSizePower(int32_t v) { intervalSizePower_ = v; }
    int32_t fftDisplaySize() const { return fftDisplaySize_; }
    void setFftDisplaySize(int32_t v) { fftDisplaySize_ = v; }
    int32_t spectrogramWidthDivisor() const { return spectrogramWidthDivisor_; }
    void setSpectrogramWidthDivisor(int32_t v) { spectrogramWidthDivisor_ = v; }
    int32_t fftSize() const { return fftSize_; }
    void setFftSize(int32_t v) { fftSize_ = v; }
    int32_t fftWindowType() const { return fftWindowType_; }
    void setFftWindowType(int32_t v) { fftWindowType_ = v; }
    int32_t spectrogramColorType() const { return spectrogramColorType_; }
    void setSpectrogramColorType(int32_t v) { spectrogramColorType_ = v; }
    int32_t octaveRTABandsPerOctave() const { return octaveRTABandsPerOctave_; }
    void setOctaveRTABandsPerOctave(int32_t v) { octaveRTABandsPerOctave_ = v; }
    int32_t octaveRTABandAverageType() const { return octaveRTABandAverageType_; }
    void setOctaveRTABandAverageType(int32_t v) { octaveRTABandAverageType_ = v; }
    int32_t octaveRTAMinMaxDecayTime() const { return octaveRTAMinMaxDecayTime_; }
    void setOctaveRTAMinMaxDecayTime(int32_t v) { octaveRTAMinMaxDecayTime_ = v; }
    int32_t playbackTranspType() const { return playbackTranspType_; }
    void setPlaybackTranspType(int32_t v) { playbackTranspType_ = v; }
    int32_t playbackSlowDownOctaves() const { return playbackSlowDownOctaves_; }
    void setPlaybackSlowDownOctaves(int32_t v) { playbackSlowDownOctaves_ = v; }
    int32_t realTimeTransposeOctavesDown() const { return realTimeTransposeOctavesDown_; }
    void setRealTimeTransposeOctavesDown(int32_t v) { realTimeTransposeOctavesDown_ = v; }
    /// Listening to the input and to transposed playback: 0 transposition, 1 heterodyne.
    int32_t listeningMode() const { return listeningMode_; }
    void setListeningMode(int32_t v) { listeningMode_ = v; }
    /// The heterodyne's tuned frequency and audio band, Hz.
    float heterodyneTuningHz() const { return heterodyneTuningHz_; }
    void setHeterodyneTuningHz(float v) { heterodyneTuningHz_ = v; }
    float heterodyneBandHz() const { return heterodyneBandHz_; }
    void setHeterodyneBandHz(float v) { heterodyneBandHz_ = v; }
    int32_t blockGoToTheAppStore() const { return blockGoToTheAppStore_; }
    void setBlockGoToTheAppStore(int32_t v) { blockGoToTheAppStore_ = v; }

    /// Index of the next interval to be written; grows without bound.
    int64_t actualInterval() const { return actualInterval_.load(std::memory_order_acquire); }
    void setActualInterval(int64_t v) { actualInterval_.store(v, std::memory_order_release); }

    int64_t lastPositionSettingsRoot() const { return lastPositionSettingsRoot_; }
    void setLastPositionSettingsRoot(int64_t v) { lastPositionSettingsRoot_ = v; }
    int64_t lastPositionSettingsGeneral() const { return lastPositionSettingsGeneral_; }
    void setLastPositionSettingsGeneral(int64_t v) { lastPositionSettingsGeneral_ = v; }
    int64_t lastPositionSettingsDisplay() const { return lastPositionSettingsDisplay_; }
    void setLastPositionSettingsDisplay(int64_t v) { lastPositionSettingsDisplay_ = v; }
    int64_t lastPositionSettingsTrig() const { return lastPositionSettingsTrig_; }
    void setLastPositionSettingsTrig(int64_t v) { lastPositionSettingsTrig_ = v; }
    int64_t lastPositionSettingsAudioInput() const { return lastPositionSettingsAudioInput_; }
    void setLastPositionSettingsAudioInput(int64_t v) { lastPositionSettingsAudioInput_ = v; }
    int64_t lastPositionHelp() const { return lastPositionHelp_; }
    void setLastPositionHelp(int64_t v) { lastPositionHelp_ = v; }

    // Shadows edited by the settings screens, applied by applyPreferredSettings().
    bool preferredValuesInDB() const { return preferredValuesInDB_; }
    void setPreferredValuesInDB(bool v) { preferredValuesInDB_ = v; }
    bool preferredLinearFrequency() const { return preferredLinearFrequency_; }
    void setPreferredLinearFrequency(bool v) { preferredLinearFrequency_ = v; }
    float preferredSampleRate() const { return preferredSampleRate_; }
    void setPreferredSampleRate(float v) { preferredSampleRate_ = v; }
    int32_t preferredIntervalSizePower() const { return preferredIntervalSizePower_; }
    void setPreferredIntervalSizePower(int32_t v) { preferredIntervalSizePower_ = v; }
    int32_t preferredFftDisplaySize() const { return preferredFftDisplaySize_; }
    void setPreferredFftDisplaySize(int32_t v) { preferredFftDisplaySize_ = v; }
    int32_t preferredSpectrogramWidthDivisor() const { return preferredSpectrogramWidthDivisor_; }
    void setPreferredSpectrogramWidthDivisor(int32_t v) { preferredSpectrogramWidthDivisor_ = v; }
    int32_t preferredFftSize() const { return preferredFftSize_; }
    void setPreferredFftSize(int32_t v) { preferredFftSize_ = v; }
    int32_t preferredFftWindowType() const { return preferredFftWindowType_; }
    void setPreferredFftWindowType(int32_t v) { preferredFftWindowType_ = v; }
    float preferredLogStartFrequency() const { return preferredLogStartFrequency_; }
    void setPreferredLogStartFrequency(float v) { preferredLogStartFrequency_ = v; }
    int32_t preferredSpectrogramColorType() const { return preferredSpectrogramColorType_; }
    void setPreferredSpectrogramColorType(int32_t v) { preferredSpectrogramColorType_ = v; }

    // --- Derived geometry (read-only) ------------------------------------------------

    int32_t fftOutSize() const { return fftOutSize_; }
    float maxFrequency() const { return maxFrequency_; }
    float logStartFrequency() const { return logStartFrequency_; }
    float logIntervalDelta() const { return logIntervalDelta_; }
    int32_t minIntervalSizeInFrames() const { return minIntervalSizeInFrames_; }
    int32_t intervalSizeInFrames() const { return intervalSizeInFrames_; }
    int32_t segmentSize() const { return segmentSize_; }
    int32_t spectrogramWidth() const { return spectrogramWidth_; }
    float spectrogramDuration() const { return spectrogramDuration_; }
    int32_t segmentCount() const { return segmentCount_; }
    int32_t audioBuffersIntervalsCount() const { return audioBuffersIntervalsCount_; }
    int32_t audioBufferByteSize() const { return audioBufferByteSize_; }
    float timeLabelStep() const { return timeLabelStep_; }
    int32_t timeLabelCount() const { return timeLabelCount_; }
    float spectrumFrequencyTexturesMinValue() const { return spectrumFrequencyTexturesMinValue_; }
    int32_t spectrumFrequencyTexturesCount() const { return spectrumFrequencyTexturesCount_; }
    float spectrogramFrequencyTexturesMinValue() const {
        return spectrogramFrequencyTexturesMinValue_;
    }
    int32_t spectrogramFrequencyTexturesCount() const { return spectrogramFrequencyTexturesCount_; }

    // --- Index tables (read-only; valid until the next geometry change) -----------------

    const float* logPoints() const { return logPoints_.data(); }
    const int32_t* octaveRTAIndexesFloor() const { return octaveRTAIndexesFloor_.data(); }
    const float* octaveRTAIndexFraction() const { return octaveRTAIndexFraction_.data(); }
    const float* octaveRTAFrequencies() const { return octaveRTAFrequencies_.data(); }
    const int32_t* spectrogramLogInMiddleIndexes() const {
        return spectrogramLogInMiddleIndexes_.data();
    }
    const int32_t* spectrogramLogIndexes() const { return spectrogramLogIndexes_.data(); }
    int32_t spectrogramLogIndexesCount() const { return spectrogramLogIndexesCount_; }
    int32_t octaveRTAMinIndex() const { return octaveRTAMinIndex_; }
    int32_t octaveRTAMaxIndex() const { return octaveRTAMaxIndex_; }
    int32_t mActualConvertBufferOut() const { return mActualConvertBufferOut_; }

    // --- Sample store -----------------------------------------------------------------

    /// The document's ring of mono samples (`audioBufferByteSize` bytes once
    /// prepared; empty before). Replaced whole by the engine while it is stopped.
    std::vector<float>& audioBuffersData() { return audioBuffersData_; }
    const std::vector<float>& audioBuffersData() const { return audioBuffersData_; }
    /// The second input channel's store, same layout; only with the EGG product.
    std::vector<float>& eggBuffersData() { return eggBuffersData_; }
    const std::vector<float>& eggBuffersData() const { return eggBuffersData_; }
    /// Where the document's capture stopped and resumed (see `CaptureGaps`).
    CaptureGaps& captureGaps() { return captureGaps_; }
    const CaptureGaps& captureGaps() const { return captureGaps_; }

    const AnalyzerFeatures& features() const { return features_; }
    /// Sound-level measurement: weighting, calibration, level log.
    SoundLevelSettings& soundLevels() { return soundLevels_; }
    const SoundLevelSettings& soundLevels() const { return soundLevels_; }
    /// What a recording does when its input goes away.
    KeepRecordingSettings& keepRecording() { return keepRecording_; }
    const KeepRecordingSettings& keepRecording() const { return keepRecording_; }

private:
    struct PersistedField;
    /// The persisted settings in save order.
    static const std::vector<PersistedField>& persistedFields();
    float* nextConvertBuffer();

    const AnalyzerFeatures features_; // a copy: records are small and fixed
    QString storeName_;
    SoundLevelSettings soundLevels_;
    KeepRecordingSettings keepRecording_;

    // One zero-filled block for the 128 conversion buffers, from calloc so that
    // buffers never used (most of them, without a spectrogram) cost no memory.
    struct FreeDeleter {
        void operator()(float* p) const;
    };
    std::unique_ptr<float[], FreeDeleter> mConvertBuffersOut_;
    int32_t mActualConvertBufferOut_ = 0;
    bool cpu64bit_ = true;
    std::atomic<bool> dataValid_{false};
    std::atomic<bool> octaveRTAValid_{false};
    bool readOnly_ = false;
    bool preferredValuesInDB_ = true;
    bool preferredLinearFrequency_ = false;
    bool isExport_ = false;
    bool spectrogramGridOn_ = false;
    bool trigOn_ = false;
    bool trigAutomaticStop_ = true;
    bool audioDefaultToSpeaker_ = true;
    bool valuesInDB_ = true;
    bool linearFrequency_ = false;
    bool octaveRTAMinValuesEnabled_ = false;
    bool octaveRTAMaxValuesEnabled_ = true;
    bool recordingTranspositionOn_ = false;
    bool realTimeTranspFilterBelow20kHz_ = false;
    float timeOfDocument_ = 0.0f;
    int32_t audioBufferByteSize_ = 0;
    int32_t lastSettingsPage_ = 0;
    float preferredSampleRate_ = 0.0f;
    int32_t preferredIntervalSizePower_ = 0;
    int32_t preferredFftDisplaySize_ = 0;
    int32_t preferredSpectrogramWidthDivisor_ = 0;
    int32_t preferredFftSize_ = 0;
    int32_t preferredFftWindowType_ = 0;
    float preferredLogStartFrequency_ = 0.0f;
    int32_t preferredSpectrogramColorType_ = 0;
    int32_t typeOfExportImport_ = 0;
    float trigLevel_ = -55.0f;
    float trigMinFrequency_ = 0.136054f;
    float trigMaxFrequency_ = 0.680272f;
    float trigEnergySaveMode_ = 0.0f;
    float softwareInputGainValue_ = 0.0f;
    float outputGainValue_ = 0.0f;
    float spectrogramLinearValuesGainDB_ = 30.0f;
    float spectrogramValuesInDBMinimumLevelDB_ = -107.0f;
    float spectrumGainDB_ = 30.0f;
    float oscilloscopeGainDB_ = 10.0f;
    float sampleRate_ = 44100.0f;
    float maxFrequency_ = 0.0f;
    int32_t spectrumFrequencyTexturesCount_ = 0;
    float spectrumFrequencyTexturesMinValue_ = 0.0f;
    int32_t spectrogramFrequencyTexturesCount_ = 0;
    float spectrogramFrequencyTexturesMinValue_ = 0.0f;
    int32_t intervalSizePower_ = 4;
    int32_t fftDisplaySize_ = 2048;
    int32_t spectrogramWidthDivisor_ = 1;
    int32_t intervalSizeInFrames_ = 0;
    float spectrogramDuration_ = 0.0f;
    int32_t spectrogramWidth_ = 0;
    int32_t segmentSize_ = 0;
    int32_t segmentCount_ = 0;
    int32_t audioBuffersIntervalsCount_ = 0;
    int32_t minIntervalSizeInFrames_ = 0;
    float timeLabelStep_ = 0.0f;
    int32_t timeLabelCount_ = 0;
    int32_t fftSize_ = 4096;
    int32_t fftOutSize_ = 2048;
    int32_t fftWindowType_ = 2;
    float logStartFrequency_ = 0.0f;
    float logIntervalDelta_ = 0.0f;
    int32_t spectrogramColorType_ = 0;
    int32_t octaveRTABandsPerOctave_ = 6;
    int32_t octaveRTABandAverageType_ = 1;
    int32_t octaveRTAMinMaxDecayTime_ = 2;
    int32_t playbackTranspType_ = 0;
    int32_t playbackSlowDownOctaves_ = 1;
    int32_t realTimeTransposeOctavesDown_ = 1;
    int32_t listeningMode_ = 0;
    float heterodyneTuningHz_ = 40000.0f;
    float heterodyneBandHz_ = 5000.0f;
    int32_t octaveRTAMinIndex_ = 0;
    int32_t octaveRTAMaxIndex_ = 0;
    int32_t spectrogramLogIndexesCount_ = 0;
    int32_t blockGoToTheAppStore_ = 0;
    std::vector<float> audioBuffersData_;
    std::vector<float> eggBuffersData_;
    CaptureGaps captureGaps_;
    std::atomic<int64_t> actualInterval_{0};
    int64_t lastPositionSettingsRoot_ = 0;
    int64_t lastPositionSettingsGeneral_ = 0;
    int64_t lastPositionSettingsDisplay_ = 0;
    int64_t lastPositionSettingsTrig_ = 0;
    int64_t lastPositionSettingsAudioInput_ = 0;
    int64_t lastPositionHelp_ = 0;
    std::vector<float> logPoints_;
    std::vector<int32_t> octaveRTAIndexesFloor_;
    std::vector<float> octaveRTAIndexFraction_;
    std::vector<float> octaveRTAFrequencies_;
    std::vector<int32_t> spectrogramLogInMiddleIndexes_;
    std::vector<int32_t> spectrogramLogIndexes_;
};

} // namespace widmo
