#pragma once

// What the benchmarks share: the command line that interleaves repetitions,
// order statistics of measured times, a reporter that keeps each case's time
// for the table printed after the run, the settings folder of a run, the main
// thread's event loop, an audio object that is always recording, the
// transposer's frame, and the test sound server's playback and watching.

#include "engine/AudioSessionDelegate.h"
#include "engine/AudioSessionInterface.h"

#include "../tests/core/TestSignals.h"

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace widmo::bench {

using Clock = std::chrono::steady_clock;

/// Runs the registered benchmarks. Unless the caller chose a repetition count,
/// five repetitions in random interleaved order, reported as aggregates, so
/// that a disturbance from another process falls on a benchmark and its
/// baseline alike. `reporter` may be null (the console). False for arguments
/// the library does not know.
bool runInterleaved(int argc, char** argv, benchmark::BenchmarkReporter* reporter = nullptr);

/// The `p`-quantile (0 to 1) of `values`, interpolated between the two nearest
/// ranks; 0 when empty.
double percentile(std::vector<double> values, double p);
double median(std::vector<double> values);
/// The smallest value, 0 when empty: the repetition least disturbed by others.
double fastest(const std::vector<double>& values);

/// `count` samples uniform in [-1, 1), the same for the same `seed`.
inline std::vector<float> noise(size_t count, unsigned seed = 1234) {
    return test::noise(count, seed);
}

/// Seconds since `start`.
double secondsSince(Clock::time_point start);

/// Runs the main thread's events for `ms` milliseconds. Main thread.
void spin(int ms);

/// The per-user settings of the run in a temporary folder, for the object's life.
class TemporarySettings {
public:
    TemporarySettings();
    QString path() const { return dir_.path(); }

private:
    QTemporaryDir dir_;
};

/// Console output as usual, and each case's time per iteration kept for the
/// table printed after the run: the median over the repetitions, or the single
/// run's time, and the fastest repetition when the case computes "min".
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override;
    /// The time of the benchmark `name` with the arguments `args`, in the
    /// benchmark's unit; 0 when it did not run.
    double time(const std::string& name, std::initializer_list<int64_t> args) const;
    /// The fastest repetition's time (0 without repetitions).
    double fastestTime(const std::string& name, std::initializer_list<int64_t> args) const;

private:
    std::map<std::string, double> times_;
    std::map<std::string, double> fastestTimes_;
};

/// Samples in one analysis frame of the transposer at `rate` Hz, and its hop.
int32_t transposerFrame(int32_t rate);
int32_t transposerHop(int32_t rate);

/// An audio object that is always recording: the benchmark delivers the blocks.
class AlwaysRecording final : public AudioSessionInterface {
public:
    void setDelegate(AudioSessionDelegate* d) override { delegate_ = d; }
    AudioSessionDelegate* delegate() const override { return delegate_; }
    bool isRecording() const override { return true; }
    bool isPlaying() const override { return false; }
    bool isSetupInProgress() const override { return false; }
    int64_t currentInputChannel() const override { return 0; }
    void setCurrentInputChannel(int64_t) override {}
    void startRecorder(std::function<void(bool)> completion) override {
        if (completion)
            completion(true);
    }
    void startPlayer(std::function<void(bool)> completion) override {
        if (completion)
            completion(false);
    }
    void stop() override {}

private:
    AudioSessionDelegate* delegate_ = nullptr;
};

/// Starts `pacat` playing raw interleaved stereo float32 at `rate` Hz into the
/// test server's `sink`, with a stream latency of `latencyMs`; the samples are
/// what the caller writes to `process` (or its standard input file). False
/// when it did not start within 5 s.
bool startPlayback(QProcess& process, const QString& sink, int rate, int latencyMs);

/// Plays silence into `sink` for the object's life, so that the null sink
/// renders in small steps and its monitor delivers in real time; the
/// constructor returns once the stream has run for 2 s. Main thread.
class SinkKeepAlive {
public:
    SinkKeepAlive(const QString& sink, int rate);
    ~SinkKeepAlive();

private:
    QProcess process_;
};

/// Notes when a delivered block first holds a sample above `threshold`
/// (re-armed by clearing `seen`), counts the blocks, and passes each to
/// `engine` when there is one. Threading: called on the audio object's
/// delivery queue; `seen` (acquire/release) publishes `at` to the main thread.
class WatchingDelegate : public AudioSessionDelegate {
public:
    WatchingDelegate(AudioSessionDelegate* engine, float threshold)
        : engine_(engine), threshold_(threshold) {}
    void didGetNewAudioData(AudioBlock data) override;
    void giveNewAudioData(AudioBlock*) override {}

    std::atomic<bool> seen{false};
    Clock::time_point at;
    std::atomic<int64_t> blocks{0};

private:
    AudioSessionDelegate* engine_;
    float threshold_;
};

} // namespace widmo::bench
