#pragma once

#include "batch/BatchSettings.h"
#include "dsp/SoundLevelMeter.h"
#include "render/SpectrogramScrollViewSegment.h"

#include <QByteArray>
#include <QImage>
#include <QString>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace widmo {

class AnalyzerDefaults;
class FFTManager;

/// The analysis of one recording for the batch command: the analyser's own
/// interval FFTs over a mono signal, reduced to an average power spectrum,
/// fractional-octave band levels, a spectrogram image and a few summary
/// figures.
///
/// The signal is cut into the analyser's intervals (`intervalSizeInFrames`
/// samples at the file's rate); interval i is analysed, as in the live
/// analyser, through the `fftSize` samples that end with it (zeros before the
/// start and after the end of the signal). The spectrogram has one column per
/// interval, coloured exactly as the analyser's spectrogram colours a column.
/// The spectrum and the bands average the power of the intervals whose window
/// lies wholly inside the signal (all intervals when the signal is shorter
/// than one window); band minimum and maximum are those of single intervals.
///
/// The intervals are split into chunks of `kChunkIntervals`, fixed whatever
/// the number of threads, and the chunks' sums are added in chunk order, so
/// the results do not depend on how many threads computed them, nor in which
/// order.
///
/// Sound levels (when `levelsPeriod` is set, or with a level option and the
/// summary) come from a `SoundLevelMeter` run over the whole signal in
/// `finish`, in order; with a calibration, each interval's samples are fed
/// with the broadband power factor of that interval's weighted spectrum.
///
/// Threading: `analyseChunk` may run on any threads at once, each thread with
/// its own `Worker` and each chunk once. `finish` and the result accessors run
/// after every chunk, on one thread.
class BatchAnalysis {
public:
    static constexpr int32_t kChunkIntervals = 64;

    /// One thread's FFT engine and buffers for one analysis.
    class Worker;

    /// `samples` at `sampleRate` Hz (> 0), at least one sample. Builds the
    /// document geometry and the index tables for these settings and that
    /// rate; allocates the image (when a spectrogram is asked) and the sums.
    /// `channels` is only reported. Any thread.
    BatchAnalysis(const BatchSettings& settings, std::vector<float> samples, float sampleRate,
                  int32_t channels);
    ~BatchAnalysis();
    BatchAnalysis(const BatchAnalysis&) = delete;
    BatchAnalysis& operator=(const BatchAnalysis&) = delete;

    /// False, with `error()`, when the settings cannot analyse this signal
    /// (for example an image too large to hold); nothing else may be called then.
    bool valid() const { return error_.isEmpty(); }
    QString error() const { return error_; }

    int32_t chunkCount() const { return chunkCount_; }
    int64_t intervalCount() const { return intervalCount_; }
    /// Hop between columns, samples.
    int32_t intervalSizeInFrames() const;

    /// A worker for the calling thread; reuse it for every chunk of this
    /// analysis. (Shared: its deleter is made where the class is complete.)
    std::shared_ptr<Worker> makeWorker();
    /// Analyses chunk `chunk` (0 .. chunkCount - 1). Any thread, see the class comment.
    void analyseChunk(int32_t chunk, Worker& worker);

    /// Averages the sums once every chunk is done.
    void finish();

    /// "frequency_hz,level_db" and one line per FFT bin (0 .. fftSize/2 - 1),
    /// levels in dB (a full-scale sine on a bin reads 0 dB, floor -144).
    QByteArray spectrumCsv() const;
    /// "centre_hz,level_db,min_db,max_db" and one line per band the FFT
    /// resolves, with the octave RTA's band tables and band sums.
    QByteArray bandsCsv() const;
    /// The spectrogram (one column per interval, `rows` rows) framed by
    /// labelled time and frequency axes and a title line `title`; moved out,
    /// so a second call gives a null image (as does an analysis without a
    /// spectrogram).
    QImage takeSpectrogramImage(const QString& title);
    /// The levels CSV: "start_s" and the period's Leq, maximum Fast and Slow
    /// and C peak, one line per `levelsPeriod` (the last one may be shorter);
    /// column names carry the unit and weighting (see the command's help).
    QByteArray levelsCsv() const;
    /// The summary's level keys, each preceded by a comma: LWeq, LWFmax,
    /// LWSmax and LCpeak over the whole signal.
    QByteArray levelsJson() const;
    /// Summary figures of the signal.
    double durationSeconds() const;
    float sampleRate() const { return sampleRate_; }
    int32_t channels() const { return channels_; }
    /// Sample peak and RMS in dBFS (20 log10; a full-scale sine has a peak of
    /// 0 and an RMS of -3.01), floor -144.
    double peakDBFS() const;
    double rmsDBFS() const;
    /// Frequency of the strongest bin of the average spectrum (bin 0 left
    /// out), Hz.
    double strongestFrequency() const;
    /// Average level of bin `bin` in dB (tests).
    double spectrumLevelDB(int32_t bin) const;

    /// Pixel margins around the spectrogram's plot area in the image.
    static constexpr int kLeftMargin = 76;
    static constexpr int kBottomMargin = 44;
    static constexpr int kTopMargin = 26;
    static constexpr int kRightMargin = 16;

private:
    struct ChunkSums;
    /// Adds finished chunks into the totals in chunk order. Under mergeMutex_.
    void mergeReadyChunks();
    bool inAverage(int64_t interval) const;
    /// Feeds the whole signal to the sound level meter. In `finish`.
    void measureLevels();

    BatchSettings settings_;
    std::vector<float> samples_;
    float sampleRate_ = 0.0f;
    int32_t channels_ = 0;
    QString error_;
    std::unique_ptr<AnalyzerDefaults> defaults_;
    SpectrogramColorRamp ramp_;
    int64_t intervalCount_ = 0;
    int32_t chunkCount_ = 0;
    int64_t averageFirst_ = 0; ///< intervals averaged: averageFirst_ .. averageLast_ - 1
    int64_t averageLast_ = 0;
    QImage image_;
    uchar* plot_ = nullptr; ///< the image's bits, plot area at (kLeftMargin, kTopMargin)
    qsizetype stride_ = 0;

    std::mutex mergeMutex_;
    std::map<int32_t, std::unique_ptr<ChunkSums>> pending_;
    int32_t nextToMerge_ = 0;
    std::vector<double> spectrumSum_;
    std::vector<double> bandSum_;
    std::vector<float> bandMin_;
    std::vector<float> bandMax_;
    double squareSum_ = 0.0;
    float peak_ = 0.0f;
    int64_t averaged_ = 0;

    bool levelsWanted_ = false;
    std::vector<float> calibrationFactors_;  ///< per bin; empty without a calibration
    std::vector<float> weightingPower_;      ///< per bin, with calibrated levels only
    std::vector<double> intervalCorrection_; ///< per interval, with calibrated levels only
    std::vector<PeriodLevels> periods_;
    SoundLevels levels_;
};

} // namespace widmo
