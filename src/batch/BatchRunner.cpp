#include "batch/BatchRunner.h"

#include "batch/BatchAnalysis.h"
#include "batch/LtsaWriter.h"
#include "batch/OutputFile.h"
#include "batch/PngStripeEncoder.h"
#include "batch/SoundStream.h"
#include "batch/SpectrogramCanvas.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <cmath>
#include <cstdio>
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

QString clockText(double seconds) {
    const auto s = static_cast<int64_t>(std::max(0.0, seconds));
    return s >= 3600 ? QStringLiteral("%1:%2:%3")
                           .arg(s / 3600)
                           .arg((s / 60) % 60, 2, 10, QLatin1Char('0'))
                           .arg(s % 60, 2, 10, QLatin1Char('0'))
                     : QStringLiteral("%1:%2").arg(s / 60).arg(s % 60, 2, 10, QLatin1Char('0'));
}

} // namespace

// A file being read and analysed, then (with one picture) encoded. Its
// flags and counters are under the runner's mutex.
struct BatchRunner::Job {
    int32_t index = 0;
    std::unique_ptr<SoundStream> stream;
    std::unique_ptr<BatchAnalysis> analysis;
    std::unique_ptr<PngStripeEncoder> png; ///< set once the analysis is finished
    std::unique_ptr<OutputFile> image;     ///< the picture's file, written by `png`
    bool reading = false;
    bool readDone = false;
    QString failure; ///< why the file fails (read error), reported at its end
    int64_t framesRead = 0;
    int64_t declaredFrames = -1;
    double sampleRate = 1.0;
    int32_t stripesLeft = 0;
};

struct BatchRunner::Task {
    std::shared_ptr<Job> job;
    std::shared_ptr<BatchAnalysis::Block> block;
    int32_t chunk = 0;
    int32_t stripe = -1; ///< >= 0: a PNG stripe instead of a chunk
};

BatchRunner::BatchRunner(const BatchSettings& settings, const Options& options, FILE* out,
                         FILE* err)
    : settings_(settings), options_(options), out_(out), err_(err) {
    options_.jobs = std::max(1, options_.jobs);
    const auto count = static_cast<size_t>(options_.files.size());
    results_.resize(count);
    preErrors_.resize(count);
    // Two inputs with the same name into one folder would overwrite each
    // other's outputs: the second one is refused. Standard input is read once.
    std::map<QString, int32_t> taken;
    int32_t standardInput = -1;
    for (size_t i = 0; i < count; ++i) {
        const QString& file = options_.files[static_cast<qsizetype>(i)];
        if (file == QLatin1String(SoundStream::kStandardInput)) {
            if (standardInput >= 0) {
                preErrors_[i] = QStringLiteral("standard input is read once, and an earlier "
                                               "'-' reads it");
                continue;
            }
            standardInput = static_cast<int32_t>(i);
        }
        const QString key =
            QFileInfo(outputStem(options_.outputDirectory, file, options_.stdinName))
                .absoluteFilePath();
        const auto [it, fresh] = taken.emplace(key, static_cast<int32_t>(i));
        if (!fresh)
            preErrors_[i] = QStringLiteral("its outputs would overwrite those of %1")
                                .arg(options_.files[it->second]);
    }
}

BatchRunner::~BatchRunner() = default;

QString BatchRunner::outputStem(const QString& outputDirectory, const QString& file,
                                const QString& stdinName) {
    const bool standardInput = file == QLatin1String(SoundStream::kStandardInput);
    const QFileInfo info(file);
    const QString folder = !outputDirectory.isEmpty() ? outputDirectory
                           : standardInput            ? QStringLiteral(".")
                                                      : info.path();
    return QDir(folder).filePath(standardInput ? stdinName : info.fileName());
}

QStringList BatchRunner::outputPaths(const BatchSettings& settings, const QString& outputDirectory,
                                     const QString& file, const QString& stdinName) {
    const QString stem = outputStem(outputDirectory, file, stdinName);
    QStringList paths;
    if (settings.spectrogram)
        paths << (settings.tileSeconds > 0.0 ? BatchAnalysis::tilePath(stem, 0)
                                             : stem + QStringLiteral(".png"));
    if (settings.spectrum)
        paths << stem + QStringLiteral(".spectrum.csv");
    if (settings.bandsPerOctave > 0)
        paths << stem + QStringLiteral(".bands%1.csv").arg(settings.bandsPerOctave);
    if (settings.levelsPeriod > 0.0)
        paths << stem + QStringLiteral(".levels.csv");
    if (settings.ltsaSeconds > 0.0)
        paths << LtsaWriter::outputPaths(stem);
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
    std::shared_ptr<Job> workerJob;
    std::shared_ptr<BatchAnalysis::Worker> worker;
    const auto fileCount = static_cast<int32_t>(options_.files.size());
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (!tasks_.empty()) {
            Task task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            const std::shared_ptr<Job> job = task.job;
            if (task.stripe >= 0) {
                job->png->encodeStripe(task.stripe);
                lock.lock();
                if (--job->stripesLeft == 0) {
                    lock.unlock();
                    finishJob(job);
                    lock.lock();
                }
                continue;
            }
            if (workerJob != job) {
                worker.reset();
                worker = job->analysis->makeWorker();
                workerJob = job;
            }
            const bool complete = job->analysis->analyseChunk(task.block, task.chunk, *worker);
            task.block.reset();
            if (complete) {
                worker.reset();
                workerJob.reset();
                finishAnalysis(job);
            }
            lock.lock();
            drawProgressLocked(false);
            wake_.notify_all();
            continue;
        }
        std::shared_ptr<Job> reader;
        for (const std::shared_ptr<Job>& job : active_) {
            if (!job->reading && !job->readDone && !job->png &&
                job->analysis->blocksInFlight() < kBlocksInFlight) {
                reader = job;
                break;
            }
        }
        if (reader) {
            reader->reading = true;
            lock.unlock();
            readBlock(reader);
            lock.lock();
            reader->reading = false;
            drawProgressLocked(false);
            wake_.notify_all();
            continue;
        }
        if (nextFile_ < fileCount && static_cast<int32_t>(active_.size()) < options_.jobs) {
            const int32_t index = nextFile_++;
            ++opening_;
            lock.unlock();
            startFile(index);
            lock.lock();
            --opening_;
            wake_.notify_all();
            continue;
        }
        if (nextFile_ >= fileCount && opening_ == 0 && active_.empty())
            break;
        wake_.wait(lock);
    }
    wake_.notify_all();
}

QString BatchRunner::errorLine(int32_t index, const QString& reason) const {
    const QString& file = options_.files[index];
    return QStringLiteral("widmo-analyze: %1: %2\n")
        .arg(file == QLatin1String(SoundStream::kStandardInput) ? QStringLiteral("-") : file,
             reason);
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

    const QStringList outputs =
        outputPaths(settings_, options_.outputDirectory, path, options_.stdinName);
    if (options_.skipExisting && !outputs.isEmpty() &&
        std::all_of(outputs.begin(), outputs.end(),
                    [](const QString& p) { return QFileInfo::exists(p); })) {
        const std::lock_guard<std::mutex> lock(mutex_);
        setResultLocked(index, Result{});
        return;
    }

    auto job = std::make_shared<Job>();
    job->index = index;
    job->stream = std::make_unique<SoundStream>();
    if (!job->stream->open(path, settings_.channel))
        return fail(job->stream->errorText());
    const SoundStream& s = *job->stream;
    const bool standardInput = path == QLatin1String(SoundStream::kStandardInput);
    const QString title =
        QStringLiteral("%1   %2 Hz   FFT %3 %4")
            .arg(standardInput ? options_.stdinName : QFileInfo(path).fileName())
            .arg(s.sampleRate())
            .arg(settings_.fftSize)
            .arg(QString::fromLatin1(kWindowNames[std::clamp(settings_.fftWindowType, 0, 3)]));
    job->analysis = std::make_unique<BatchAnalysis>(
        settings_, static_cast<float>(s.sampleRate()), s.channels(), s.declaredFrames(), title,
        outputStem(options_.outputDirectory, path, options_.stdinName));
    if (!job->analysis->valid())
        return fail(job->analysis->error());
    job->declaredFrames = s.declaredFrames();
    job->sampleRate = s.sampleRate();
    const std::lock_guard<std::mutex> lock(mutex_);
    active_.push_back(job);
    wake_.notify_all();
}

void BatchRunner::readBlock(const std::shared_ptr<Job>& job) {
    BatchAnalysis& a = *job->analysis;
    std::shared_ptr<BatchAnalysis::Block> block = a.newBlock();
    const int64_t n = job->stream->read(BatchAnalysis::input(*block), a.blockFrames());
    int32_t chunks = -1;
    QString failure;
    if (n < 0) {
        failure = job->stream->errorText();
    } else {
        chunks = a.commitBlock(block, n, n < a.blockFrames());
        if (chunks < 0)
            failure = a.error();
        else if (n < a.blockFrames() && a.frames() == 0)
            failure = QStringLiteral("holds no audio samples");
    }
    if (!failure.isEmpty())
        a.abandon();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        job->framesRead = job->stream->framesRead();
        if (!failure.isEmpty()) {
            job->failure = failure;
            job->readDone = true;
        } else {
            job->readDone = n < a.blockFrames();
            for (int32_t c = 0; c < chunks; ++c)
                tasks_.push_back(Task{job, block, c, -1});
        }
        wake_.notify_all();
    }
    // No chunk left to report the end (an empty last block, or a failure).
    if ((chunks <= 0) && a.takeCompletion())
        finishAnalysis(job);
}

void BatchRunner::failJob(const std::shared_ptr<Job>& job, const QString& reason) {
    Result r;
    r.err = errorLine(job->index, reason).toLocal8Bit();
    retireJob(job, std::move(r));
}

void BatchRunner::finishAnalysis(const std::shared_ptr<Job>& job) {
    QString failure;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        failure = job->failure;
    }
    if (failure.isEmpty() && !job->analysis->finish())
        failure = job->analysis->error();
    if (!failure.isEmpty())
        return failJob(job, failure);
    if (SpectrogramCanvas* picture = job->analysis->picture()) {
        // The image's stripes become tasks any thread may take; they are
        // written as they are done, in order.
        job->png = std::make_unique<PngStripeEncoder>(*picture);
        job->image = std::make_unique<OutputFile>(
            outputStem(options_.outputDirectory, options_.files[job->index], options_.stdinName) +
            QStringLiteral(".png"));
        if (!job->image->open() || !job->png->begin(&job->image->file()))
            return failJob(job, QStringLiteral("cannot write output: ") + job->image->error());
        const std::lock_guard<std::mutex> lock(mutex_);
        job->stripesLeft = job->png->stripeCount();
        for (int32_t s = 0; s < job->stripesLeft; ++s)
            tasks_.push_back(Task{job, nullptr, 0, s});
        wake_.notify_all();
        return;
    }
    finishJob(job);
}

void BatchRunner::finishJob(const std::shared_ptr<Job>& job) {
    BatchAnalysis& a = *job->analysis;
    const QString& path = options_.files[job->index];
    Result result;
    QString why;
    const QString stem = outputStem(options_.outputDirectory, path, options_.stdinName);
    if (job->png && (!job->png->finish() || !job->image->commit()))
        why = job->image->error();
    if (settings_.spectrum && why.isEmpty())
        why = OutputFile::writeWhole(stem + QStringLiteral(".spectrum.csv"), a.spectrumCsv());
    if (settings_.bandsPerOctave > 0 && why.isEmpty())
        why = OutputFile::writeWhole(
            stem + QStringLiteral(".bands%1.csv").arg(settings_.bandsPerOctave), a.bandsCsv());
    if (settings_.levelsPeriod > 0.0 && why.isEmpty())
        why = OutputFile::writeWhole(stem + QStringLiteral(".levels.csv"), a.levelsCsv());
    if (!why.isEmpty())
        return failJob(job, QStringLiteral("cannot write output: ") + why);
    if (settings_.summary) {
        const bool standardInput = path == QLatin1String(SoundStream::kStandardInput);
        QByteArray line = "{\"path\":" + jsonString(standardInput ? options_.stdinName : path);
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
    retireJob(job, std::move(result));
}

void BatchRunner::retireJob(const std::shared_ptr<Job>& job, Result result) {
    // What the file held (reader, analysis, picture) goes before its result is published.
    job->png.reset();
    job->image.reset();
    job->analysis.reset();
    job->stream.reset();
    const std::lock_guard<std::mutex> lock(mutex_);
    active_.erase(std::find(active_.begin(), active_.end(), job));
    setResultLocked(job->index, std::move(result));
    wake_.notify_all();
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
    // Files done count whole; a file being read counts by the frames read
    // against the frames its header promises.
    const auto total = static_cast<double>(std::max<qsizetype>(1, options_.files.size()));
    double done = filesDone_;
    bool unknown = false;
    double audioSeconds = 0.0;
    for (const std::shared_ptr<Job>& job : active_) {
        audioSeconds += static_cast<double>(job->framesRead) / job->sampleRate;
        if (job->declaredFrames > 0)
            done += std::min(1.0, static_cast<double>(job->framesRead) /
                                      static_cast<double>(job->declaredFrames));
        else
            unknown = true;
    }
    const double fraction = std::clamp(done / total, 0.0, 1.0);
    constexpr int kWidth = 30;
    const auto filled = static_cast<int>(fraction * kWidth);
    QString left;
    const double elapsed = static_cast<double>(now) / 1000.0;
    if (unknown)
        left =
            QStringLiteral("  %1 of audio in %2").arg(clockText(audioSeconds), clockText(elapsed));
    else if (fraction > 0.005 && fraction < 1.0 && elapsed > 1.0)
        left = QStringLiteral("  %1 left").arg(clockText(elapsed * (1.0 - fraction) / fraction));
    std::fprintf(err_, "\r[%s%s] %3d%%  %d/%d files%s\033[K",
                 std::string(static_cast<size_t>(filled), '#').c_str(),
                 std::string(static_cast<size_t>(kWidth - filled), '.').c_str(),
                 static_cast<int>(fraction * 100.0), filesDone_,
                 static_cast<int>(options_.files.size()), left.toLocal8Bit().constData());
    std::fflush(err_);
    progressShown_ = true;
}

} // namespace widmo
