#include "TestSignals.h"

#include <QFile>

#include <cmath>
#include <numbers>

namespace widmo::test {

int runTool(const QString& program, const QStringList& arguments, QString* output) {
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(10000))
        return -1;
    if (output != nullptr)
        *output = QString::fromLocal8Bit(process.readAllStandardOutput());
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

SinkPlayer::SinkPlayer(int sampleRate, double seconds, const std::function<float(double)>& left,
                       const std::function<float(double)>& right)
    : path_(dir_.filePath("signal.raw")), sampleRate_(sampleRate) {
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
    process_.start("pacat",
                   {"--playback", "--raw", "--format=float32le",
                    QString("--rate=%1").arg(sampleRate_), "--channels=2", "--latency-msec=10",
                    "-d", qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink"), path_});
    return process_.waitForStarted(5000);
}

void SinkPlayer::stop() {
    if (process_.state() == QProcess::NotRunning)
        return;
    process_.terminate();
    if (!process_.waitForFinished(3000)) {
        process_.kill();
        process_.waitForFinished(3000);
    }
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

bool unloadModule(int module) {
    return runTool("pactl", {"unload-module", QString::number(module)}) == 0;
}

} // namespace widmo::test
