#include "render/GLTexture.h"

#include <QOpenGLFunctions>
#include <QtDebug>

namespace widmo {

std::shared_ptr<GLTexture> GLTexture::textureWithCGImage(const QImage& image) {
    QOpenGLContext* context = QOpenGLContext::currentContext();
    if (image.isNull() || context == nullptr)
        return std::make_shared<GLTexture>(0, 0, 0);
    const QImage rgba = image.convertToFormat(QImage::Format_RGBA8888);
    QOpenGLFunctions* gl = context->functions();
    GLuint name = 0;
    gl->glGenTextures(1, &name);
    gl->glBindTexture(GL_TEXTURE_2D, name);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    // Non-power-of-two textures are complete in OpenGL ES 2.0 only when clamped.
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    gl->glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    gl->glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, rgba.width(), rgba.height(), 0, GL_RGBA,
                     GL_UNSIGNED_BYTE, rgba.constBits());
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    return std::make_shared<GLTexture>(name, static_cast<uint32_t>(rgba.width()),
                                       static_cast<uint32_t>(rgba.height()));
}

std::shared_ptr<GLTexture> GLTexture::textureWithImage(const QImage& image) {
    auto texture = std::make_shared<GLTexture>(0, 0, 0);
    if (image.isNull())
        return texture;
    texture->image_ = image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    texture->width_ = static_cast<uint32_t>(image.width());
    texture->height_ = static_cast<uint32_t>(image.height());
    return texture;
}

GLTexture::GLTexture(uint32_t name, uint32_t width, uint32_t height)
    : name_(name), width_(width), height_(height), context_(QOpenGLContext::currentContext()) {}

GLTexture::~GLTexture() {
    if (name_ == 0)
        return;
    QOpenGLContext* current = QOpenGLContext::currentContext();
    // A destroyed context took its textures with it; otherwise the owner must
    // have made a context of the same share group current.
    if (context_.isNull())
        return;
    if (current == nullptr || !QOpenGLContext::areSharing(current, context_.data())) {
        qWarning("GLTexture: texture %u released without its context current", name_);
        return;
    }
    current->functions()->glDeleteTextures(1, &name_);
}

} // namespace widmo
