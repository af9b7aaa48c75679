#pragma once

#include <QImage>
#include <QPainter>
#include <QPointF>
#include <QTransform>

#include <array>
#include <cstdint>
#include <memory>

namespace widmo {

/// Draws GLPainter's primitives into an RGB32 image with plain loops (and
/// QPainter for the rare shape that is neither a rectangle nor an upright
/// line), for machines whose OpenGL is itself a software rasterizer: there a
/// frame drawn with OpenGL costs a rasterizer's set-up, a full-frame read-back
/// and a copy on top of the same work done here.
///
/// Positions are device pixels with the origin at the image's top-left
/// corner. The rules are OpenGL's, so that a picture looks the same on both
/// paths: a filled rectangle lights the pixels whose centres lie inside it
/// (left and top edges in, right and bottom out; OpenGL, computing in single
/// precision, may decide a centre that lies exactly on an edge the other
/// way); an upright line of width w
/// is the rectangle w pixels across centred on it; a nearest-sampled image
/// gives each pixel the source texel under its centre.
///
/// Threading: main thread only (the target image belongs to a view).
class SoftwareRasterizer {
public:
    /// Draws into `target`, which must outlive this object and be RGB32 while
    /// drawing; it may be reallocated between frames.
    explicit SoftwareRasterizer(QImage* target);
    ~SoftwareRasterizer();
    SoftwareRasterizer(const SoftwareRasterizer&) = delete;
    SoftwareRasterizer& operator=(const SoftwareRasterizer&) = delete;

    /// Starts a frame on the target's current pixels; ends any QPainter of
    /// the previous frame first.
    void begin();
    /// Finishes the frame (ends the QPainter if one was opened).
    void end();

    /// Limits every following draw (and `clear`) to pixel columns
    /// [first, end); `begin` and `resetClip` lift the limit.
    void setClipColumns(int first, int end);
    void resetClip();
    /// Copies `source` (RGB32, the target's size) moved `dx` pixels to the
    /// right (left when negative); the columns it does not cover keep their
    /// pixels. Other sizes copy nothing.
    void copyShifted(const QImage& source, int dx);

    /// Every pixel to `argb` (alpha ignored: the target is opaque).
    void clear(uint32_t argb);
    /// Source-over blending of every following fill and line (alpha from the
    /// colour); off: the colour replaces the pixels.
    void setBlending(bool on) { blending_ = on; }
    bool blending() const { return blending_; }

    /// Fills the pixels whose centres lie in the rectangle between two
    /// opposite corners.
    void fillRect(QPointF corner1, QPointF corner2, uint32_t argb);
    /// A line of `width` pixels: upright lines as rectangles, any other with
    /// QPainter without antialiasing.
    void drawLine(QPointF from, QPointF to, float width, uint32_t argb);

    /// `image` (RGBA bytes, rows of `stride` bytes, `columns` x `rows` texels)
    /// stretched over the pixel rectangle from `left` to `right` (texel column
    /// 0 at `left`) and from `bottom` to `top` (texel row 0 at `bottom`),
    /// each pixel taking the texel under its centre; only texel columns below
    /// `validColumns` are drawn. Opaque; texels' alpha ignored.
    void drawRgbaNearest(const uint8_t* image, int columns, int rows, int stride, int validColumns,
                         double left, double right, double bottom, double top);

    /// `image` (premultiplied ARGB) placed by `imageToPixels` (image pixel
    /// coordinates to target pixels): blended over the target, or copied over
    /// it when `blend` is false.
    void drawImage(const QImage& image, const QTransform& imageToPixels, bool blend);

    /// The image transform that maps a texture's corners as a quad does:
    /// vertices in strip order in pixels, `texCoords` the texture coordinates
    /// at them (texture row 0 at t = 0), `textureSize` in pixels.
    static QTransform textureTransform(const std::array<QPointF, 4>& pixels,
                                       const std::array<QPointF, 4>& texCoords, QSize textureSize);

private:
    QPainter& painter();

    QImage* target_ = nullptr;
    uint32_t* bits_ = nullptr;
    int width_ = 0;
    int height_ = 0;
    qsizetype stride_ = 0; ///< pixels per row
    bool blending_ = false;
    int clipFirst_ = 0;
    int clipEnd_ = 0;
    std::unique_ptr<QPainter> painter_;
};

} // namespace widmo
