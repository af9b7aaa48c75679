#pragma once

#include "batch/BatchSettings.h"

#include <QString>
#include <QStringList>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace widmo {

class BatchAnalysis;

/// Runs the batch command over a list of files: reads each in blocks,
/// analyses it with `BatchAnalysis` while it is read, and writes what
/// `BatchSettings` asks for.
///
/// Work is spread over `jobs` threads across files and across the chunks of
/// one file: a thread analyses a chunk that waits, else reads the next block
/// of a file that has fewer than `kBlocksInFlight` blocks unmerged, else
/// opens a new file (at most `jobs` files at a time). So memory depends on
/// the number of threads, never on the files' lengths. The name "-" reads
/// standard input (named `stdinName` in the outputs). Outputs go beside each
/// file, or into `outputDirectory`, named after the file's full name:
/// NAME.png, NAME.spectrum.csv, NAME.bandsB.csv, NAME.0001.png, ...,
/// NAME.ltsa.*. Each is written to a temporary file and renamed, so no
/// partial file ever carries the final name. Summary lines (standard output)
/// and error lines (standard error) come in the order of the files,
/// whatever the number of threads.
///
/// A file that cannot be analysed (missing, a directory, unreadable, empty,
/// truncated, a channel it does not have, an output that cannot be written)
/// gets one line "widmo-analyze: FILE: reason" on standard error; the other
/// files are still done and `run` returns 1.
///
/// Threading: `run` is called once, from one thread; it starts and joins the
/// workers. The progress line, the result lists and the hand-out of files,
/// blocks and tasks are under one mutex (none of this is real-time).
class BatchRunner {
public:
    struct Options {
        QStringList files;
        QString outputDirectory; ///< empty: beside each file
        int32_t jobs = 1;        ///< threads, >= 1
        bool skipExisting = false;
        bool progress = false;                       ///< draw a progress bar on `err`
        QString stdinName = QStringLiteral("stdin"); ///< the outputs' name for "-"
    };
    /// Blocks of one file read and not yet merged.
    static constexpr int32_t kBlocksInFlight = 3;

    /// `out` receives the summary lines, `err` the error lines and the
    /// progress bar; both must stay open during `run`.
    BatchRunner(const BatchSettings& settings, const Options& options, FILE* out, FILE* err);
    ~BatchRunner();
    BatchRunner(const BatchRunner&) = delete;
    BatchRunner& operator=(const BatchRunner&) = delete;

    /// Does every file. 0 when every file succeeded (or was skipped), 1 otherwise.
    int run();

    /// The output files of `file` for `settings`, in `outputDirectory` (empty:
    /// the file's own folder). Any thread.
    static QStringList outputPaths(const BatchSettings& settings, const QString& outputDirectory,
                                   const QString& file, const QString& stdinName);
    /// The outputs' path without suffixes for `file`.
    static QString outputStem(const QString& outputDirectory, const QString& file,
                              const QString& stdinName);

private:
    struct Job;
    struct Task;
    struct Result {
        bool done = false;
        QByteArray out; ///< the summary line, when asked
        QByteArray err; ///< the error line, when the file failed
    };

    void workerLoop();
    /// Opens file `index` and makes it a job, or records why it cannot be.
    void startFile(int32_t index);
    /// Reads and commits the next block of `job`, queueing its chunks. Unlocked.
    void readBlock(const std::shared_ptr<Job>& job);
    /// After the analysis: queues the image's stripes, or writes the outputs.
    void finishAnalysis(const std::shared_ptr<Job>& job);
    /// Writes the outputs of a job whose tasks are all done.
    void finishJob(const std::shared_ptr<Job>& job);
    void failJob(const std::shared_ptr<Job>& job, const QString& reason);
    /// Frees what the job held, takes it off the active list and publishes its result.
    void retireJob(const std::shared_ptr<Job>& job, Result result);
    /// Records the result of file `index` and prints what is now in order. Locked.
    void setResultLocked(int32_t index, Result result);
    void drawProgressLocked(bool force);
    QString errorLine(int32_t index, const QString& reason) const;

    BatchSettings settings_;
    Options options_;
    FILE* out_;
    FILE* err_;
    /// Per file: an error known before reading (duplicate output names).
    std::vector<QString> preErrors_;

    std::mutex mutex_;
    std::condition_variable wake_;
    int32_t nextFile_ = 0;
    int32_t opening_ = 0;
    std::deque<Task> tasks_;
    std::vector<std::shared_ptr<Job>> active_; ///< files opened and not yet finished
    std::vector<Result> results_;
    int32_t nextToEmit_ = 0;
    int32_t filesDone_ = 0;
    bool failed_ = false;
    int64_t lastProgressMs_ = -1;
    bool progressShown_ = false;
};

} // namespace widmo
