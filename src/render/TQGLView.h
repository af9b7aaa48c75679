#pragma once

#include "render/TQGLEffect.h"

#include <QElapsedTimer>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QOpenGLWidget>

#include <cstdint>
#include <memory>

namespace widmo {

class TQFrameDriver;

/// Base of every GL chart view: owns the GL context (through QOpenGLWidget),
/// the drawing object `effect` and a 60 Hz frame driver that runs only while
/// `isRefreshNeeded`, so idle charts cost nothing.
///
/// A redraw request (`setNeedsDisplay`) keeps the view drawing for the next 60
/// frames so that smoothed values can settle. Subclasses draw in `drawGLRect`
/// in unit space (x, y from 0 to 1, origin bottom left) with `effect`, make
/// their GL objects in `setupGLResources` and free them in
/// `releaseGLResources`; both run with the context current, and again if the
/// widget's context is ever replaced (for example on reparenting). A subclass
/// destructor that holds GL objects calls `makeCurrent`, releases them and
/// calls `doneCurrent`, since the base destructor can no longer reach it.
///
/// Threading: main thread only.
class TQGLView : public QOpenGLWidget {
    Q_OBJECT
public:
    static constexpr int kRedrawFrames = 60;

    explicit TQGLView(QWidget* parent = nullptr);
    ~TQGLView() override;

    /// The drawing object; null until the GL context exists (first show or grab).
    TQGLEffect* effect() const { return effect_.get(); }

    /// Keeps the view drawing for the next 60 frames.
    void setNeedsDisplay();
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

protected:
    /// OpenGL ES 2.0 functions of the view's context (valid while drawing).
    QOpenGLFunctions* gl() const { return context()->functions(); }
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

    void initializeGL() override;
    void paintGL() override;

private:
    void setupGL();
    void tearDownGL();

    int32_t mNeedsDisplay = 0;
    bool viewLayoutIsAnimating_ = false;
    bool refreshViewEveryFrame_ = false;
    std::unique_ptr<TQGLEffect> effect_;
    TQFrameDriver* glkViewControlller_ = nullptr;
    QElapsedTimer lastDraw_;
    double timeSinceLastDraw_ = 0.0;
    int64_t drawnFrameCount_ = 0;
};

} // namespace widmo
