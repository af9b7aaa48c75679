#include "BenchSupport.h"

#include "dsp/Transposer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSettings>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace widmo::bench {

bool runInterleaved(int argc, char** argv, benchmark::BenchmarkReporter* reporter) {
    static char repetitions[] = "--benchmark_repetitions=5";
    static char interleaving[] = "--benchmark_enable_random_interleaving=true";
    static char aggregates[] = "--benchmark_report_aggregates_only=true";
    std::vector<char*> args(argv, argv + argc);
    bool given = false;
    for (int k = 1; k < argc; ++k)
        given |= std::strncmp(argv[k], "--benchmark_repetitions", 23) == 0;
    if (!given)
        args.insert(args.end(), {repetitions, interleaving, aggregates});
    args.push_back(nullptr);
    int count = static_cast<int>(args.size()) - 1;
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data()))
        return false;
    benchmark::RunSpecifiedBenchmarks(reporter);
    benchmark::Shutdown();
    return true;
}

double percentile(std::vector<double> values, double p) {
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    const double rank = p * static_cast<double>(values.size() - 1);
    const auto below = static_cast<size_t>(rank);
    if (below + 1 >= values.size())
        return values.back();
    return values[below] + (rank - std::floor(rank)) * (values[below + 1] - values[below]);
}

double median(std::vector<double> values) { return percentile(std::move(values), 0.5); }

double fastest(const std::vector<double>& values) {
    return values.empty() ? 0.0 : *std::min_element(values.begin(), values.end());
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void spin(int ms) {
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < ms) {
        QCoreApplication::processEvents();
        QThread::usleep(200);
    }
}

TemporarySettings::TemporarySettings() {
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir_.path());
}

void RecordingReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.error_occurred)
            continue;
        const std::string name = run.run_name.str();
        if (run.run_type == Run::RT_Iteration && !times_.count(name))
            times_[name] = run.GetAdjustedRealTime();
        else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
            times_[name] = run.GetAdjustedRealTime();
        else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "min")
            fastestTimes_[name] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
}

namespace {

// A run's name: "BM_interval/4096".
double find(const std::map<std::string, double>& times, std::string name,
            std::initializer_list<int64_t> args) {
    for (int64_t a : args)
        name.append("/").append(std::to_string(a));
    const auto it = times.find(name);
    return it == times.end() ? 0.0 : it->second;
}

} // namespace

double RecordingReporter::time(const std::string& name, std::initializer_list<int64_t> args) const {
    return find(times_, name, args);
}

double RecordingReporter::fastestTime(const std::string& name,
                                      std::initializer_list<int64_t> args) const {
    return find(fastestTimes_, name, args);
}

int32_t transposerFrame(int32_t rate) { return Transposer::frameSize(rate); }

int32_t transposerHop(int32_t rate) { return transposerFrame(rate) / 4; }

bool startPlayback(QProcess& process, const QString& sink, int rate, int latencyMs) {
    process.start("pacat",
                  {"--playback", "--raw", "--format=float32le", QString("--rate=%1").arg(rate),
                   "--channels=2", QString("--latency-msec=%1").arg(latencyMs), "-d", sink});
    return process.waitForStarted(5000);
}

SinkKeepAlive::SinkKeepAlive(const QString& sink, int rate) {
    process_.setStandardInputFile("/dev/zero");
    startPlayback(process_, sink, rate, 10);
    spin(2000);
}

SinkKeepAlive::~SinkKeepAlive() {
    process_.kill();
    process_.waitForFinished(3000);
}

void WatchingDelegate::didGetNewAudioData(AudioBlock data) {
    if (!seen.load(std::memory_order_acquire)) {
        for (int32_t i = 0; i < data.count * 2; ++i) {
            if (std::fabs(data.data[i]) > threshold_) {
                at = Clock::now();
                seen.store(true, std::memory_order_release);
                break;
            }
        }
    }
    if (engine_ != nullptr)
        engine_->didGetNewAudioData(data);
    blocks.fetch_add(1, std::memory_order_relaxed);
}

} // namespace widmo::bench
