#pragma once

#include <QIODevice>

namespace widmo {

class AudioIOUnitClient;

/// The pull device of the output stream: every read of the sink is one render
/// cycle, answered by the client's `renderOutput` with mono float samples.
///
/// Threading: read by the output stream on the audio thread only.
class AudioRenderDevice : public QIODevice {
    Q_OBJECT
public:
    explicit AudioRenderDevice(AudioIOUnitClient& client, QObject* parent = nullptr);

    /// An endless stream: the sink never sees an end and never drains.
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override;
    bool atEnd() const override { return false; }

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 maxSize) override;

private:
    AudioIOUnitClient& client_;
};

} // namespace widmo
