#include "render/TQGLView.h"

#include "render/DeviceClass.h"
#include "render/TQFrameDriver.h"

#include <QOpenGLContext>
#include <QOpenGLFunctions>

namespace widmo {

TQGLView::TQGLView(QWidget* parent) : QOpenGLWidget(parent) {
    glkViewControlller_ = new TQFrameDriver([this] { update(); }, this);
    glkViewControlller_->setPreferredFramesPerSecond(60);
}

TQGLView::~TQGLView() {
    tearDownGL();
    // The context outlives this part of the object; it must not call back here.
    if (QOpenGLContext* ctx = context())
        disconnect(ctx, nullptr, this, nullptr);
}

void TQGLView::initializeGL() { setupGL(); }

void TQGLView::setupGL() {
    QOpenGLContext* ctx = context();
    effect_ = std::make_unique<TQGLEffect>(
        ctx, static_cast<float>(DeviceClass::contentScaleFactor(this)));
    effect_->setProjection(TQGLEffect::unitSpaceProjection());
    ctx->functions()->glEnableVertexAttribArray(TQGLEffect::kAttribPosition);
    // A replaced context (reparenting) takes its objects with it; free ours
    // first, and `initializeGL` makes them again in the new one.
    connect(ctx, &QOpenGLContext::aboutToBeDestroyed, this, &TQGLView::tearDownGL,
            Qt::UniqueConnection);
    setupGLResources();
}

void TQGLView::tearDownGL() {
    if (!effect_)
        return;
    makeCurrent();
    releaseGLResources();
    effect_.reset();
    doneCurrent();
}

void TQGLView::paintGL() {
    if (effect_)
        effect_->setContentScaleFactor(static_cast<float>(devicePixelRatioF()));
    drawRect(QRectF(0, 0, width(), height()));
}

void TQGLView::drawRect(const QRectF& rect) {
    if (lastDraw_.isValid())
        timeSinceLastDraw_ = static_cast<double>(lastDraw_.nsecsElapsed()) / 1e9;
    lastDraw_.start();
    ++drawnFrameCount_;
    drawGLRect(rect);
    if (mNeedsDisplay >= 1)
        --mNeedsDisplay;
    changeRefreshStateIfNeeded();
}

void TQGLView::drawGLRect(const QRectF& /*rect*/) {}

void TQGLView::setNeedsDisplay() {
    mNeedsDisplay = kRedrawFrames;
    changeRefreshStateIfNeeded();
}

void TQGLView::setNeedsDisplayWithSubviews() {
    setNeedsDisplay();
    // Queued with this view as context: dropped if the view goes first.
    QMetaObject::invokeMethod(
        this,
        [this] {
            for (QObject* child : children()) {
                if (auto* view = qobject_cast<TQGLView*>(child))
                    view->setNeedsDisplay();
                else if (auto* widget = qobject_cast<QWidget*>(child))
                    widget->update();
            }
        },
        Qt::QueuedConnection);
}

bool TQGLView::isRefreshNeeded() const {
    return refreshViewEveryFrame_ || viewLayoutIsAnimating_ || mNeedsDisplay > 0;
}

void TQGLView::changeRefreshStateIfNeeded() {
    const bool needed = isRefreshNeeded();
    if (glkViewControlller_->isPaused() == needed)
        glkViewControlller_->setPaused(!needed);
}

void TQGLView::setRefreshViewEveryFrame(bool on) {
    refreshViewEveryFrame_ = on;
    changeRefreshStateIfNeeded();
}

void TQGLView::setViewLayoutIsAnimating(bool on) {
    viewLayoutIsAnimating_ = on;
    for (QObject* child : children()) {
        if (auto* view = qobject_cast<TQGLView*>(child))
            view->setViewLayoutIsAnimating(on);
    }
    changeRefreshStateIfNeeded();
}

double TQGLView::framesPerSecond() const { return glkViewControlller_->framesPerSecond(); }

bool TQGLView::isFrameDriverPaused() const { return glkViewControlller_->isPaused(); }

} // namespace widmo
