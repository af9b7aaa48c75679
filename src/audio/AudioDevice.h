#pragma once

#include <QByteArray>
#include <QString>

namespace widmo {

/// One device of the sound server as the audio layer sees it: a source
/// (capture) or a sink (playback). A value; a default-constructed one is
/// "no device".
struct AudioDevice {
    QByteArray id;       ///< the server's name of the device, stable while it exists
    QString description; ///< the name users see
    int channels = 0;    ///< the device's own channel count
    int sampleRate = 0;  ///< the device's own rate in Hz; streams at other rates are resampled

    bool isNull() const { return id.isEmpty(); }
    bool operator==(const AudioDevice& other) const = default;
};

} // namespace widmo
