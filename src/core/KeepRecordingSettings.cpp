#include "core/KeepRecordingSettings.h"

#include "core/SettingsStore.h"

#include <algorithm>

namespace widmo {

namespace {

constexpr const char* kEnabledKey = "keepRecording.enabled";
constexpr const char* kFallbackKey = "keepRecording.fallbackSeconds";

} // namespace

KeepRecordingSettings::KeepRecordingSettings(const QString& storeName, bool onByDefault)
    : storeName_(storeName), enabled_(onByDefault) {
    const SettingsStore store(storeName_);
    if (store.contains(QLatin1String(kEnabledKey)))
        enabled_ = store.readBool(QLatin1String(kEnabledKey));
    const auto seconds = store.readNumber(QLatin1String(kFallbackKey));
    if (seconds && *seconds >= kMinFallbackSeconds && *seconds <= kMaxFallbackSeconds)
        fallbackSeconds_ = static_cast<int32_t>(*seconds);
}

void KeepRecordingSettings::setEnabled(bool on) {
    enabled_ = on;
    SettingsStore store(storeName_);
    store.writeBool(QLatin1String(kEnabledKey), enabled_);
    store.sync();
}

void KeepRecordingSettings::setFallbackSeconds(int32_t seconds) {
    fallbackSeconds_ = std::clamp(seconds, kMinFallbackSeconds, kMaxFallbackSeconds);
    SettingsStore store(storeName_);
    store.writeInt(QLatin1String(kFallbackKey), fallbackSeconds_);
    store.sync();
}

} // namespace widmo
