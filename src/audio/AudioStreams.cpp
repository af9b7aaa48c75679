#include "audio/AudioStreams.h"

#include "audio/AudioStreamsClient.h"
#include "audio/SoundServer.h"

#include <QtGlobal>

#include <pulse/context.h>
#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/stream.h>
#include <pulse/volume.h>

#include <algorithm>
#include <cstring>

namespace widmo {

namespace {

// Playback queues at least four device buffers and at least 80 ms, so that a
// busy machine does not starve the sink between two render cycles.
constexpr int kOutputBuffers = 4;
constexpr double kMinOutputBufferSeconds = 0.08;

void logError(pa_context* context, const char* call) {
    qWarning("error %d from %s", context != nullptr ? pa_context_errno(context) : -1, call);
}

} // namespace

AudioStreams::AudioStreams(AudioStreamsClient& client, SoundServer& server, QObject* parent)
    : QObject(parent), client_(client), server_(server), calls_(this) {}

AudioStreams::~AudioStreams() { stop(); }

AudioStreams::Result AudioStreams::start(const Config& config) {
    stop();
    Result result;
    if (config.enableInput && config.input.isNull())
        return {AudioIOFailure::NoInputDevice, QString()};
    if (config.enableOutput && config.output.isNull())
        return {AudioIOFailure::NoOutputDevice, QString()};

    server_.lock();
    ++generation_;
    if (config.enableInput) {
        inputVolume_.store(std::clamp(config.inputVolume, 0.0f, 1.0f), std::memory_order_release);
        source_ = openStream(config, true, result);
    }
    if (result.ok() && config.enableOutput)
        sink_ = openStream(config, false, result);
    if (result.ok()) {
        runningInput_ = config.enableInput ? config.input : AudioDevice();
        runningOutput_ = config.enableOutput ? config.output : AudioDevice();
        running_ = true;
        if (source_ != nullptr) {
            // The volume reaches the server before the stream is uncorked.
            applyInputVolume();
            pa_operation* op = pa_stream_cork(source_, 0, nullptr, nullptr);
            if (op != nullptr)
                pa_operation_unref(op);
        }
    }
    server_.unlock();
    if (!result.ok())
        stop();
    return result;
}

pa_stream* AudioStreams::openStream(const Config& config, bool capture, Result& result) {
    const AudioDevice& device = capture ? config.input : config.output;
    const AudioIOFailure openFailed =
        capture ? AudioIOFailure::InputOpenFailed : AudioIOFailure::OutputOpenFailed;
    pa_context* context = server_.context();
    if (context == nullptr) {
        qWarning("error %d from %s", PA_ERR_CONNECTIONTERMINATED, "pa_context (no server)");
        result = {AudioIOFailure::ServerLost, device.description};
        return nullptr;
    }
    const pa_sample_spec format{PA_SAMPLE_FLOAT32LE,
                                uint32_t(capture ? config.sampleRate : config.outputSampleRate),
                                uint8_t(capture ? 2 : 1)};
    if (config.sampleRate <= 0 || config.outputSampleRate <= 0 || !pa_sample_spec_valid(&format)) {
        qWarning("error %d from %s", PA_ERR_INVALID, "pa_sample_spec_valid");
        result = {openFailed, device.description};
        return nullptr;
    }
    pa_stream* stream =
        pa_stream_new(context, capture ? "Widmo capture" : "Widmo playback", &format, nullptr);
    if (stream == nullptr) {
        logError(context, "pa_stream_new");
        result = {openFailed, device.description};
        return nullptr;
    }
    const uint32_t frameBytes = capture ? uint32_t(kInputFrameBytes) : uint32_t(sizeof(float));
    const uint32_t ioBytes = uint32_t(config.ioBufferFrames) * frameBytes;
    pa_buffer_attr attr;
    attr.maxlength = uint32_t(-1);
    attr.prebuf = uint32_t(-1);
    int status = 0;
    if (capture) {
        attr.tlength = uint32_t(-1);
        attr.minreq = uint32_t(-1);
        attr.fragsize = ioBytes;
        pa_stream_set_state_callback(stream, &AudioStreams::onSourceState, this);
        pa_stream_set_read_callback(stream, &AudioStreams::onRead, this);
        // Started corked, so that its volume is set before the first frame.
        // Not moved: a device that goes away ends the stream, rather than the
        // server quietly recording another input.
        status = pa_stream_connect_record(stream, device.id.constData(), &attr,
                                          pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY |
                                                            PA_STREAM_START_CORKED |
                                                            PA_STREAM_DONT_MOVE));
    } else {
        uint32_t queued =
            std::max(ioBytes * kOutputBuffers,
                     uint32_t(config.outputSampleRate * kMinOutputBufferSeconds) * frameBytes);
        uint32_t request = ioBytes;
        if (config.outputBufferFrames > 0) {
            // Listening: what the stream holds is heard that much later; the
            // server asks for a quarter of it at a time.
            queued = uint32_t(config.outputBufferFrames) * frameBytes;
            request = std::max(frameBytes, queued / 4);
        }
        attr.tlength = queued;
        attr.minreq = request;
        attr.fragsize = uint32_t(-1);
        pa_stream_set_state_callback(stream, &AudioStreams::onSinkState, this);
        pa_stream_set_write_callback(stream, &AudioStreams::onWrite, this);
        pa_stream_set_underflow_callback(stream, &AudioStreams::onUnderflow, this);
        underruns_.store(0, std::memory_order_release);
        status = pa_stream_connect_playback(stream, device.id.constData(), &attr,
                                            PA_STREAM_ADJUST_LATENCY, nullptr, nullptr);
    }
    if (status == 0) {
        while (pa_stream_get_state(stream) == PA_STREAM_CREATING)
            server_.wait();
    }
    if (status != 0 || pa_stream_get_state(stream) != PA_STREAM_READY) {
        logError(context, capture ? "pa_stream_connect_record" : "pa_stream_connect_playback");
        const bool serverGone = pa_context_get_state(context) != PA_CONTEXT_READY;
        result = {serverGone ? AudioIOFailure::ServerLost : openFailed, device.description};
        closeStream(stream);
        return nullptr;
    }
    return stream;
}

void AudioStreams::closeStream(pa_stream*& stream) {
    if (stream == nullptr)
        return;
    pa_stream_set_state_callback(stream, nullptr, nullptr);
    pa_stream_set_read_callback(stream, nullptr, nullptr);
    pa_stream_set_write_callback(stream, nullptr, nullptr);
    pa_stream_set_underflow_callback(stream, nullptr, nullptr);
    if (pa_stream_get_state(stream) == PA_STREAM_READY)
        pa_stream_disconnect(stream);
    pa_stream_unref(stream);
    stream = nullptr;
}

void AudioStreams::stop() {
    server_.lock();
    running_ = false;
    ++generation_;
    closeStream(source_);
    closeStream(sink_);
    fragment_ = nullptr;
    fragmentFrames_ = fragmentPos_ = 0;
    runningInput_ = AudioDevice();
    runningOutput_ = AudioDevice();
    server_.unlock();
}

void AudioStreams::setInputVolume(float volume) {
    inputVolume_.store(std::clamp(volume, 0.0f, 1.0f), std::memory_order_release);
    server_.lock();
    applyInputVolume();
    server_.unlock();
}

void AudioStreams::applyInputVolume() {
    pa_context* context = server_.context();
    if (source_ == nullptr || context == nullptr || pa_stream_get_state(source_) != PA_STREAM_READY)
        return;
    pa_cvolume volume;
    pa_cvolume_set(&volume, 2,
                   pa_sw_volume_from_linear(double(inputVolume_.load(std::memory_order_acquire))));
    pa_operation* op = pa_context_set_source_output_volume(context, pa_stream_get_index(source_),
                                                           &volume, nullptr, nullptr);
    if (op != nullptr)
        pa_operation_unref(op);
    else
        logError(context, "pa_context_set_source_output_volume");
}

// --- The sound server's thread ---------------------------------------------------------------

void AudioStreams::onRead(pa_stream* stream, size_t, void* self) {
    auto* unit = static_cast<AudioStreams*>(self);
    // Each fragment the server hands over is cut into capture-buffer-sized
    // input cycles; what the client leaves of a cycle is dropped.
    while (pa_stream_readable_size(stream) > 0) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0)
            return;
        if (data != nullptr) {
            unit->fragment_ = static_cast<const char*>(data);
            unit->fragmentFrames_ = int32_t(bytes / size_t(kInputFrameBytes));
            unit->fragmentPos_ = 0;
            while (unit->fragmentPos_ < unit->fragmentFrames_) {
                const int32_t frames =
                    std::min(unit->fragmentFrames_ - unit->fragmentPos_, kMaxInputFrames);
                unit->framesTaken_ = -1;
                unit->client_.inputAvailable(frames);
                if (unit->framesTaken_ <= 0)
                    unit->fragmentPos_ += frames;
            }
            unit->fragment_ = nullptr;
        }
        // (A hole in the stream, data == nullptr, is dropped as it is.)
        pa_stream_drop(stream);
    }
}

int32_t AudioStreams::renderInput(float* dest, int32_t frames) {
    if (fragment_ == nullptr)
        return framesTaken_ = 0;
    const int32_t n = std::clamp(fragmentFrames_ - fragmentPos_, 0, std::max(frames, 0));
    std::memcpy(dest, fragment_ + size_t(fragmentPos_) * size_t(kInputFrameBytes),
                size_t(n) * size_t(kInputFrameBytes));
    fragmentPos_ += n;
    framesTaken_ = n;
    return n;
}

void AudioStreams::onWrite(pa_stream* stream, size_t bytes, void* self) {
    auto* unit = static_cast<AudioStreams*>(self);
    // The server's own buffer (begin_write) is filled in place: one render
    // cycle per piece it hands out.
    while (bytes >= sizeof(float)) {
        void* data = nullptr;
        size_t size = bytes;
        if (pa_stream_begin_write(stream, &data, &size) < 0 || data == nullptr)
            return;
        const int32_t frames =
            int32_t(std::min<size_t>(size / sizeof(float), size_t(kMaxInputFrames)));
        if (frames <= 0) {
            pa_stream_cancel_write(stream);
            return;
        }
        unit->client_.renderOutput(frames, static_cast<float*>(data));
        const size_t written = size_t(frames) * sizeof(float);
        if (pa_stream_write(stream, data, written, nullptr, 0, PA_SEEK_RELATIVE) < 0)
            return;
        bytes -= std::min(bytes, written);
    }
}

void AudioStreams::onUnderflow(pa_stream*, void* self) {
    static_cast<AudioStreams*>(self)->underruns_.fetch_add(1, std::memory_order_acq_rel);
}

void AudioStreams::onSourceState(pa_stream* stream, void* self) {
    static_cast<AudioStreams*>(self)->streamFailed(stream, true);
}

void AudioStreams::onSinkState(pa_stream* stream, void* self) {
    static_cast<AudioStreams*>(self)->streamFailed(stream, false);
}

void AudioStreams::streamFailed(pa_stream* stream, bool capture) {
    server_.signalWaiters(); // a start may be waiting for this state
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if (!running_ || (state != PA_STREAM_FAILED && state != PA_STREAM_TERMINATED))
        return;
    running_ = false;
    pa_context* context = pa_stream_get_context(stream);
    logError(context, capture ? "pa_stream (capture)" : "pa_stream (playback)");
    // The context has already failed when the server went away; a context
    // that still runs means the device itself ended the stream.
    const AudioIOFailure failure = pa_context_get_state(context) != PA_CONTEXT_READY
                                       ? AudioIOFailure::ServerLost
                                   : capture ? AudioIOFailure::InputDeviceLost
                                             : AudioIOFailure::OutputDeviceLost;
    const QString deviceName = capture ? runningInput_.description : runningOutput_.description;
    const uint64_t generation = generation_;
    // A failure is rare: the hand-over to the unit's thread may allocate.
    calls_.post([this, failure, deviceName, generation] {
        server_.lock();
        const bool current = generation == generation_;
        server_.unlock();
        if (!current)
            return; // stopped or started again meanwhile
        stop();
        client_.unitFailed(failure, deviceName);
    });
}

} // namespace widmo
