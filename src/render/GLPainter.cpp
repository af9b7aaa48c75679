#include "render/GLPainter.h"

#include "render/DeviceClass.h"

#include <QFontMetricsF>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QOpenGLShaderProgram>
#include <QPainter>
#include <QtDebug>

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

namespace widmo {

namespace {

// Written to the common subset of GLSL ES 1.00 and desktop GLSL 1.20; the
// version line is prepended for the context at hand.
const char* const kVertexShader = R"(
attribute vec4 a_position;
attribute vec2 a_texCoord0;
uniform mat4 u_projection;
varying vec2 v_texCoord0;
void main() {
    v_texCoord0 = a_texCoord0;
    gl_Position = u_projection * a_position;
}
)";

const char* const kFragmentShader = R"(
#ifdef GL_ES
precision mediump float;
#endif
uniform vec4 u_color;
uniform float u_textured;
uniform float u_imageOrder;
uniform sampler2D u_texture0;
varying vec2 v_texCoord0;
void main() {
    vec4 c = u_textured > 0.5 ? texture2D(u_texture0, v_texCoord0) : u_color;
    gl_FragColor = u_imageOrder > 0.5 ? c.bgra : c;
}
)";

constexpr std::array<QPointF, 4> kPlainTexCoords{QPointF(0, 0), QPointF(1, 0), QPointF(0, 1),
                                                 QPointF(1, 1)};
constexpr std::array<QPointF, 4> kBottomToTopTexCoords{QPointF(0, 1), QPointF(0, 0), QPointF(1, 1),
                                                       QPointF(1, 0)};
constexpr std::array<QPointF, 4> kTopToBottomTexCoords{QPointF(1, 0), QPointF(1, 1), QPointF(0, 0),
                                                       QPointF(0, 1)};

GLPainter::Quad rectangleQuad(QPointF p1, QPointF p2) {
    return {{QPointF(p1.x(), p1.y()), QPointF(p2.x(), p1.y()), QPointF(p1.x(), p2.y()),
             QPointF(p2.x(), p2.y())},
            kPlainTexCoords};
}

// Draws `image` into a transparent image of `pixels`, mirrored vertically so
// that the first row in memory is the bottom of the picture as it reads.
QImage flippedCanvas(QSize pixels, double scale, const std::function<void(QPainter&)>& paint) {
    QImage canvas(pixels, QImage::Format_ARGB32_Premultiplied);
    canvas.fill(Qt::transparent);
    QPainter painter(&canvas);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::TextAntialiasing);
    painter.translate(0, pixels.height());
    painter.scale(scale, -scale);
    paint(painter);
    painter.end();
    return canvas;
}

} // namespace

GLPainter::GLPainter(QOpenGLContext* context, float contentScaleFactor)
    : context_(context), contentScaleFactor_(contentScaleFactor),
      projection_(unitSpaceProjection()) {
    if (context_ == nullptr || QOpenGLContext::currentContext() != context_) {
        qWarning("GLPainter: created without its context current; nothing will draw");
        return;
    }
    gl_ = context_->functions();
    const QByteArray version = context_->isOpenGLES() ? "#version 100\n" : "#version 120\n";
    auto program = std::make_unique<QOpenGLShaderProgram>();
    const bool built =
        program->addShaderFromSourceCode(QOpenGLShader::Vertex, version + kVertexShader) &&
        program->addShaderFromSourceCode(QOpenGLShader::Fragment, version + kFragmentShader);
    program->bindAttributeLocation("a_position", kAttribPosition);
    program->bindAttributeLocation("a_texCoord0", kAttribTexCoord0);
    if (!built || !program->link()) {
        qWarning("GLPainter: shader program failed: %s", qPrintable(program->log()));
        return;
    }
    program_ = std::move(program);
    uProjection_ = program_->uniformLocation("u_projection");
    uColor_ = program_->uniformLocation("u_color");
    uTextured_ = program_->uniformLocation("u_textured");
    uImageOrder_ = program_->uniformLocation("u_imageOrder");
    uTexture_ = program_->uniformLocation("u_texture0");
}

GLPainter::GLPainter(QImage& target, float contentScaleFactor)
    : contentScaleFactor_(contentScaleFactor), projection_(unitSpaceProjection()),
      software_(std::make_unique<SoftwareRasterizer>(&target)), target_(&target) {}

GLPainter::~GLPainter() = default;

void GLPainter::beginFrame() {
    lineWidth_ = 1.0f;
    if (software_)
        software_->begin();
}

void GLPainter::endFrame() {
    if (software_)
        software_->end();
}

void GLPainter::setClipColumns(int first, int end) {
    if (software_)
        software_->setClipColumns(first, end);
}

void GLPainter::resetClip() {
    if (software_)
        software_->resetClip();
}

void GLPainter::copyShiftedFrom(const QImage& frame, int dx) {
    if (software_)
        software_->copyShifted(frame, dx);
}

void GLPainter::setLineWidth(float width) {
    lineWidth_ = width;
    if (gl_ != nullptr)
        gl_->glLineWidth(width);
}

void GLPainter::setBlending(bool on) {
    if (software_) {
        software_->setBlending(on);
        return;
    }
    if (gl_ == nullptr)
        return;
    if (on) {
        gl_->glEnable(GL_BLEND);
        gl_->glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    } else {
        gl_->glDisable(GL_BLEND);
    }
}

QPointF GLPainter::toPixels(QPointF point) const {
    const std::array<float, 16>& m = projection_;
    const double cx = m[0] * point.x() + m[4] * point.y() + m[12];
    const double cy = m[1] * point.x() + m[5] * point.y() + m[13];
    // Clip space to the image: y = 1 is the top row.
    return {(cx + 1.0) / 2.0 * target_->width(), (1.0 - cy) / 2.0 * target_->height()};
}

uint32_t GLPainter::colorArgb() const {
    const auto unorm = [](float v) {
        return static_cast<uint32_t>(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f));
    };
    return unorm(color_[3]) << 24 | unorm(color_[0]) << 16 | unorm(color_[1]) << 8 |
           unorm(color_[2]);
}

std::array<float, 16> GLPainter::unitSpaceProjection() {
    return {2, 0, 0, 0, 0, 2, 0, 0, 0, 0, -1, 0, -1, -1, 0, 1};
}

void GLPainter::prepareToDrawWithConstantColor(float r, float g, float b, float a) {
    color_ = {r, g, b, a};
    textured_ = false;
    bindAndUpload();
}

void GLPainter::prepareToDrawWithConstantColor(const QColor& color) {
    prepareToDrawWithConstantColor(color.redF(), color.greenF(), color.blueF(), color.alphaF());
}

void GLPainter::prepareToDrawWithTexture(uint32_t name) {
    textured_ = true;
    if (software_)
        return;
    bindAndUpload();
    if (program_ == nullptr)
        return;
    gl_->glActiveTexture(GL_TEXTURE0);
    gl_->glBindTexture(GL_TEXTURE_2D, name);
}

void GLPainter::clearColor(float r, float g, float b, float a) {
    if (software_) {
        color_ = {r, g, b, a};
        software_->clear(colorArgb());
        return;
    }
    if (imageLayout_)
        std::swap(r, b);
    gl_->glClearColor(r, g, b, a);
    gl_->glClear(GL_COLOR_BUFFER_BIT);
}

void GLPainter::bindAndUpload() {
    if (program_ == nullptr || software_)
        return;
    program_->bind();
    std::array<float, 16> projection = projection_;
    if (imageLayout_) {
        // Negated clip-space y: the frame is read back top row first.
        for (int column = 0; column < 4; ++column)
            projection[static_cast<size_t>(4 * column + 1)] *= -1.0f;
    }
    gl_->glUniformMatrix4fv(uProjection_, 1, GL_FALSE, projection.data());
    gl_->glUniform4fv(uColor_, 1, color_.data());
    gl_->glUniform1f(uTextured_, textured_ ? 1.0f : 0.0f);
    gl_->glUniform1f(uImageOrder_, imageLayout_ ? 1.0f : 0.0f);
    gl_->glUniform1i(uTexture_, 0);
    // Vertex data come from client memory, so no buffer may stay bound.
    gl_->glBindBuffer(GL_ARRAY_BUFFER, 0);
    gl_->glEnableVertexAttribArray(kAttribPosition);
}

void GLPainter::drawStrip(const Quad& quad, bool textured) {
    std::array<GLfloat, 8> positions{};
    std::array<GLfloat, 8> texCoords{};
    for (size_t i = 0; i < 4; ++i) {
        positions[2 * i] = static_cast<GLfloat>(quad.vertices[i].x());
        positions[2 * i + 1] = static_cast<GLfloat>(quad.vertices[i].y());
        texCoords[2 * i] = static_cast<GLfloat>(quad.texCoords[i].x());
        texCoords[2 * i + 1] = static_cast<GLfloat>(quad.texCoords[i].y());
    }
    gl_->glVertexAttribPointer(kAttribPosition, 2, GL_FLOAT, GL_FALSE, 0, positions.data());
    if (textured) {
        gl_->glEnableVertexAttribArray(kAttribTexCoord0);
        gl_->glVertexAttribPointer(kAttribTexCoord0, 2, GL_FLOAT, GL_FALSE, 0, texCoords.data());
    }
    gl_->glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    if (textured)
        gl_->glDisableVertexAttribArray(kAttribTexCoord0);
}

void GLPainter::drawLine(QPointF point1, QPointF point2) {
    if (software_) {
        software_->drawLine(toPixels(point1), toPixels(point2), lineWidth_, colorArgb());
        return;
    }
    if (program_ == nullptr)
        return;
    const std::array<GLfloat, 4> positions{
        static_cast<GLfloat>(point1.x()), static_cast<GLfloat>(point1.y()),
        static_cast<GLfloat>(point2.x()), static_cast<GLfloat>(point2.y())};
    gl_->glVertexAttribPointer(kAttribPosition, 2, GL_FLOAT, GL_FALSE, 0, positions.data());
    gl_->glDrawArrays(GL_LINES, 0, 2);
}

void GLPainter::drawLines(const float* xy, int count) {
    if (software_) {
        const uint32_t argb = colorArgb();
        for (int i = 0; i + 1 < count; i += 2)
            software_->drawLine(toPixels(QPointF(xy[2 * i], xy[2 * i + 1])),
                                toPixels(QPointF(xy[2 * i + 2], xy[2 * i + 3])), lineWidth_, argb);
        return;
    }
    if (program_ == nullptr || count < 2)
        return;
    gl_->glVertexAttribPointer(kAttribPosition, 2, GL_FLOAT, GL_FALSE, 0, xy);
    gl_->glDrawArrays(GL_LINES, 0, count - count % 2);
}

void GLPainter::drawRectangle(QPointF point1, QPointF point2) {
    if (software_) {
        software_->fillRect(toPixels(point1), toPixels(point2), colorArgb());
        return;
    }
    if (program_ == nullptr)
        return;
    drawStrip(rectangleQuad(point1, point2), false);
}

void GLPainter::drawTexture(uint32_t name, QPointF point1, QPointF point2) {
    drawTexture(name, QPointF(point1.x(), point1.y()), QPointF(point2.x(), point1.y()),
                QPointF(point1.x(), point2.y()), QPointF(point2.x(), point2.y()));
}

void GLPainter::drawTexture(uint32_t name, QPointF point1, QPointF point2, QPointF point3,
                            QPointF point4) {
    if (program_ == nullptr || name == 0)
        return;
    prepareToDrawWithTexture(name);
    gl_->glDisable(GL_BLEND);
    drawStrip({{point1, point2, point3, point4}, kPlainTexCoords}, true);
}

void GLPainter::drawTexture(const GLTexture* texture, QPointF point1, QPointF point2) {
    if (texture == nullptr || texture->isEmpty())
        return;
    if (!software_) {
        drawTexture(texture->name(), point1, point2);
        return;
    }
    software_->setBlending(false);
    drawSoftwareQuad(*texture, rectangleQuad(point1, point2), false);
}

void GLPainter::drawRgbaImage(const uint8_t* rgba, int columns, int rows, int validColumns,
                              QPointF point1, QPointF point2) {
    if (!software_)
        return;
    software_->setBlending(false);
    const QPointF p1 = toPixels(point1);
    const QPointF p2 = toPixels(point2);
    software_->drawRgbaNearest(rgba, columns, rows, 4 * columns, validColumns, p1.x(), p2.x(),
                               p1.y(), p2.y());
}

void GLPainter::drawSoftwareQuad(const GLTexture& texture, const Quad& quad, bool blend) {
    std::array<QPointF, 4> pixels;
    for (size_t i = 0; i < 4; ++i)
        pixels[i] = toPixels(quad.vertices[i]);
    software_->drawImage(
        texture.image(),
        SoftwareRasterizer::textureTransform(pixels, quad.texCoords, texture.image().size()),
        blend);
}

std::optional<GLPainter::Quad> GLPainter::textQuad(QSizeF texturePixels, QPointF anchor,
                                                   double scale, int textDrawOrientation,
                                                   QSizeF frameSize, double contentScaleFactor) {
    const double k = scale / contentScaleFactor;
    const double tw = texturePixels.width();
    const double th = texturePixels.height();
    const double W = frameSize.width();
    const double H = frameSize.height();
    // Upright extent, and the extent of a label turned to run along y.
    const double wu = tw * k / W;
    const double hu = th * k / H;
    const double rx = th * k / W;
    const double ry = tw * k / H;
    const double x = anchor.x();
    const double y = anchor.y();

    double xmin = 0, xmax = 0, ymin = 0, ymax = 0;
    std::array<QPointF, 4> texCoords = kPlainTexCoords;
    switch (textDrawOrientation) {
    case 0:
        xmin = x;
        xmax = x + wu;
        ymin = y;
        ymax = y + hu;
        break;
    case 1:
        xmin = x - wu;
        xmax = x;
        ymin = y;
        ymax = y + hu;
        break;
    case 2:
        xmin = x - wu;
        xmax = x;
        ymin = y - hu / 2;
        ymax = y + hu / 2;
        break;
    case 3:
        xmin = x - wu / 2;
        xmax = x + wu / 2;
        ymin = y - hu;
        ymax = y;
        break;
    case 4:
        xmin = x - wu / 2;
        xmax = x + wu / 2;
        ymin = y;
        ymax = y + hu;
        break;
    case 5:
        xmin = x - rx;
        xmax = x;
        ymin = y - ry / 2;
        ymax = y + ry / 2;
        texCoords = kBottomToTopTexCoords;
        break;
    case 6:
        xmin = x;
        xmax = x + rx;
        ymin = y - ry / 2;
        ymax = y + ry / 2;
        texCoords = kTopToBottomTexCoords;
        break;
    case 7:
        xmin = x - rx / 2;
        xmax = x + rx / 2;
        ymin = y - ry;
        ymax = y;
        texCoords = kBottomToTopTexCoords;
        break;
    case 8:
        xmin = x - rx / 2;
        xmax = x + rx / 2;
        ymin = y - ry;
        ymax = y;
        texCoords = kTopToBottomTexCoords;
        break;
    case 9:
        xmin = x - wu / 2;
        xmax = x + wu / 2;
        ymin = y - hu / 2;
        ymax = y + hu / 2;
        break;
    default:
        return std::nullopt;
    }
    return Quad{
        {QPointF(xmin, ymin), QPointF(xmax, ymin), QPointF(xmin, ymax), QPointF(xmax, ymax)},
        texCoords};
}

bool GLPainter::quadFitsBounds(const Quad& quad, const QRectF& bounds) {
    if (bounds.isEmpty())
        return true;
    const double x0 = std::min(bounds.left(), bounds.right());
    const double x1 = std::max(bounds.left(), bounds.right());
    const double y0 = std::min(bounds.top(), bounds.bottom());
    const double y1 = std::max(bounds.top(), bounds.bottom());
    const auto inside = [&](QPointF p) {
        return p.x() >= x0 && p.x() <= x1 && p.y() >= y0 && p.y() <= y1;
    };
    return inside(quad.vertices[0]) && inside(quad.vertices[3]);
}

void GLPainter::drawTextTexture(const GLTexture* texture, QPointF inPoint, float scale,
                                int textDrawOrientation, QSizeF frameSize, QRectF rectMaxBounds) {
    if ((program_ == nullptr && !software_) || texture == nullptr || texture->isEmpty())
        return;
    const auto quad = textQuad(QSizeF(texture->width(), texture->height()), inPoint, scale,
                               textDrawOrientation, frameSize, contentScaleFactor_);
    if (!quad || !quadFitsBounds(*quad, rectMaxBounds))
        return;
    if (software_) {
        drawSoftwareQuad(*texture, *quad, true);
        software_->setBlending(false);
        return;
    }
    prepareToDrawWithTexture(texture->name());
    gl_->glEnable(GL_BLEND);
    gl_->glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    drawStrip(*quad, true);
    gl_->glDisable(GL_BLEND);
}

std::shared_ptr<GLTexture> GLPainter::convertToTextureText(const QString& text, const QFont& font,
                                                           const QColor& color) {
    const QFontMetricsF metrics(font);
    const QSizeF points(std::ceil(metrics.horizontalAdvance(text)), std::ceil(metrics.height()));
    const QSize pixels(static_cast<int>(std::ceil(points.width() * contentScaleFactor_)),
                       static_cast<int>(std::ceil(points.height() * contentScaleFactor_)));
    if (pixels.isEmpty())
        return std::make_shared<GLTexture>(0, 0, 0);
    const QImage canvas = flippedCanvas(pixels, contentScaleFactor_, [&](QPainter& painter) {
        painter.setFont(font);
        painter.setPen(color);
        painter.drawText(QRectF(QPointF(0, 0), points), Qt::AlignLeft | Qt::AlignVCenter, text);
    });
    return software_ ? GLTexture::textureWithImage(canvas) : GLTexture::textureWithCGImage(canvas);
}

std::shared_ptr<GLTexture> GLPainter::convertToTextureImage(const QImage& image) {
    if (image.isNull())
        return std::make_shared<GLTexture>(0, 0, 0);
    const QImage canvas = flippedCanvas(image.size(), 1.0,
                                        [&](QPainter& painter) { painter.drawImage(0, 0, image); });
    return software_ ? GLTexture::textureWithImage(canvas) : GLTexture::textureWithCGImage(canvas);
}

int GLPainter::labelStepForTexture(const GLTexture& texture, int textureCount, QSizeF frameSize,
                                   bool horizontal, const AffineTransform& transform) const {
    const double labelSize = horizontal
                                 ? texture.width() / frameSize.width() / contentScaleFactor_
                                 : texture.height() / frameSize.height() / contentScaleFactor_;
    return labelStep(labelSize, textureCount, horizontal ? transform.a : transform.d, horizontal,
                     DeviceClass::isPad());
}

int GLPainter::labelStep(double labelSize, int textureCount, double zoom, bool horizontal,
                         bool pad) {
    if (textureCount < 2 || !std::isfinite(labelSize) || labelSize <= 0.0)
        return 1;
    // Whole zoom levels only, so that the step does not flicker while zooming.
    const double z = std::trunc(std::max(zoom, 1.0));
    const double u = 1.0 / (textureCount - 1);
    const double needed = (horizontal ? 1.5 : (pad ? 1.8 : 1.2)) * labelSize;
    static constexpr int kFirstSteps[] = {1, 2, 5, 10, 20, 50};
    for (int k : kFirstSteps) {
        if (u * k * z >= needed)
            return k;
    }
    int k = 100;
    while (u * k * z < needed && k < (1 << 29))
        k *= 2;
    return k;
}

} // namespace widmo
