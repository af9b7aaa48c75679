#include "render/TQGLView.h"

#include "render/DeviceClass.h"
#include "render/TQFrameDriver.h"

#include <QCoreApplication>
#include <QDebug>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>
#include <QPainter>

#include <algorithm>

namespace widmo {

namespace {

TQGLView::FrameObserver& frameObserver() {
    static TQGLView::FrameObserver observer;
    return observer;
}

// The process's one GL context, current on an offscreen surface; every view
// draws into frame buffers of its own in it. Made on first use on the main
// thread, freed with the application object (before the platform goes).
struct SharedGL {
    QOffscreenSurface surface;
    QOpenGLContext context;
    bool ok = false;
};

SharedGL*& sharedGLSlot() {
    static SharedGL* shared = nullptr;
    return shared;
}

SharedGL* sharedGL() {
    SharedGL*& shared = sharedGLSlot();
    if (shared != nullptr)
        return shared->ok ? shared : nullptr;
    shared = new SharedGL;
    shared->surface.create();
    shared->ok = shared->surface.isValid() && shared->context.create() &&
                 shared->context.makeCurrent(&shared->surface);
    if (!shared->ok)
        qWarning("error %d from %s", 0, "QOpenGLContext::create: no OpenGL, charts stay empty");
    qAddPostRoutine([] {
        delete sharedGLSlot();
        sharedGLSlot() = nullptr;
    });
    return shared->ok ? shared : nullptr;
}

} // namespace

void TQGLView::setFrameObserver(FrameObserver observer) { frameObserver() = std::move(observer); }

TQGLView::TQGLView(QWidget* parent) : QWidget(parent) {
    // The frame covers the whole widget: nothing beneath needs painting first.
    setAttribute(Qt::WA_OpaquePaintEvent);
    glkViewControlller_ = new TQFrameDriver(
        [this] {
            if (frameWouldChange()) {
                requestFrame();
            } else if (mNeedsDisplay >= 1) {
                --mNeedsDisplay;
                changeRefreshStateIfNeeded();
            }
        },
        this);
}

TQGLView::~TQGLView() {
    tearDownGL();
    // The context outlives this part of the object; it must not call back here.
    if (SharedGL* shared = sharedGLSlot(); shared != nullptr)
        disconnect(&shared->context, nullptr, this, nullptr);
}

QOpenGLContext* TQGLView::context() const {
    SharedGL* shared = sharedGLSlot();
    return effect_ && shared != nullptr ? &shared->context : nullptr;
}

QOpenGLContext* TQGLView::makeSharedContextCurrent() {
    SharedGL* shared = sharedGL();
    if (shared == nullptr || !shared->context.makeCurrent(&shared->surface))
        return nullptr;
    return &shared->context;
}

void TQGLView::makeCurrent() {
    SharedGL* shared = sharedGLSlot();
    if (!effect_ || shared == nullptr)
        return;
    shared->context.makeCurrent(&shared->surface);
    if (fbo_)
        fbo_->bind();
}

void TQGLView::doneCurrent() {
    if (fbo_ && context() != nullptr)
        fbo_->release();
}

void TQGLView::requestFrame() {
    framePending_ = true;
    update();
}

bool TQGLView::renderFrame() {
    SharedGL* shared = sharedGL();
    if (shared == nullptr)
        return false;
    QElapsedTimer frameTime;
    frameTime.start();
    QOpenGLContext& ctx = shared->context;
    if (!ctx.makeCurrent(&shared->surface))
        return false;
    const qreal dpr = devicePixelRatioF();
    const QSize pixels(std::max(1, qRound(width() * dpr)), std::max(1, qRound(height() * dpr)));
    if (!fbo_ || fbo_->size() != pixels) {
        fbo_ = std::make_unique<QOpenGLFramebufferObject>(pixels);
        frame_ = QImage(pixels, QImage::Format_RGB32);
    }
    fbo_->bind();
    if (!effect_)
        setupGL();
    QOpenGLFunctions* f = ctx.functions();
    f->glViewport(0, 0, pixels.width(), pixels.height());
    // The context is shared: every frame starts from the same state, whatever
    // the view drawn before left behind.
    f->glDisable(GL_BLEND);
    f->glLineWidth(1.0f);
    paintGL();
    const qint64 drawNs = frameTime.nsecsElapsed();
    // The effect drew in the image's layout: rows arrive top row first, and
    // the frame buffer's RGBA bytes are the image's BGRA. RGBA is the read-back
    // llvmpipe copies without a conversion (measured: 1150 x 700 pixels read
    // as RGBA almost free, as BGRA 0.4 ms), and an RGB32 image reaches the
    // window without one (another format was converted on Qt's thread pool).
    f->glReadPixels(0, 0, pixels.width(), pixels.height(), GL_RGBA, GL_UNSIGNED_BYTE,
                    frame_.bits());
    frame_.setDevicePixelRatio(dpr);
    fbo_->release();
    framePending_ = false;
    if (const FrameObserver& observer = frameObserver())
        observer(*this, drawNs, frameTime.nsecsElapsed());
    return true;
}

QImage TQGLView::grabFramebuffer() {
    if (!renderFrame())
        return {};
    QImage image = frame_;
    image.setDevicePixelRatio(1.0);
    return image;
}

void TQGLView::paintEvent(QPaintEvent* /*event*/) {
    if (framePending_ || frame_.isNull())
        renderFrame();
    QPainter painter(this);
    if (frame_.isNull())
        painter.fillRect(rect(), Qt::black);
    else
        painter.drawImage(QPointF(0, 0), frame_);
}

void TQGLView::resizeEvent(QResizeEvent* event) {
    framePending_ = true;
    QWidget::resizeEvent(event);
}

void TQGLView::setupGL() {
    QOpenGLContext* ctx = &sharedGLSlot()->context;
    effect_ = std::make_unique<TQGLEffect>(
        ctx, static_cast<float>(DeviceClass::contentScaleFactor(this)));
    effect_->setProjection(TQGLEffect::unitSpaceProjection());
    effect_->setImageLayout(true);
    ctx->functions()->glEnableVertexAttribArray(TQGLEffect::kAttribPosition);
    // The context goes with the application object; our objects go first.
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
    fbo_.reset();
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

void TQGLView::setNeedsNewFrame() {
    mNeedsDisplay = std::max(mNeedsDisplay, 1);
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
