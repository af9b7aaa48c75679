#pragma once

// Signals, sound-server tools and capture helpers shared by the audio, ui and
// benchmark binaries that run against the test services' sound server.

#include "audio/AudioStreams.h"
#include "audio/AudioStreamsClient.h"
#include "audio/SoundServer.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <numbers>
#include <vector>

namespace widmo::test {

/// -12 dBFS as a linear amplitude.
inline constexpr float kMinus12dBFS = 0.25118864f;

/// A -12 dBFS sine of `frequency` Hz at time `t` seconds.
inline float sineAt(double frequency, double t) {
    return kMinus12dBFS * float(std::sin(2.0 * std::numbers::pi * frequency * t));
}

/// An electroglottograph's contact signal at `frequency` Hz, time `t` seconds:
/// -0.15 while the vocal folds are open, 0.15 while closed, closed for the
/// fraction `closedQuotient` of each cycle, with raised-cosine edges of 0.3 ms
/// centred on the start and the end of the closed phase. Above its 40 % level
/// for closedQuotient + 3.85e-5 · frequency of the cycle (each edge's 40 %
/// crossing lies 0.064 of the edge outside its centre).
inline float eggContact(double frequency, double closedQuotient, double t) {
    const double edge = 0.3e-3 * frequency; // in cycles
    const double phase = t * frequency - std::floor(t * frequency);
    const auto ramp = [&](double x) { // 0 before -edge/2, 1 after +edge/2
        return x < -edge / 2  ? 0.0
               : x > edge / 2 ? 1.0
                              : 0.5 + 0.5 * std::sin(std::numbers::pi * x / edge);
    };
    const double closed = ramp(phase) * (1.0 - ramp(phase - closedQuotient)) + ramp(phase - 1.0);
    return float(0.3 * closed - 0.15);
}

/// Calls `start` with a completion and waits up to 5 s for it: the answer it
/// gave, false when none came. `calls`, when given, counts the completions.
inline bool completes(const std::function<void(std::function<void(bool)>)>& start,
                      int* calls = nullptr) {
    bool done = false, ok = false;
    start([&done, &ok, calls](bool result) {
        done = true;
        ok = result;
        if (calls != nullptr)
            ++*calls;
    });
    (void)QTest::qWaitFor([&] { return done; }, 5000);
    return ok;
}

/// Keeps what an audio unit captures (interleaved stereo), on the unit's thread.
class CaptureRecorder : public AudioStreamsClient {
public:
    void inputAvailable(int32_t frames) override {
        const size_t at = samples.size();
        samples.resize(at + size_t(frames) * 2);
        samples.resize(at + size_t(unit->renderInput(samples.data() + at, frames)) * 2);
    }
    void renderOutput(int32_t frames, float* out) override { std::fill(out, out + frames, 0.0f); }
    void unitFailed(AudioIOFailure f, const QString&) override { failure = f; }

    AudioStreams* unit = nullptr;
    std::vector<float> samples;
    AudioIOFailure failure = AudioIOFailure::None;
};

/// Capture from the server's default input (the virtual microphone) at `rate` Hz.
inline AudioStreams::Config captureConfig(const SoundServer& server, int rate) {
    AudioStreams::Config config;
    config.enableInput = true;
    config.input = server.defaultInput();
    config.sampleRate = rate;
    return config;
}

/// Records the default input (the test sink's monitor) at 48 kHz from
/// construction to `stop`: what the test sink played.
class SinkListener {
public:
    explicit SinkListener(SoundServer& server) : unit_(recorder_, server) {
        recorder_.unit = &unit_;
        started = unit_.start(captureConfig(server, 48000)).ok();
    }
    /// Stops and returns the interleaved stereo samples heard.
    const std::vector<float>& stop() {
        unit_.stop();
        return recorder_.samples;
    }
    bool started = false;

private:
    CaptureRecorder recorder_;
    AudioStreams unit_;
};

/// True when the test services run PipeWire (WIDMO_SOUND_SERVER=pipewire)
/// rather than PulseAudio.
inline bool underPipeWire() { return qEnvironmentVariable("WIDMO_SOUND_SERVER") == "pipewire"; }

/// Runs a command of the test sound server (pactl, ...) and returns its exit code.
int runTool(const QString& program, const QStringList& arguments, QString* output = nullptr);

/// A child process started with fork and exec. (Not QProcess: Qt starts
/// children with a raw clone that ThreadSanitizer does not follow, after
/// which it misreads every later hand-over between threads.)
class ChildProcess {
public:
    ~ChildProcess() { stop(); }
    /// Starts `program` with `arguments`; standard input from `inputFile`
    /// when given. False when it could not be started.
    bool start(const QString& program, const QStringList& arguments,
               const QString& inputFile = QString());
    /// Terminates the child and waits for it.
    void stop();
    /// The child's process id; -1 when none runs.
    int pid() const { return pid_; }

private:
    int pid_ = -1;
};

/// Plays stereo float samples, `left(t)` and `right(t)` at time t seconds,
/// into `sink` (the test sink when empty) through a low-latency stream (pacat),
/// from a raw file written at construction. A low-latency stream keeps the null
/// sink rendering in small steps, so that its monitor delivers in real time.
class SinkPlayer {
public:
    SinkPlayer(int sampleRate, double seconds, const std::function<float(double)>& left,
               const std::function<float(double)>& right, const QString& sink = QString());
    ~SinkPlayer() { stop(); }
    bool start();
    void stop() { process_.stop(); }

private:
    QTemporaryDir dir_;
    QString path_;
    int sampleRate_;
    QString sink_;
    ChildProcess process_;
};

/// A -12 dBFS tone of `frequency` Hz on both channels for 20 s into `sink`
/// (the test sink when empty), playing; null when pacat could not start.
std::unique_ptr<SinkPlayer> playTone(double frequency, int sampleRate = 48000,
                                     const QString& sink = QString());

/// Loads a virtual microphone `name`, described as `description`, on the
/// monitor of `sink` at `rate` Hz (0: the server's choice, which is the sink's
/// rate under PulseAudio but 48 kHz under PipeWire); `description` without
/// spaces; `channels` > 0 sets its channel count. The module's index, or -1.
int loadMicrophone(const QString& sink, const QString& name, const QString& description,
                   int rate = 0, int channels = 0);
/// The test sink's virtual microphone (the default input), unloaded and loaded again.
int loadVirtualMicrophone();
bool unloadModule(int module);
/// Index of the loaded remap module of the virtual microphone, or -1.
int virtualMicrophoneModule();

/// A virtual microphone on the test services' null sink at 192 kHz
/// (WIDMO_TEST_SINK_192) for the object's life.
class UltrasonicMicrophone {
public:
    static constexpr const char* kSourceName = "widmo_mic192";
    UltrasonicMicrophone()
        : module_(loadMicrophone(sinkName(), kSourceName, "WidmoTestMic192", 192000)) {}
    ~UltrasonicMicrophone() {
        if (module_ >= 0)
            unloadModule(module_);
    }
    bool isLoaded() const { return module_ >= 0; }
    static QString sinkName() {
        return qEnvironmentVariable("WIDMO_TEST_SINK_192", "widmo_sink192");
    }

private:
    int module_;
};

/// Amplitude of the component at `frequency` in `count` samples taken with
/// `stride` from `data` (Goertzel with a Hann window, scaled so that a sine of
/// amplitude A reads A).
double toneAmplitude(const float* data, size_t count, size_t stride, double frequency,
                     double sampleRate);

inline double toDb(double amplitude) { return 20.0 * std::log10(amplitude + 1e-12); }

/// Plays silence into the test sink until `stopSinkRendering` (restarted when
/// called again). A null sink renders nothing while nothing plays into it, and
/// a stream started into an idle sink reaches its monitor only after about a
/// second and a half; with this stream the virtual microphone delivers in real
/// time and the tests' signals arrive at once. With `settle` it returns after
/// the two seconds the sink needs to wake.
void keepSinkRendering(bool settle = true);
void stopSinkRendering();

/// Ends the test sound server (PulseAudio, or PipeWire with its Pulse server
/// and session manager) and starts it again on the same socket with the same
/// sinks and virtual microphone, `downMs` milliseconds later, with the silence
/// of `keepSinkRendering` playing again, through the test command's
/// `sound-server.sh restart`. True once the virtual microphone is back. (The new
/// server is not this process's child; services_stop ends it.)
bool restartSoundServer(int downMs);

} // namespace widmo::test
