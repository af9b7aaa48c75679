#pragma once

#include <QImage>
#include <QOpenGLContext>
#include <QPointer>

#include <cstdint>
#include <memory>

namespace widmo {

/// One GL texture with its size in pixels; deleting the object deletes the texture.
///
/// Textures are shared through `std::shared_ptr`, so a label texture can be kept
/// in a view's dictionary and handed to a partner view at the same time.
///
/// Threading: main thread only, with the creating context (or one sharing with
/// it) current at construction and at destruction.
class GLTexture {
public:
    /// Uploads `image` into a new RGBA texture of the current context, rows in
    /// memory order (row 0 at texture t = 0), linear filtering, clamped edges.
    /// A null image or no current context gives an empty texture (name 0).
    static std::shared_ptr<GLTexture> textureWithCGImage(const QImage& image);

    /// An image-backed texture for the software painter: no GL object (name
    /// 0), `image` kept as given (premultiplied ARGB, row 0 at t = 0). A null
    /// image gives an empty texture.
    static std::shared_ptr<GLTexture> textureWithImage(const QImage& image);

    /// Wraps an existing texture `name` of the current context and takes ownership.
    GLTexture(uint32_t name, uint32_t width, uint32_t height);
    ~GLTexture();
    GLTexture(const GLTexture&) = delete;
    GLTexture& operator=(const GLTexture&) = delete;

    /// GL texture name; 0 for an empty texture, which draws nothing.
    uint32_t name() const { return name_; }
    /// The pixels of an image-backed texture; null for a GL texture.
    const QImage& image() const { return image_; }
    /// True when the texture draws nothing (neither a GL name nor an image).
    bool isEmpty() const { return name_ == 0 && image_.isNull(); }
    /// Size in pixels.
    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }

private:
    uint32_t name_ = 0;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    QPointer<QOpenGLContext> context_;
    QImage image_;
};

} // namespace widmo
