#include "render/SpectrogramScrollViewSegment.h"

#include "core/AnalyzerDefaults.h"
#include "engine/MainQueue.h"
#include "render/TQGLView.h"

#include <QOpenGLContext>
#include <QOpenGLFunctions>

#include <algorithm>
#include <cmath>
#include <cstring>

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

// The ramp flattened for the colour loop: thresholds and the r, g, b of each colour.
struct RampArgs {
    float g0, g1, g2, g3;
    float c[4][3];
};

RampArgs rampArgs(const SpectrogramColorRamp& ramp) {
    RampArgs a{};
    a.g0 = ramp.granicaKoloru[0];
    a.g1 = ramp.granicaKoloru[1];
    a.g2 = ramp.granicaKoloru[2];
    a.g3 = ramp.granicaKoloru[3];
    for (size_t i = 0; i < 4; ++i)
        for (size_t ch = 0; ch < 3; ++ch)
            a.c[i][ch] = ramp.kolor[i][ch];
    return a;
}

// Normalised levels to packed RGBA (bytes r, g, b, 255 in memory order). Every
// band is chosen by selects rather than branches, so the loop vectorises; the
// arithmetic per band is the ramp's own: low + t * (high - low) with
// t = (n - lower threshold) / (upper - lower), and t = 0 outside the ramp, so
// that levels below the first threshold give colour 0 and levels from the last
// one up give colour 3 exactly.
WIDMO_SEGMENT_CLONES void levelsToColors(const float* __restrict levels, uint32_t* __restrict out,
                                         int32_t count, RampArgs r) {
    for (int32_t k = 0; k < count; ++k) {
        const float n = levels[k];
        const bool b0 = n >= r.g0;
        const bool b1 = n >= r.g1;
        const bool b2 = n >= r.g2;
        const bool b3 = n >= r.g3;
        const float lowG = b2 ? r.g2 : (b1 ? r.g1 : r.g0);
        const float highG = b2 ? r.g3 : (b1 ? r.g2 : r.g1);
        const float inRamp = (b0 && !b3) ? 1.0f : 0.0f;
        const float t = inRamp != 0.0f ? (n - lowG) / (highG - lowG) : 0.0f;
        uint32_t packed = 0xFF000000u;
        for (int ch = 0; ch < 3; ++ch) {
            const float low = b3 ? r.c[3][ch] : (b2 ? r.c[2][ch] : (b1 ? r.c[1][ch] : r.c[0][ch]));
            const float high = b2 ? r.c[3][ch] : (b1 ? r.c[2][ch] : (b0 ? r.c[1][ch] : r.c[0][ch]));
            const float v = low + t * (high - low);
            packed |= static_cast<uint32_t>(static_cast<int32_t>(v * 255.0f)) << (8 * ch);
        }
        out[k] = packed;
    }
}

// Values to normalised levels 0..1 in place: dB against the minimum level, or
// linear magnitude times the gain.
WIDMO_SEGMENT_CLONES void decibelsToLevels(float* io, int32_t count, float minimumLevelDB) {
    for (int32_t k = 0; k < count; ++k)
        io[k] = std::min(std::max(1.0f - io[k] / minimumLevelDB, 0.0f), 1.0f);
}

WIDMO_SEGMENT_CLONES void magnitudesToLevels(float* io, int32_t count, float gain) {
    for (int32_t k = 0; k < count; ++k)
        io[k] = std::min(std::max(gain * io[k], 0.0f), 1.0f);
}

uint32_t packedColor(const std::array<float, 4>& c) {
    uint32_t packed = 0xFF000000u;
    for (size_t ch = 0; ch < 3; ++ch)
        packed |= static_cast<uint32_t>(static_cast<int32_t>(c[ch] * 255.0f)) << (8 * ch);
    return packed;
}

} // namespace

std::array<uint8_t, 4> SpectrogramColorRamp::colorForLevel(float n) const {
    uint32_t packed = 0;
    levelsToColors(&n, &packed, 1, rampArgs(*this));
    std::array<uint8_t, 4> out{};
    std::memcpy(out.data(), &packed, 4);
    return out;
}

SpectrogramScrollViewSegment::SpectrogramScrollViewSegment(const AnalyzerDefaults& defaults,
                                                           const SpectrogramColorRamp& ramp)
    : defaults_(defaults), ramp_(ramp), segmentSize_(std::max(1, defaults.segmentSize())),
      rows_(std::max(1, defaults.fftDisplaySize())) {
    if (QOpenGLContext* ctx = TQGLView::makeSharedContextCurrent()) {
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
    if (textureName_ != 0 && !context_.isNull() &&
        TQGLView::makeSharedContextCurrent() != nullptr) {
        const GLuint name = textureName_;
        context_->functions()->glDeleteTextures(1, &name);
    }
}

void SpectrogramScrollViewSegment::clearData() {
    clearImageData();
    for (FFTSpectrumParameters& p : mParameters)
        p.intervalIndex = -1;
    createGLTexture();
}

void SpectrogramScrollViewSegment::clearImageData() {
    const uint32_t clear = packedColor(ramp_.kolor[0]);
    auto* pixels = reinterpret_cast<uint32_t*>(mImageData.data());
    std::fill(pixels, pixels + mImageData.size() / 4, clear);
}

void SpectrogramScrollViewSegment::resetWrite() {
    writeIndex_.store(0, std::memory_order_release);
    // The texture still holds the old picture: none of it is shown any more.
    uploadedColumns_.store(0, std::memory_order_release);
    clearImageData();
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

void SpectrogramScrollViewSegment::writeColumn(const float* values, uint8_t* pixels) {
    // The top row keeps the clear colour: columns fill rows 0 .. rows - 2.
    const int32_t count = rows_ - 1;
    float* x = levels_.data();
    if (defaults_.linearFrequency()) {
        std::copy(values, values + count, x);
    } else {
        const int32_t points = defaults_.spectrogramLogIndexesCount() - 1;
        const int32_t* idx = defaults_.spectrogramLogIndexes();
        if (points < 1) {
            std::fill(x, x + count, defaults_.valuesInDB() ? -144.0f : 0.0f);
        } else {
            // One cursor over the points, advanced as the rows pass them; it
            // stops at the last point, beyond which the row holds that value.
            int32_t j = 0;
            for (int32_t r = 0; r < count; ++r) {
                while (j + 1 < points && r >= idx[j + 1])
                    ++j;
                if (j + 1 >= points || r <= idx[j]) {
                    x[r] = values[j];
                    continue;
                }
                const int32_t i0 = idx[j];
                const int32_t i1 = idx[j + 1];
                x[r] = values[j] + static_cast<float>(r - i0) / static_cast<float>(i1 - i0) *
                                       (values[j + 1] - values[j]);
            }
        }
    }
    if (defaults_.valuesInDB()) {
        decibelsToLevels(x, count, defaults_.spectrogramValuesInDBMinimumLevelDB());
    } else {
        const auto gain = static_cast<float>(std::pow(
            10.0, static_cast<double>(defaults_.spectrogramLinearValuesWzmocnienieDB()) / 20.0));
        magnitudesToLevels(x, count, gain);
    }
    levelsToColors(x, colors_.data(), count, rampArgs(ramp_));
    const size_t stride = static_cast<size_t>(segmentSize_) * 4;
    for (int32_t r = 0; r < count; ++r)
        std::memcpy(pixels + static_cast<size_t>(r) * stride, &colors_[static_cast<size_t>(r)], 4);
}

void SpectrogramScrollViewSegment::addFFTdata(const float* values, int64_t intervalIndex) {
    const int32_t column = writeIndex_.load(std::memory_order_relaxed);
    if (column >= segmentSize_ || values == nullptr)
        return;
    FFTSpectrumParameters& record = mParameters[static_cast<size_t>(column)];
    record.intervalIndex = intervalIndex;
    record.linearWzmocnienieDB = defaults_.spectrogramLinearValuesWzmocnienieDB();
    record.valuesInDBMinimumLevelDB = defaults_.spectrogramValuesInDBMinimumLevelDB();
    writeColumn(values, mImageData.data() + static_cast<size_t>(column) * 4);
    const int32_t written = column + 1;
    writeIndex_.store(written, std::memory_order_release);

    const bool full = written == segmentSize_;
    const bool idle = mDispatchCreateTextureCounter.load(std::memory_order_acquire) == 0;
    if (full || (idle && written % kUploadEveryColumns == 0)) {
        mDispatchCreateTextureCounter.fetch_add(1, std::memory_order_acq_rel);
        MainQueue::async(
            [this] {
                createGLTexture();
                mDispatchCreateTextureCounter.fetch_sub(1, std::memory_order_acq_rel);
            },
            &uploadContext_);
    }
}

void SpectrogramScrollViewSegment::createGLTexture() {
    // What the upload holds: every column written before this point.
    const int32_t columns = writeIndex_.load(std::memory_order_acquire);
    uploadCount_.fetch_add(1, std::memory_order_acq_rel);
    uploadedColumns_.store(columns, std::memory_order_release);
    if (textureName_ == 0 || context_.isNull() || TQGLView::makeSharedContextCurrent() == nullptr)
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

} // namespace widmo
