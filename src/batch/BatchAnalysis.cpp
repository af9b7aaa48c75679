#include "batch/BatchAnalysis.h"

#include "batch/LevelRecorder.h"
#include "batch/LtsaWriter.h"
#include "batch/OutputFile.h"
#include "batch/PngStripeEncoder.h"
#include "batch/SpectrogramCanvas.h"
#include "charts/ChartData.h"
#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/MicrophoneCalibration.h"
#include "dsp/VectorHelpers.h"
#include "render/SpectrogramScrollView.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace widmo {

namespace {

// The tool never writes settings: this store stays empty, so every setting
// starts from the analyser's built-in default before the tool's own are set.
const char* const kUnwrittenStore = "widmo-analyze";

constexpr double kFloorDB = -144.0;
// About a million frames a block: a few MB of samples, and enough chunks
// for every thread while the next block is read.
constexpr int64_t kBlockTargetFrames = int64_t{1} << 20;

double toDB(double power) { return std::max(kFloorDB, 10.0 * std::log10(power + 3.981075e-15)); }

double amplitudeDB(double amplitude) {
    return amplitude > 0.0 ? std::max(kFloorDB, 20.0 * std::log10(amplitude)) : kFloorDB;
}

QByteArray number(double v, int decimals) { return QByteArray::number(v, 'f', decimals); }

int64_t ceilDiv(int64_t a, int64_t b) { return a >= 0 ? (a + b - 1) / b : -((-a) / b); }

} // namespace

struct BatchAnalysis::Block {
    int64_t firstFrame = 0; ///< stream frame of samples[history]
    int64_t frames = 0;
    int64_t firstInterval = 0;
    int64_t intervals = 0;
    int64_t firstChunk = 0;
    int32_t chunks = 0;
    bool last = false;
    bool averageAll = false;         ///< a signal shorter than one window: every interval averaged
    size_t history = 0;              ///< frames before the block's own (fftSize)
    std::vector<float> samples;      ///< history, then the block's frames, zeros past the end
    std::vector<double> corrections; ///< per interval, calibrated levels only
    /// The tiles this block's intervals fall into, from `firstTile` on.
    int64_t firstTile = 0;
    std::vector<std::shared_ptr<Tile>> tiles;
};

// Running sums (or maxima) of one output row each for a pixel column of
// `width` or an LTSA stretch: a chunk's parts, merged in chunk order.
struct BatchAnalysis::PoolRow {
    int64_t key = 0;
    int64_t count = 0;
    std::vector<double> values;
};

struct BatchAnalysis::Pool {
    using Row = PoolRow;
    bool max = false;
    size_t size = 0;
    std::vector<Row> open; ///< keys in increasing order

    Row& row(std::vector<Row>& rows, int64_t key, double start) const {
        if (rows.empty() || rows.back().key != key)
            rows.push_back({key, 0, std::vector<double>(size, start)});
        return rows.back();
    }
    void add(Row& r, const float* v) const {
        ++r.count;
        if (max) {
            for (size_t k = 0; k < size; ++k)
                r.values[k] = std::max(r.values[k], static_cast<double>(v[k]));
        } else {
            for (size_t k = 0; k < size; ++k)
                r.values[k] += v[k];
        }
    }
    void merge(const Row& part) {
        Row& r = row(open, part.key, max ? 0.0 : 0.0);
        r.count += part.count;
        for (size_t k = 0; k < size; ++k)
            r.values[k] =
                max ? std::max(r.values[k], part.values[k]) : r.values[k] + part.values[k];
    }
};

struct BatchAnalysis::Tile {
    int64_t index = 0;
    int64_t firstInterval = 0;
    SpectrogramCanvas canvas;
    Tile(int64_t i, int64_t first, int32_t rows, int64_t columns)
        : index(i), firstInterval(first), canvas(rows, columns) {}
};

struct BatchAnalysis::ChunkResult {
    int64_t chunk = 0;
    std::shared_ptr<Block> block;
    int64_t firstInterval = 0;
    int64_t lastInterval = 0; ///< one past
    std::vector<double> spectrum;
    std::vector<double> bands;
    std::vector<float> bandMin;
    std::vector<float> bandMax;
    double squares = 0.0;
    float peak = 0.0f;
    int64_t averaged = 0;
    std::vector<PoolRow> widthParts;
    std::vector<PoolRow> ltsaParts;
};

class BatchAnalysis::Worker {
public:
    explicit Worker(AnalyzerDefaults& defaults) : fft(defaults, FFTPlanCache::shared()) {
        const auto n = static_cast<size_t>(defaults.fftSize());
        window.assign(n, 0.0f);
        // Two zeros past the spectrum: the band edges read there.
        power.assign(n / 2 + 2, 0.0f);
        const auto rows = static_cast<size_t>(
            std::max(defaults.fftDisplaySize(), defaults.spectrogramLogIndexesCount()));
        reduced.assign(rows, 0.0f);
        levels.assign(rows, 0.0f);
        rowScratch.assign(rows, 0.0f);
        colors.assign(rows, 0u);
        bandPowers.assign(ChartData::kBands, 0.0f);
        bandLevels.assign(ChartData::kBands, 0.0f);
        pooled.assign(rows, 0.0f);
        // Two zeros past the bins, as in `power`.
        ltsaMean.assign(n / 2 + 2, 0.0f);
    }
    FFTManager fft;
    std::vector<float> window, power, reduced, levels, rowScratch, bandPowers, bandLevels, pooled,
        ltsaMean;
    std::vector<uint32_t> colors;
};

BatchAnalysis::BatchAnalysis(const BatchSettings& settings, float sampleRate, int32_t channels,
                             int64_t declaredFrames, const QString& title, const QString& stem)
    : settings_(settings), sampleRate_(sampleRate), channels_(channels),
      declaredFrames_(declaredFrames), title_(title), stem_(stem) {
    defaults_ = std::make_unique<AnalyzerDefaults>(AnalyzerFeatures::studioProduct(),
                                                   QString::fromLatin1(kUnwrittenStore));
    AnalyzerDefaults& d = *defaults_;
    d.setSampleRate(sampleRate);
    d.setFftSize(settings.fftSize);
    d.setFftWindowType(settings.fftWindowType);
    d.setIntervalSizePower(settings.intervalSizePower);
    d.setFftDisplaySize(settings.rows);
    d.setLinearFrequency(!settings.logFrequency);
    d.setValuesInDB(true);
    d.setSpectrogramValuesInDBMinimumLevelDB(settings.minimumLevelDB);
    d.setSpectrogramColorType(settings.colorType);
    d.setOctaveRTABandsPerOctave(settings.bandsPerOctave > 0 ? settings.bandsPerOctave : 3);
    d.recalculateDocumentSettings();
    d.generateAllIndexes();
    SpectrogramColorRamp::forColorType(settings.colorType, &ramp_);
    std::memcpy(clear_, ramp_.colorForLevel(0.0f).data(), 3);

    hop_ = std::max(1, d.intervalSizeInFrames());
    title_ += QStringLiteral("   hop %1").arg(hop_);
    chunksPerBlock_ = static_cast<int32_t>(
        std::clamp<int64_t>(kBlockTargetFrames / (kChunkIntervals * hop_), 1, 64));
    blockFrames_ = int64_t{chunksPerBlock_} * kChunkIntervals * hop_;
    tail_.assign(static_cast<size_t>(d.fftSize()), 0.0f);
    // Windows wholly inside the signal: interval i ends at (i + 1) hop.
    averageFirst_ = std::max<int64_t>(0, ceilDiv(d.fftSize(), hop_) - 1);

    spectrumSum_.assign(static_cast<size_t>(d.fftOutSize()), 0.0);
    bandSum_.assign(ChartData::kBands, 0.0);
    bandMin_.assign(ChartData::kBands, std::numeric_limits<float>::infinity());
    bandMax_.assign(ChartData::kBands, -std::numeric_limits<float>::infinity());

    levelsWanted_ = settings.levelsPeriod > 0.0 || (settings.summary && settings.levelOptionGiven);
    if (levelsWanted_)
        levels_ = std::make_unique<LevelRecorder>(settings, static_cast<double>(sampleRate));
    if (settings.calibration) {
        const double binHz = static_cast<double>(sampleRate) / d.fftSize();
        calibrationFactors_.resize(static_cast<size_t>(d.fftOutSize()));
        settings.calibration->fillPowerFactors(calibrationFactors_.data(), d.fftOutSize(), binHz);
        if (levelsWanted_) {
            FrequencyWeighting w;
            w.prepare(settings.weighting, sampleRate);
            weightingPower_.resize(calibrationFactors_.size());
            for (size_t k = 0; k < weightingPower_.size(); ++k)
                weightingPower_[k] = static_cast<float>(
                    std::pow(10.0, w.responseDB(static_cast<double>(k) * binHz) / 10.0));
        }
    }

    const int32_t rows = d.fftDisplaySize();
    const int32_t reducedCount =
        d.linearFrequency() ? rows : std::max(1, d.spectrogramLogIndexesCount() - 1);
    const QString wider = QStringLiteral("; use --width PX to draw it into a fixed width, or "
                                         "--tile SECONDS for one image per stretch");
    if (settings.spectrogram && settings.tileSeconds > 0.0) {
        tileFrames_ = std::max<int64_t>(1, std::llround(settings.tileSeconds * sampleRate));
        const int64_t columns = ceilDiv(tileFrames_, hop_) + 1;
        if (columns > SpectrogramCanvas::columnLimit(rows))
            setError(QStringLiteral("a tile of %1 columns is too wide for an image; use a "
                                    "shorter --tile")
                         .arg(columns));
    } else if (settings.spectrogram && settings.width > 0) {
        if (declaredFrames < 0) {
            setError(QStringLiteral("its length is not known beforehand, which --width needs; "
                                    "use --tile SECONDS instead"));
            return;
        }
        widthIntervals_ = std::max<int64_t>(1, ceilDiv(declaredFrames, hop_));
        picture_ = std::make_unique<SpectrogramCanvas>(rows, settings.width);
        if (!picture_->ensureColumns(settings.width, clear_))
            setError(QStringLiteral("--width %1 is too wide for an image of %2 rows")
                         .arg(settings.width)
                         .arg(rows));
        if (widthIntervals_ > settings.width) {
            widthPool_ = std::make_unique<Pool>();
            widthPool_->max = !settings.poolMean;
            widthPool_->size = static_cast<size_t>(reducedCount);
        }
    } else if (settings.spectrogram) {
        const int64_t limit = SpectrogramCanvas::columnLimit(rows);
        if (declaredFrames >= 0 && ceilDiv(declaredFrames, hop_) > limit) {
            setError(QStringLiteral("a spectrogram of %1 columns is too wide for one image%2")
                         .arg(ceilDiv(declaredFrames, hop_))
                         .arg(wider));
            return;
        }
        picture_ = std::make_unique<SpectrogramCanvas>(rows, limit);
    }
    if (settings.ltsaSeconds > 0.0) {
        ltsaFrames_ = std::max<int64_t>(1, std::llround(settings.ltsaSeconds * sampleRate));
        ltsaPool_ = std::make_unique<Pool>();
        ltsaPool_->size = static_cast<size_t>(d.fftOutSize());
        ltsa_ = std::make_unique<LtsaWriter>(
            stem, d.fftOutSize(), static_cast<double>(sampleRate) / d.fftSize(),
            settings.ltsaSeconds,
            settings.splOffsetDB ? QStringLiteral("dB SPL") : QStringLiteral("dB"), rows);
        if (!ltsa_->begin())
            setError(QStringLiteral("cannot write output: ") + ltsa_->error());
    }
}

BatchAnalysis::~BatchAnalysis() = default;

bool BatchAnalysis::valid() const {
    const std::lock_guard<std::mutex> lock(mergeMutex_);
    return error_.isEmpty();
}

QString BatchAnalysis::error() const {
    const std::lock_guard<std::mutex> lock(mergeMutex_);
    return error_;
}

void BatchAnalysis::setError(const QString& error) {
    if (error_.isEmpty())
        error_ = error;
}

int32_t BatchAnalysis::intervalSizeInFrames() const { return static_cast<int32_t>(hop_); }

std::shared_ptr<BatchAnalysis::Block> BatchAnalysis::newBlock() {
    auto b = std::make_shared<Block>();
    const size_t history = tail_.size();
    b->history = history;
    b->samples.assign(history + static_cast<size_t>(blockFrames_), 0.0f);
    std::copy(tail_.begin(), tail_.end(), b->samples.begin());
    return b;
}

float* BatchAnalysis::input(Block& block) { return block.samples.data() + block.history; }

int64_t BatchAnalysis::tileFirstInterval(int64_t tile) const {
    return ceilDiv(tile * tileFrames_, hop_);
}

int32_t BatchAnalysis::commitBlock(const std::shared_ptr<Block>& b, int64_t frames,
                                   bool endOfStream) {
    Block& block = *b;
    block.firstFrame = frames_;
    block.frames = frames;
    block.last = endOfStream || frames < blockFrames_;
    block.firstInterval = blocksCommitted_ * chunksPerBlock_ * kChunkIntervals;
    block.intervals =
        block.last ? ceilDiv(frames, hop_) : int64_t{chunksPerBlock_} * kChunkIntervals;
    block.firstChunk = chunksCommitted_;
    block.chunks = static_cast<int32_t>(ceilDiv(block.intervals, kChunkIntervals));
    block.averageAll = blocksCommitted_ == 0 && block.last && frames / hop_ <= averageFirst_;
    if (!weightingPower_.empty())
        block.corrections.assign(static_cast<size_t>(block.intervals), 1.0);
    // The next block's history: the last fftSize frames taken so far.
    const size_t history = tail_.size();
    const auto have = static_cast<size_t>(frames);
    std::copy(block.samples.begin() + static_cast<std::ptrdiff_t>(have),
              block.samples.begin() + static_cast<std::ptrdiff_t>(have + history), tail_.begin());
    // Zeros after the end of the signal (a short last block).
    std::fill(block.samples.begin() + static_cast<std::ptrdiff_t>(history + have),
              block.samples.end(), 0.0f);

    const int64_t endInterval = block.firstInterval + block.intervals;
    const int32_t rows = defaults_->fftDisplaySize();
    bool tooWide = false;
    if (picture_ && settings_.width == 0)
        tooWide = !picture_->ensureColumns(endInterval, clear_);
    if (tileFrames_ > 0 && block.intervals > 0) {
        const std::lock_guard<std::mutex> lock(mergeMutex_);
        block.firstTile = block.firstInterval * hop_ / tileFrames_;
        const int64_t lastTile = (endInterval - 1) * hop_ / tileFrames_;
        for (int64_t t = block.firstTile; t <= lastTile; ++t) {
            auto it = tiles_.find(t);
            if (it == tiles_.end()) {
                const int64_t first = tileFirstInterval(t);
                const int64_t columns = tileFirstInterval(t + 1) - first;
                it = tiles_.emplace(t, std::make_shared<Tile>(t, first, rows, columns)).first;
            }
            // Pages only as far as this block reaches: a long tile does not
            // hold memory for the part not read yet.
            Tile& tile = *it->second;
            tile.canvas.ensureColumns(
                std::min(endInterval, tileFirstInterval(t + 1)) - tile.firstInterval, clear_);
            block.tiles.push_back(it->second);
        }
    }
    const std::lock_guard<std::mutex> lock(mergeMutex_);
    frames_ += frames;
    ++blocksCommitted_;
    chunksCommitted_ += block.chunks;
    if (tooWide)
        setError(QStringLiteral("a spectrogram of more than %1 columns is too wide for one "
                                "image; use --width PX to draw it into a fixed width (with a "
                                "file, whose length is known), or --tile SECONDS for one image "
                                "per stretch")
                     .arg(picture_->columns()));
    if (!error_.isEmpty())
        return -1;
    ended_ = block.last;
    return block.chunks;
}

void BatchAnalysis::abandon() {
    const std::lock_guard<std::mutex> lock(mergeMutex_);
    ended_ = true;
}

int32_t BatchAnalysis::blocksInFlight() const {
    const std::lock_guard<std::mutex> lock(mergeMutex_);
    return static_cast<int32_t>(blocksCommitted_ - blocksMerged_);
}

std::shared_ptr<BatchAnalysis::Worker> BatchAnalysis::makeWorker() {
    return std::make_shared<Worker>(*defaults_);
}

void BatchAnalysis::colourColumn(const float* reduced, Worker& w, uint8_t* dst,
                                 size_t stride) const {
    const AnalyzerDefaults& d = *defaults_;
    const int32_t rows = d.fftDisplaySize();
    const int32_t count = d.linearFrequency() ? rows : d.spectrogramLogIndexesCount() - 1;
    VectorHelpers::powerToDecibels(reduced, SpectrogramScrollView::kDecibelFloor, w.levels.data(),
                                   std::max(0, count));
    SpectrogramScrollViewSegment::columnColors(d, ramp_, w.levels.data(), w.rowScratch.data(),
                                               w.colors.data());
    // Row 0 is the lowest frequency, at the bottom; the top row keeps the clear colour.
    for (int32_t r = 0; r < rows - 1; ++r)
        std::memcpy(dst + static_cast<size_t>(rows - 1 - r) * stride,
                    &w.colors[static_cast<size_t>(r)], 3);
}

bool BatchAnalysis::analyseChunk(const std::shared_ptr<Block>& b, int32_t chunk, Worker& w) {
    const Block& block = *b;
    const AnalyzerDefaults& d = *defaults_;
    const int32_t n = d.fftSize();
    const int32_t bins = d.fftOutSize();
    const int32_t bandLo = d.octaveRTAMinIndex();
    const int32_t bandHi = std::min(d.octaveRTAMaxIndex(), ChartData::kBands - 2);
    const bool bands = settings_.bandsPerOctave > 0 && bandLo >= 0 && bandHi >= bandLo;
    const bool linear = d.linearFrequency();

    auto r = std::make_unique<ChunkResult>();
    r->chunk = block.firstChunk + chunk;
    r->block = b;
    r->spectrum.assign(static_cast<size_t>(bins), 0.0);
    if (bands) {
        r->bands.assign(ChartData::kBands, 0.0);
        r->bandMin.assign(ChartData::kBands, std::numeric_limits<float>::infinity());
        r->bandMax.assign(ChartData::kBands, -std::numeric_limits<float>::infinity());
    }
    const int64_t first = block.firstInterval + int64_t{chunk} * kChunkIntervals;
    const int64_t last = std::min(block.firstInterval + block.intervals, first + kChunkIntervals);
    r->firstInterval = first;
    r->lastInterval = last;
    const auto local = [&](int64_t frame) {
        return static_cast<size_t>(frame - block.firstFrame) + block.history;
    };

    // Level figures over the samples of this chunk's intervals.
    const int64_t end = block.firstFrame + block.frames;
    for (int64_t k = std::min(end, first * hop_); k < std::min(end, last * hop_); ++k) {
        const float v = block.samples[local(k)];
        r->squares += static_cast<double>(v) * v;
        r->peak = std::max(r->peak, std::abs(v));
    }

    for (int64_t i = first; i < last; ++i) {
        // The window that ends with interval i; history and the zeros past
        // the end hold what lies outside the signal.
        const int64_t windowEnd = (i + 1) * hop_;
        std::memcpy(w.window.data(), block.samples.data() + local(windowEnd - n),
                    static_cast<size_t>(n) * sizeof(float));
        w.fft.powerSpectrumOfWindow(w.window.data(), w.power.data());
        if (!calibrationFactors_.empty()) {
            // The microphone's response removed bin by bin; with levels, the
            // factor it makes on the interval's weighted power is kept for the meter.
            float* p = w.power.data();
            double weighted = 0.0, corrected = 0.0;
            const bool keep = !block.corrections.empty();
            for (int32_t k = 0; k < bins; ++k) {
                const auto u = static_cast<size_t>(k);
                const float c = p[k] * calibrationFactors_[u];
                if (keep) {
                    weighted += static_cast<double>(p[k]) * weightingPower_[u];
                    corrected += static_cast<double>(c) * weightingPower_[u];
                }
                p[k] = c;
            }
            if (keep)
                b->corrections[static_cast<size_t>(i - block.firstInterval)] =
                    weighted > 0.0 ? corrected / weighted : 1.0;
        }
        const float* power = w.power.data();

        const bool averaged = block.averageAll || (i >= averageFirst_ && windowEnd <= end);
        if (averaged) {
            ++r->averaged;
            for (int32_t k = 0; k < bins; ++k)
                r->spectrum[static_cast<size_t>(k)] += power[k];
            if (bands) {
                ChartData::octaveBandPowers(d, power, w.bandPowers.data());
                convertPowerToDecibels(w.bandPowers.data() + bandLo, w.bandLevels.data() + bandLo,
                                       bandHi - bandLo + 1);
                for (int32_t k = bandLo; k <= bandHi; ++k) {
                    const auto u = static_cast<size_t>(k);
                    r->bands[u] += w.bandPowers[u];
                    r->bandMin[u] = std::min(r->bandMin[u], w.bandLevels[u]);
                    r->bandMax[u] = std::max(r->bandMax[u], w.bandLevels[u]);
                }
            }
            if (ltsaPool_) {
                const int64_t centre = std::max<int64_t>(0, windowEnd - n / 2);
                const int64_t stretch = centre / ltsaFrames_;
                ltsaPool_->add(ltsaPool_->row(r->ltsaParts, stretch, 0.0), power);
            }
        }

        if (picture_ || !block.tiles.empty()) {
            // The analyser's column: reduced to rows or log points, then in
            // dB with its floor and its colour ramp.
            if (linear)
                d.interlaceToSpectrogramFFTData(power, w.reduced.data());
            else
                d.convertToLogarithmicScaleFFTData(power, w.reduced.data());
            if (!block.tiles.empty()) {
                const int64_t t = i * hop_ / tileFrames_;
                Tile& tile = *block.tiles[static_cast<size_t>(t - block.firstTile)];
                colourColumn(w.reduced.data(), w, tile.canvas.column(i - tile.firstInterval),
                             tile.canvas.columnStride());
            } else if (widthPool_) {
                const int64_t x = ((i + 1) * settings_.width - 1) / widthIntervals_;
                widthPool_->add(widthPool_->row(r->widthParts, x, 0.0), w.reduced.data());
            } else if (settings_.width > 0) {
                // Fewer intervals than columns: each column shows the interval it starts in.
                const int64_t x0 = ceilDiv(i * settings_.width, widthIntervals_);
                const int64_t x1 = std::min<int64_t>(
                    ceilDiv((i + 1) * settings_.width, widthIntervals_), settings_.width);
                for (int64_t x = x0; x < x1; ++x)
                    colourColumn(w.reduced.data(), w, picture_->column(x),
                                 picture_->columnStride());
            } else {
                colourColumn(w.reduced.data(), w, picture_->column(i), picture_->columnStride());
            }
        }
    }

    {
        const std::lock_guard<std::mutex> lock(mergeMutex_);
        pending_[r->chunk] = std::move(r);
        if (merging_)
            return false;
        merging_ = true;
    }
    mergeReady();
    const std::lock_guard<std::mutex> lock(mergeMutex_);
    return checkCompleteLocked();
}

void BatchAnalysis::mergeReady() {
    for (;;) {
        std::unique_ptr<ChunkResult> r;
        {
            const std::lock_guard<std::mutex> lock(mergeMutex_);
            const auto it = pending_.find(nextChunk_);
            if (it == pending_.end()) {
                merging_ = false;
                return;
            }
            r = std::move(it->second);
            pending_.erase(it);
        }
        merge(*r);
        const bool blockDone = r->chunk + 1 == r->block->firstChunk + r->block->chunks;
        r.reset(); // the block's samples go with its last chunk
        const std::lock_guard<std::mutex> lock(mergeMutex_);
        ++nextChunk_;
        if (blockDone)
            ++blocksMerged_;
    }
}

bool BatchAnalysis::checkCompleteLocked() {
    if (completionTaken_ || !ended_ || merging_ || nextChunk_ != chunksCommitted_)
        return false;
    // Empty blocks (a stream that ends on a block boundary) have no chunk to count.
    blocksMerged_ = blocksCommitted_;
    completionTaken_ = true;
    return true;
}

bool BatchAnalysis::takeCompletion() {
    const std::lock_guard<std::mutex> lock(mergeMutex_);
    return checkCompleteLocked();
}

void BatchAnalysis::merge(ChunkResult& r) {
    // In chunk order only: floating-point sums then come out the same
    // whichever thread finished first.
    if (!mergeWorker_)
        mergeWorker_ = makeWorker();
    Worker& w = *mergeWorker_;
    for (size_t k = 0; k < spectrumSum_.size(); ++k)
        spectrumSum_[k] += r.spectrum[k];
    for (size_t k = 0; k < r.bands.size(); ++k) {
        bandSum_[k] += r.bands[k];
        bandMin_[k] = std::min(bandMin_[k], r.bandMin[k]);
        bandMax_[k] = std::max(bandMax_[k], r.bandMax[k]);
    }
    squareSum_ += r.squares;
    peak_ = std::max(peak_, r.peak);
    averaged_ += r.averaged;

    const Block& block = *r.block;
    if (levels_) {
        // The chunk's samples in order, each interval's with its correction.
        const int64_t end = block.firstFrame + block.frames;
        for (int64_t pos = std::min(end, r.firstInterval * hop_),
                     stop = std::min(end, r.lastInterval * hop_);
             pos < stop;) {
            const int64_t interval = pos / hop_;
            const int64_t to = std::min((interval + 1) * hop_, stop);
            levels_->process(
                block.samples.data() + (pos - block.firstFrame) +
                    static_cast<std::ptrdiff_t>(block.history),
                to - pos,
                block.corrections.empty()
                    ? 1.0
                    : block.corrections[static_cast<size_t>(interval - block.firstInterval)]);
            pos = to;
        }
    }
    const auto mergeParts = [&](Pool& pool, std::vector<Pool::Row>& parts, auto endRow) {
        for (const Pool::Row& part : parts) {
            // Rows before this part's are complete: later chunks come after.
            while (!pool.open.empty() && pool.open.front().key < part.key) {
                endRow(pool.open.front());
                pool.open.erase(pool.open.begin());
            }
            pool.merge(part);
        }
    };
    if (widthPool_)
        mergeParts(*widthPool_, r.widthParts, [&](Pool::Row& row) { endPoolColumn(row, w); });
    if (ltsaPool_)
        mergeParts(*ltsaPool_, r.ltsaParts, [&](Pool::Row& row) { endLtsaRow(row, w); });
    endTilesBefore(r.lastInterval, false);
}

void BatchAnalysis::endTilesBefore(int64_t interval, bool all) {
    for (;;) {
        std::shared_ptr<Tile> tile;
        {
            const std::lock_guard<std::mutex> lock(mergeMutex_);
            if (tiles_.empty() || !error_.isEmpty())
                return;
            const auto it = tiles_.begin();
            const int64_t end = tileFirstInterval(it->first + 1);
            if (end > interval && !all)
                return;
            tile = it->second;
            tiles_.erase(it);
        }
        tile->canvas.truncate(interval - tile->firstInterval);
        if (tile->canvas.columns() <= 0)
            continue;
        const double perColumn = static_cast<double>(hop_) / sampleRate_;
        tile->canvas.drawFrame({title_ + QStringLiteral("   part %1").arg(tile->index + 1),
                                static_cast<double>(tile->firstInterval) * perColumn, perColumn},
                               *defaults_);
        PngStripeEncoder png(tile->canvas);
        OutputFile out(tilePath(stem_, tile->index));
        if (!out.open() || !png.write(&out.file()) || !out.commit()) {
            const std::lock_guard<std::mutex> lock(mergeMutex_);
            setError(QStringLiteral("cannot write output: ") + out.error());
            return;
        }
    }
}

QString BatchAnalysis::tilePath(const QString& stem, int64_t tile) {
    return stem + QStringLiteral(".%1.png").arg(tile + 1, 4, 10, QLatin1Char('0'));
}

bool BatchAnalysis::finish() {
    // Every chunk is merged: what is still open ends here, on this thread.
    if (!mergeWorker_)
        mergeWorker_ = makeWorker();
    Worker& w = *mergeWorker_;
    const int64_t intervals = ceilDiv(frames_, hop_);
    const double perColumn = static_cast<double>(hop_) / sampleRate_;
    if (widthPool_) {
        while (!widthPool_->open.empty()) {
            endPoolColumn(widthPool_->open.front(), w);
            widthPool_->open.erase(widthPool_->open.begin());
        }
    }
    if (ltsaPool_) {
        while (!ltsaPool_->open.empty() && valid()) {
            endLtsaRow(ltsaPool_->open.front(), w);
            ltsaPool_->open.erase(ltsaPool_->open.begin());
        }
        const double stretch = static_cast<double>(ltsaFrames_) / sampleRate_;
        if (valid() &&
            !ltsa_->finish({title_ + QStringLiteral("   LTSA %1 s").arg(stretch), 0.0, stretch},
                           *defaults_)) {
            const std::lock_guard<std::mutex> lock(mergeMutex_);
            setError(QStringLiteral("cannot write output: ") + ltsa_->error());
        }
    }
    endTilesBefore(intervals, true);
    if (picture_ && valid()) {
        if (settings_.width > 0) {
            const double seconds = static_cast<double>(widthIntervals_) * perColumn;
            picture_->drawFrame({title_ + QStringLiteral("   width %1, %2 of each column")
                                              .arg(settings_.width)
                                              .arg(settings_.poolMean ? QStringLiteral("mean")
                                                                      : QStringLiteral("maximum")),
                                 0.0, seconds / settings_.width},
                                *defaults_);
        } else {
            picture_->truncate(std::max<int64_t>(1, intervals));
            picture_->drawFrame({title_, 0.0, perColumn}, *defaults_);
        }
    }
    const double count = static_cast<double>(std::max<int64_t>(1, averaged_));
    for (double& v : spectrumSum_)
        v /= count;
    for (double& v : bandSum_)
        v /= count;
    if (levels_)
        levels_->finish();
    return valid();
}

void BatchAnalysis::endPoolColumn(PoolRow& row, Worker& w) {
    for (size_t k = 0; k < widthPool_->size; ++k)
        w.pooled[k] = static_cast<float>(
            widthPool_->max ? row.values[k] : row.values[k] / static_cast<double>(row.count));
    colourColumn(w.pooled.data(), w, picture_->column(row.key), picture_->columnStride());
}

void BatchAnalysis::endLtsaRow(PoolRow& row, Worker& w) {
    const double offset = settings_.splOffsetDB.value_or(0.0);
    std::vector<float> levels(ltsaPool_->size);
    for (size_t k = 0; k < ltsaPool_->size; ++k) {
        const double mean = row.values[k] / static_cast<double>(row.count);
        w.ltsaMean[k] = static_cast<float>(mean);
        levels[k] = static_cast<float>(toDB(mean) + offset);
    }
    const double start = static_cast<double>(row.key * ltsaFrames_) / sampleRate_;
    const int64_t column = ltsa_->rows();
    SpectrogramCanvas& c = ltsa_->canvas();
    if (!ltsa_->addRow(start, levels.data()) || !c.ensureColumns(column + 1, clear_)) {
        const std::lock_guard<std::mutex> lock(mergeMutex_);
        setError(ltsa_->error().isEmpty()
                     ? QStringLiteral("an LTSA of more than %1 stretches is too wide for an "
                                      "image; use a longer --ltsa")
                           .arg(column)
                     : QStringLiteral("cannot write output: ") + ltsa_->error());
        return;
    }
    if (defaults_->linearFrequency())
        defaults_->interlaceToSpectrogramFFTData(w.ltsaMean.data(), w.reduced.data());
    else
        defaults_->convertToLogarithmicScaleFFTData(w.ltsaMean.data(), w.reduced.data());
    colourColumn(w.reduced.data(), w, c.column(column), c.columnStride());
}

QByteArray BatchAnalysis::levelsCsv() const { return levels_ ? levels_->csv() : QByteArray(); }

QByteArray BatchAnalysis::levelsJson() const { return levels_ ? levels_->json() : QByteArray(); }

QByteArray BatchAnalysis::spectrumCsv() const {
    const bool spl = settings_.splOffsetDB.has_value();
    const double offset = settings_.splOffsetDB.value_or(0.0);
    QByteArray out(spl ? "frequency_hz,level_db_spl\n" : "frequency_hz,level_db\n");
    const double binWidth = static_cast<double>(sampleRate_) / defaults_->fftSize();
    for (size_t b = 0; b < spectrumSum_.size(); ++b) {
        out += number(static_cast<double>(b) * binWidth, 4);
        out += ',';
        out += number(toDB(spectrumSum_[b]) + offset, 3);
        out += '\n';
    }
    return out;
}

QByteArray BatchAnalysis::bandsCsv() const {
    const bool spl = settings_.splOffsetDB.has_value();
    const double offset = settings_.splOffsetDB.value_or(0.0);
    QByteArray out(spl ? "centre_hz,level_db_spl,min_db_spl,max_db_spl\n"
                       : "centre_hz,level_db,min_db,max_db\n");
    const AnalyzerDefaults& d = *defaults_;
    const int32_t lo = d.octaveRTAMinIndex();
    const int32_t hi = std::min(d.octaveRTAMaxIndex(), ChartData::kBands - 2);
    for (int32_t b = std::max(0, lo); lo >= 0 && b <= hi; ++b) {
        const auto k = static_cast<size_t>(b);
        out += number(d.octaveRTAFrequencies()[k], 3);
        out += ',';
        out += number(toDB(bandSum_[k]) + offset, 3);
        out += ',';
        out += number(std::max<double>(kFloorDB, bandMin_[k]) + offset, 3);
        out += ',';
        out += number(std::max<double>(kFloorDB, bandMax_[k]) + offset, 3);
        out += '\n';
    }
    return out;
}

double BatchAnalysis::durationSeconds() const {
    return static_cast<double>(frames_) / static_cast<double>(sampleRate_);
}

double BatchAnalysis::peakDBFS() const { return amplitudeDB(peak_); }

double BatchAnalysis::rmsDBFS() const {
    return amplitudeDB(std::sqrt(squareSum_ / static_cast<double>(std::max<int64_t>(1, frames_))));
}

double BatchAnalysis::strongestFrequency() const {
    size_t best = 1;
    for (size_t b = 2; b < spectrumSum_.size(); ++b) {
        if (spectrumSum_[b] > spectrumSum_[best])
            best = b;
    }
    return static_cast<double>(best) * sampleRate_ / defaults_->fftSize();
}

} // namespace widmo
