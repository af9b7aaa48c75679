#pragma once

#include <QString>

#include <cstdint>

namespace widmo {

/// Keeps the desktop's screen saver and power manager from blanking the screen
/// while the analyser runs, through the freedesktop ScreenSaver service on the
/// session bus. Where the desktop has no such service (no session bus, a bare
/// X server) it does nothing: the analysis never depends on it.
///
/// Threading: main thread only.
class ScreenSaverInhibitor {
public:
    /// `applicationName` is what the desktop shows as the inhibiting program.
    explicit ScreenSaverInhibitor(QString applicationName);
    /// Lifts an inhibition still held.
    ~ScreenSaverInhibitor();
    ScreenSaverInhibitor(const ScreenSaverInhibitor&) = delete;
    ScreenSaverInhibitor& operator=(const ScreenSaverInhibitor&) = delete;

    /// Inhibits (once; repeated calls keep the one inhibition) or lifts it.
    void setInhibited(bool inhibited);
    /// An inhibition is held: the desktop's service accepted it.
    bool isInhibited() const { return cookie_ != 0; }

private:
    QString applicationName_;
    uint32_t cookie_ = 0;
};

} // namespace widmo
