#pragma once

#include "render/GLPainter.h"

#include <QElapsedTimer>
#include <QImage>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QWidget>

#include <cstdint>
#include <functional>
#include <memory>

class QOpenGLFramebufferObject;

namespace widmo {

class FrameDriver;

/// Base of every GL chart view: draws with OpenGL into a frame buffer of its
/// own, reads the frame back and shows it as the widget's picture; owns the
/// drawing object `effect` and a 60 Hz frame driver that runs only while
/// `isRefreshNeeded`, so idle charts cost nothing.
///
/// Why not a GL surface per widget: a window holding one is composed by
/// OpenGL as a whole on every repaint of any of its GL widgets; on a software
/// rasterizer (Mesa llvmpipe, common on virtual machines, remote desktops and
/// machines without a GPU driver) that composition alone costs most of a core
/// at 60 frames a second, whatever the size of the widget. Drawing offscreen
/// and handing the window an image costs one read-back of the view's pixels
/// per frame, and the window's other widgets are left alone.
///
/// A view draws a new frame only when its frame driver ticks (or for
/// `grabFramebuffer`, a resize or its first showing); every other paint of
/// the widget (an overlapping panel, an expose) shows the last frame again.
/// All views share one GL context of the process, created on first use.
///
/// Where OpenGL is itself a software rasterizer (Mesa llvmpipe, softpipe,
/// swrast), or there is no OpenGL, views draw with the software form of
/// `GLPainter` straight into the image they show: there OpenGL adds a
/// rasterizer's set-up, a read-back and a copy per frame to the same work.
/// `WIDMO_RENDERER=gl` or `=software` forces either path (the pixel tests run
/// both). A software frame is drawn as soon as the frame driver asks for it,
/// into a second image, and compared with the one shown: only the band of
/// rows that changed is repainted (and so sent to the display), and a frame
/// that changed nothing is not shown at all.
///
/// A redraw request (`setNeedsDisplay`) keeps the view drawing for the next 60
/// frames so that smoothed values can settle. Subclasses draw in `drawGLRect`
/// in unit space (x, y from 0 to 1, origin bottom left) with `effect`, make
/// their GL objects in `setupGLResources` and free them in
/// `releaseGLResources`; both run with the context current. A subclass
/// destructor that holds GL objects calls `makeCurrent`, releases them and
/// calls `doneCurrent`, since the base destructor can no longer reach it.
///
/// Threading: main thread only.
class GLView : public QWidget {
    Q_OBJECT
public:
    static constexpr int kRedrawFrames = 60;

    explicit GLView(QWidget* parent = nullptr);
    ~GLView() override;

    /// The drawing object; null until the GL context exists (first show or grab).
    GLPainter* effect() const { return effect_.get(); }

    /// The shared GL context once the view has drawn (or been grabbed); null
    /// before, and when the platform offers no OpenGL.
    QOpenGLContext* context() const;
    /// Makes the process's shared GL context current (creating it on first
    /// use) on its offscreen surface, for GL objects that belong to no single
    /// view (textures shared by several frames). Null without OpenGL. Main thread.
    static QOpenGLContext* makeSharedContextCurrent();
    /// True when views draw in software (see the class comment); decided once
    /// per process, on first use. Main thread.
    static bool drawsInSoftware();
    /// Makes the shared context current with this view's frame buffer bound;
    /// does nothing before the view's first frame.
    void makeCurrent();
    void doneCurrent();
    /// Draws a frame now and returns it (device pixels, top row first); a null
    /// image without OpenGL.
    QImage grabFramebuffer();

    /// Keeps the view drawing for the next 60 frames.
    void setNeedsDisplay();
    /// Draws one more frame (new data that needs nothing to settle); frames
    /// left from `setNeedsDisplay` stay.
    void setNeedsNewFrame();
    /// `setNeedsDisplay` here, then (queued on the event loop) on every direct
    /// child view.
    void setNeedsDisplayWithSubviews();

    /// The view wants frames: every frame requested, a layout animation, or
    /// frames left from a redraw request.
    virtual bool isRefreshNeeded() const;
    /// Pauses or resumes the frame driver to match `isRefreshNeeded`.
    virtual void changeRefreshStateIfNeeded();

    bool refreshViewEveryFrame() const { return refreshViewEveryFrame_; }
    /// Live data: draw every frame while set.
    void setRefreshViewEveryFrame(bool on);
    bool viewLayoutIsAnimating() const { return viewLayoutIsAnimating_; }
    /// Draw every frame while a layout animation runs; passed on to child views.
    void setViewLayoutIsAnimating(bool on);

    /// The rate of the frame driver while it runs (frames per second).
    double framesPerSecond() const;
    /// Seconds between the last two drawn frames; 0 before the second frame.
    double timeSinceLastDraw() const { return timeSinceLastDraw_; }
    /// True while the frame driver is paused.
    bool isFrameDriverPaused() const;
    /// Frames drawn since construction (every `drawGLRect` call).
    int64_t drawnFrameCount() const { return drawnFrameCount_; }
    /// Frames still to draw after the last redraw request.
    int32_t needsDisplayFrames() const { return mNeedsDisplay; }

    /// Called after every frame of every view with the view, the main thread's
    /// time spent issuing its drawing (ns) and the whole frame's time up to its
    /// pixels being read back (ns); for measuring the drawing cost. Null (the
    /// default) observes nothing.
    using FrameObserver = std::function<void(const GLView&, qint64 drawNs, qint64 frameNs)>;
    static void setFrameObserver(FrameObserver observer);

protected:
    /// OpenGL ES 2.0 functions of the view's context (valid while drawing).
    QOpenGLFunctions* gl() const { return context()->functions(); }
    /// The driver's frame: the next paint draws a new frame.
    void requestFrame();
    /// Software path: the picture on screen (device pixels), which the frame
    /// being drawn will replace; null before the first frame and for OpenGL.
    const QImage& shownFrame() const { return frame_; }
    /// Calls of `setNeedsDisplay` so far: a view that draws a frame from the
    /// last one tells by it that something asked for a whole new picture.
    uint64_t redrawRequests() const { return redrawRequests_; }
    /// Asked at each frame of the driver, before drawing: false when the frame
    /// would show the same picture as the last one, which is then not drawn
    /// (the frame still counts against the frames left to draw). Drawing on
    /// request (`grabFramebuffer`, a resize) does not ask. Default: true.
    virtual bool frameWouldChange() { return true; }
    /// Draws the content; `rect` is the view's bounds in points. Empty here.
    virtual void drawGLRect(const QRectF& rect);
    /// One display frame: `drawGLRect`, then the redraw bookkeeping.
    /// Subclasses that wrap the frame call the base in the middle.
    virtual void drawRect(const QRectF& rect);
    /// GL objects of the subclass; called with the context current right after
    /// `effect` is created.
    virtual void setupGLResources() {}
    /// Frees what `setupGLResources` made; the context is current.
    virtual void releaseGLResources() {}

    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    /// Draws one frame into the frame buffer and reads it into `frame_`.
    /// False without OpenGL.
    bool renderFrame();
    /// The software path of `renderFrame`: the effect draws into
    /// `drawingFrame_`, which then becomes `frame_`; `changedPixels_` is set
    /// to the band of rows that differ from the frame shown before.
    bool renderSoftwareFrame();
    void paintGL();
    void setupGL();
    void tearDownGL();

    int32_t mNeedsDisplay = 0;
    bool viewLayoutIsAnimating_ = false;
    bool refreshViewEveryFrame_ = false;
    std::unique_ptr<GLPainter> effect_;
    std::unique_ptr<QOpenGLFramebufferObject> fbo_;
    QImage frame_;
    QImage drawingFrame_; ///< software path: the image being drawn
    QRect changedPixels_; ///< software path: what the last frame changed
    bool framePending_ = true;
    FrameDriver* frameDriver_ = nullptr;
    QElapsedTimer lastDraw_;
    double timeSinceLastDraw_ = 0.0;
    int64_t drawnFrameCount_ = 0;
    uint64_t redrawRequests_ = 0;
};

} // namespace widmo
