#include "charts/ChartFrameView.h"

#include "core/AnalyzerDefaults.h"
#include "render/DeviceClass.h"
#include "render/GLScrollView.h"
#include "render/GLTexture.h"
#include "render/LevelMeterView.h"

#include <QOpenGLContext>
#include <QPainter>

#include <algorithm>

namespace widmo {

namespace {

// Room kept above the inner view so that the top value label is not cut.
constexpr int kTopMarginPad = 12;
constexpr int kTopMarginPhone = 9;
// At the right of the inner view when the meter stands at the left.
constexpr int kRightMargin = 8;

} // namespace

const QColor ChartFrameView::kLabelGrey(142, 142, 147);

QFont ChartFrameView::valueFont(bool pad) {
    QFont font(QStringLiteral("Arial"));
    font.setPixelSize(pad ? 14 : 13);
    return font;
}

QFont ChartFrameView::titleFont(bool pad) {
    return DeviceClass::systemFont(pad ? 17.0 : 14.0, true);
}

ChartFrameView::ChartFrameView(AnalyzerDefaults& defaults, bool meterOnTheRight, QWidget* parent)
    : GLView(parent), mDefaults(defaults), meterOnTheRight_(meterOnTheRight) {}

void ChartFrameView::placeInnerView(GLScrollView* inner) {
    inner_ = inner;
    levelMeterView_ = new LevelMeterView(this, mDefaults.features());
    levelMeterView_->setOnTheRight(meterOnTheRight_);
    fullScreenMargins_ = pad() ? QSize(80, 54) : QSize(66, 46);
}

void ChartFrameView::releaseGLResourcesNow() {
    if (effect() != nullptr) {
        makeCurrent();
        releaseGLResources();
        doneCurrent();
    }
}

void ChartFrameView::makeTexturesWhenPossible() {
    if (effect() == nullptr) {
        // No GL context yet: the textures are made as soon as it exists.
        texturesPending_ = true;
        return;
    }
    const bool wasCurrent = QOpenGLContext::currentContext() == context();
    if (!wasCurrent)
        makeCurrent();
    makeTexturesNow();
    if (!wasCurrent)
        doneCurrent();
}

bool ChartFrameView::pad() const { return DeviceClass::isPad(this); }

// --- Layout ---------------------------------------------------------------------------------

void ChartFrameView::setFullScreen(bool on) {
    fullScreen_ = on;
    inner_->setFullScreen(on);
    levelMeterView_->setFullScreen(on);
    updateConstraints();
    GLView::setNeedsDisplayWithSubviews();
}

QRect ChartFrameView::chartRect() const {
    if (!fullScreen_)
        return rect();
    const bool meterOn = mDefaults.features().featureLevelMeterEnabled();
    const LevelMeterView::Metrics& m = LevelMeterView::metrics(pad());
    const int meterWidth = meterOn ? m.meterWidth : m.widthWhenOff;
    const int top = pad() ? kTopMarginPad : kTopMarginPhone;
    const int left = fullScreenMargins_.width() + (meterOnTheRight_ ? 0 : meterWidth);
    const int right = meterOnTheRight_ ? meterWidth : kRightMargin;
    return {left, top, std::max(1, width() - left - right),
            std::max(1, height() - top - fullScreenMargins_.height())};
}

void ChartFrameView::updateConstraints() {
    // Full screen: the meter over the whole height at its side, the labels at
    // the left of the inner view and below it. Picture in picture: the inner
    // view alone fills this view.
    inner_->setGeometry(chartRect());
    const bool meterShown = fullScreen_ && mDefaults.features().featureLevelMeterEnabled();
    if (meterShown) {
        const int meterWidth = LevelMeterView::metrics(pad()).meterWidth;
        levelMeterView_->setGeometry(meterOnTheRight_ ? width() - meterWidth : 0, 0, meterWidth,
                                     height());
    }
    levelMeterView_->setVisible(meterShown);
}

void ChartFrameView::resizeEvent(QResizeEvent* event) {
    GLView::resizeEvent(event);
    updateConstraints();
}

// --- Labels and image -----------------------------------------------------------------------

QRectF ChartFrameView::chartUnitRect() const {
    const QRect r = chartRect();
    const double w = std::max(1, width());
    const double h = std::max(1, height());
    return {r.x() / w, (h - (r.y() + r.height())) / h, r.width() / w, r.height() / h};
}

void ChartFrameView::drawTitles(const GLTexture* xTitle, const GLTexture* yTitle) {
    const QRectF chart = chartUnitRect();
    const double w = std::max(1, width());
    const double h = std::max(1, height());
    const QSizeF frame(w, h);
    const double scale = DeviceClass::contentScaleFactor(this);
    effect()->drawTextTexture(xTitle, QPointF(chart.center().x(), 2.0 / h), 1.0f, 4, frame,
                              QRectF());
    if (yTitle != nullptr) {
        const double meter =
            !meterOnTheRight_ && levelMeterView_->isVisible() ? levelMeterView_->width() : 0;
        const double across = (meter + yTitle->height() / scale + 2.0) / w;
        effect()->drawTextTexture(yTitle, QPointF(across, chart.center().y()), 1.0f, 5, frame,
                                  QRectF());
    }
}

QImage ChartFrameView::composedImage() {
    if (width() < 1 || height() < 1)
        return {};
    QImage image = grabFramebuffer();
    if (image.isNull())
        return image;
    image = image.convertToFormat(QImage::Format_ARGB32);
    QPainter painter(&image);
    const QImage inner = inner_->grabFramebuffer();
    if (!inner.isNull())
        painter.drawImage(inner_->geometry().topLeft(), inner);
    if (levelMeterView_->isVisible())
        painter.drawImage(levelMeterView_->geometry().topLeft(),
                          levelMeterView_->grabFramebuffer());
    painter.end();
    return image;
}

} // namespace widmo
