#include "batch/BatchRunner.h"

#include "audio/AudioFileReader.h"
#include "batch/BatchAnalysis.h"
#include "batch/PngStripeEncoder.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>

namespace widmo {

namespace {

const char* const kWindowNames[] = {"rectangle", "Blackman", "Hamming", "Hann"};

// A JSON string literal (quotes included) of `text`.
QByteArray jsonString(const QString& text) {
    QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

QByteArray jsonNumber(double v, int decimals) {
    return std::isfinite(v) ? QByteArray::number(v, 'f', decimals) : QByteArray("null");
}

// Writes through `write` into a hidden file beside `path`, renamed to `path`
// when complete: no partial file ever carries the final name. Not synced to
// disk (QSaveFile would be): on a run over thousands of files each sync
// costs more than the analysis, and a file lost in a crash is made again by
// the next run.
QString writeFile(const QString& path, const std::function<bool(QFile&)>& write) {
    static std::atomic<int> counter{0};
    const QFileInfo info(path);
    const QString part = info.dir().filePath(QStringLiteral(".%1.%2-%3.part")
                                                 .arg(info.fileName())
                                                 .arg(QCoreApplication::applicationPid())
                                                 .arg(counter.fetch_add(1)));
    QFile file(part);
    if (!file.open(QIODevice::WriteOnly))
        return file.errorString();
    // The buffer is flushed here, not in close, so that errno still holds the
    // cause of a failed write (a full disk).
    errno = 0;
    const bool written = write(file) && file.flush();
    const int cause = errno;
    file.close();
    if (!written || file.error() != QFileDevice::NoError) {
        file.remove();
        // The system's reason: Qt's text for a short write is "Unknown error".
        return cause != 0 ? QString::fromLocal8Bit(std::strerror(cause)) : file.errorString();
    }
    if (std::rename(QFile::encodeName(part).constData(), QFile::encodeName(path).constData()) !=
        0) {
        const QString reason = QString::fromLocal8Bit(std::strerror(errno));
        file.remove();
        return reason;
    }
    return {};
}

QString writeFile(const QString& path, const QByteArray& bytes) {
    return writeFile(path, [&](QFile& f) { return f.write(bytes) == bytes.size(); });
}

QString writeImage(const QString& path, const PngStripeEncoder& png) {
    return writeFile(path, [&](QFile& f) { return png.write(&f); });
}

} // namespace

// A file in two phases, each a list of tasks any thread may take: the
// analysis chunks, then (with a spectrogram) the image's PNG stripes. The
// counters are under the runner's mutex.
struct BatchRunner::Job {
    int32_t index = 0;
    std::unique_ptr<BatchAnalysis> analysis;
    QImage image;
    std::unique_ptr<PngStripeEncoder> png; ///< set for the second phase
    int32_t tasks = 0;                     ///< tasks of the current phase
    int32_t nextTask = 0;                  ///< next one to hand out
    int32_t remaining = 0;                 ///< not yet done
    int32_t done = 0;                      ///< tasks done in both phases (progress)
    int32_t total = 1;                     ///< tasks of both phases (progress)
};

BatchRunner::BatchRunner(const BatchSettings& settings, const Options& options, FILE* out,
                         FILE* err)
    : settings_(settings), options_(options), out_(out), err_(err) {
    options_.jobs = std::max(1, options_.jobs);
    const auto count = static_cast<size_t>(options_.files.size());
    results_.resize(count);
    preErrors_.resize(count);
    // Two inputs with the same name into one folder would overwrite each
    // other's outputs: the second one is refused.
    std::map<QString, int32_t> taken;
    for (size_t i = 0; i < count; ++i) {
        const QStringList outputs = outputPaths(settings_, options_.outputDirectory,
                                                options_.files[static_cast<qsizetype>(i)]);
        if (outputs.isEmpty())
            continue;
        const QString key = QFileInfo(outputs.front()).absoluteFilePath();
        const auto [it, fresh] = taken.emplace(key, static_cast<int32_t>(i));
        if (!fresh)
            preErrors_[i] = QStringLiteral("its outputs would overwrite those of %1")
                                .arg(options_.files[it->second]);
    }
}

BatchRunner::~BatchRunner() = default;

QStringList BatchRunner::outputPaths(const BatchSettings& settings, const QString& outputDirectory,
                                     const QString& file) {
    const QFileInfo info(file);
    const QString folder = outputDirectory.isEmpty() ? info.path() : outputDirectory;
    const QString stem = QDir(folder).filePath(info.fileName());
    QStringList paths;
    if (settings.spectrogram)
        paths << stem + QStringLiteral(".png");
    if (settings.spectrum)
        paths << stem + QStringLiteral(".spectrum.csv");
    if (settings.bandsPerOctave > 0)
        paths << stem + QStringLiteral(".bands%1.csv").arg(settings.bandsPerOctave);
    if (settings.levelsPeriod > 0.0)
        paths << stem + QStringLiteral(".levels.csv");
    return paths;
}

int BatchRunner::run() {
    if (!options_.outputDirectory.isEmpty())
        QDir().mkpath(options_.outputDirectory);
    std::vector<std::thread> threads;
    for (int32_t t = 1; t < options_.jobs; ++t)
        threads.emplace_back([this] { workerLoop(); });
    workerLoop();
    for (std::thread& t : threads)
        t.join();
    const std::lock_guard<std::mutex> lock(mutex_);
    drawProgressLocked(true);
    if (progressShown_)
        std::fputc('\n', err_);
    std::fflush(err_);
    std::fflush(out_);
    return failed_ ? 1 : 0;
}

void BatchRunner::workerLoop() {
    // This thread's FFT engine and buffers, for the job it worked on last.
    // Held, so that a new job can never take a finished one's place.
    std::shared_ptr<Job> workerJob;
    std::shared_ptr<BatchAnalysis::Worker> worker;
    const auto fileCount = static_cast<int32_t>(options_.files.size());
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (!jobs_.empty()) {
            std::shared_ptr<Job> job = jobs_.front();
            const int32_t task = job->nextTask++;
            if (job->nextTask == job->tasks)
                jobs_.pop_front();
            lock.unlock();
            if (job->png) {
                job->png->encodeStripe(task);
            } else {
                if (workerJob != job) {
                    worker.reset();
                    worker = job->analysis->makeWorker();
                    workerJob = job;
                }
                job->analysis->analyseChunk(task, *worker);
            }
            lock.lock();
            ++job->done;
            drawProgressLocked(false);
            if (--job->remaining == 0) {
                lock.unlock();
                worker.reset();
                workerJob.reset();
                finishPhase(job);
                lock.lock();
            }
            continue;
        }
        if (nextFile_ < fileCount) {
            const int32_t index = nextFile_++;
            ++reading_;
            lock.unlock();
            startFile(index);
            lock.lock();
            --reading_;
            wake_.notify_all();
            continue;
        }
        // A file being read brings chunks, and a job whose last tasks are still
        // running brings the stripes of its image: only then is the work over.
        if (reading_ == 0 && active_.empty())
            break;
        wake_.wait(lock);
    }
    wake_.notify_all();
}

QString BatchRunner::errorLine(int32_t index, const QString& reason) const {
    return QStringLiteral("widmo-analyze: %1: %2\n").arg(options_.files[index], reason);
}

void BatchRunner::startFile(int32_t index) {
    const QString& path = options_.files[index];
    const auto fail = [&](const QString& reason) {
        Result r;
        r.err = errorLine(index, reason).toLocal8Bit();
        const std::lock_guard<std::mutex> lock(mutex_);
        setResultLocked(index, std::move(r));
    };
    if (!preErrors_[static_cast<size_t>(index)].isEmpty())
        return fail(preErrors_[static_cast<size_t>(index)]);

    const QStringList outputs = outputPaths(settings_, options_.outputDirectory, path);
    if (options_.skipExisting && !outputs.isEmpty() &&
        std::all_of(outputs.begin(), outputs.end(),
                    [](const QString& p) { return QFileInfo::exists(p); })) {
        const std::lock_guard<std::mutex> lock(mutex_);
        setResultLocked(index, Result{});
        return;
    }

    AudioFileReader reader;
    if (!reader.open(path.toStdString()))
        return fail(QString::fromStdString(reader.errorText()));
    if (settings_.channel > reader.channels())
        return fail(QStringLiteral("has %1 channel(s), channel %2 was asked for")
                        .arg(reader.channels())
                        .arg(settings_.channel));
    std::vector<float> samples;
    const int32_t channel =
        settings_.channel > 0 ? settings_.channel - 1 : AudioFileReader::kMixAllChannels;
    if (!reader.readMono(samples, 0.0, channel))
        return fail(QString::fromStdString(reader.errorText()));
    if (samples.empty())
        return fail(QStringLiteral("holds no audio samples"));

    auto job = std::make_shared<Job>();
    job->index = index;
    job->analysis = std::make_unique<BatchAnalysis>(
        settings_, std::move(samples), static_cast<float>(reader.sampleRate()), reader.channels());
    if (!job->analysis->valid())
        return fail(job->analysis->error());
    job->tasks = job->remaining = job->analysis->chunkCount();
    job->total = job->tasks;
    if (settings_.spectrogram)
        job->total += (settings_.rows + BatchAnalysis::kTopMargin + BatchAnalysis::kBottomMargin +
                       PngStripeEncoder::kStripeRows - 1) /
                      PngStripeEncoder::kStripeRows;
    const std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(job);
    active_.push_back(job);
    wake_.notify_all();
}

void BatchRunner::finishPhase(const std::shared_ptr<Job>& job) {
    if (!job->png) {
        job->analysis->finish();
        if (settings_.spectrogram) {
            // The image's stripes become the job's next tasks.
            const QString& path = options_.files[job->index];
            const BatchAnalysis& a = *job->analysis;
            const QString title = QStringLiteral("%1   %2 Hz   FFT %3 %4   hop %5")
                                      .arg(QFileInfo(path).fileName())
                                      .arg(static_cast<double>(a.sampleRate()))
                                      .arg(settings_.fftSize)
                                      .arg(QString::fromLatin1(
                                          kWindowNames[std::clamp(settings_.fftWindowType, 0, 3)]))
                                      .arg(a.intervalSizeInFrames());
            job->image = job->analysis->takeSpectrogramImage(title);
            job->png = std::make_unique<PngStripeEncoder>(job->image);
            const std::lock_guard<std::mutex> lock(mutex_);
            job->tasks = job->remaining = job->png->stripeCount();
            job->nextTask = 0;
            job->total = job->done + job->tasks;
            jobs_.push_back(job);
            wake_.notify_all();
            return;
        }
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        active_.erase(std::find(active_.begin(), active_.end(), job));
        wake_.notify_all();
    }
    finishJob(*job);
}

void BatchRunner::finishJob(Job& job) {
    BatchAnalysis& a = *job.analysis;
    const QString& path = options_.files[job.index];
    Result result;
    QString why;
    const QStringList outputs = outputPaths(settings_, options_.outputDirectory, path);
    qsizetype next = 0;
    if (settings_.spectrogram && why.isEmpty())
        why = writeImage(outputs[next++], *job.png);
    if (settings_.spectrum && why.isEmpty())
        why = writeFile(outputs[next++], a.spectrumCsv());
    if (settings_.bandsPerOctave > 0 && why.isEmpty())
        why = writeFile(outputs[next++], a.bandsCsv());
    if (settings_.levelsPeriod > 0.0 && why.isEmpty())
        why = writeFile(outputs[next++], a.levelsCsv());
    if (!why.isEmpty()) {
        result.err =
            errorLine(job.index, QStringLiteral("cannot write output: ") + why).toLocal8Bit();
    } else if (settings_.summary) {
        QByteArray line = "{\"path\":" + jsonString(path);
        line += ",\"sample_rate\":" + jsonNumber(a.sampleRate(), 0);
        line += ",\"channels\":" + QByteArray::number(a.channels());
        line += ",\"duration_s\":" + jsonNumber(a.durationSeconds(), 6);
        const double offset = settings_.splOffsetDB.value_or(0.0);
        const QByteArray unit = settings_.splOffsetDB ? "_db_spl" : "_dbfs";
        line += ",\"peak" + unit + "\":" + jsonNumber(a.peakDBFS() + offset, 3);
        line += ",\"rms" + unit + "\":" + jsonNumber(a.rmsDBFS() + offset, 3);
        line += ",\"strongest_hz\":" + jsonNumber(a.strongestFrequency(), 3);
        if (settings_.levelOptionGiven)
            line += a.levelsJson();
        line += "}\n";
        result.out = line;
    }
    job.png.reset();
    job.image = QImage();
    job.analysis.reset();
    const std::lock_guard<std::mutex> lock(mutex_);
    setResultLocked(job.index, std::move(result));
}

void BatchRunner::setResultLocked(int32_t index, Result result) {
    if (!result.err.isEmpty())
        failed_ = true;
    result.done = true;
    results_[static_cast<size_t>(index)] = std::move(result);
    ++filesDone_;
    while (nextToEmit_ < static_cast<int32_t>(results_.size()) &&
           results_[static_cast<size_t>(nextToEmit_)].done) {
        Result& r = results_[static_cast<size_t>(nextToEmit_)];
        if (!r.err.isEmpty()) {
            if (progressShown_)
                std::fputs("\r\033[K", err_);
            std::fwrite(r.err.constData(), 1, static_cast<size_t>(r.err.size()), err_);
        }
        if (!r.out.isEmpty()) {
            std::fwrite(r.out.constData(), 1, static_cast<size_t>(r.out.size()), out_);
            std::fflush(out_);
        }
        r = Result{true, {}, {}};
        ++nextToEmit_;
    }
    drawProgressLocked(true);
}

void BatchRunner::drawProgressLocked(bool force) {
    if (!options_.progress)
        return;
    static QElapsedTimer clock;
    if (!clock.isValid())
        clock.start();
    const int64_t now = clock.elapsed();
    if (!force && lastProgressMs_ >= 0 && now - lastProgressMs_ < 100)
        return;
    lastProgressMs_ = now;
    const auto total = static_cast<double>(std::max<qsizetype>(1, options_.files.size()));
    double done = filesDone_;
    for (const std::shared_ptr<Job>& job : active_)
        done += static_cast<double>(job->done) / std::max(1, job->total);
    const double fraction = std::clamp(done / total, 0.0, 1.0);
    constexpr int kWidth = 30;
    const auto filled = static_cast<int>(fraction * kWidth);
    std::fprintf(
        err_, "\r[%s%s] %3d%%  %d/%d files", std::string(static_cast<size_t>(filled), '#').c_str(),
        std::string(static_cast<size_t>(kWidth - filled), '.').c_str(),
        static_cast<int>(fraction * 100.0), filesDone_, static_cast<int>(options_.files.size()));
    std::fflush(err_);
    progressShown_ = true;
}

} // namespace widmo
