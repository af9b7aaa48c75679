#include "batch/BatchRunner.h"

#include "audio/AudioFileReader.h"
#include "batch/BatchAnalysis.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QImageWriter>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

#include <algorithm>
#include <cmath>
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

// Writes `bytes` to `path` through a temporary file renamed at the end.
QString writeFile(const QString& path, const QByteArray& bytes) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return file.errorString();
    if (file.write(bytes) != bytes.size()) {
        const QString why = file.errorString();
        file.cancelWriting();
        return why;
    }
    return file.commit() ? QString() : file.errorString();
}

QString writeImage(const QString& path, const QImage& image) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return file.errorString();
    QImageWriter writer(&file, "png");
    if (!writer.write(image)) {
        file.cancelWriting();
        return writer.errorString();
    }
    return file.commit() ? QString() : file.errorString();
}

} // namespace

struct BatchRunner::Job {
    int32_t index = 0;
    std::unique_ptr<BatchAnalysis> analysis;
    int32_t nextChunk = 0; ///< next chunk to hand out (under the runner's mutex)
    int32_t remaining = 0; ///< chunks not yet analysed (under the runner's mutex)
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
            const int32_t chunk = job->nextChunk++;
            if (job->nextChunk == job->analysis->chunkCount())
                jobs_.pop_front();
            lock.unlock();
            if (workerJob != job) {
                worker.reset();
                worker = job->analysis->makeWorker();
                workerJob = job;
            }
            job->analysis->analyseChunk(chunk, *worker);
            lock.lock();
            drawProgressLocked(false);
            if (--job->remaining == 0) {
                active_.erase(std::find(active_.begin(), active_.end(), job));
                lock.unlock();
                worker.reset();
                workerJob = nullptr;
                finishJob(*job);
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
        if (reading_ == 0)
            break;
        // A file being read may still bring chunks.
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
    job->remaining = job->analysis->chunkCount();
    const std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(job);
    active_.push_back(job);
    wake_.notify_all();
}

void BatchRunner::finishJob(Job& job) {
    BatchAnalysis& a = *job.analysis;
    a.finish();
    const QString& path = options_.files[job.index];
    Result result;
    QString why;
    const QStringList outputs = outputPaths(settings_, options_.outputDirectory, path);
    qsizetype next = 0;
    if (settings_.spectrogram && why.isEmpty()) {
        const QString title =
            QStringLiteral("%1   %2 Hz   FFT %3 %4   hop %5")
                .arg(QFileInfo(path).fileName())
                .arg(static_cast<double>(a.sampleRate()))
                .arg(settings_.fftSize)
                .arg(QString::fromLatin1(kWindowNames[std::clamp(settings_.fftWindowType, 0, 3)]))
                .arg(a.intervalSizeInFrames());
        why = writeImage(outputs[next++], a.takeSpectrogramImage(title));
    }
    if (settings_.spectrum && why.isEmpty())
        why = writeFile(outputs[next++], a.spectrumCsv());
    if (settings_.bandsPerOctave > 0 && why.isEmpty())
        why = writeFile(outputs[next++], a.bandsCsv());
    if (!why.isEmpty()) {
        result.err =
            errorLine(job.index, QStringLiteral("cannot write output: ") + why).toLocal8Bit();
    } else if (settings_.summary) {
        QByteArray line = "{\"path\":" + jsonString(path);
        line += ",\"sample_rate\":" + jsonNumber(a.sampleRate(), 0);
        line += ",\"channels\":" + QByteArray::number(a.channels());
        line += ",\"duration_s\":" + jsonNumber(a.durationSeconds(), 6);
        line += ",\"peak_dbfs\":" + jsonNumber(a.peakDBFS(), 3);
        line += ",\"rms_dbfs\":" + jsonNumber(a.rmsDBFS(), 3);
        line += ",\"strongest_hz\":" + jsonNumber(a.strongestFrequency(), 3);
        line += "}\n";
        result.out = line;
    }
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
    for (const std::shared_ptr<Job>& job : active_) {
        if (job->analysis)
            done += static_cast<double>(job->analysis->chunksDone()) /
                    std::max(1, job->analysis->chunkCount());
    }
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
