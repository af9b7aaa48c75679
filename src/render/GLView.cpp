#include "render/GLView.h"

#include "render/DeviceClass.h"
#include "render/FrameDriver.h"

#include <QCoreApplication>
#include <QDebug>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>
#include <QPainter>

#include <algorithm>
#include <cstring>

namespace widmo {

namespace {

GLView::FrameObserver& frameObserver() {
    static GLView::FrameObserver observer;
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

// The band of full rows in which two images of the same size differ; empty
// when they are equal, the whole image when the sizes differ.
QRect changedRows(const QImage& now, const QImage& before) {
    if (now.size() != before.size() || now.format() != before.format())
        return now.rect();
    const int h = now.height();
    const auto rowBytes = static_cast<size_t>(now.width()) * 4;
    const auto same = [&](int y) {
        return std::memcmp(now.constScanLine(y), before.constScanLine(y), rowBytes) == 0;
    };
    int top = 0;
    while (top < h && same(top))
        ++top;
    if (top == h)
        return {};
    int bottom = h - 1;
    while (bottom > top && same(bottom))
        --bottom;
    return QRect(0, top, now.width(), bottom - top + 1);
}

} // namespace

bool GLView::drawsInSoftware() {
    static const bool software = [] {
        const QByteArray forced = qgetenv("WIDMO_RENDERER").trimmed().toLower();
        if (forced == "software")
            return true;
        if (forced == "gl")
            return false;
        SharedGL* shared = sharedGL();
        if (shared == nullptr)
            return true;
        const auto* name =
            reinterpret_cast<const char*>(shared->context.functions()->glGetString(GL_RENDERER));
        const QByteArray renderer = QByteArray(name != nullptr ? name : "").toLower();
        return renderer.contains("llvmpipe") || renderer.contains("softpipe") ||
               renderer.contains("swrast");
    }();
    return software;
}

void GLView::setFrameObserver(FrameObserver observer) { frameObserver() = std::move(observer); }

GLView::GLView(QWidget* parent) : QWidget(parent) {
    // The frame covers the whole widget: nothing beneath needs painting first.
    setAttribute(Qt::WA_OpaquePaintEvent);
    frameDriver_ = new FrameDriver(
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

GLView::~GLView() {
    tearDownGL();
    // The context outlives this part of the object; it must not call back here.
    if (SharedGL* shared = sharedGLSlot(); shared != nullptr)
        disconnect(&shared->context, nullptr, this, nullptr);
}

QOpenGLContext* GLView::context() const {
    SharedGL* shared = sharedGLSlot();
    return effect_ && shared != nullptr ? &shared->context : nullptr;
}

QOpenGLContext* GLView::makeSharedContextCurrent() {
    SharedGL* shared = sharedGL();
    if (shared == nullptr || !shared->context.makeCurrent(&shared->surface))
        return nullptr;
    return &shared->context;
}

void GLView::makeCurrent() {
    SharedGL* shared = sharedGLSlot();
    if (!effect_ || shared == nullptr)
        return;
    shared->context.makeCurrent(&shared->surface);
    if (fbo_)
        fbo_->bind();
}

void GLView::doneCurrent() {
    if (fbo_ && context() != nullptr)
        fbo_->release();
}

void GLView::requestFrame() {
    if (!drawsInSoftware()) {
        framePending_ = true;
        update();
        return;
    }
    // A hidden view draws when it is shown again (its paint event).
    if (!isVisible()) {
        framePending_ = true;
        return;
    }
    // Drawn now, so that only what changed is repainted.
    if (!renderSoftwareFrame() || changedPixels_.isEmpty())
        return;
    const qreal dpr = devicePixelRatioF();
    const QRectF changed(changedPixels_.x() / dpr, changedPixels_.y() / dpr,
                         changedPixels_.width() / dpr, changedPixels_.height() / dpr);
    update(changed.toAlignedRect());
}

bool GLView::renderSoftwareFrame() {
    QElapsedTimer frameTime;
    frameTime.start();
    const qreal dpr = devicePixelRatioF();
    const QSize pixels(std::max(1, qRound(width() * dpr)), std::max(1, qRound(height() * dpr)));
    if (drawingFrame_.size() != pixels)
        drawingFrame_ = QImage(pixels, QImage::Format_RGB32);
    if (!effect_) {
        effect_ = std::make_unique<GLPainter>(
            drawingFrame_, static_cast<float>(DeviceClass::contentScaleFactor(this)));
        effect_->setProjection(GLPainter::unitSpaceProjection());
        effect_->setImageLayout(true);
        setupGLResources();
    }
    effect_->beginFrame();
    paintGL();
    effect_->endFrame();
    drawingFrame_.setDevicePixelRatio(dpr);
    changedPixels_ = changedRows(drawingFrame_, frame_);
    // The frame shown before is drawn over next time (every view clears first).
    frame_.swap(drawingFrame_);
    framePending_ = false;
    if (const FrameObserver& observer = frameObserver()) {
        const qint64 ns = frameTime.nsecsElapsed();
        observer(*this, ns, ns);
    }
    return true;
}

bool GLView::renderFrame() {
    if (drawsInSoftware())
        return renderSoftwareFrame();
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

QImage GLView::grabFramebuffer() {
    if (!renderFrame())
        return {};
    QImage image = frame_;
    image.setDevicePixelRatio(1.0);
    return image;
}

void GLView::paintEvent(QPaintEvent* /*event*/) {
    if (framePending_ || frame_.isNull())
        renderFrame();
    QPainter painter(this);
    if (frame_.isNull())
        painter.fillRect(rect(), Qt::black);
    else
        painter.drawImage(QPointF(0, 0), frame_);
}

void GLView::resizeEvent(QResizeEvent* event) {
    framePending_ = true;
    QWidget::resizeEvent(event);
}

void GLView::setupGL() {
    QOpenGLContext* ctx = &sharedGLSlot()->context;
    effect_ =
        std::make_unique<GLPainter>(ctx, static_cast<float>(DeviceClass::contentScaleFactor(this)));
    effect_->setProjection(GLPainter::unitSpaceProjection());
    effect_->setImageLayout(true);
    ctx->functions()->glEnableVertexAttribArray(GLPainter::kAttribPosition);
    // The context goes with the application object; our objects go first.
    connect(ctx, &QOpenGLContext::aboutToBeDestroyed, this, &GLView::tearDownGL,
            Qt::UniqueConnection);
    setupGLResources();
}

void GLView::tearDownGL() {
    if (!effect_)
        return;
    makeCurrent();
    releaseGLResources();
    effect_.reset();
    doneCurrent();
    fbo_.reset();
}

void GLView::paintGL() {
    if (effect_)
        effect_->setContentScaleFactor(static_cast<float>(devicePixelRatioF()));
    drawRect(QRectF(0, 0, width(), height()));
}

void GLView::drawRect(const QRectF& rect) {
    if (lastDraw_.isValid())
        timeSinceLastDraw_ = static_cast<double>(lastDraw_.nsecsElapsed()) / 1e9;
    lastDraw_.start();
    ++drawnFrameCount_;
    drawGLRect(rect);
    if (mNeedsDisplay >= 1)
        --mNeedsDisplay;
    changeRefreshStateIfNeeded();
}

void GLView::drawGLRect(const QRectF& /*rect*/) {}

void GLView::setNeedsDisplay() {
    ++redrawRequests_;
    mNeedsDisplay = kRedrawFrames;
    changeRefreshStateIfNeeded();
}

void GLView::setNeedsNewFrame() {
    mNeedsDisplay = std::max(mNeedsDisplay, 1);
    changeRefreshStateIfNeeded();
}

void GLView::setNeedsDisplayWithSubviews() {
    setNeedsDisplay();
    // Queued with this view as context: dropped if the view goes first.
    QMetaObject::invokeMethod(
        this,
        [this] {
            for (QObject* child : children()) {
                if (auto* view = qobject_cast<GLView*>(child))
                    view->setNeedsDisplay();
                else if (auto* widget = qobject_cast<QWidget*>(child))
                    widget->update();
            }
        },
        Qt::QueuedConnection);
}

bool GLView::isRefreshNeeded() const {
    return refreshViewEveryFrame_ || viewLayoutIsAnimating_ || mNeedsDisplay > 0;
}

void GLView::changeRefreshStateIfNeeded() {
    const bool needed = isRefreshNeeded();
    if (frameDriver_->isPaused() == needed)
        frameDriver_->setPaused(!needed);
}

void GLView::setRefreshViewEveryFrame(bool on) {
    refreshViewEveryFrame_ = on;
    changeRefreshStateIfNeeded();
}

void GLView::setViewLayoutIsAnimating(bool on) {
    viewLayoutIsAnimating_ = on;
    for (QObject* child : children()) {
        if (auto* view = qobject_cast<GLView*>(child))
            view->setViewLayoutIsAnimating(on);
    }
    changeRefreshStateIfNeeded();
}

double GLView::framesPerSecond() const { return frameDriver_->framesPerSecond(); }

bool GLView::isFrameDriverPaused() const { return frameDriver_->isPaused(); }

} // namespace widmo
