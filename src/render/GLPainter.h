#pragma once

#include "render/AffineTransform.h"
#include "render/GLTexture.h"
#include "render/SoftwareRasterizer.h"

#include <QColor>
#include <QFont>
#include <QPointF>
#include <QRectF>
#include <QSizeF>
#include <QString>

#include <array>
#include <memory>
#include <optional>

class QOpenGLContext;
class QOpenGLShaderProgram;
class QOpenGLFunctions;

namespace widmo {

/// The drawing object of one GL view: lines, filled rectangles, textured quads
/// and text labels in the view's unit space (x and y from 0 to 1, origin at the
/// bottom left), through one small shader program with a projection matrix and
/// either a constant colour or one texture.
///
/// Only the OpenGL ES 2.0 subset is used, through `QOpenGLFunctions`. Vertex
/// positions go to attribute 0 and texture coordinates to attribute 3; vertex
/// data live on the stack of each call (client-side arrays), so nothing is
/// allocated per draw. Callers set the line width with `setLineWidth`.
///
/// A painter made on an image draws the same primitives without OpenGL, with
/// a `SoftwareRasterizer` into that image (for machines whose OpenGL is a
/// software rasterizer itself): where the geometry is computed stays the
/// same, only the last step differs. Textures are then image-backed (see
/// `GLTexture::textureWithImage`).
///
/// Threading: main thread only, with `context` current for every call (the
/// software form needs no context).
class GLPainter {
public:
    static constexpr int kAttribPosition = 0;
    static constexpr int kAttribTexCoord0 = 3;

    /// Four vertices in triangle-strip order with their texture coordinates.
    struct Quad {
        std::array<QPointF, 4> vertices;
        std::array<QPointF, 4> texCoords;
    };

    /// Builds the shader program in `context`, which must be current. On a
    /// compile or link failure the reason is logged and every draw does nothing.
    GLPainter(QOpenGLContext* context, float contentScaleFactor);
    /// The software form: draws into `target` (RGB32, top row first), which
    /// must outlive the painter and may be reallocated between frames.
    GLPainter(QImage& target, float contentScaleFactor);
    ~GLPainter();
    GLPainter(const GLPainter&) = delete;
    GLPainter& operator=(const GLPainter&) = delete;

    bool isValid() const { return program_ != nullptr || software_ != nullptr; }
    /// True for the software form.
    bool isSoftware() const { return software_ != nullptr; }
    /// Around each frame of the software form (the target's pixels are taken
    /// at `beginFrame`); nothing for OpenGL. Line width 1, blending off.
    void beginFrame();
    void endFrame();

    /// Software form only (nothing for OpenGL): the following draws, clears
    /// included, touch only pixel columns [first, end) until `resetClip` or
    /// the next frame.
    void setClipColumns(int first, int end);
    void resetClip();
    /// Software form only: starts the frame from `frame` (a picture of the
    /// same size) moved `dx` pixels sideways, for a view whose content only
    /// slid; the uncovered columns are left for the caller to draw.
    void copyShiftedFrom(const QImage& frame, int dx);
    /// The software target's size in pixels; empty for OpenGL.
    QSize targetSize() const { return target_ != nullptr ? target_->size() : QSize(); }

    /// Width in pixels of the lines drawn next (`glLineWidth` for OpenGL).
    void setLineWidth(float width);
    /// Alpha blending (source over) of the constant-colour draws that follow.
    void setBlending(bool on);

    /// Pixels per point of the owning view.
    float contentScaleFactor() const { return contentScaleFactor_; }
    void setContentScaleFactor(float factor) { contentScaleFactor_ = factor; }
    QOpenGLContext* context() const { return context_; }

    /// Column-major 4x4 projection applied to every vertex.
    void setProjection(const std::array<float, 16>& matrix) { projection_ = matrix; }
    /// Draws for a frame buffer that is read back as a QImage (RGB32): upside
    /// down, so that rows arrive top row first, and with red and blue swapped,
    /// so that the RGBA bytes read back are the image's own B, G, R, A. What
    /// the view shows does not change. Clear colours are the caller's: see
    /// `clearColor`.
    void setImageLayout(bool on) { imageLayout_ = on; }
    bool imageLayout() const { return imageLayout_; }
    /// Clears the bound frame buffer to a colour, in the image layout's byte
    /// order when that is on.
    void clearColor(float r, float g, float b, float a);
    /// The projection that maps unit space (0..1) to clip space (-1..1).
    static std::array<float, 16> unitSpaceProjection();

    /// Constant colour on, texturing off; binds the program.
    void prepareToDrawWithConstantColor(float r, float g, float b, float a);
    void prepareToDrawWithConstantColor(const QColor& color);

    /// One line segment in the prepared colour.
    void drawLine(QPointF point1, QPointF point2);
    /// `count` / 2 separate line segments (x, y pairs in `xy`) in the prepared
    /// colour, in one draw.
    void drawLines(const float* xy, int count);
    /// A filled rectangle between two opposite corners in the prepared colour.
    void drawRectangle(QPointF point1, QPointF point2);
    /// Texture `name` stretched over the rectangle (texture (0,0) at `point1`,
    /// (1,1) at `point2`); constant colour off, blending off. Name 0 draws nothing.
    void drawTexture(uint32_t name, QPointF point1, QPointF point2);
    /// As above with four free vertices in strip order (skewed quads).
    void drawTexture(uint32_t name, QPointF point1, QPointF point2, QPointF point3, QPointF point4);
    /// `texture` stretched as `drawTexture(name, ...)` does, on either form.
    void drawTexture(const GLTexture* texture, QPointF point1, QPointF point2);
    /// Software form only (nothing for OpenGL, which uploads textures
    /// instead): RGBA texels, `columns` x `rows`, stretched like a texture
    /// with nearest sampling over the rectangle (column 0 and row 0 at
    /// `point1`); columns from `validColumns` on are left as they are.
    void drawRgbaImage(const uint8_t* rgba, int columns, int rows, int validColumns, QPointF point1,
                       QPointF point2);
    /// A text label, alpha-blended, placed about `inPoint` by `textDrawOrientation`
    /// (0..9, see `textQuad`); `frameSize` is the view size in points. When
    /// `rectMaxBounds` is not empty (unit space, y growing with QRectF's top) and
    /// a corner of the label lies outside it, nothing is drawn: labels are
    /// dropped, never clipped. A null or empty texture draws nothing.
    void drawTextTexture(const GLTexture* texture, QPointF inPoint, float scale,
                         int textDrawOrientation, QSizeF frameSize, QRectF rectMaxBounds);

    /// The quad of a `texturePixels`-sized label at `anchor`: codes 0..4 and 9
    /// upright (lower-left, lower-right, right-middle, top-centre, bottom-centre,
    /// centre anchors), 5 and 7 turned to read bottom to top (right-middle,
    /// top-centre), 6 and 8 turned to read top to bottom (left-middle,
    /// top-centre). Any other code has no quad.
    static std::optional<Quad> textQuad(QSizeF texturePixels, QPointF anchor, double scale,
                                        int textDrawOrientation, QSizeF frameSize,
                                        double contentScaleFactor);
    /// False when `bounds` is not empty and the quad's lower-left or upper-right
    /// corner lies outside it (edges count as inside).
    static bool quadFitsBounds(const Quad& quad, const QRectF& bounds);

    /// A texture of `text` in `font` and `color` on a transparent background,
    /// sized to the text at the view's content scale, flipped so that texture
    /// (0,0) is the lower-left corner of the text as it reads.
    std::shared_ptr<GLTexture> convertToTextureText(const QString& text, const QFont& font,
                                                    const QColor& color);
    /// A texture of `image` at its own size, flipped like text.
    std::shared_ptr<GLTexture> convertToTextureImage(const QImage& image);

    /// How many grid labels to advance between drawn labels so that labels like
    /// `texture` never overlap: only every step-th of `textureCount` evenly
    /// spaced labels along the axis is drawn at the zoom of `transform`.
    int labelStepForTexture(const GLTexture& texture, int textureCount, QSizeF frameSize,
                            bool horizontal, const AffineTransform& transform) const;
    /// The same rule on plain numbers: `labelSize` in unit space along the axis,
    /// `zoom` the axis scale of the content transform. Always at least 1.
    static int labelStep(double labelSize, int textureCount, double zoom, bool horizontal,
                         bool pad);

private:
    void prepareToDrawWithTexture(uint32_t name);
    /// Unit space to the software target's pixels through the projection.
    QPointF toPixels(QPointF point) const;
    uint32_t colorArgb() const;
    void drawSoftwareQuad(const GLTexture& texture, const Quad& quad, bool blend);
    void bindAndUpload();
    void drawStrip(const Quad& quad, bool textured);

    QOpenGLContext* context_ = nullptr;
    QOpenGLFunctions* gl_ = nullptr;
    std::unique_ptr<QOpenGLShaderProgram> program_;
    float contentScaleFactor_ = 1.0f;
    std::array<float, 16> projection_{};
    bool imageLayout_ = false;
    std::array<float, 4> color_{1.0f, 1.0f, 1.0f, 1.0f};
    bool textured_ = false;
    int uProjection_ = -1;
    int uColor_ = -1;
    int uTextured_ = -1;
    int uImageOrder_ = -1;
    int uTexture_ = -1;
    std::unique_ptr<SoftwareRasterizer> software_;
    QImage* target_ = nullptr;
    float lineWidth_ = 1.0f;
};

} // namespace widmo
