#include "render/SpectrogramScrollViewSegment.h"

#include "core/AnalyzerDefaults.h"
#include "engine/MainQueue.h"
#include "render/GLView.h"

#include <QOpenGLContext>
#include <QOpenGLFunctions>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

// The column loops are compiled for AVX-512, AVX2 and the baseline, the
// loader picking the widest the processor has, as in the vector helpers of
// the signal path. ThreadSanitizer builds keep the baseline only.
#if defined(__SANITIZE_THREAD__)
#define WIDMO_SEGMENT_CLONES
#else
#define WIDMO_SEGMENT_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#endif

namespace widmo {

namespace {

// The ramp flattened for the colour loop, as plain scalars so that the loop
// holds no indexed loads: thresholds, 1 / width of each band, and per channel
// each colour with its step to the next one (high - low, as the ramp's
// interpolation computes it).
struct RampArgs {
    float g0, g1, g2, g3;
    float inv01, inv12, inv23;
    std::array<std::array<float, 4>, 3> low;  // [channel][colour]
    std::array<std::array<float, 4>, 3> step; // [channel][colour]; 0 for colour 3
};

RampArgs rampArgs(const SpectrogramColorRamp& ramp) {
    const auto& g = ramp.levelThresholds;
    const auto& c = ramp.levelColors;
    RampArgs a{
        g[0], g[1], g[2], g[3], 1.0f / (g[1] - g[0]), 1.0f / (g[2] - g[1]), 1.0f / (g[3] - g[2]),
        {},   {}};
    for (size_t ch = 0; ch < 3; ++ch) {
        for (size_t k = 0; k < 4; ++k) {
            a.low[ch][k] = c[k][ch];
            a.step[ch][k] = k < 3 ? c[k + 1][ch] - c[k][ch] : 0.0f;
        }
    }
    return a;
}

// One value per band, picked by level n: v0 below g1 (and below g0), v1 from
// g1, v2 from g2, v3 from g3. A chain of flat selects, one comparison each,
// which GCC turns into vector blends (the file is built without trapping
// maths, so that comparisons may be made on every path).
inline float pick(float n, const RampArgs& a, float v0, float v1, float v2, float v3) {
    float v = v0;
    v = n >= a.g1 ? v1 : v;
    v = n >= a.g2 ? v2 : v;
    v = n >= a.g3 ? v3 : v;
    return v;
}

inline uint32_t channelByte(float v, int shift) {
    return static_cast<uint32_t>(static_cast<int32_t>(v * 255.0f)) << shift;
}

// A normalised level to packed RGBA (bytes r, g, b, 255 in memory order),
// without a branch, so that the loops below vectorise. Band k (from threshold
// k to k + 1) interpolates colour k to colour k + 1 with t = (n - g_k) times
// the band's precomputed 1 / (g_k+1 - g_k), low + t * (high - low). Below the
// first threshold and from the last one up t is 0, so those levels give colour
// 0 and colour 3 exactly. Equal thresholds make an empty band's inverse width
// infinite, but that band is never the one selected.
inline uint32_t packedColorForLevel(float n, const RampArgs& a) {
    const float lowG = pick(n, a, a.g0, a.g1, a.g2, a.g3);
    const float inverseWidth = pick(n, a, a.inv01, a.inv12, a.inv23, 0.0f);
    float t = (n - lowG) * inverseWidth;
    t = n >= a.g0 ? t : 0.0f;
    uint32_t packed = 0xFF000000u;
    for (size_t ch = 0; ch < 3; ++ch) {
        const auto& low = a.low[ch];
        const auto& step = a.step[ch];
        const float v = pick(n, a, low[0], low[1], low[2], low[3]) +
                        t * pick(n, a, step[0], step[1], step[2], step[3]);
        packed |= channelByte(v, static_cast<int>(8 * ch));
    }
    return packed;
}

// Column values to packed colours in one pass (multiplications by
// reciprocals: a division per value would cost more than the rest of the
// loop): dB against the minimum level (1 - x / minimum), or a linear magnitude times the gain,
// clamped to 0..1, then the ramp.
WIDMO_SEGMENT_CLONES void decibelsToColors(const float* __restrict values, uint32_t* __restrict out,
                                           int32_t count, float minimumLevelDB, RampArgs a) {
    const float inverseMinimum = 1.0f / minimumLevelDB;
    for (int32_t k = 0; k < count; ++k) {
        const float n = std::min(std::max(1.0f - values[k] * inverseMinimum, 0.0f), 1.0f);
        out[k] = packedColorForLevel(n, a);
    }
}

WIDMO_SEGMENT_CLONES void magnitudesToColors(const float* __restrict values,
                                             uint32_t* __restrict out, int32_t count, float gain,
                                             RampArgs a) {
    for (int32_t k = 0; k < count; ++k) {
        const float n = std::min(std::max(gain * values[k], 0.0f), 1.0f);
        out[k] = packedColorForLevel(n, a);
    }
}

uint32_t packedColor(const std::array<float, 4>& c) {
    uint32_t packed = 0xFF000000u;
    for (size_t ch = 0; ch < 3; ++ch)
        packed |= static_cast<uint32_t>(static_cast<int32_t>(c[ch] * 255.0f)) << (8 * ch);
    return packed;
}

} // namespace

std::array<uint8_t, 4> SpectrogramColorRamp::colorForLevel(float n) const {
    const uint32_t packed = packedColorForLevel(n, rampArgs(*this));
    std::array<uint8_t, 4> out{};
    std::memcpy(out.data(), &packed, 4);
    return out;
}

bool SpectrogramColorRamp::forColorType(int32_t colorType, SpectrogramColorRamp* ramp) {
    switch (colorType) {
    case 0:
        ramp->levelThresholds = {0.01f, 0.27f, 0.54f, 0.99f};
        ramp->levelColors = {{{0.0f, 0.0f, 0.0f, 1.0f},
                              {0.0f, 0.0f, 0.8f, 1.0f},
                              {0.0f, 0.9f, 0.0f, 1.0f},
                              {1.0f, 0.0f, 0.0f, 1.0f}}};
        return true;
    case 1:
        ramp->levelThresholds = {0.01f, 0.25f, 0.5f, 0.9f};
        ramp->levelColors = {{{0.0f, 0.0f, 0.0f, 1.0f},
                              {0.33f, 0.33f, 0.33f, 1.0f},
                              {0.66f, 0.66f, 0.66f, 1.0f},
                              {1.0f, 1.0f, 1.0f, 1.0f}}};
        return true;
    case 2:
        ramp->levelThresholds = {0.01f, 0.25f, 0.5f, 0.9f};
        ramp->levelColors = {{{1.0f, 1.0f, 1.0f, 1.0f},
                              {0.66f, 0.66f, 0.66f, 1.0f},
                              {0.33f, 0.33f, 0.33f, 1.0f},
                              {0.0f, 0.0f, 0.0f, 1.0f}}};
        return true;
    default:
        return false;
    }
}

SpectrogramScrollViewSegment::SpectrogramScrollViewSegment(const AnalyzerDefaults& defaults,
                                                           const SpectrogramColorRamp& ramp)
    : defaults_(defaults), ramp_(ramp), segmentSize_(std::max(1, defaults.segmentSize())),
      rows_(std::max(1, defaults.fftDisplaySize())) {
    QOpenGLContext* ctx = GLView::drawsInSoftware() ? nullptr : GLView::makeSharedContextCurrent();
    if (ctx != nullptr) {
        context_ = ctx;
        GLuint name = 0;
        ctx->functions()->glGenTextures(1, &name);
        textureName_ = name;
    }
    mParameters.resize(static_cast<size_t>(segmentSize_));
    mImageData.resize(static_cast<size_t>(rows_) * static_cast<size_t>(segmentSize_) * 4);
    levels_.resize(static_cast<size_t>(rows_));
    colors_.resize(static_cast<size_t>(rows_));
    clearData();
    mDispatchCreateTextureCounter.store(0, std::memory_order_release);
}

SpectrogramScrollViewSegment::~SpectrogramScrollViewSegment() {
    if (textureName_ != 0 && !context_.isNull() && GLView::makeSharedContextCurrent() != nullptr) {
        const GLuint name = textureName_;
        context_->functions()->glDeleteTextures(1, &name);
    }
}

void SpectrogramScrollViewSegment::clearData() {
    Q_ASSERT(MainQueue::isMainThread());
    clearImageData();
    for (FFTSpectrumParameters& p : mParameters)
        p.intervalIndex = -1;
    firstInterval_.store(-1, std::memory_order_release);
    createGLTexture();
}

void SpectrogramScrollViewSegment::clearImageData() {
    const uint32_t clear = packedColor(ramp_.levelColors[0]);
    auto* pixels = reinterpret_cast<uint32_t*>(mImageData.data());
    std::fill(pixels, pixels + mImageData.size() / 4, clear);
}

void SpectrogramScrollViewSegment::resetWrite() {
    // The pixels are not cleared: every column is written whole (all rows but
    // the top one, which keeps the clear colour) before `writeIndex` publishes
    // it, and nothing past `writeIndex` is uploaded or drawn.
    writeIndex_.store(0, std::memory_order_seq_cst);
    // The texture still holds the old picture: none of it is shown any more.
    uploadedColumns_.store(0, std::memory_order_release);
    // An upload that read the old `writeIndex` may still be copying the old
    // lap's columns; column 0 is rewritten only after it (a few
    // milliseconds, and only when the main thread fell a whole turn of the
    // ring behind). Paired with the readers' count taken before their load.
    while (uploadReaders_.load(std::memory_order_seq_cst) != 0)
        std::this_thread::yield();
}

const FFTSpectrumParameters& SpectrogramScrollViewSegment::parametersAtIndex(int32_t column) const {
    return mParameters[static_cast<size_t>(std::clamp(column, 0, segmentSize_ - 1))];
}

float SpectrogramScrollViewSegment::valueAtRow(const AnalyzerDefaults& defaults,
                                               const float* values, int32_t row) {
    if (defaults.linearFrequency())
        return values[row];
    const int32_t points = defaults.spectrogramLogIndexesCount() - 1;
    if (points < 1)
        return 0.0f;
    const int32_t* idx = defaults.spectrogramLogIndexes();
    if (points == 1 || row <= idx[0])
        return values[0];
    if (row >= idx[points - 1])
        return values[points - 1];
    // The last point at or below the row.
    const int32_t j = static_cast<int32_t>(std::upper_bound(idx, idx + points, row) - idx) - 1;
    const int32_t i0 = idx[j];
    const int32_t i1 = idx[j + 1];
    if (i1 == i0 + 1)
        return values[j];
    return values[j] +
           static_cast<float>(row - i0) / static_cast<float>(i1 - i0) * (values[j + 1] - values[j]);
}

void SpectrogramScrollViewSegment::columnColors(const AnalyzerDefaults& defaults,
                                                const SpectrogramColorRamp& ramp,
                                                const float* values, float* rowScratch,
                                                uint32_t* colors) {
    // The top row keeps the clear colour: columns fill rows 0 .. rows - 2.
    const int32_t count = std::max(1, defaults.fftDisplaySize()) - 1;
    const float* x = values;
    if (!defaults.linearFrequency()) {
        float* rowValues = rowScratch;
        const int32_t points = defaults.spectrogramLogIndexesCount() - 1;
        const int32_t* idx = defaults.spectrogramLogIndexes();
        if (points < 1) {
            std::fill(rowValues, rowValues + count, defaults.valuesInDB() ? -144.0f : 0.0f);
        } else {
            // One cursor over the points, advanced as the rows pass them; it
            // stops at the last point, beyond which the row holds that value.
            int32_t j = 0;
            for (int32_t r = 0; r < count; ++r) {
                while (j + 1 < points && r >= idx[j + 1])
                    ++j;
                if (j + 1 >= points || r <= idx[j]) {
                    rowValues[r] = values[j];
                    continue;
                }
                const int32_t i0 = idx[j];
                const int32_t i1 = idx[j + 1];
                rowValues[r] = values[j] + static_cast<float>(r - i0) /
                                               static_cast<float>(i1 - i0) *
                                               (values[j + 1] - values[j]);
            }
        }
        x = rowValues;
    }
    if (defaults.valuesInDB()) {
        decibelsToColors(x, colors, count, defaults.spectrogramValuesInDBMinimumLevelDB(),
                         rampArgs(ramp));
    } else {
        const auto gain = static_cast<float>(
            std::pow(10.0, static_cast<double>(defaults.spectrogramLinearValuesGainDB()) / 20.0));
        magnitudesToColors(x, colors, count, gain, rampArgs(ramp));
    }
}

uint32_t SpectrogramScrollViewSegment::gapColor(int64_t intervalIndex, int32_t row) {
    // Mid and dark grey with a blue cast: no ramp has a grey that is not on
    // its black-to-white or colour path, and stripes never occur in spectra.
    const bool light = ((intervalIndex + row) / 4) % 2 == 0;
    const std::array<uint8_t, 4> rgba = light ? std::array<uint8_t, 4>{110, 110, 128, 255}
                                              : std::array<uint8_t, 4>{60, 60, 72, 255};
    uint32_t packed = 0;
    std::memcpy(&packed, rgba.data(), 4);
    return packed;
}

void SpectrogramScrollViewSegment::writeColumn(const float* values, uint8_t* pixels,
                                               int64_t intervalIndex) {
    const int32_t count = rows_ - 1;
    if (values == nullptr) {
        for (int32_t r = 0; r < count; ++r)
            colors_[static_cast<size_t>(r)] = gapColor(intervalIndex, r);
    } else {
        columnColors(defaults_, ramp_, values, levels_.data(), colors_.data());
    }
    // Rows are segmentSize pixels apart: one 4-byte store per row.
    const size_t stride = static_cast<size_t>(segmentSize_) * 4;
    for (int32_t r = 0; r < count; ++r)
        std::memcpy(pixels + static_cast<size_t>(r) * stride, &colors_[static_cast<size_t>(r)], 4);
}

void SpectrogramScrollViewSegment::addFFTdata(const float* values, int64_t intervalIndex) {
    const int32_t column = writeIndex_.load(std::memory_order_relaxed);
    if (column >= segmentSize_)
        return;
    FFTSpectrumParameters& record = mParameters[static_cast<size_t>(column)];
    record.intervalIndex = intervalIndex;
    record.linearGainDB = defaults_.spectrogramLinearValuesGainDB();
    record.valuesInDBMinimumLevelDB = defaults_.spectrogramValuesInDBMinimumLevelDB();
    writeColumn(values, mImageData.data() + static_cast<size_t>(column) * 4, intervalIndex);
    if (column == 0)
        firstInterval_.store(intervalIndex, std::memory_order_release);
    const int32_t written = column + 1;
    writeIndex_.store(written, std::memory_order_release);

    const bool full = written == segmentSize_;
    const bool idle = mDispatchCreateTextureCounter.load(std::memory_order_acquire) == 0;
    if (full || (idle && written % kUploadEveryColumns == 0)) {
        mDispatchCreateTextureCounter.fetch_add(1, std::memory_order_acq_rel);
        MainQueue::async(
            [this] {
                uploadNewColumns();
                mDispatchCreateTextureCounter.fetch_sub(1, std::memory_order_acq_rel);
            },
            &uploadContext_);
    }
}

void SpectrogramScrollViewSegment::createGLTexture() {
    Q_ASSERT(MainQueue::isMainThread());
    // The whole image is read: only while nothing writes (a new or cleared
    // segment; see the class comment).
    const int32_t columns = writeIndex_.load(std::memory_order_acquire);
    uploadCount_.fetch_add(1, std::memory_order_acq_rel);
    uploadedColumns_.store(columns, std::memory_order_release);
    if (textureName_ == 0 || context_.isNull() || GLView::makeSharedContextCurrent() == nullptr)
        return;
    QOpenGLFunctions* f = context_->functions();
    f->glBindTexture(GL_TEXTURE_2D, textureName_);
    f->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    f->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    f->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    f->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    f->glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    f->glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, segmentSize_, rows_, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                    mImageData.data());
    f->glBindTexture(GL_TEXTURE_2D, 0);
}

void SpectrogramScrollViewSegment::uploadNewColumns() {
    Q_ASSERT(MainQueue::isMainThread());
    // Counted before `writeIndex` is read, so that a reset of this segment
    // waits until the columns read here are no longer being read.
    uploadReaders_.fetch_add(1, std::memory_order_seq_cst);
    const int32_t to = writeIndex_.load(std::memory_order_seq_cst);
    int32_t from = uploadedColumns_.load(std::memory_order_acquire);
    if (from > to)
        from = 0; // reset since the last upload
    uploadCount_.fetch_add(1, std::memory_order_acq_rel);
    uploadedColumns_.store(to, std::memory_order_release);
    if (from != to && textureName_ != 0 && !context_.isNull() &&
        GLView::makeSharedContextCurrent() != nullptr)
        uploadColumns(from, to);
    uploadReaders_.fetch_sub(1, std::memory_order_seq_cst);
}

void SpectrogramScrollViewSegment::drawUploadedColumns(
    const std::function<void(const uint8_t*, int32_t)>& draw) {
    Q_ASSERT(MainQueue::isMainThread());
    // Counted before `writeIndex` is read, as in `uploadNewColumns`: a reset
    // after this point waits; one before it shows in `writeIndex`.
    uploadReaders_.fetch_add(1, std::memory_order_seq_cst);
    const int32_t whole = writeIndex_.load(std::memory_order_seq_cst);
    draw(mImageData.data(), std::min(whole, uploadedColumns_.load(std::memory_order_acquire)));
    uploadReaders_.fetch_sub(1, std::memory_order_seq_cst);
}

void SpectrogramScrollViewSegment::uploadColumns(int32_t from, int32_t to) {
    QOpenGLFunctions* f = context_->functions();
    const auto width = static_cast<size_t>(to - from);
    f->glBindTexture(GL_TEXTURE_2D, textureName_);
    f->glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    if (context_->isOpenGLES() && context_->format().majorVersion() < 3) {
        // OpenGL ES 2 cannot unpack a part of each row: the published columns
        // are gathered first (never the one being written).
        uploadScratch_.resize(width * static_cast<size_t>(rows_) * 4);
        const size_t stride = static_cast<size_t>(segmentSize_) * 4;
        for (int32_t r = 0; r < rows_; ++r)
            std::memcpy(uploadScratch_.data() + static_cast<size_t>(r) * width * 4,
                        mImageData.data() + static_cast<size_t>(r) * stride +
                            static_cast<size_t>(from) * 4,
                        width * 4);
        f->glTexSubImage2D(GL_TEXTURE_2D, 0, from, 0, to - from, rows_, GL_RGBA, GL_UNSIGNED_BYTE,
                           uploadScratch_.data());
    } else {
        f->glPixelStorei(GL_UNPACK_ROW_LENGTH, segmentSize_);
        f->glTexSubImage2D(GL_TEXTURE_2D, 0, from, 0, to - from, rows_, GL_RGBA, GL_UNSIGNED_BYTE,
                           mImageData.data() + static_cast<size_t>(from) * 4);
        f->glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    }
    f->glBindTexture(GL_TEXTURE_2D, 0);
}

} // namespace widmo
