#pragma once

#include <QObject>
#include <QPointer>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class QOpenGLContext;

namespace widmo {

class AnalyzerDefaults;

/// Which interval a spectrogram column shows and with which scaling (16 bytes).
struct FFTSpectrumParameters {
    int64_t intervalIndex = -1;            ///< -1: empty column
    float linearGainDB = 0.0f;             ///< linear gain used for the column (dB)
    float valuesInDBMinimumLevelDB = 0.0f; ///< lowest level used for the column (dB)
};
static_assert(sizeof(FFTSpectrumParameters) == 16);

/// The four-threshold colour ramp of the spectrogram: levels below
/// `levelThresholds[0]` take `levelColors[0]`, levels from `levelThresholds[3]` up take
/// `levelColors[3]`, in between each channel is interpolated linearly between the two
/// neighbouring colours. Colours are r, g, b, a in 0..1 (alpha is not used).
/// Owned by `SpectrogramScrollView`; read by its segments.
struct SpectrogramColorRamp {
    std::array<float, 4> levelThresholds{};
    std::array<std::array<float, 4>, 4> levelColors{};

    /// The colour of a normalised level `n` (0..1) as RGBA bytes, each channel
    /// times 255 truncated, alpha 255.
    std::array<uint8_t, 4> colorForLevel(float n) const;

    /// The ramp of a colour scheme (`spectrogramColorType`): 0 coloured (black,
    /// blue, green, red), 1 black (black to white through greys), 2 white
    /// (white to black). False, and `ramp` unchanged, for any other value.
    static bool forColorType(int32_t colorType, SpectrogramColorRamp* ramp);
};

/// One texture of the scrolling spectrogram: `segmentSize` time columns by
/// `fftDisplaySize` rows, RGBA bytes, row 0 the lowest frequency, with the
/// record of the interval each column shows.
///
/// A column arrives as one value per display row (linear frequency) or one per
/// logarithmic point (interpolated onto the rows in between), in dB or as a
/// linear magnitude, and is turned into colours through the owner's ramp. The
/// columns written since the last upload go to the texture on the main thread
/// at most once per 8 columns (skipped while an upload is still queued), and
/// always when the segment becomes full.
///
/// Geometry is read from `AnalyzerDefaults` at construction; a geometry change
/// means new segments.
///
/// Threading: `addFFTdata` and `resetWrite` run on the analysis queue (one
/// writer); they write only the pixels and records of the column being
/// written and post the upload to the main thread. Everything else, and every
/// GL call, runs on the main thread. `writeIndex`, `position`, the upload
/// counters are atomics (release on write, acquire on read): a record or a
/// column is complete when `writeIndex` has passed it. An upload reads only
/// complete columns, never the one being written. A reset does not touch the
/// pixels; it publishes `writeIndex` 0 and then waits until no upload that
/// may have read the old index is still copying (the readers' count is taken
/// before the index is read, both sequentially consistent), so that the next
/// lap never writes a column an upload reads. `clearData` and
/// `createGLTexture` read or write the whole image: only while nothing writes
/// (the engine stopped, or a segment not yet in the ring).
class SpectrogramScrollViewSegment {
public:
    /// Columns between two throttled uploads.
    static constexpr int32_t kUploadEveryColumns = 8;

    /// Allocates the pixels and records for the current geometry of
    /// `defaults`, clears them to the ramp's `levelColors[0]` and, when OpenGL is
    /// available, creates and uploads the texture through the shared context of
    /// the GL views. `defaults` and `ramp` must outlive the segment. Main thread.
    SpectrogramScrollViewSegment(const AnalyzerDefaults& defaults,
                                 const SpectrogramColorRamp& ramp);
    /// Deletes the texture (the shared context is made current). Main thread;
    /// queued uploads of this segment are dropped.
    ~SpectrogramScrollViewSegment();
    SpectrogramScrollViewSegment(const SpectrogramScrollViewSegment&) = delete;
    SpectrogramScrollViewSegment& operator=(const SpectrogramScrollViewSegment&) = delete;

    int32_t segmentSize() const { return segmentSize_; }
    int32_t rows() const { return rows_; }

    /// Every pixel `levelColors[0]`, every record empty, texture uploaded now. Main thread.
    void clearData();
    /// Every pixel `levelColors[0]` with alpha 255 (no upload, records kept).
    void clearImageData();
    /// Back to column 0 with a cleared image; the texture keeps the old picture
    /// until the next upload and the records are overwritten column by column.
    /// Analysis queue (or the main thread while nothing writes).
    void resetWrite();
    bool isFullToWrite() const { return writeIndex() >= segmentSize_; }
    /// The record of `column` (0 .. segmentSize - 1; clamped).
    const FFTSpectrumParameters& parametersAtIndex(int32_t column) const;

    /// Writes one column at `writeIndex` from `values` (see the class comment;
    /// count: `fftDisplaySize` values with linear frequency, else
    /// `spectrogramLogIndexesCount - 1`), then advances and maybe posts an
    /// upload. Null `values`: the interval lies in a capture gap, and the
    /// column is hatched in two greys (`gapColor`), unlike any colour of the
    /// ramps. Does nothing when full. Analysis queue; no allocation.
    void addFFTdata(const float* values, int64_t intervalIndex);
    /// The gap hatching's pixel (packed RGBA as `columnColors`) at `row` of
    /// the column whose interval is `intervalIndex`: diagonal stripes 4 pixels wide.
    static uint32_t gapColor(int64_t intervalIndex, int32_t row);

    /// Uploads the whole image into the texture. Main thread; nothing without OpenGL.
    void createGLTexture();
    /// Uploads the columns written since the last upload (all of them after a
    /// reset) and counts the upload. Main thread; nothing without OpenGL.
    void uploadNewColumns();

    /// The value a column writes at display row `row` from `values` as
    /// `addFFTdata` receives them (linear: values[row]; logarithmic: the two
    /// neighbouring points interpolated in row space, held flat beyond the
    /// first and last point). Any thread.
    static float valueAtRow(const AnalyzerDefaults& defaults, const float* values, int32_t row);

    /// The colours of one column as `addFFTdata` writes them: `values` as it
    /// receives them become `fftDisplaySize - 1` packed RGBA pixels (bytes r,
    /// g, b, 255 in memory order), row 0 first, through `ramp` with the
    /// document's scaling (`valuesInDB`, the minimum level or the linear gain).
    /// `rowScratch` holds `fftDisplaySize` floats. Any thread; no allocation.
    static void columnColors(const AnalyzerDefaults& defaults, const SpectrogramColorRamp& ramp,
                             const float* values, float* rowScratch, uint32_t* colors);

    float position() const { return position_.load(std::memory_order_acquire); }
    /// Place along the time axis in columns from the document's start.
    void setPosition(float columns) { position_.store(columns, std::memory_order_release); }
    uint32_t textureName() const { return textureName_; }
    /// Interval of column 0 (-1 before the first column since a reset); for
    /// drawing on the main thread while columns are written.
    int64_t firstIntervalIndex() const { return firstInterval_.load(std::memory_order_acquire); }
    int32_t writeIndex() const { return writeIndex_.load(std::memory_order_acquire); }
    /// Columns the texture held at its last upload (drawing shows no more).
    int32_t uploadedColumns() const { return uploadedColumns_.load(std::memory_order_acquire); }
    /// For drawing straight from the pixels (the software path): calls `draw`
    /// with the pixels and the count of leading columns that are uploaded and
    /// whole; a reset of the segment waits until `draw` returns, as for an
    /// upload. Main thread.
    void drawUploadedColumns(const std::function<void(const uint8_t*, int32_t)>& draw);
    /// Uploads queued and not yet run.
    int32_t pendingUploads() const {
        return mDispatchCreateTextureCounter.load(std::memory_order_acquire);
    }
    /// Uploads run since construction (the first one included).
    int64_t uploadCount() const { return uploadCount_.load(std::memory_order_acquire); }
    /// The pixels: (row * segmentSize + column) * 4 bytes RGBA.
    const uint8_t* imageData() const { return mImageData.data(); }

private:
    void writeColumn(const float* values, uint8_t* pixels, int64_t intervalIndex);
    /// Copies columns from .. to - 1 into the bound texture. Main thread.
    void uploadColumns(int32_t from, int32_t to);

    const AnalyzerDefaults& defaults_;
    const SpectrogramColorRamp& ramp_;
    int32_t segmentSize_ = 0;
    int32_t rows_ = 0;
    std::vector<FFTSpectrumParameters> mParameters;
    std::vector<uint8_t> mImageData;
    std::atomic<int32_t> mDispatchCreateTextureCounter{0};
    std::atomic<float> position_{0.0f};
    uint32_t textureName_ = 0;
    std::atomic<int32_t> writeIndex_{0};
    std::atomic<int64_t> firstInterval_{-1};
    std::atomic<int32_t> uploadedColumns_{0};
    std::atomic<int64_t> uploadCount_{0};
    std::atomic<int32_t> uploadReaders_{0}; // uploads between reading writeIndex and the copy's end
    std::vector<uint8_t> uploadScratch_;    // OpenGL ES 2: the columns of one upload, packed
    QPointer<QOpenGLContext> context_;
    // Scratch for one column, allocated once: levels, then packed colours.
    std::vector<float> levels_;
    std::vector<uint32_t> colors_;
    // Context of the posted uploads: destroyed with the segment, which drops them.
    QObject uploadContext_;
};

} // namespace widmo
