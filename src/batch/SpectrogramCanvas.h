#pragma once

#include <QImage>
#include <QString>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

namespace widmo {

class AnalyzerDefaults;

/// A spectrogram picture held as its plot columns plus a painted frame:
/// `rows` RGB pixels per column, in pages of up to `kPageColumns` columns,
/// row by row within a page. Columns are written as the analysis makes them
/// (a page's rows are short, so neighbouring columns share cache lines), the
/// PNG encoder reads whole page rows, and the picture can grow while a
/// stream of unknown length is read. The
/// frame (title, labelled time and frequency axes) is painted into four
/// margin images only, never into a copy of the plot.
///
/// `rows` hands out whole image rows (frame and plot) in RGB for the PNG
/// encoder.
///
/// Threading: `ensureColumns` and `drawFrame` on one thread while nothing
/// else uses the canvas; afterwards `column` may be written from any
/// threads at once, each column by one thread; `rows` after every write.
class SpectrogramCanvas {
public:
    static constexpr int kLeftMargin = 76;
    static constexpr int kBottomMargin = 44;
    static constexpr int kTopMargin = 26;
    static constexpr int kRightMargin = 16;
    static constexpr int64_t kPageColumns = 1024;
    /// The most plot pixels one picture holds (64 Mi: 192 MiB of RGB); a
    /// longer picture is refused, which keeps memory bounded.
    static constexpr int64_t kMaxPlotPixels = int64_t{1} << 26;

    /// The time axis: column x shows time `startSeconds + x * secondsPerColumn`.
    struct Frame {
        QString title;
        double startSeconds = 0.0;
        double secondsPerColumn = 1.0;
    };

    /// `rows` >= 2; at most `maxColumns` columns (and kMaxPlotPixels).
    SpectrogramCanvas(int32_t rows, int64_t maxColumns);
    ~SpectrogramCanvas();

    /// The most columns a picture of `rows` rows may have.
    static int64_t columnLimit(int32_t rows) { return kMaxPlotPixels / rows; }

    /// Makes room for columns 0 .. `columns` - 1, their top pixel `clear`
    /// (RGB), the rest black until drawn (every column must be drawn). False
    /// when that is more than the canvas may hold.
    bool ensureColumns(int64_t columns, const uint8_t clear[3]);
    /// Column `x`'s top pixel (3 bytes); the pixel below lies `columnStride` bytes on.
    uint8_t* column(int64_t x) {
        return pages_[static_cast<size_t>(x / pageColumns_)].get() + (x % pageColumns_) * 3;
    }
    size_t columnStride() const { return static_cast<size_t>(pageColumns_) * 3; }
    int64_t columns() const { return columns_; }
    /// Keeps only the first `columns` columns (a stream that ended early).
    void truncate(int64_t columns) { columns_ = std::min(columns_, columns); }
    int32_t rows() const { return rows_; }

    /// Paints the frame around the first `columns()` columns, with the
    /// frequency axis of `defaults` (linear or logarithmic, its range).
    void drawFrame(const Frame& frame, const AnalyzerDefaults& defaults);

    /// The whole picture's size, frame included (after `drawFrame`).
    int width() const { return static_cast<int>(columns_) + kLeftMargin + kRightMargin; }
    int height() const { return rows_ + kTopMargin + kBottomMargin; }
    /// Writes picture rows `first` .. `first + count - 1` as RGB into `out`,
    /// one row every `stride` bytes.
    void rgbRows(int first, int count, uint8_t* out, size_t stride) const;

private:
    int32_t rows_;
    int64_t maxColumns_;
    int64_t columns_ = 0;
    int64_t pageColumns_ = kPageColumns;
    std::vector<std::unique_ptr<uint8_t[]>> pages_;
    QImage top_, bottom_, left_, right_;
};

} // namespace widmo
