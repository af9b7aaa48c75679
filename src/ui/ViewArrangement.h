#pragma once

#include <QObject>
#include <QRect>

class QAbstractAnimation;
class QFrame;
class QImage;
class QLabel;
class QWidget;

namespace widmo {

class ChartView;
class SpectrogramView;

/// Where the views of the chart area go: one view full screen, the other (with
/// the spectrogram) hidden or shown as a picture-in-picture in a corner, and
/// the please-wait overlay centred on top. Changes of the full-screen view or
/// of the picture-in-picture animate; a resize puts everything in place at once.
///
/// Without a spectrogram the chart is always full screen and nothing moves.
///
/// Threading: main thread only.
class ViewArrangement final : public QObject {
    Q_OBJECT
public:
    /// Length of each full-screen and picture-in-picture animation.
    static constexpr int kLayoutAnimationMs = 600;

    /// Arranges `chartView` and `spectrogramView` (may be null) inside `area`,
    /// which owns them. `pipEnabled` offers the picture-in-picture.
    ViewArrangement(QWidget* area, ChartView* chartView, SpectrogramView* spectrogramView,
                    bool pipEnabled);

    /// 0: the spectrogram fills the area; 1: the chart does.
    int segment() const { return segment_; }
    /// Puts segment 0 (spectrogram) or 1 (chart) full screen, animated.
    /// Returns false when nothing changed.
    bool setSegment(int segment);
    /// Shows or hides the picture-in-picture of the view that is not full screen.
    void togglePip();
    bool chartPIP() const { return chartPIP_; }
    bool spectrogramPIP() const { return spectrogramPIP_; }
    /// The picture-in-picture of the current arrangement is switched on.
    bool pipShown() const;
    bool spectrogramOnScreen() const;
    QWidget* fullScreenView() const;
    /// The picture of whichever view is full screen.
    QImage imageOfViewOnScreen() const;

    /// Takes a restored arrangement (no animation; `layoutWithoutAnimation` follows).
    void restore(bool chartPIP, bool spectrogramPIP, int segment);
    /// Every view where the flags say, at once; ends a running animation.
    void layoutWithoutAnimation();
    /// A full-screen or picture-in-picture change is still animating.
    bool layoutAnimating() const;
    /// Both views draw again.
    void redrawViews();

    /// The please-wait overlay with `text`, or hidden.
    void showWait(bool shown);
    void setWaitText(const QString& text);
    QWidget* waitView() const;

signals:
    /// The full-screen view or the picture-in-picture flag changed.
    void arrangementChanged();

private:
    QWidget* pipView() const;
    /// Where `view` goes: the whole area, or the picture-in-picture corner
    /// clear of the full-screen view's meter.
    QRect placeFor(QWidget* view, bool fullScreen) const;
    void applyFullScreenFlags();
    /// The full-screen view grows into place, then the picture-in-picture (if on).
    void animateLayout();
    /// The picture-in-picture grows out of its corner (`in`) or shrinks into it.
    void animatePip(QWidget* small, bool in);

    QWidget* area_;
    ChartView* chartView_;
    SpectrogramView* spectrogramView_;
    bool pipEnabled_;
    QFrame* pipFrame_ = nullptr;
    QLabel* wait_ = nullptr;
    QAbstractAnimation* layoutAnimation_ = nullptr; // the one running, if any
    bool chartPIP_ = false;
    bool spectrogramPIP_ = false;
    int segment_ = 1;
};

} // namespace widmo
