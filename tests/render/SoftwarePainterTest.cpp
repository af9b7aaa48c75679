#include "render/GLPainter.h"
#include "render/SoftwareRasterizer.h"

#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>

#include <gtest/gtest.h>

#include <functional>

using widmo::GLPainter;
using widmo::GLTexture;
using widmo::SoftwareRasterizer;

namespace {

constexpr QSize kFrame(160, 100);

// The same drawing on both forms of the painter: the software one into an
// image, the OpenGL one into a frame buffer read back as GLView does.
using Scene = std::function<void(GLPainter&)>;

QImage drawInSoftware(const Scene& scene) {
    QImage image(kFrame, QImage::Format_RGB32);
    GLPainter painter(image, 1.0f);
    painter.setImageLayout(true);
    painter.beginFrame();
    scene(painter);
    painter.endFrame();
    return image;
}

QImage drawWithOpenGL(const Scene& scene) {
    QOffscreenSurface surface;
    surface.create();
    QOpenGLContext context;
    if (!context.create() || !context.makeCurrent(&surface))
        return {};
    QImage image(kFrame, QImage::Format_RGB32);
    {
        QOpenGLFramebufferObject fbo(kFrame);
        fbo.bind();
        QOpenGLFunctions* gl = context.functions();
        gl->glViewport(0, 0, kFrame.width(), kFrame.height());
        GLPainter painter(&context, 1.0f);
        painter.setImageLayout(true);
        gl->glEnableVertexAttribArray(GLPainter::kAttribPosition);
        scene(painter);
        gl->glReadPixels(0, 0, kFrame.width(), kFrame.height(), GL_RGBA, GL_UNSIGNED_BYTE,
                         image.bits());
        fbo.release();
    }
    context.doneCurrent();
    return image;
}

// Pixels whose colours differ by more than a rounding step in any channel.
int differingPixels(const QImage& a, const QImage& b) {
    int count = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y);
            const QRgb q = b.pixel(x, y);
            if (std::abs(qRed(p) - qRed(q)) > 2 || std::abs(qGreen(p) - qGreen(q)) > 2 ||
                std::abs(qBlue(p) - qBlue(q)) > 2)
                ++count;
        }
    return count;
}

void expectSamePicture(const Scene& scene, int tolerated) {
    const QImage software = drawInSoftware(scene);
    const QImage gl = drawWithOpenGL(scene);
    if (gl.isNull())
        GTEST_SKIP() << "no OpenGL";
    const int differing = differingPixels(software, gl);
    if (differing > tolerated) {
        software.save(QStringLiteral("software-painter.png"));
        gl.save(QStringLiteral("gl-painter.png"));
    }
    EXPECT_LE(differing, tolerated) << "of " << kFrame.width() * kFrame.height()
                                    << " pixels (pictures saved as software-painter.png and "
                                       "gl-painter.png)";
}

TEST(SoftwarePainter, shapesInAProjectedSpace_matchOpenGLPixelForPixel) {
    expectSamePicture(
        [](GLPainter& p) {
            // A chart's projection: a margin around the unit square.
            p.setProjection({1.8f, 0, 0, 0, 0, 1.6f, 0, 0, 0, 0, -1, 0, -0.9f, -0.8f, 0, 1});
            p.clearColor(0.1f, 0.2f, 0.3f, 1.0f);
            p.prepareToDrawWithConstantColor(1.0f, 0.5f, 0.0f, 1.0f);
            p.drawRectangle(QPointF(0.1, 0.1), QPointF(0.4, 0.7));
            p.prepareToDrawWithConstantColor(0.0f, 1.0f, 0.0f, 1.0f);
            // Column spans and a flat run, as the curves are drawn.
            // (Away from pixel edges: there single and double precision differ.)
            const float spans[] = {0.503f, 0.2f, 0.503f, 0.9f,   0.509f, 0.35f,
                                   0.509f, 0.6f, 0.6f,   0.453f, 0.8f,   0.453f};
            p.drawLines(spans, 6);
            p.setLineWidth(2.0f);
            p.prepareToDrawWithConstantColor(1.0f, 1.0f, 1.0f, 1.0f);
            p.drawLine(QPointF(0.9, 0.0), QPointF(0.9, 1.0));
            p.setLineWidth(1.0f);
            p.setBlending(true);
            p.prepareToDrawWithConstantColor(0.5f, 0.5f, 1.0f, 0.5f);
            p.drawRectangle(QPointF(0.3, 0.5), QPointF(0.7, 0.95));
            p.setBlending(false);
        },
        // Edge pixels may round either way where an edge meets a pixel centre.
        40);
}

TEST(SoftwarePainter, labelsUprightAndTurned_matchOpenGL) {
    expectSamePicture(
        [](GLPainter& p) {
            p.clearColor(0.0f, 0.0f, 0.0f, 1.0f);
            QFont font;
            font.setPixelSize(14);
            const auto label = p.convertToTextureText(QStringLiteral("-12 dB"), font, Qt::white);
            const QSizeF frame(kFrame);
            p.drawTextTexture(label.get(), QPointF(0.05, 0.1), 1.0f, 0, frame, {});
            p.drawTextTexture(label.get(), QPointF(0.6, 0.5), 1.0f, 5, frame, {});
            p.drawTextTexture(label.get(), QPointF(0.8, 0.5), 1.0f, 6, frame, {});
            // A label crossing the bounds is dropped on both.
            p.drawTextTexture(label.get(), QPointF(0.95, 0.9), 1.0f, 0, frame, QRectF(0, 0, 1, 1));
        },
        // Glyph edges: linear filtering of a texture against a copied image.
        60);
}

TEST(SoftwareRasterizer, touchingTranslucentRectangles_neitherOverlapNorLeaveAGap) {
    QImage image(10, 4, QImage::Format_RGB32);
    SoftwareRasterizer r(&image);
    r.begin();
    r.clear(0xff000000u);
    r.setBlending(true);
    // Edges at 3.5 and 6.25: a pixel lit twice would be brighter, one missed black.
    r.fillRect(QPointF(0.0, 0.0), QPointF(3.5, 4.0), 0x80ff0000u);
    r.fillRect(QPointF(3.5, 0.0), QPointF(6.25, 4.0), 0x80ff0000u);
    r.end();
    for (int x = 0; x < 10; ++x)
        EXPECT_EQ(qRed(image.pixel(x, 1)), x < 6 ? 128 : 0) << "column " << x;
}

TEST(SoftwareRasterizer, spectrogramTexels_bottomRowFirstNearestAndOnlyValidColumns) {
    // 2 columns x 2 rows of RGBA texels: red, green (row 0); blue, white (row 1).
    const uint8_t texels[] = {255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255, 255, 255, 255, 255};
    QImage image(4, 4, QImage::Format_RGB32);
    SoftwareRasterizer r(&image);
    r.begin();
    r.clear(0xff000000u);
    r.drawRgbaNearest(texels, 2, 2, 8, 2, 0.0, 4.0, 4.0, 0.0);
    EXPECT_EQ(image.pixel(0, 3), qRgb(255, 0, 0)); // row 0 at the bottom
    EXPECT_EQ(image.pixel(3, 2), qRgb(0, 255, 0));
    EXPECT_EQ(image.pixel(1, 1), qRgb(0, 0, 255));
    EXPECT_EQ(image.pixel(2, 0), qRgb(255, 255, 255));
    // Columns not yet published stay as they were.
    r.clear(0xff000000u);
    r.drawRgbaNearest(texels, 2, 2, 8, 1, 0.0, 4.0, 4.0, 0.0);
    r.end();
    EXPECT_EQ(image.pixel(1, 3), qRgb(255, 0, 0));
    EXPECT_EQ(image.pixel(2, 3), qRgb(0, 0, 0));
}

} // namespace
