#include "core/SoundLevelSettings.h"

#include "core/SettingsStore.h"

#include <QUrl>
#include <QVariant>

#include <algorithm>
#include <cmath>

namespace widmo {
namespace {

constexpr const char* kWeightingKey = "soundLevels.weighting";
constexpr const char* kSlowKey = "soundLevels.slow";
constexpr const char* kWeightDisplaysKey = "soundLevels.weightDisplays";
constexpr const char* kLogEnabledKey = "soundLevels.logEnabled";
constexpr const char* kLogPeriodKey = "soundLevels.logPeriod";
constexpr const char* kLogPathKey = "soundLevels.logPath";
constexpr const char* kDeviceKey = "soundLevels.device";

// An offset no microphone and converter produce is a damaged store.
bool plausibleOffset(double offset) { return std::isfinite(offset) && offset > 0 && offset < 250; }

} // namespace

SoundLevelSettings::SoundLevelSettings(const QString& storeName) : storeName_(storeName) {
    const SettingsStore store(storeName_);
    const int32_t weighting = store.readInt(QLatin1String(kWeightingKey));
    if (weighting >= kWeightingZ && weighting <= kWeightingC)
        weighting_ = weighting;
    slow_ = store.readBool(QLatin1String(kSlowKey));
    weightDisplays_ = store.readBool(QLatin1String(kWeightDisplaysKey));
    logEnabled_ = store.readBool(QLatin1String(kLogEnabledKey));
    const auto period = store.readNumber(QLatin1String(kLogPeriodKey));
    if (period && *period >= kMinLogPeriod && *period <= kMaxLogPeriod)
        logPeriod_ = *period;
    logPath_ = store.readString(QLatin1String(kLogPathKey));
    loadDevice(store.readString(QLatin1String(kDeviceKey)));
}

void SoundLevelSettings::save(const QString& key, const QVariant& value) const {
    SettingsStore store(storeName_);
    switch (value.typeId()) {
    case QMetaType::Bool:
        store.writeBool(key, value.toBool());
        break;
    case QMetaType::Int:
        store.writeInt(key, value.toInt());
        break;
    case QMetaType::Double:
        store.writeString(key, QString::number(value.toDouble(), 'g', 17));
        break;
    default:
        store.writeString(key, value.toString());
        break;
    }
    store.sync();
}

QString SoundLevelSettings::deviceKey(const char* name) const {
    // Device names may hold the store's separators; the key holds them encoded.
    const QString encoded = QString::fromLatin1(QUrl::toPercentEncoding(device_));
    return QStringLiteral("soundLevels.device.%1.%2").arg(encoded, QLatin1String(name));
}

void SoundLevelSettings::setWeighting(int32_t weighting) {
    weighting_ = std::clamp(weighting, kWeightingZ, kWeightingC);
    save(QLatin1String(kWeightingKey), weighting_);
}

void SoundLevelSettings::setSlow(bool slow) {
    slow_ = slow;
    save(QLatin1String(kSlowKey), slow_);
}

void SoundLevelSettings::setWeightDisplays(bool on) {
    weightDisplays_ = on;
    save(QLatin1String(kWeightDisplaysKey), weightDisplays_);
}

void SoundLevelSettings::setLogEnabled(bool on) {
    logEnabled_ = on;
    save(QLatin1String(kLogEnabledKey), logEnabled_);
}

void SoundLevelSettings::setLogPeriod(double seconds) {
    if (!std::isfinite(seconds))
        return;
    logPeriod_ = std::clamp(seconds, kMinLogPeriod, kMaxLogPeriod);
    save(QLatin1String(kLogPeriodKey), logPeriod_);
}

void SoundLevelSettings::setLogPath(const QString& path) {
    logPath_ = path;
    save(QLatin1String(kLogPathKey), logPath_);
}

void SoundLevelSettings::setDevice(const QString& device) {
    loadDevice(device);
    save(QLatin1String(kDeviceKey), device_);
}

void SoundLevelSettings::loadDevice(const QString& device) {
    device_ = device;
    const SettingsStore store(storeName_);
    calibrationFile_ = store.readString(deviceKey("calibrationFile"));
    const auto offset = store.readNumber(deviceKey("splOffset"));
    const bool has = offset.has_value() && plausibleOffset(*offset);
    offset_.store(has ? *offset : 0.0, std::memory_order_release);
    hasOffset_.store(has, std::memory_order_release);
    const auto calibrator = store.readNumber(deviceKey("calibratorLevel"));
    calibratorLevel_ = calibrator && *calibrator >= 40 && *calibrator <= 160 ? *calibrator : 94.0;
}

void SoundLevelSettings::setCalibrationFile(const QString& path) {
    calibrationFile_ = path;
    save(deviceKey("calibrationFile"), calibrationFile_);
}

std::optional<double> SoundLevelSettings::splOffset() const {
    if (!hasOffset_.load(std::memory_order_acquire))
        return std::nullopt;
    return offset_.load(std::memory_order_acquire);
}

void SoundLevelSettings::setSplOffset(std::optional<double> offset) {
    const bool has = offset.has_value() && plausibleOffset(*offset);
    offset_.store(has ? *offset : 0.0, std::memory_order_release);
    hasOffset_.store(has, std::memory_order_release);
    if (has) {
        save(deviceKey("splOffset"), *offset);
    } else {
        SettingsStore store(storeName_);
        store.remove(deviceKey("splOffset"));
        store.sync();
    }
}

void SoundLevelSettings::setCalibratorLevel(double level) {
    if (!std::isfinite(level))
        return;
    calibratorLevel_ = std::clamp(level, 40.0, 160.0);
    save(deviceKey("calibratorLevel"), calibratorLevel_);
}

QString SoundLevelSettings::unit() const { return unitFor(weighting_, splOffset().has_value()); }

QString SoundLevelSettings::unitFor(int32_t weighting, bool calibrated) {
    if (!calibrated)
        return QStringLiteral("dBFS");
    switch (weighting) {
    case kWeightingA:
        return QStringLiteral("dBA");
    case kWeightingC:
        return QStringLiteral("dBC");
    default:
        return QStringLiteral("dB SPL");
    }
}

QString SoundLevelSettings::spectrumUnit() const {
    if (!splOffset())
        return QStringLiteral("dBFS");
    if (weightDisplays_ && weighting_ == kWeightingA)
        return QStringLiteral("dBA");
    if (weightDisplays_ && weighting_ == kWeightingC)
        return QStringLiteral("dBC");
    return QStringLiteral("dB SPL");
}

QString SoundLevelSettings::spectrumLevelText(double levelDB) const {
    const auto offset = splOffset();
    if (!offset)
        return QString::asprintf("%.1f dB", levelDB);
    return QStringLiteral("%1 %2").arg(levelDB + *offset, 0, 'f', 1).arg(spectrumUnit());
}

QString SoundLevelSettings::weightingLetter() const { return letterFor(weighting_); }

QString SoundLevelSettings::letterFor(int32_t weighting) {
    switch (weighting) {
    case kWeightingA:
        return QStringLiteral("A");
    case kWeightingC:
        return QStringLiteral("C");
    default:
        return QStringLiteral("Z");
    }
}

} // namespace widmo
