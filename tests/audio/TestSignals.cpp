#include "TestSignals.h"

#include <QFile>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <numbers>

namespace widmo::test {

namespace {

/// Starts `program` with `arguments`; standard input from `inputFile` when
/// given, standard output into `outputFd` when not negative. The child's pid,
/// or a negative value.
pid_t spawn(const QString& program, const QStringList& arguments, const QString& inputFile,
            int outputFd, int closeFd) {
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
        if (outputFd >= 0) {
            dup2(outputFd, STDOUT_FILENO);
            close(outputFd);
            close(closeFd);
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

} // namespace

int runTool(const QString& program, const QStringList& arguments, QString* output) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return -1;
    const pid_t pid = spawn(program, arguments, QString(), pipeFds[1], pipeFds[0]);
    close(pipeFds[1]);
    QByteArray text;
    char chunk[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], chunk, sizeof chunk)) > 0)
        text.append(chunk, qsizetype(n));
    close(pipeFds[0]);
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
    pid_ = spawn(program, arguments, inputFile, -1, -1);
    return pid_ > 0;
}

void ChildProcess::stop() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
}

SinkPlayer::SinkPlayer(int sampleRate, double seconds, const std::function<float(double)>& left,
                       const std::function<float(double)>& right, const QString& sink)
    : path_(dir_.filePath("signal.raw")), sampleRate_(sampleRate),
      sink_(sink.isEmpty() ? qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink") : sink) {
    const size_t frames = size_t(seconds * sampleRate);
    std::vector<float> samples(frames * 2);
    for (size_t i = 0; i < frames; ++i) {
        const double t = double(i) / sampleRate;
        samples[2 * i] = left(t);
        samples[2 * i + 1] = right(t);
    }
    QFile file(path_);
    if (file.open(QIODevice::WriteOnly))
        file.write(reinterpret_cast<const char*>(samples.data()),
                   qint64(samples.size() * sizeof(float)));
}

SinkPlayer::~SinkPlayer() { stop(); }

bool SinkPlayer::start() {
    return process_.start("pacat", {"--playback", "--raw", "--format=float32le",
                                    QString("--rate=%1").arg(sampleRate_), "--channels=2",
                                    "--latency-msec=10", "-d", sink_, path_});
}

QString UltrasonicMicrophone::sinkName() {
    return qEnvironmentVariable("WIDMO_TEST_SINK_192", "widmo_sink192");
}

UltrasonicMicrophone::UltrasonicMicrophone() {
    QString out;
    if (runTool("pactl",
                {"load-module", "module-remap-source", "master=" + sinkName() + ".monitor",
                 QString("source_name=") + kSourceName,
                 "source_properties=device.description=WidmoTestMic192"},
                &out) == 0)
        module_ = out.trimmed().toInt();
}

UltrasonicMicrophone::~UltrasonicMicrophone() {
    if (module_ >= 0)
        unloadModule(module_);
}

void SinkPlayer::stop() { process_.stop(); }

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

int virtualMicrophoneModule() {
    QString out;
    if (runTool("pactl", {"list", "short", "modules"}, &out) != 0)
        return -1;
    for (const QString& line : out.split('\n')) {
        if (line.contains("module-remap-source") && line.contains("widmo_mic"))
            return line.section('\t', 0, 0).toInt();
    }
    return -1;
}

int loadVirtualMicrophone() {
    const QString sink = qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink");
    QString out;
    if (runTool("pactl",
                {"load-module", "module-remap-source", "master=" + sink + ".monitor",
                 "source_name=widmo_mic", "source_properties=device.description=WidmoTestMic"},
                &out) != 0)
        return -1;
    runTool("pactl", {"set-default-source", "widmo_mic"});
    return out.trimmed().toInt();
}

namespace {
ChildProcess& silence() {
    static ChildProcess process;
    return process;
}
} // namespace

void keepSinkRendering(bool settle) {
    silence().start("pacat",
                    {"--playback", "--raw", "--format=float32le", "--rate=48000", "--channels=2",
                     "--latency-msec=10", "-d",
                     qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink")},
                    "/dev/zero");
    if (settle)
        usleep(2000000);
}

void stopSinkRendering() { silence().stop(); }

bool restartSoundServer(int downMs) {
    if (runTool("pactl", {"exit"}) != 0)
        return false;
    for (int i = 0; i < 50 && runTool("pactl", {"info"}) == 0; ++i)
        usleep(100000);
    usleep(useconds_t(downMs) * 1000);
    const QString sink = qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink");
    if (runTool("pulseaudio", {"--daemonize=yes", "--exit-idle-time=-1", "-n", "--use-pid-file=no",
                               "--load=module-native-protocol-unix",
                               "--load=module-null-sink sink_name=" + sink + " rate=48000"}) != 0)
        return false;
    bool up = false;
    for (int i = 0; i < 50 && !up; ++i) {
        up = runTool("pactl", {"info"}) == 0;
        if (!up)
            usleep(100000);
    }
    if (!up || loadVirtualMicrophone() < 0 || runTool("pactl", {"set-default-sink", sink}) != 0)
        return false;
    runTool("pactl", {"load-module", "module-null-sink",
                      "sink_name=" + UltrasonicMicrophone::sinkName(), "rate=192000"});
    keepSinkRendering(false);
    return true;
}

bool unloadModule(int module) {
    return runTool("pactl", {"unload-module", QString::number(module)}) == 0;
}

} // namespace widmo::test
