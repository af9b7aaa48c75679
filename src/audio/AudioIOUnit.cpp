#include "audio/AudioIOUnit.h"

#include "audio/AudioIOUnitClient.h"
#include "audio/AudioRenderDevice.h"

#include <QAudioFormat>
#include <QAudioSink>
#include <QAudioSource>
#include <QtGlobal>

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

QAudioFormat floatFormat(int sampleRate, int channels) {
    QAudioFormat format;
    format.setSampleRate(sampleRate);
    format.setChannelCount(channels);
    format.setSampleFormat(QAudioFormat::Float);
    return format;
}

void logError(QAudio::Error error, const char* call) {
    qWarning("error %d from %s", int(error), call);
}

// Playback queues at least four device buffers and at least 80 ms: the sink is
// fed from a timer of the audio thread's event loop in steps of up to 20 ms
// (Qt's PulseAudio back end), and starts playing only once it holds more than
// one step, so a buffer of one step would never start.
constexpr int kOutputBuffers = 4;
constexpr double kMinOutputBufferSeconds = 0.08;

} // namespace

AudioIOUnit::AudioIOUnit(AudioIOUnitClient& client, QObject* parent)
    : QObject(parent), client_(client),
      discard_(std::make_unique<char[]>(size_t(kMaxInputFrames) * kInputFrameBytes)) {}

AudioIOUnit::~AudioIOUnit() { stop(); }

AudioIOUnit::Result AudioIOUnit::start(const Config& config) {
    stop();
    Result result;
    if (config.enableInput) {
        if (config.input.isNull()) {
            result.failure = AudioIOFailure::NoInputDevice;
            return result;
        }
        const QAudioFormat format = floatFormat(config.sampleRate, 2);
        if (!config.input.isFormatSupported(format)) {
            qWarning("error %d from %s", int(QAudio::OpenError), "QAudioDevice::isFormatSupported");
            result = {AudioIOFailure::InputOpenFailed, config.input.description()};
            return result;
        }
        source_ = new QAudioSource(config.input, format, this);
        source_->setBufferSize(qsizetype(config.ioBufferFrames) * kInputFrameBytes);
        source_->setVolume(config.inputVolume);
        inputVolume_.store(config.inputVolume, std::memory_order_release);
        sourceIO_ = source_->start();
        if (sourceIO_ == nullptr || source_->error() != QAudio::NoError) {
            logError(source_->error(), "QAudioSource::start");
            result = {streamFailure(source_->error(), AudioIOFailure::InputOpenFailed),
                      config.input.description()};
            stop();
            return result;
        }
        runningInput_ = config.input;
        connect(sourceIO_, &QIODevice::readyRead, this, &AudioIOUnit::onInputReady);
        connect(source_, &QAudioSource::stateChanged, this, &AudioIOUnit::onSourceStateChanged);
    }
    if (config.enableOutput) {
        if (config.output.isNull()) {
            stop();
            result.failure = AudioIOFailure::NoOutputDevice;
            return result;
        }
        const QAudioFormat format = floatFormat(config.outputSampleRate, 1);
        sink_ = new QAudioSink(config.output, format, this);
        const qsizetype outputFrames =
            std::max(qsizetype(config.ioBufferFrames) * kOutputBuffers,
                     qsizetype(config.outputSampleRate * kMinOutputBufferSeconds));
        sink_->setBufferSize(outputFrames * qsizetype(sizeof(float)));
        renderDevice_ = new AudioRenderDevice(client_, this);
        renderDevice_->open(QIODevice::ReadOnly | QIODevice::Unbuffered);
        sink_->start(renderDevice_);
        if (sink_->error() != QAudio::NoError || sink_->state() == QAudio::StoppedState) {
            logError(sink_->error(), "QAudioSink::start");
            result = {streamFailure(sink_->error(), AudioIOFailure::OutputOpenFailed),
                      config.output.description()};
            stop();
            return result;
        }
        runningOutput_ = config.output;
        connect(sink_, &QAudioSink::stateChanged, this, &AudioIOUnit::onSinkStateChanged);
    }
    return result;
}

void AudioIOUnit::stop() {
    if (source_ != nullptr) {
        source_->disconnect(this);
        if (!sourceIO_.isNull())
            sourceIO_->disconnect(this);
        source_->stop();
        delete source_;
        source_ = nullptr;
        sourceIO_ = nullptr;
    }
    if (sink_ != nullptr) {
        sink_->disconnect(this);
        sink_->stop();
        delete sink_;
        sink_ = nullptr;
    }
    delete renderDevice_;
    renderDevice_ = nullptr;
    runningInput_ = QAudioDevice();
    runningOutput_ = QAudioDevice();
}

void AudioIOUnit::onInputReady() {
    // One notification may find several device buffers waiting (the stream is
    // polled); each capture-buffer-sized piece is one input cycle.
    while (!sourceIO_.isNull()) {
        const qint64 waiting = source_->bytesAvailable() / kInputFrameBytes;
        if (waiting <= 0)
            break;
        const int32_t frames = int32_t(std::min<qint64>(waiting, kMaxInputFrames));
        framesTaken_ = -1;
        client_.inputAvailable(frames);
        if (sourceIO_.isNull())
            break; // the client stopped the unit
        if (framesTaken_ < 0)
            framesTaken_ = renderInput(reinterpret_cast<float*>(discard_.get()), frames);
        if (framesTaken_ == 0)
            break; // the stream had less than it announced
    }
}

int32_t AudioIOUnit::renderInput(float* dest, int32_t frames) {
    if (sourceIO_.isNull())
        return framesTaken_ = 0;
    char* bytes = reinterpret_cast<char*>(dest);
    const qint64 wanted = qint64(frames) * kInputFrameBytes;
    qint64 got = 0;
    while (got < wanted) {
        const qint64 n = sourceIO_->read(bytes + got, wanted - got);
        if (n <= 0)
            break;
        got += n;
    }
    framesTaken_ = int32_t(got / kInputFrameBytes);
    return framesTaken_;
}

void AudioIOUnit::setInputVolume(float volume) {
    volume = std::clamp(volume, 0.0f, 1.0f);
    inputVolume_.store(volume, std::memory_order_release);
    if (source_ != nullptr)
        source_->setVolume(volume);
}

bool AudioIOUnit::probeInputVolumeSettable(const QAudioDevice& device) {
    if (device.isNull())
        return false;
    QAudioSource probe(device, floatFormat(device.preferredFormat().sampleRate(), 2));
    probe.setVolume(0.5);
    return std::abs(probe.volume() - 0.5) < 1e-3;
}

AudioIOFailure AudioIOUnit::streamFailure(QAudio::Error error, AudioIOFailure deviceFailure) {
    // A fatal error is what a stream reports when its connection to the sound
    // server has gone; every other error is the device's.
    return error == QAudio::FatalError ? AudioIOFailure::ServerLost : deviceFailure;
}

void AudioIOUnit::onSourceStateChanged(QAudio::State state) {
    if (source_ == nullptr || state != QAudio::StoppedState || source_->error() == QAudio::NoError)
        return;
    logError(source_->error(), "QAudioSource");
    fail(streamFailure(source_->error(), AudioIOFailure::InputDeviceLost),
         runningInput_.description());
}

void AudioIOUnit::onSinkStateChanged(QAudio::State state) {
    if (sink_ == nullptr || state != QAudio::StoppedState || sink_->error() == QAudio::NoError)
        return;
    logError(sink_->error(), "QAudioSink");
    fail(streamFailure(sink_->error(), AudioIOFailure::OutputDeviceLost),
         runningOutput_.description());
}

void AudioIOUnit::fail(AudioIOFailure failure, const QString& deviceName) {
    // Called from a stream's own signal: the stream is closed on the next turn
    // of the event loop, not while it is still emitting.
    QMetaObject::invokeMethod(
        this,
        [this, failure, deviceName] {
            stop();
            client_.unitFailed(failure, deviceName);
        },
        Qt::QueuedConnection);
}

} // namespace widmo
