#pragma once

#include "batch/BatchSettings.h"
#include "render/SpectrogramScrollViewSegment.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace widmo {

class AnalyzerDefaults;
class LevelRecorder;
class LtsaWriter;
class SpectrogramCanvas;

/// The analysis of one recording for the batch command, made while the
/// recording is read: the analyser's own interval FFTs over a mono signal,
/// reduced to an average power spectrum, fractional-octave band levels,
/// spectrogram images, a long-term spectral average, sound levels and a few
/// summary figures. Memory does not grow with the recording's length,
/// except for a one-column-per-FFT spectrogram, which is bounded
/// (SpectrogramCanvas::kMaxPlotPixels) and refused beyond.
///
/// The signal is cut into the analyser's intervals (`intervalSizeInFrames`
/// samples); interval i is analysed through the `fftSize` samples that end
/// with it (zeros before the start and after the end). The spectrum, bands
/// and LTSA average the power of the intervals whose window lies wholly
/// inside the signal (all intervals when the signal is shorter than one
/// window); band minimum and maximum are those of single intervals. An LTSA
/// stretch holds the intervals whose window centre falls in it.
///
/// The signal arrives in blocks of `blockFrames` frames (whole chunks of
/// `kChunkIntervals` intervals). Each chunk is analysed on its own and the
/// chunks' results are merged strictly in chunk order, whatever the number
/// of threads and the order they finish in, so every output is the same
/// for any number of threads. The merge feeds the sound level meter with
/// the chunk's samples, adds the sums, pools pixel columns (`width`), ends
/// LTSA rows and writes finished tiles (`tileSeconds`).
///
/// Threading: `commitBlock` in stream order from one thread at a time;
/// `analyseChunk` on any threads at once, each chunk once; the merge runs
/// on one of those threads at a time (`mergeMutex_` hands it over);
/// `finish` and the accessors after the call that reported completion.
class BatchAnalysis {
public:
    static constexpr int32_t kChunkIntervals = 64;

    /// One thread's FFT engine and buffers for one analysis.
    class Worker;
    /// A block of the signal and the chunks it holds.
    struct Block;

    /// A recording at `sampleRate` Hz (> 0) of `channels` channels (only
    /// reported), `declaredFrames` long (-1: not known beforehand). `title`
    /// heads the images (the hop is added to it); `stem` is the outputs' path without suffixes.
    BatchAnalysis(const BatchSettings& settings, float sampleRate, int32_t channels,
                  int64_t declaredFrames, const QString& title, const QString& stem);
    ~BatchAnalysis();
    BatchAnalysis(const BatchAnalysis&) = delete;
    BatchAnalysis& operator=(const BatchAnalysis&) = delete;

    /// False, with `error()`, when the analysis cannot go on (an image too
    /// wide, an output that cannot be written); nothing but `abandon` and
    /// the destructor may be called then.
    bool valid() const;
    QString error() const;

    /// Frames of signal per block.
    int64_t blockFrames() const { return blockFrames_; }
    /// Hop between intervals, samples.
    int32_t intervalSizeInFrames() const;

    /// A block to read the next `blockFrames` frames into (`input`).
    std::shared_ptr<Block> newBlock();
    static float* input(Block& block);
    /// Takes the block's `frames` frames (`endOfStream`: the last ones).
    /// Returns the chunks to analyse (0 .. n - 1 of `analyseChunk`), or -1
    /// when the analysis fails (a picture too wide; `error`).
    int32_t commitBlock(const std::shared_ptr<Block>& block, int64_t frames, bool endOfStream);
    /// Ends the analysis early, after a read error: no more blocks come.
    void abandon();

    std::shared_ptr<Worker> makeWorker();
    /// Analyses chunk `chunk` of `block` and merges what is ready. True for
    /// the one call after which every chunk of the ended stream is merged:
    /// then `finish` may run. (`commitBlock` of an empty last block and
    /// `abandon` report it through `isComplete`.)
    bool analyseChunk(const std::shared_ptr<Block>& block, int32_t chunk, Worker& worker);
    /// True once, when the stream has ended and every chunk is merged.
    bool takeCompletion();
    /// Blocks committed whose chunks are not all merged.
    int32_t blocksInFlight() const;

    /// Averages the sums and ends the pictures and the LTSA (written here).
    /// False with `error` when an output could not be written.
    bool finish();

    /// "frequency_hz,level_db" and one line per FFT bin (0 .. fftSize/2 - 1).
    QByteArray spectrumCsv() const;
    /// "centre_hz,level_db,min_db,max_db", one line per band the FFT resolves.
    QByteArray bandsCsv() const;
    /// The one-picture spectrogram (one column per FFT, or `width` columns)
    /// with its frame drawn, after `finish`; null without one.
    SpectrogramCanvas* picture() { return picture_.get(); }
    /// The levels CSV: "start_s" and the period's Leq, maximum Fast and Slow
    /// and C peak, one line per `levelsPeriod` (the last one may be shorter).
    QByteArray levelsCsv() const;
    /// The summary's level keys, each preceded by a comma.
    QByteArray levelsJson() const;
    double durationSeconds() const;
    float sampleRate() const { return sampleRate_; }
    int32_t channels() const { return channels_; }
    /// Sample peak and RMS in dBFS (a full-scale sine: 0 and -3.01), floor -144.
    double peakDBFS() const;
    double rmsDBFS() const;
    /// Frequency of the strongest bin of the average spectrum (bin 0 left out), Hz.
    double strongestFrequency() const;
    /// The path of tile `tile` (0-based): STEM.0001.png for the first.
    static QString tilePath(const QString& stem, int64_t tile);
    /// Frames taken so far.
    int64_t frames() const { return frames_; }

private:
    struct ChunkResult;
    struct Pool;
    struct Tile;
    void setError(const QString& error);
    /// Merges ready chunks in order while this thread holds the merge.
    void mergeReady();
    void merge(ChunkResult& r);
    /// The analyser's column colours of reduced powers into `dst`: the top
    /// row's pixel, each row below `stride` bytes on.
    void colourColumn(const float* reduced, Worker& w, uint8_t* dst, size_t stride) const;
    struct PoolRow;
    void endPoolColumn(PoolRow& row, Worker& w);
    void endLtsaRow(PoolRow& row, Worker& w);
    /// Writes the tiles that end at or before `interval` (`all`: every open one).
    void endTilesBefore(int64_t interval, bool all);
    int64_t tileFirstInterval(int64_t tile) const;
    bool checkCompleteLocked();

    BatchSettings settings_;
    float sampleRate_ = 0.0f;
    int32_t channels_ = 0;
    int64_t declaredFrames_ = -1;
    QString title_;
    QString stem_;
    std::unique_ptr<AnalyzerDefaults> defaults_;
    SpectrogramColorRamp ramp_;
    uint8_t clear_[3] = {0, 0, 0};
    int64_t hop_ = 1;
    int64_t blockFrames_ = 0;
    int32_t chunksPerBlock_ = 1;
    int64_t averageFirst_ = 0;
    int64_t widthIntervals_ = 0; ///< with `width`: the intervals the picture spreads over
    int64_t tileFrames_ = 0;
    int64_t ltsaFrames_ = 1;

    // Reading side (commitBlock's thread).
    std::vector<float> tail_; ///< the last fftSize frames taken
    int64_t frames_ = 0;
    int64_t blocksCommitted_ = 0;
    int64_t chunksCommitted_ = 0;
    bool ended_ = false;

    mutable std::mutex mergeMutex_;
    QString error_;
    std::map<int64_t, std::unique_ptr<ChunkResult>> pending_;
    int64_t nextChunk_ = 0;
    int64_t blocksMerged_ = 0;
    bool merging_ = false;
    bool completionTaken_ = false;

    // Merged results (the merging thread, then `finish`).
    std::vector<double> spectrumSum_;
    std::vector<double> bandSum_;
    std::vector<float> bandMin_;
    std::vector<float> bandMax_;
    double squareSum_ = 0.0;
    float peak_ = 0.0f;
    int64_t averaged_ = 0;
    std::unique_ptr<SpectrogramCanvas> picture_;
    std::unique_ptr<Pool> widthPool_;
    std::unique_ptr<Pool> ltsaPool_;
    std::unique_ptr<LtsaWriter> ltsa_;
    std::map<int64_t, std::shared_ptr<Tile>> tiles_; ///< open tiles, under mergeMutex_
    std::shared_ptr<Worker> mergeWorker_;

    bool levelsWanted_ = false;
    std::vector<float> calibrationFactors_; ///< per bin; empty without a calibration
    std::vector<float> weightingPower_;     ///< per bin, with calibrated levels only
    std::unique_ptr<LevelRecorder> levels_;
};

} // namespace widmo
