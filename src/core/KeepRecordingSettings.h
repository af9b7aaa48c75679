#pragma once

#include <QString>

#include <cstdint>

namespace widmo {

/// Whether a recording outlives its input: with keep recording on, a capture
/// whose sound server or input device goes away waits for it and resumes by
/// itself, instead of stopping the analyser with a message. The same device is
/// waited for up to `fallbackSeconds`; after that the server's default input
/// is taken as soon as there is one.
///
/// Stored under keys of their own ("keepRecording.…"). The setting is on by
/// default in products with the recording trigger (the studio product, made
/// for unattended recording), off in the others; a running level log keeps
/// recording in every product whatever the setting (`activeFor`).
///
/// Threading: main thread.
class KeepRecordingSettings {
public:
    static constexpr int32_t kMinFallbackSeconds = 1;
    static constexpr int32_t kMaxFallbackSeconds = 3600;
    static constexpr int32_t kDefaultFallbackSeconds = 60;

    /// Reads the stored values of the store `storeName` (see `SettingsStore`);
    /// `onByDefault` is the setting while nothing is stored.
    explicit KeepRecordingSettings(const QString& storeName = QString(), bool onByDefault = false);

    bool enabled() const { return enabled_; }
    void setEnabled(bool on);
    /// Seconds the lost device is waited for before the default input is taken,
    /// `kMinFallbackSeconds` to `kMaxFallbackSeconds`.
    int32_t fallbackSeconds() const { return fallbackSeconds_; }
    void setFallbackSeconds(int32_t seconds);

    /// The rule a recording follows: the setting, or a level log that runs.
    bool activeFor(bool levelLogRuns) const { return enabled_ || levelLogRuns; }

private:
    QString storeName_;
    bool enabled_ = false;
    int32_t fallbackSeconds_ = kDefaultFallbackSeconds;
};

} // namespace widmo
