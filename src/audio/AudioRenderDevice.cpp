#include "audio/AudioRenderDevice.h"

#include "audio/AudioIOUnitClient.h"

#include <algorithm>
#include <cstdint>

namespace widmo {

AudioRenderDevice::AudioRenderDevice(AudioIOUnitClient& client, QObject* parent)
    : QIODevice(parent), client_(client) {}

qint64 AudioRenderDevice::readData(char* data, qint64 maxSize) {
    // Whole samples only; the sink asks again for the rest.
    const qint64 frames = std::min<qint64>(maxSize / qint64(sizeof(float)), INT32_MAX);
    if (frames <= 0)
        return 0;
    client_.renderOutput(int32_t(frames), reinterpret_cast<float*>(data));
    return frames * qint64(sizeof(float));
}

qint64 AudioRenderDevice::bytesAvailable() const {
    return QIODevice::bytesAvailable() + (qint64(1) << 30);
}

qint64 AudioRenderDevice::writeData(const char*, qint64) { return -1; }

} // namespace widmo
