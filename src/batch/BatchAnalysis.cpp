#include "batch/BatchAnalysis.h"

#include "charts/ChartData.h"
#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/MicrophoneCalibration.h"
#include "dsp/VectorHelpers.h"
#include "render/SpectrogramScrollView.h"

#include <QFont>
#include <QFontMetrics>
#include <QPainter>

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
// The largest image the tool makes: QImage addresses its bytes with a signed
// 32-bit count per line and PNG readers rarely go beyond this many pixels.
constexpr qint64 kMaxImagePixels = qint64{1} << 29;

double toDB(double power) { return std::max(kFloorDB, 10.0 * std::log10(power + 3.981075e-15)); }

double amplitudeDB(double amplitude) {
    return amplitude > 0.0 ? std::max(kFloorDB, 20.0 * std::log10(amplitude)) : kFloorDB;
}

QByteArray number(double v, int decimals) { return QByteArray::number(v, 'f', decimals); }

char weightingLetter(Weighting w) {
    return w == Weighting::A ? 'a' : w == Weighting::C ? 'c' : 'z';
}

} // namespace

struct BatchAnalysis::ChunkSums {
    std::vector<double> spectrum;
    std::vector<double> bands;
    std::vector<float> bandMin;
    std::vector<float> bandMax;
    double squares = 0.0;
    float peak = 0.0f;
    int64_t averaged = 0;
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
    }
    FFTManager fft;
    std::vector<float> window, power, reduced, levels, rowScratch, bandPowers, bandLevels;
    std::vector<uint32_t> colors;
};

BatchAnalysis::BatchAnalysis(const BatchSettings& settings, std::vector<float> samples,
                             float sampleRate, int32_t channels)
    : settings_(settings), samples_(std::move(samples)), sampleRate_(sampleRate),
      channels_(channels) {
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

    const auto frames = static_cast<int64_t>(samples_.size());
    const int64_t hop = std::max(1, d.intervalSizeInFrames());
    intervalCount_ = std::max<int64_t>(1, (frames + hop - 1) / hop);
    chunkCount_ = static_cast<int32_t>((intervalCount_ + kChunkIntervals - 1) / kChunkIntervals);
    // Windows wholly inside the signal: interval i ends at (i + 1) hop.
    averageFirst_ = std::max<int64_t>(0, (d.fftSize() + hop - 1) / hop - 1);
    averageLast_ = frames / hop;
    if (averageLast_ <= averageFirst_) {
        averageFirst_ = 0;
        averageLast_ = intervalCount_;
    }

    spectrumSum_.assign(static_cast<size_t>(d.fftOutSize()), 0.0);
    bandSum_.assign(ChartData::kBands, 0.0);
    bandMin_.assign(ChartData::kBands, std::numeric_limits<float>::infinity());
    bandMax_.assign(ChartData::kBands, -std::numeric_limits<float>::infinity());

    levelsWanted_ = settings.levelsPeriod > 0.0 || (settings.summary && settings.levelOptionGiven);
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
            intervalCorrection_.assign(static_cast<size_t>(intervalCount_), 1.0);
        }
    }

    if (settings.spectrogram) {
        const qint64 width = intervalCount_ + kLeftMargin + kRightMargin;
        const qint64 height = qint64{d.fftDisplaySize()} + kTopMargin + kBottomMargin;
        if (width * height > kMaxImagePixels) {
            error_ = QStringLiteral("spectrogram of %1 columns is too wide for an image; use a "
                                    "larger --interval or cut the file")
                         .arg(intervalCount_);
            return;
        }
        // Bytes r, g, b, 255 in memory order: the ramp's packed colours as they are.
        image_ = QImage(static_cast<int>(width), static_cast<int>(height), QImage::Format_RGBX8888);
        if (image_.isNull()) {
            error_ = QStringLiteral("out of memory for the spectrogram image");
            return;
        }
        image_.fill(Qt::white);
        stride_ = image_.bytesPerLine();
        plot_ = image_.bits() + kTopMargin * stride_ + kLeftMargin * 4;
        // The top row is never written by a column: it keeps the lowest colour.
        const std::array<uint8_t, 4> clear = ramp_.colorForLevel(0.0f);
        for (int64_t x = 0; x < intervalCount_; ++x)
            std::memcpy(plot_ + x * 4, clear.data(), 4);
    }
}

BatchAnalysis::~BatchAnalysis() = default;

int32_t BatchAnalysis::intervalSizeInFrames() const { return defaults_->intervalSizeInFrames(); }

std::shared_ptr<BatchAnalysis::Worker> BatchAnalysis::makeWorker() {
    return std::make_shared<Worker>(*defaults_);
}

bool BatchAnalysis::inAverage(int64_t interval) const {
    return interval >= averageFirst_ && interval < averageLast_;
}

void BatchAnalysis::analyseChunk(int32_t chunk, Worker& w) {
    const AnalyzerDefaults& d = *defaults_;
    const int32_t n = d.fftSize();
    const int32_t bins = d.fftOutSize();
    const int64_t hop = d.intervalSizeInFrames();
    const auto frames = static_cast<int64_t>(samples_.size());
    const int32_t rows = d.fftDisplaySize();
    const int32_t bandLo = d.octaveRTAMinIndex();
    const int32_t bandHi = std::min(d.octaveRTAMaxIndex(), ChartData::kBands - 2);
    const bool bands = settings_.bandsPerOctave > 0 && bandLo >= 0 && bandHi >= bandLo;

    auto sums = std::make_unique<ChunkSums>();
    sums->spectrum.assign(static_cast<size_t>(bins), 0.0);
    if (bands) {
        sums->bands.assign(ChartData::kBands, 0.0);
        sums->bandMin.assign(ChartData::kBands, std::numeric_limits<float>::infinity());
        sums->bandMax.assign(ChartData::kBands, -std::numeric_limits<float>::infinity());
    }

    const int64_t first = int64_t{chunk} * kChunkIntervals;
    const int64_t last = std::min(intervalCount_, first + kChunkIntervals);

    // Level figures over the samples of this chunk's intervals.
    const int64_t s0 = std::min(frames, first * hop);
    const int64_t s1 = std::min(frames, last * hop);
    for (int64_t k = s0; k < s1; ++k) {
        const float v = samples_[static_cast<size_t>(k)];
        sums->squares += static_cast<double>(v) * v;
        sums->peak = std::max(sums->peak, std::abs(v));
    }

    for (int64_t i = first; i < last; ++i) {
        // The window that ends with interval i, zeros outside the signal.
        const int64_t end = (i + 1) * hop;
        const int64_t start = end - n;
        const int64_t from = std::max<int64_t>(start, 0);
        const int64_t to = std::min(end, frames);
        float* win = w.window.data();
        std::fill(win, win + n, 0.0f);
        if (to > from)
            std::memcpy(win + (from - start), samples_.data() + from,
                        static_cast<size_t>(to - from) * sizeof(float));
        w.fft.powerSpectrumOfWindow(win, w.power.data());
        if (!calibrationFactors_.empty()) {
            // The microphone's response removed bin by bin; with levels, the
            // factor it makes on the interval's weighted power is kept for the meter.
            float* p = w.power.data();
            double weighted = 0.0, corrected = 0.0;
            const bool keep = !intervalCorrection_.empty();
            for (int32_t b = 0; b < bins; ++b) {
                const auto k = static_cast<size_t>(b);
                const float c = p[b] * calibrationFactors_[k];
                if (keep) {
                    weighted += static_cast<double>(p[b]) * weightingPower_[k];
                    corrected += static_cast<double>(c) * weightingPower_[k];
                }
                p[b] = c;
            }
            if (keep)
                intervalCorrection_[static_cast<size_t>(i)] =
                    weighted > 0.0 ? corrected / weighted : 1.0;
        }
        const float* power = w.power.data();

        if (inAverage(i)) {
            ++sums->averaged;
            for (int32_t b = 0; b < bins; ++b)
                sums->spectrum[static_cast<size_t>(b)] += power[b];
            if (bands) {
                ChartData::octaveBandPowers(d, power, w.bandPowers.data());
                convertPowerToDecibels(w.bandPowers.data() + bandLo, w.bandLevels.data() + bandLo,
                                       bandHi - bandLo + 1);
                for (int32_t b = bandLo; b <= bandHi; ++b) {
                    const auto k = static_cast<size_t>(b);
                    sums->bands[k] += w.bandPowers[k];
                    sums->bandMin[k] = std::min(sums->bandMin[k], w.bandLevels[k]);
                    sums->bandMax[k] = std::max(sums->bandMax[k], w.bandLevels[k]);
                }
            }
        }

        if (plot_ != nullptr) {
            // The analyser's column: reduced to rows or log points, in dB
            // with its floor, then its colour ramp.
            const bool linear = d.linearFrequency();
            if (linear)
                d.interlaceToSpectrogramFFTData(power, w.reduced.data());
            else
                d.convertToLogarithmicScaleFFTData(power, w.reduced.data());
            const int32_t count = linear ? rows : d.spectrogramLogIndexesCount() - 1;
            VectorHelpers::powerToDecibels(w.reduced.data(), SpectrogramScrollView::kDecibelFloor,
                                           w.levels.data(), std::max(0, count));
            SpectrogramScrollViewSegment::columnColors(d, ramp_, w.levels.data(),
                                                       w.rowScratch.data(), w.colors.data());
            // Row 0 is the lowest frequency, at the bottom of the plot.
            uchar* column = plot_ + i * 4;
            for (int32_t r = 0; r < rows - 1; ++r)
                std::memcpy(column + static_cast<qsizetype>(rows - 1 - r) * stride_,
                            &w.colors[static_cast<size_t>(r)], 4);
        }
    }

    {
        const std::lock_guard<std::mutex> lock(mergeMutex_);
        pending_[chunk] = std::move(sums);
        mergeReadyChunks();
    }
}

void BatchAnalysis::mergeReadyChunks() {
    // In chunk order only: floating-point sums then come out the same
    // whichever thread finished first.
    for (auto it = pending_.find(nextToMerge_); it != pending_.end();
         it = pending_.find(nextToMerge_)) {
        const ChunkSums& s = *it->second;
        for (size_t b = 0; b < spectrumSum_.size(); ++b)
            spectrumSum_[b] += s.spectrum[b];
        for (size_t b = 0; b < s.bands.size(); ++b) {
            bandSum_[b] += s.bands[b];
            bandMin_[b] = std::min(bandMin_[b], s.bandMin[b]);
            bandMax_[b] = std::max(bandMax_[b], s.bandMax[b]);
        }
        squareSum_ += s.squares;
        peak_ = std::max(peak_, s.peak);
        averaged_ += s.averaged;
        pending_.erase(it);
        ++nextToMerge_;
    }
}

void BatchAnalysis::finish() {
    const std::lock_guard<std::mutex> lock(mergeMutex_);
    mergeReadyChunks();
    const double count = std::max<int64_t>(1, averaged_);
    for (double& v : spectrumSum_)
        v /= count;
    for (double& v : bandSum_)
        v /= count;
    if (levelsWanted_)
        measureLevels();
}

void BatchAnalysis::measureLevels() {
    SoundLevelMeter meter;
    meter.prepare(static_cast<double>(sampleRate_), settings_.weighting);
    const auto frames = static_cast<int64_t>(samples_.size());
    const int64_t hop = std::max(1, defaults_->intervalSizeInFrames());
    const int64_t period =
        settings_.levelsPeriod > 0.0
            ? std::max<int64_t>(1, std::llround(settings_.levelsPeriod * sampleRate_))
            : frames;
    int64_t boundary = period;
    for (int64_t pos = 0; pos < frames;) {
        const int64_t interval = pos / hop;
        const int64_t end = std::min({(interval + 1) * hop, boundary, frames});
        if (!intervalCorrection_.empty())
            meter.setPowerCorrection(intervalCorrection_[static_cast<size_t>(interval)]);
        meter.process(samples_.data() + pos, end - pos);
        pos = end;
        if (pos == boundary || pos == frames) {
            periods_.push_back(meter.takePeriod());
            boundary += period;
        }
    }
    levels_ = meter.levels();
}

QByteArray BatchAnalysis::levelsCsv() const {
    const char w = weightingLetter(settings_.weighting);
    const bool spl = settings_.splOffsetDB.has_value();
    const double offset = settings_.splOffsetDB.value_or(0.0);
    const QByteArray unit = spl ? QByteArray("db") + w : QByteArray("dbfs_") + w;
    const QByteArray peakUnit = spl ? "dbc" : "dbfs_c";
    QByteArray out = "start_s,leq_" + unit + ",max_fast_" + unit + ",max_slow_" + unit + ",peak_" +
                     peakUnit + "\n";
    const auto level = [&](double v) { return number(std::max(kFloorDB, v) + offset, 3); };
    double start = 0.0;
    for (const PeriodLevels& p : periods_) {
        out += number(start, 3) + ',' + level(p.leq) + ',' + level(p.maxFast) + ',' +
               level(p.maxSlow) + ',' + level(p.peak) + '\n';
        start += p.seconds;
    }
    return out;
}

QByteArray BatchAnalysis::levelsJson() const {
    const QByteArray w(1, weightingLetter(settings_.weighting));
    const QByteArray unit = settings_.splOffsetDB ? "_db_spl" : "_dbfs";
    const double offset = settings_.splOffsetDB.value_or(0.0);
    const auto level = [&](double v) { return number(std::max(kFloorDB, v) + offset, 3); };
    return ",\"l" + w + "eq" + unit + "\":" + level(levels_.leq) + ",\"l" + w + "fmax" + unit +
           "\":" + level(levels_.maxFast) + ",\"l" + w + "smax" + unit +
           "\":" + level(levels_.maxSlow) + ",\"lcpeak" + unit + "\":" + level(levels_.peak);
}

double BatchAnalysis::spectrumLevelDB(int32_t bin) const {
    return toDB(spectrumSum_[static_cast<size_t>(bin)]);
}

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
    return static_cast<double>(samples_.size()) / static_cast<double>(sampleRate_);
}

double BatchAnalysis::peakDBFS() const { return amplitudeDB(peak_); }

double BatchAnalysis::rmsDBFS() const {
    return amplitudeDB(
        std::sqrt(squareSum_ / static_cast<double>(std::max<size_t>(1, samples_.size()))));
}

double BatchAnalysis::strongestFrequency() const {
    size_t best = 1;
    for (size_t b = 2; b < spectrumSum_.size(); ++b) {
        if (spectrumSum_[b] > spectrumSum_[best])
            best = b;
    }
    return static_cast<double>(best) * sampleRate_ / defaults_->fftSize();
}

QImage BatchAnalysis::takeSpectrogramImage(const QString& title) {
    if (image_.isNull())
        return {};
    // Painted where it lies and moved out: a copy of a long recording's image
    // would cost as much memory again.
    QImage image = std::move(image_);
    plot_ = nullptr;
    const AnalyzerDefaults& d = *defaults_;
    const int rows = d.fftDisplaySize();
    const auto columns = static_cast<int>(intervalCount_);
    const QRect plot(kLeftMargin, kTopMargin, columns, rows);

    QPainter p(&image);
    QFont font(QStringLiteral("Arial"));
    font.setPixelSize(12);
    p.setFont(font);
    const QFontMetrics fm(font);
    p.setPen(Qt::black);
    p.drawRect(plot.adjusted(-1, -1, 0, 0));
    p.drawText(QRect(kLeftMargin, 0, std::max(columns, 600), kTopMargin),
               Qt::AlignLeft | Qt::AlignVCenter, title);

    // Frequency labels: the 1-2-5 step that leaves about 40 pixels between
    // labels on a linear axis; octave-spaced 1-2-5 values on a logarithmic one.
    const double maxF = d.maxFrequency();
    const auto rowOf = [&](double f) -> double {
        if (d.linearFrequency())
            return f / maxF * rows;
        return std::log2(f / d.logStartFrequency()) * rows / d.logIntervalDelta();
    };
    const auto label = [](double f) {
        return f >= 1000.0 ? QString::number(f / 1000.0, 'g', 4) + QStringLiteral(" k")
                           : QString::number(f, 'g', 4);
    };
    std::vector<double> ticks;
    if (d.linearFrequency()) {
        const int step = AnalyzerDefaults::roundUpTo125Series(
            static_cast<float>(maxF / std::max(1.0, rows / 40.0)), 1, 1000000);
        for (double f = 0.0; f <= maxF; f += step)
            ticks.push_back(f);
    } else {
        for (double decade = 1.0; decade <= maxF; decade *= 10.0) {
            for (const double m : {1.0, 2.0, 5.0}) {
                const double f = m * decade;
                if (f >= d.logStartFrequency() && f <= maxF)
                    ticks.push_back(f);
            }
        }
    }
    double lastY = 1e9;
    for (const double f : ticks) {
        const double y = plot.bottom() - rowOf(f);
        if (lastY - y < fm.height() * 1.2)
            continue;
        lastY = y;
        const int iy = static_cast<int>(std::lround(y));
        p.drawLine(kLeftMargin - 5, iy, kLeftMargin - 1, iy);
        p.drawText(QRect(0, iy - fm.height(), kLeftMargin - 8, 2 * fm.height()),
                   Qt::AlignRight | Qt::AlignVCenter, label(f));
    }
    p.save();
    p.translate(12, plot.center().y());
    p.rotate(-90);
    p.drawText(QRect(-100, -10, 200, 20), Qt::AlignCenter, QStringLiteral("Frequency (Hz)"));
    p.restore();

    // Time labels: a 1-2-5 step in hundredths of a second, about 100 pixels apart.
    const double secondsPerColumn = d.intervalSizeInFrames() / static_cast<double>(sampleRate_);
    const double duration = secondsPerColumn * columns;
    const double step = AnalyzerDefaults::roundUpTo125Series(
                            static_cast<float>(secondsPerColumn * 100.0 * 100.0), 1, 100000000) /
                        100.0;
    for (double t = 0.0; t <= duration + 1e-9; t += step) {
        const int x = kLeftMargin + static_cast<int>(std::lround(t / secondsPerColumn));
        p.drawLine(x, plot.bottom() + 1, x, plot.bottom() + 5);
        p.drawText(QRect(x - 50, plot.bottom() + 6, 100, fm.height()), Qt::AlignCenter,
                   QString::number(t, 'g', 6));
    }
    p.drawText(QRect(kLeftMargin, image.height() - fm.height() - 4, std::max(columns, 200),
                     fm.height() + 2),
               Qt::AlignHCenter | Qt::AlignVCenter, QStringLiteral("Time (s)"));
    p.end();
    return image;
}

} // namespace widmo
