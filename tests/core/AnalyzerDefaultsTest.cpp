#include "core/AnalyzerDefaults.h"

#include "TempSettings.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>

namespace widmo {
namespace {

const QString kStore = "widmo-test";

class AnalyzerDefaultsTest : public test::TempSettings {
protected:
    std::unique_ptr<AnalyzerDefaults> load() {
        return std::make_unique<AnalyzerDefaults>(AnalyzerFeatures::spectrumProduct(), kStore);
    }
    QSettings raw() const {
        return QSettings(QSettings::NativeFormat, QSettings::UserScope, "Widmo", kStore);
    }
};

// Every persisted setting: setter suffix, getter, a value other than the default.
#define PERSISTED_SETTINGS(X)                                                                      \
    X(TypeOfExportImport, typeOfExportImport, 1)                                                   \
    X(SpectrogramGridOn, spectrogramGridOn, true)                                                  \
    X(TrigOn, trigOn, true)                                                                        \
    X(TrigAutomaticStop, trigAutomaticStop, false)                                                 \
    X(TrigLevel, trigLevel, -31.25f)                                                               \
    X(TrigMinFrequency, trigMinFrequency, 0.1f)                                                    \
    X(TrigMaxFrequency, trigMaxFrequency, 0.9f)                                                    \
    X(TrigEnergySaveMode, trigEnergySaveMode, 1.0f)                                                \
    X(SoftwareInputGainValue, softwareInputGainValue, 12.0f)                                       \
    X(OutputGainValue, outputGainValue, -3.0f)                                                     \
    X(SpectrogramLinearValuesGainDB, spectrogramLinearValuesGainDB, 21.0f)                         \
    X(SpectrogramValuesInDBMinimumLevelDB, spectrogramValuesInDBMinimumLevelDB, -90.0f)            \
    X(FftSize, fftSize, 16384)                                                                     \
    X(FftWindowType, fftWindowType, 3)                                                             \
    X(SampleRate, sampleRate, 96000.0f)                                                            \
    X(IntervalSizePower, intervalSizePower, 3)                                                     \
    X(FftDisplaySize, fftDisplaySize, 1024)                                                        \
    X(ValuesInDB, valuesInDB, false)                                                               \
    X(LinearFrequency, linearFrequency, true)                                                      \
    X(OctaveRTABandsPerOctave, octaveRTABandsPerOctave, 12)                                        \
    X(OctaveRTABandAverageType, octaveRTABandAverageType, 2)                                       \
    X(SpectrogramColorType, spectrogramColorType, 1)                                               \
    X(OctaveRTAMinValuesEnabled, octaveRTAMinValuesEnabled, true)                                  \
    X(OctaveRTAMaxValuesEnabled, octaveRTAMaxValuesEnabled, false)                                 \
    X(OctaveRTAMinMaxDecayTime, octaveRTAMinMaxDecayTime, 0)                                       \
    X(PlaybackTranspType, playbackTranspType, 1)                                                   \
    X(RecordingTranspositionOn, recordingTranspositionOn, true)                                    \
    X(PlaybackSlowDownOctaves, playbackSlowDownOctaves, 3)                                         \
    X(RealTimeTranspFilterBelow20kHz, realTimeTranspFilterBelow20kHz, true)                        \
    X(RealTimeTransposeOctavesDown, realTimeTransposeOctavesDown, 2)                               \
    X(SpectrogramWidthDivisor, spectrogramWidthDivisor, 4)                                         \
    X(AudioDefaultToSpeaker, audioDefaultToSpeaker, false)

/// Every persisted setting of `d` equals that of `reference`.
void expectSame(const AnalyzerDefaults& d, const AnalyzerDefaults& reference) {
#define SAME(name, getter, value) EXPECT_EQ(d.getter(), reference.getter()) << #getter;
    PERSISTED_SETTINGS(SAME)
#undef SAME
    EXPECT_EQ(d.fftOutSize(), reference.fftOutSize());
    EXPECT_EQ(d.logStartFrequency(), reference.logStartFrequency());
}

TEST_F(AnalyzerDefaultsTest, everyPersistedSettingRoundTrips) {
    {
        auto d = load();
#define SET(name, getter, value) d->set##name(value);
        PERSISTED_SETTINGS(SET)
#undef SET
        d->setSpectrumGainDB(3.0f);
        d->setOscilloscopeGainDB(4.0f);
        d->saveDefaults();
    }
    const auto d = load();
#define CHECK(name, getter, value) EXPECT_EQ(d->getter(), value) << #getter;
    PERSISTED_SETTINGS(CHECK)
#undef CHECK
    // The chart gains are per run: every start begins at 30 and 10 dB.
    EXPECT_EQ(30.0f, d->spectrumGainDB());
    EXPECT_EQ(10.0f, d->oscilloscopeGainDB());
    EXPECT_EQ(8192, d->fftOutSize()); // the geometry follows the loaded settings
    EXPECT_EQ(512, d->intervalSizeInFrames());
    // The interval key holds the power, and the band key has its short name.
    EXPECT_EQ(3, raw().value("analyzerDefaults.intervalSizeInFrames").toInt());
    EXPECT_EQ(12, raw().value("analyzerDefaults.octaveRTABand").toInt());
    EXPECT_EQ("kzr4410pwmq2093xa", raw().value("VersionKey").toString());

    // What another process saves is on disk for this one, floats to the bit.
    const int rc = QProcess::execute(QCoreApplication::applicationFilePath(),
                                     {"--write-settings", path(), "2048"});
    ASSERT_EQ(0, rc);
    const auto other = load();
    EXPECT_EQ(2048, other->fftSize());
    EXPECT_EQ(3, other->intervalSizePower());
    EXPECT_EQ(-40.1234589f, other->trigLevel()); // bit for bit through the text
    EXPECT_TRUE(other->linearFrequency());
}

// A store written by the version whose code still had the settings' old
// names (a value other than the default under every key) loads unchanged.
TEST_F(AnalyzerDefaultsTest, storeOfThePreviousVersionLoadsUnchanged) {
    QDir().mkpath(path() + "/Widmo");
    ASSERT_TRUE(QFile::copy(QStringLiteral(WIDMO_CORE_TEST_DATA "/widmo-before-renames.conf"),
                            storeFile(kStore)));
    const auto d = load();
#define CHECK(name, getter, value) EXPECT_EQ(d->getter(), value) << #getter;
    PERSISTED_SETTINGS(CHECK)
#undef CHECK
}

// A store of another format, one without its tag, or a file of garbage.
TEST_F(AnalyzerDefaultsTest, storeWithAnotherTagOrNoneOrGarbageLoadsNothing) {
    const auto reference = load();
    reference->saveDefaults();
    raw().setValue("analyzerDefaults.fftSize", 8192);
    raw().setValue("VersionKey", "an-older-build");
    expectSame(*load(), *reference);
    raw().remove("VersionKey");
    expectSame(*load(), *reference);

    QFile f(storeFile(kStore));
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QRandomGenerator rng(1);
    for (int i = 0; i < 4096; ++i)
        f.putChar(static_cast<char>(rng.bounded(256)));
    f.close();
    expectSame(*load(), *reference);
}

// What a damaged or hand-edited store holds under each key, one key at a time:
// numbers that no settings screen produces, the limits of the integers, NaN,
// infinities, text and random bytes. Each keeps its default, and the document
// is built from the result. The switches share one check (0 or 1): two stand
// for all of them.
TEST_F(AnalyzerDefaultsTest, valuesNoScreenOffers_keepTheirDefaults_everyKey) {
    const auto reference = load();
    const QStringList flags = {"7", "-1", "0.5"};
    const std::pair<const char*, QStringList> table[] = {
        {"typeOfExportImport", {"2", "-1"}},
        {"trigOn", flags},
        {"trigLevel", {"1", "-121", "nan"}},
        {"trigMinFrequency", {"-0.1", "0.9"}}, // above the upper edge
        {"trigMaxFrequency", {"inf", "1.5", "0.1"}},
        {"trigEnergySaveMode", {"0.5", "7"}},
        {"softwareInputGainValue", {"41", "-1e30"}},
        {"outputGainValue", {"nan", "-inf"}},
        {"spectrogramLinearValuesWzmocnienieDB", {"71", "-1"}},
        {"spectrogramValuesInDBMinimumLevelDB", {"0", "-145"}},
        {"fftSize", {"2147483647", "-2147483648", "0", "1000", "128", "131072"}},
        {"fftWindowType", {"4", "-1", "1.5"}},
        {"sampleRate", {"inf", "nan", "0", "-1", "1e12", "22050", "192000"}},
        {"intervalSizeInFrames", {"0", "5", "-2147483648"}},
        {"fftDisplaySize", {"2147483647", "-2147483648", "0", "1000", "8192"}},
        {"logStartFrequency", {"-inf", "0"}},
        {"octaveRTABand", {"24", "0"}},
        {"octaveRTABandAverageType", {"3"}},
        {"spectrogramColorType", {"3"}},
        {"octaveRTAMinMaxDecayTime", {"6", "-1"}},
        {"playbackTranspType", {"4"}},
        {"playbackSlowDownOctaves", {"0", "5"}},
        {"realTimeTransposeOctavesDown", {"0", "7", "99"}},
        {"listeningMode", {"2"}},
        {"heterodyneTuningHz", {"-1", "300000"}},
        {"heterodyneBandHz", {"3000"}},
        {"spectrogramWidthMianownik", {"0", "6"}},
        {"audioDefaultToSpeaker", flags}};
    QRandomGenerator rng(20);
    for (const auto& [key, values] : table) {
        QByteArray bytes(24, '\0');
        for (char& c : bytes)
            c = static_cast<char>(rng.bounded(256));
        QVariantList damaged = {bytes, "hello"};
        for (const QString& v : values)
            damaged.append(v);
        for (const QVariant& value : damaged) {
            SCOPED_TRACE(std::string(key) + " = " + value.toString().toStdString());
            reference->saveDefaults();
            raw().setValue(QString("analyzerDefaults.") + key, value);
            expectSame(*load(), *reference);
        }
    }
}

TEST_F(AnalyzerDefaultsTest, applyingPreferredValuesClampsAndReportsTheChange) {
    auto d = load();
    d->copyCurrentToPreferred();
    EXPECT_EQ(AnalyzerDefaults::PreferredChange::None, d->applyPreferredSettings());

    // Display settings: kept document, geometry recalculated here.
    d->setPreferredFftSize(100);
    bool fftChanged = false;
    EXPECT_EQ(AnalyzerDefaults::PreferredChange::Display, d->applyPreferredSettings(&fftChanged));
    EXPECT_TRUE(fftChanged);
    EXPECT_EQ(256, d->fftSize());
    EXPECT_EQ(128, d->fftOutSize());

    d->copyCurrentToPreferred();
    d->setPreferredFftSize(131072);
    d->setPreferredFftWindowType(9);
    d->setPreferredLogStartFrequency(55.0f);
    EXPECT_EQ(AnalyzerDefaults::PreferredChange::Display, d->applyPreferredSettings());
    EXPECT_EQ(65536, d->fftSize());
    EXPECT_EQ(3, d->fftWindowType());
    EXPECT_EQ(20.0f, d->logStartFrequency()) << "the preferred lower edge is never applied";

    // Geometry settings: reported so the caller rebuilds.
    d->copyCurrentToPreferred();
    d->setReadOnly(true);
    d->setPreferredSampleRate(22050.0f);
    d->setPreferredSpectrogramWidthDivisor(0);
    d->setPreferredFftDisplaySize(100000);
    d->setPreferredIntervalSizePower(-1);
    EXPECT_EQ(AnalyzerDefaults::PreferredChange::Geometry, d->applyPreferredSettings(&fftChanged));
    EXPECT_FALSE(fftChanged);
    EXPECT_EQ(44100.0f, d->sampleRate());
    EXPECT_EQ(1, d->spectrogramWidthDivisor());
    EXPECT_EQ(4096, d->fftDisplaySize());
    EXPECT_EQ(0, d->intervalSizePower());
    EXPECT_FALSE(d->readOnly());
}

} // namespace
} // namespace widmo
