#include "TestSignals.h"

#include <QFile>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace widmo::test {

namespace {

QString testSink() { return qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink"); }

/// Starts `program` with `arguments`, standard input from `inputFile` when
/// given, standard output into `outputFd` when not negative, no other open
/// descriptor of this process. The child's pid, or a negative value.
pid_t spawn(const QString& program, const QStringList& arguments, const QString& inputFile,
            int outputFd) {
    std::vector<QByteArray> storage{program.toLocal8Bit()};
    for (const QString& a : arguments)
        storage.push_back(a.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& b : storage)
        argv.push_back(b.data());
    argv.push_back(nullptr);
    const QByteArray input = inputFile.toLocal8Bit();
    const pid_t pid = fork();
    if (pid == 0) {
        if (!input.isEmpty())
            dup2(open(input.constData(), O_RDONLY), STDIN_FILENO);
        if (outputFd >= 0)
            dup2(outputFd, STDOUT_FILENO);
        close_range(3, ~0U, 0);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

/// Plays raw stereo float samples from standard input into `sink` at `rate` Hz,
/// through a low-latency stream.
bool startPacat(ChildProcess& process, int rate, const QString& sink, const QString& input) {
    return process.start("pacat",
                         {"--playback", "--raw", "--format=float32le",
                          QString("--rate=%1").arg(rate), "--channels=2", "--latency-msec=10", "-d",
                          sink},
                         input);
}

} // namespace

int runTool(const QString& program, const QStringList& arguments, QString* output) {
    int fds[2];
    if (pipe(fds) != 0)
        return -1;
    const pid_t pid = spawn(program, arguments, QString(), fds[1]);
    close(fds[1]);
    QByteArray text;
    char chunk[4096];
    for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;)
        text.append(chunk, qsizetype(n));
    close(fds[0]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    if (output != nullptr)
        *output = QString::fromLocal8Bit(text);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool ChildProcess::start(const QString& program, const QStringList& arguments,
                         const QString& inputFile) {
    stop();
    pid_ = spawn(program, arguments, inputFile, -1);
    return pid_ > 0;
}

void ChildProcess::stop() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    waitpid(std::exchange(pid_, -1), nullptr, 0);
}

SinkPlayer::SinkPlayer(int sampleRate, double seconds, const std::function<float(double)>& left,
                       const std::function<float(double)>& right, const QString& sink)
    : path_(dir_.filePath("signal.raw")), sampleRate_(sampleRate),
      sink_(sink.isEmpty() ? testSink() : sink) {
    std::vector<float> samples(size_t(seconds * sampleRate) * 2);
    for (size_t i = 0; i < samples.size(); i += 2) {
        samples[i] = left(double(i / 2) / sampleRate);
        samples[i + 1] = right(double(i / 2) / sampleRate);
    }
    QFile file(path_);
    if (file.open(QIODevice::WriteOnly))
        file.write(reinterpret_cast<const char*>(samples.data()),
                   qint64(samples.size() * sizeof(float)));
}

bool SinkPlayer::start() { return startPacat(process_, sampleRate_, sink_, path_); }

std::unique_ptr<SinkPlayer> playTone(double frequency, int sampleRate, const QString& sink) {
    const auto tone = [frequency](double t) { return sineAt(frequency, t); };
    auto player = std::make_unique<SinkPlayer>(sampleRate, 20.0, tone, tone, sink);
    return player->start() ? std::move(player) : nullptr;
}

double toneAmplitude(const float* data, size_t count, size_t stride, double frequency,
                     double sampleRate) {
    const double w = 2.0 * std::numbers::pi * frequency / sampleRate;
    double re = 0.0, im = 0.0, windowSum = 0.0;
    for (size_t n = 0; n < count; ++n) {
        const double hann = 0.5 * (1.0 - std::cos(2.0 * std::numbers::pi * double(n) / count));
        const double x = hann * data[n * stride];
        re += x * std::cos(w * double(n));
        im -= x * std::sin(w * double(n));
        windowSum += hann;
    }
    return 2.0 * std::sqrt(re * re + im * im) / windowSum;
}

int loadMicrophone(const QString& sink, const QString& name, const QString& description, int rate,
                   int channels) {
    QStringList arguments{"load-module", "module-remap-source", "master=" + sink + ".monitor",
                          "source_name=" + name};
    if (channels > 0)
        arguments << "channels=" + QString::number(channels);
    if (rate > 0) {
        // PulseAudio takes the rate argument; pipewire-pulse ignores it and
        // needs the node property (PulseAudio keeps that as a plain property).
        const QString r = QString::number(rate);
        arguments << "rate=" + r
                  << "source_properties=\"device.description=" + description + " audio.rate=" + r +
                         "\"";
    } else {
        arguments << "source_properties=device.description=" + description;
    }
    QString out;
    return runTool("pactl", arguments, &out) == 0 ? out.trimmed().toInt() : -1;
}

int loadVirtualMicrophone() {
    const int module = loadMicrophone(testSink(), "widmo_mic", "WidmoTestMic");
    runTool("pactl", {"set-default-source", "widmo_mic"});
    return module;
}

bool unloadModule(int module) {
    return runTool("pactl", {"unload-module", QString::number(module)}) == 0;
}

int virtualMicrophoneModule() {
    QString out;
    runTool("pactl", {"list", "short", "modules"}, &out);
    for (const QString& line : out.split('\n'))
        if (line.contains("module-remap-source") && line.contains("widmo_mic"))
            return line.section('\t', 0, 0).toInt();
    return -1;
}

namespace {
ChildProcess silence;
} // namespace

void keepSinkRendering(bool settle) {
    startPacat(silence, 48000, testSink(), "/dev/zero");
    if (settle)
        usleep(2000000);
}

void stopSinkRendering() { silence.stop(); }

bool restartSoundServer(int downMs) {
    // The test command's script knows which server runs (PulseAudio or
    // PipeWire) and how to bring it back with the same devices.
    const QString script = qEnvironmentVariable("WIDMO_SOUND_SERVER_SCRIPT");
    if (script.isEmpty() || runTool("bash", {script, "restart", QString::number(downMs)}) != 0)
        return false;
    keepSinkRendering(false);
    return true;
}

} // namespace widmo::test
