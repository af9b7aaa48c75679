#pragma once

#include "render/GLView.h"

#include <QColor>
#include <QFont>
#include <QImage>
#include <QRect>
#include <QSize>

#include <utility>
#include <vector>

namespace widmo {

class AnalyzerDefaults;
class LevelMeterView;
class GLScrollView;
class GLTexture;

/// What the second chart (`ChartView`) and the spectrogram (`SpectrogramView`)
/// share as the main screen places them: an inner scroll view with axis labels
/// and titles drawn around it on this view and the level meter over the whole
/// height at one side (full screen), or the bare inner view filling this one
/// (picture in picture). The derived class makes the inner view, its label
/// textures and draws the labels.
///
/// Threading: main thread only.
class ChartFrameView : public GLView {
    Q_OBJECT
public:
    LevelMeterView* levelMeterView() const { return levelMeterView_; }

    bool fullScreen() const { return fullScreen_; }
    /// True: labels and meter around the inner view; false: the bare inner view.
    void setFullScreen(bool on);

    /// The inner view's rectangle inside this view (points).
    QRect chartRect() const;
    /// Margins kept for the labels at the left and at the bottom in full screen.
    QSize fullScreenMargins() const { return fullScreenMargins_; }

protected:
    /// `defaults` must outlive the view; its product switches decide the meter,
    /// which stands at the right of the inner view or at the left of its labels.
    ChartFrameView(AnalyzerDefaults& defaults, bool meterOnTheRight, QWidget* parent);
    /// Makes the level meter beside `inner`, the child scroll view the derived
    /// constructor has just made; once, before the first `setFullScreen`.
    void placeInnerView(GLScrollView* inner);
    /// Releases the GL resources of the derived class; its destructor calls
    /// this, as the base destructor can no longer reach `releaseGLResources`.
    void releaseGLResourcesNow();

    /// Makes every label texture (the GL context is current).
    virtual void makeTexturesNow() = 0;
    /// `makeTexturesNow` with the GL context made current; before the context
    /// exists the textures stay pending until it does.
    void makeTexturesWhenPossible();

    bool pad() const;
    void resizeEvent(QResizeEvent* event) override;
    /// The inner view's rectangle in this view's unit space (y up).
    QRectF chartUnitRect() const;
    /// The x title centred at the bottom edge; the y title turned to read
    /// upwards at the left edge, right of a meter standing there.
    void drawTitles(const GLTexture* xTitle, const GLTexture* yTitle);
    /// This view with the inner view and the visible meter painted in (ARGB32,
    /// device pixels); a null image before the view has a size or without OpenGL.
    QImage composedImage();

    static const QColor kLabelGrey;
    /// Labels may stand out of the inner view's span by this much (points)
    /// before they are dropped: the labels at the ends are centred on its edges.
    static constexpr double kLabelSlack = 14.0;
    /// Between a label and the inner view, and between two labels (points).
    static constexpr double kLabelGap = 4.0;
    static QFont valueFont(bool pad);
    static QFont titleFont(bool pad);

    AnalyzerDefaults& mDefaults;
    LevelMeterView* levelMeterView_ = nullptr;
    bool fullScreen_ = true;
    bool texturesPending_ = true;
    std::vector<std::pair<double, double>> mTakenLabelSpans; // reused every frame

private:
    void updateConstraints();

    GLScrollView* inner_ = nullptr;
    const bool meterOnTheRight_;
    QSize fullScreenMargins_;
};

} // namespace widmo
