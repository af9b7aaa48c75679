#include "render/DeviceClass.h"
#include "render/GLPainter.h"
#include "render/GLView.h"

#include <QImage>
#include <QPainter>

#include <gtest/gtest.h>

#include <memory>

using widmo::AffineTransform;
using widmo::DeviceClass;
using widmo::GLPainter;
using widmo::GLTexture;

namespace {

// --- Placement arithmetic ---------------------------------------------------------

// The extents of every orientation and the dropping of labels crossing their
// bounds are checked on screen (LabelRendering); here what the screen test
// cannot see: the content scale, the scale factor and labels touching the bounds.
TEST(TextQuad, contentScaleDividesAndScaleMultiplies_touchingBoundsFits) {
    // A 40 x 20 pixel label on a 200 x 100 point view at content scale 2 is
    // 20 x 10 points: 0.1 x 0.1.
    const QSizeF tex(40, 20);
    const QSizeF frame(200, 100);
    auto q = GLPainter::textQuad(tex, {0.5, 0.5}, 1.0, 0, frame, 2.0);
    ASSERT_TRUE(q);
    EXPECT_EQ(q->vertices[0], QPointF(0.5, 0.5));
    EXPECT_EQ(q->vertices[3], QPointF(0.6, 0.6));
    q = GLPainter::textQuad(tex, {0.5, 0.5}, 2.0, 9, frame, 1.0);
    EXPECT_EQ(q->vertices[0], QPointF(0.3, 0.3));
    EXPECT_EQ(q->vertices[3], QPointF(0.7, 0.7));
    EXPECT_FALSE(GLPainter::textQuad(tex, {0.5, 0.5}, 1.0, 10, frame, 2.0));
    EXPECT_FALSE(GLPainter::textQuad(tex, {0.5, 0.5}, 1.0, -1, frame, 2.0));
    // A label crossing its bounds is dropped on screen; one touching them fits.
    const auto touching = GLPainter::textQuad(tex, {0.8, 0.8}, 1.0, 0, frame, 2.0);
    EXPECT_TRUE(GLPainter::quadFitsBounds(*touching, QRectF(0.1, 0.1, 0.8, 0.8)));
}

TEST(LabelStep, skipsLabelsUntilTheyFitAtWholeZoomLevels) {
    // 11 labels on a 320-point axis, 40 points wide: spacing 0.1, label 0.125.
    EXPECT_EQ(GLPainter::labelStep(0.125, 11, 1.0, true, false), 2);
    EXPECT_EQ(GLPainter::labelStep(0.125, 11, 2.0, true, false), 1);
    EXPECT_EQ(GLPainter::labelStep(0.125, 11, 1.9, true, false), 2);
    EXPECT_EQ(GLPainter::labelStep(0.125, 11, 0.3, true, false), 2) << "zoom below 1 counts as 1";
    // Vertical labels need more room on a tablet.
    EXPECT_EQ(GLPainter::labelStep(0.15, 11, 1.0, false, false), 2);
    EXPECT_EQ(GLPainter::labelStep(0.15, 11, 1.0, false, true), 5);
    // Past 50 the steps double: 100, 200, ...
    EXPECT_EQ(GLPainter::labelStep(0.6, 101, 1.0, true, false), 100);
    EXPECT_EQ(GLPainter::labelStep(1.2, 101, 1.0, true, false), 200);
    EXPECT_EQ(GLPainter::labelStep(0.125, 1, 1.0, true, false), 1);
}

TEST(LabelStep, textureSizeIsTakenInPointsAlongTheChosenAxis) {
    DeviceClass::setForcedIdiom(DeviceClass::Idiom::Phone);
    GLPainter effect(nullptr, 2.0f);  // no context: only the arithmetic is used
    const GLTexture label(0, 80, 30); // 40 x 15 points at content scale 2
    EXPECT_EQ(
        effect.labelStepForTexture(label, 11, QSizeF(320, 100), true, AffineTransform::identity()),
        2);
    EXPECT_EQ(effect.labelStepForTexture(label, 11, QSizeF(320, 100), true,
                                         AffineTransform::scale(2.5, 1)),
              1);
    // Vertically: 15 / 100 = 0.15, the phone factor 1.2 needs 0.18.
    EXPECT_EQ(effect.labelStepForTexture(label, 11, QSizeF(320, 100), false,
                                         AffineTransform::scale(5, 1)),
              2);
    DeviceClass::setForcedIdiom(std::nullopt);
}

// --- Labels on screen ------------------------------------------------------------

// Draws one label on black each frame.
class LabelView : public widmo::GLView {
public:
    QImage image;
    QString text;
    int orientation = 0;
    QPointF anchor{0.5, 0.5};
    QRectF bounds;

protected:
    void setupGLResources() override {
        texture = text.isEmpty() ? effect()->convertToTextureImage(image)
                                 : effect()->convertToTextureText(
                                       text, DeviceClass::systemFont(24, true), Qt::white);
    }
    void releaseGLResources() override { texture.reset(); }
    void drawGLRect(const QRectF& rect) override {
        effect()->clearColor(0, 0, 0, 1);
        effect()->drawTextTexture(texture.get(), anchor, 1.0f, orientation, rect.size(), bounds);
    }

public:
    std::shared_ptr<GLTexture> texture;
    ~LabelView() override {
        makeCurrent();
        texture.reset();
        doneCurrent();
    }
};

struct Ink {
    QRect box;
    QPointF redCentre;
};

Ink findInk(const QImage& img) {
    Ink ink;
    double rx = 0, ry = 0;
    int reds = 0;
    for (int y = 0; y < img.height(); ++y) {
        for (int x = 0; x < img.width(); ++x) {
            const QColor c = img.pixelColor(x, y);
            if (c.red() + c.green() + c.blue() < 60)
                continue;
            ink.box = ink.box.united(QRect(x, y, 1, 1));
            if (c.red() > 200 && c.green() < 60 && c.blue() < 60) {
                rx += x;
                ry += y;
                ++reds;
            }
        }
    }
    if (reds > 0)
        ink.redCentre = QPointF(rx / reds, ry / reds);
    return ink;
}

// A 60 x 20 picture: blue with a red block where reading starts, at its top.
QImage markerImage() {
    QImage img(60, 20, QImage::Format_ARGB32);
    img.fill(Qt::blue);
    QPainter p(&img);
    p.fillRect(0, 0, 12, 8, Qt::red);
    return img;
}

TEST(LabelRendering, everyOrientationShowsTheLabelUpright) {
    LabelView view;
    view.image = markerImage();
    view.resize(200, 200);
    // Reading start and top of the picture, as fractions of the quad (x right,
    // y down): upright labels start top left; reading bottom to top the start is
    // bottom left; reading top to bottom, top right.
    struct Case {
        int code;
        QRect quad;    // expected pixels (top-left origin)
        QPointF redAt; // red block centre as a fraction of the quad
    };
    // Upright 60 x 20 px = 0.3 x 0.1; turned 0.1 x 0.3. Anchor (0.5, 0.5) = (100, 100).
    const Case cases[] = {
        {0, QRect(100, 80, 60, 20), {0.1, 0.2}}, {1, QRect(40, 80, 60, 20), {0.1, 0.2}},
        {2, QRect(40, 90, 60, 20), {0.1, 0.2}},  {3, QRect(70, 100, 60, 20), {0.1, 0.2}},
        {4, QRect(70, 80, 60, 20), {0.1, 0.2}},  {5, QRect(80, 70, 20, 60), {0.2, 0.9}},
        {6, QRect(100, 70, 20, 60), {0.8, 0.1}}, {7, QRect(90, 100, 20, 60), {0.2, 0.9}},
        {8, QRect(90, 100, 20, 60), {0.8, 0.1}}, {9, QRect(70, 90, 60, 20), {0.1, 0.2}},
    };
    for (const Case& c : cases) {
        view.orientation = c.code;
        const Ink ink = findInk(view.grabFramebuffer());
        EXPECT_LE(std::abs(ink.box.left() - c.quad.left()), 1) << "code " << c.code;
        EXPECT_LE(std::abs(ink.box.right() - c.quad.right()), 1) << "code " << c.code;
        EXPECT_LE(std::abs(ink.box.top() - c.quad.top()), 1) << "code " << c.code;
        EXPECT_LE(std::abs(ink.box.bottom() - c.quad.bottom()), 1) << "code " << c.code;
        const QPointF red((ink.redCentre.x() - c.quad.left()) / c.quad.width(),
                          (ink.redCentre.y() - c.quad.top()) / c.quad.height());
        EXPECT_NEAR(red.x(), c.redAt.x(), 0.06) << "code " << c.code;
        EXPECT_NEAR(red.y(), c.redAt.y(), 0.06) << "code " << c.code;
    }
    view.orientation = 10;
    EXPECT_TRUE(findInk(view.grabFramebuffer()).box.isNull());
    // Half outside the bounds: dropped, not clipped.
    view.orientation = 0;
    view.bounds = QRectF(0, 0, 0.6, 0.6);
    EXPECT_TRUE(findInk(view.grabFramebuffer()).box.isNull());
    view.bounds = QRectF(0, 0, 0.9, 0.9);
    EXPECT_FALSE(findInk(view.grabFramebuffer()).box.isNull());
}

TEST(LabelRendering, textInkLiesAlongItsReadingDirection) {
    LabelView view;
    view.text = "SPL Meter";
    view.resize(300, 300);
    view.orientation = 4; // bottom centre
    const Ink upright = findInk(view.grabFramebuffer());
    ASSERT_FALSE(upright.box.isNull());
    const int textWidth = static_cast<int>(view.texture->width());
    const int textHeight = static_cast<int>(view.texture->height());
    EXPECT_GT(upright.box.width(), upright.box.height() * 3);
    EXPECT_GE(upright.box.left(), 150 - textWidth / 2 - 1);
    EXPECT_LE(upright.box.right(), 150 + textWidth / 2 + 1);
    EXPECT_LE(upright.box.bottom(), 150) << "ink below the anchor of a bottom-anchored label";
    EXPECT_GE(upright.box.top(), 150 - textHeight);
    view.orientation = 7; // turned, hanging from the anchor
    const Ink turned = findInk(view.grabFramebuffer());
    EXPECT_GT(turned.box.height(), turned.box.width() * 3);
    EXPECT_GE(turned.box.top(), 150);
    EXPECT_LE(turned.box.bottom(), 150 + textWidth);
}

} // namespace
