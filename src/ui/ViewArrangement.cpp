#include "ui/ViewArrangement.h"

#include "charts/ChartView.h"
#include "charts/SpectrogramView.h"
#include "engine/MainQueue.h"

#include <QFrame>
#include <QImage>
#include <QLabel>
#include <QPropertyAnimation>

namespace widmo {
namespace {

// The picture-in-picture: a third of the area's width and height, kept this
// far from the area's edges (and from the full-screen view's meter).
constexpr double kPipFraction = 1.0 / 3.0;
constexpr int kPipMargin = 8;
// Below the full-screen view's measuring read-out, which runs along its top.
constexpr int kPipTop = 46;
// After an animation the views draw once more at their final size.
constexpr std::chrono::milliseconds kRedrawAfterAnimation{200};

} // namespace

ViewArrangement::ViewArrangement(QWidget* area, ChartView* chartView,
                                 SpectrogramView* spectrogramView, bool pipEnabled)
    : QObject(area), area_(area), chartView_(chartView), spectrogramView_(spectrogramView),
      pipEnabled_(pipEnabled) {
    if (spectrogramView_ != nullptr)
        segment_ = 0;
    // A thin light edge around the picture-in-picture sets it off from the
    // view under it; it stands one pixel out behind the small view.
    pipFrame_ = new QFrame(area_);
    pipFrame_->setStyleSheet(QStringLiteral("QFrame { background: rgb(110, 110, 110); }"));
    pipFrame_->hide();

    wait_ = new QLabel(QStringLiteral("Please wait..."), area_);
    wait_->setAlignment(Qt::AlignCenter);
    wait_->setStyleSheet(QStringLiteral("QLabel { background: rgba(0, 0, 0, 160); color: white; "
                                        "font-size: 18px; border-radius: 8px; }"));
    wait_->hide();
    applyFullScreenFlags();
}

QWidget* ViewArrangement::waitView() const { return wait_; }

void ViewArrangement::showWait(bool shown) {
    if (shown) {
        wait_->raise();
        wait_->show();
    } else {
        wait_->hide();
    }
}

void ViewArrangement::setWaitText(const QString& text) { wait_->setText(text); }

bool ViewArrangement::spectrogramOnScreen() const {
    return spectrogramView_ != nullptr && segment_ == 0;
}

QWidget* ViewArrangement::fullScreenView() const {
    if (spectrogramOnScreen())
        return spectrogramView_;
    return chartView_;
}

QWidget* ViewArrangement::pipView() const {
    if (spectrogramView_ == nullptr)
        return nullptr;
    return segment_ == 0 ? static_cast<QWidget*>(chartView_) : spectrogramView_;
}

bool ViewArrangement::pipShown() const {
    if (!pipEnabled_)
        return false;
    return segment_ == 0 ? chartPIP_ : spectrogramPIP_;
}

QImage ViewArrangement::imageOfViewOnScreen() const {
    if (spectrogramOnScreen())
        return spectrogramView_->imageOfChart();
    return chartView_->imageOfChart();
}

void ViewArrangement::restore(bool chartPIP, bool spectrogramPIP, int segment) {
    if (pipEnabled_) {
        chartPIP_ = chartPIP;
        spectrogramPIP_ = spectrogramPIP;
    }
    segment_ = spectrogramView_ == nullptr || segment != 0 ? 1 : 0;
    applyFullScreenFlags();
}

QRect ViewArrangement::placeFor(QWidget* view, bool fullScreen) const {
    const QRect area = area_->rect();
    if (fullScreen)
        return area;
    const int w = int(area.width() * kPipFraction);
    const int h = int(area.height() * kPipFraction);
    // The spectrogram's meter is at its left, the chart's at its right: the
    // picture-in-picture takes the top corner on the other side.
    if (view == chartView_)
        return QRect(area.right() + 1 - kPipMargin - w, kPipTop, w, h);
    const int left = chartView_->fullScreenMargins().width() + kPipMargin;
    return QRect(left, kPipTop, w, h);
}

void ViewArrangement::layoutWithoutAnimation() {
    // An animation cut short leaves its views where it stopped: this puts
    // every view where the flags say, at once.
    if (layoutAnimation_ != nullptr) {
        layoutAnimation_->stop();
        layoutAnimation_->deleteLater();
        layoutAnimation_ = nullptr;
    }
    area_->updateGeometry();
    const QRect area = area_->rect();
    QWidget* full = fullScreenView();
    full->setGeometry(placeFor(full, true));
    full->show();
    full->lower();
    if (QWidget* pip = pipView()) {
        pip->setGeometry(placeFor(pip, false));
        pip->setVisible(pipShown());
        pipFrame_->setGeometry(pip->geometry().adjusted(-1, -1, 1, 1));
        pipFrame_->setVisible(pipShown());
        pipFrame_->raise();
        pip->raise();
    }
    const QSize wait(220, 64);
    wait_->setGeometry(QRect(area.center() - QPoint(wait.width() / 2, wait.height() / 2), wait));
    wait_->raise();
}

void ViewArrangement::applyFullScreenFlags() {
    if (spectrogramView_ == nullptr)
        return;
    const bool spectrogramFull = segment_ == 0;
    spectrogramView_->setFullScreen(spectrogramFull);
    chartView_->setFullScreen(!spectrogramFull);
}

bool ViewArrangement::layoutAnimating() const {
    return layoutAnimation_ != nullptr && layoutAnimation_->state() == QAbstractAnimation::Running;
}

bool ViewArrangement::setSegment(int segment) {
    if (spectrogramView_ == nullptr)
        return false;
    segment = segment == 0 ? 0 : 1;
    if (segment == segment_)
        return false;
    segment_ = segment;
    applyFullScreenFlags();
    emit arrangementChanged();
    animateLayout();
    return true;
}

void ViewArrangement::togglePip() {
    if (spectrogramView_ == nullptr || !pipEnabled_)
        return;
    bool& flag = segment_ == 0 ? chartPIP_ : spectrogramPIP_;
    QWidget* small = pipView();
    const QRect from = small->geometry();
    const bool wasShown = small->isVisible();
    flag = !flag;
    emit arrangementChanged();
    layoutWithoutAnimation();
    if (flag || wasShown) {
        small->setGeometry(from);
        animatePip(small, flag);
    }
}

void ViewArrangement::animateLayout() {
    QWidget* full = fullScreenView();
    const QRect from = full->isVisible() ? full->geometry() : placeFor(full, false);
    layoutWithoutAnimation();
    QWidget* pip = pipView();
    if (pip != nullptr)
        pip->hide();
    // First the full-screen view grows into place under the other one...
    auto* grow = new QPropertyAnimation(full, "geometry", this);
    grow->setDuration(kLayoutAnimationMs);
    grow->setEasingCurve(QEasingCurve::InOutQuad);
    grow->setStartValue(from);
    grow->setEndValue(placeFor(full, true));
    full->setGeometry(from);
    layoutAnimation_ = grow;
    connect(grow, &QAbstractAnimation::finished, this, [this, grow] {
        if (layoutAnimation_ != grow)
            return;
        grow->deleteLater();
        layoutAnimation_ = nullptr;
        QWidget* small = pipView();
        if (small != nullptr && pipShown())
            animatePip(small, true); // ...then the picture-in-picture grows out of its corner
        else
            MainQueue::asyncAfter(
                kRedrawAfterAnimation, [this] { redrawViews(); }, this);
    });
    grow->start();
}

void ViewArrangement::animatePip(QWidget* small, bool in) {
    const QRect target = placeFor(small, false);
    const QRect point(target.center(), QSize(1, 1));
    auto* anim = new QPropertyAnimation(small, "geometry", this);
    anim->setDuration(kLayoutAnimationMs);
    anim->setEasingCurve(QEasingCurve::OutQuad);
    anim->setStartValue(in ? point : small->geometry());
    anim->setEndValue(in ? target : point);
    small->setGeometry(anim->startValue().toRect());
    small->show();
    small->raise();
    pipFrame_->hide(); // back when the view has arrived
    wait_->raise();
    layoutAnimation_ = anim;
    connect(anim, &QAbstractAnimation::finished, this, [this, anim, small, in] {
        if (layoutAnimation_ != anim)
            return;
        anim->deleteLater();
        layoutAnimation_ = nullptr;
        if (!in)
            small->hide();
        pipFrame_->setGeometry(small->geometry().adjusted(-1, -1, 1, 1));
        pipFrame_->setVisible(in);
        pipFrame_->stackUnder(small);
        MainQueue::asyncAfter(
            kRedrawAfterAnimation, [this] { redrawViews(); }, this);
    });
    anim->start();
}

void ViewArrangement::redrawViews() {
    chartView_->setNeedsDisplayWithSubviews();
    if (spectrogramView_)
        spectrogramView_->setNeedsDisplayWithSubviews();
}

} // namespace widmo
