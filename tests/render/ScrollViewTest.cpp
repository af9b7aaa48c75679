#include "render/GLScrollView.h"
#include "render/ScrollObserver.h"

#include <QApplication>
#include <QMouseEvent>
#include <QTest>
#include <QWheelEvent>

#include <gtest/gtest.h>

using widmo::AffineTransform;
using widmo::GLScrollView;

namespace {

// Fills its whole content square white.
class WhiteContentView : public GLScrollView {
public:
    using GLScrollView::GLScrollView;

protected:
    void drawGLRect(const QRectF&) override {
        effect()->clearColor(0, 0, 0, 1);
        effect()->prepareToDrawWithConstantColor(1, 1, 1, 1);
        // Deliberately larger than the content square: the mask must cover it.
        const AffineTransform& t = actualContentTransform();
        effect()->drawRectangle(t.map(QPointF(-0.5, -0.5)), t.map(QPointF(1.5, 1.5)));
    }
};

struct CountingDelegate : widmo::ScrollObserver {
    int changes = 0;
    void contentWasChanged() override { ++changes; }
};

void sendMouse(QWidget& w, QEvent::Type type, QPointF pos, Qt::MouseButton button,
               Qt::MouseButtons buttons) {
    QMouseEvent e(type, pos, w.mapToGlobal(pos), button, buttons, Qt::NoModifier);
    QApplication::sendEvent(&w, &e);
}

// A left-button press and release at `pos`.
void tap(QWidget& w, QPointF pos) {
    sendMouse(w, QEvent::MouseButtonPress, pos, Qt::LeftButton, Qt::LeftButton);
    sendMouse(w, QEvent::MouseButtonRelease, pos, Qt::LeftButton, Qt::NoButton);
}

void sendWheel(QWidget& w, QPointF pos, int delta, Qt::KeyboardModifiers mods) {
    QWheelEvent e(pos, w.mapToGlobal(pos), QPoint(), QPoint(0, delta), Qt::NoButton, mods,
                  Qt::NoScrollPhase, false);
    QApplication::sendEvent(&w, &e);
}

TEST(ScrollView, borderMaskCoversEverythingOutsideTheContent) {
    WhiteContentView view;
    view.resize(200, 100);
    view.setActualContentTransform(AffineTransform::scale(0.5, 0.5).translatedAfter(0.25, 0.25));
    const QImage img = view.grabFramebuffer();
    EXPECT_EQ(img.pixel(100, 50), qRgb(255, 255, 255));
    EXPECT_EQ(img.pixel(52, 27), qRgb(255, 255, 255));
    const QPoint outside[] = {{10, 50}, {190, 50}, {100, 5}, {100, 95},
                              {2, 2},   {197, 97}, {48, 50}, {152, 50}};
    for (QPoint p : outside)
        EXPECT_EQ(img.pixel(p), qRgb(15, 15, 15)) << p.x() << "," << p.y();
}

TEST(ScrollView, wheelZoomsAxesByModifierAndDragPans) {
    WhiteContentView view;
    CountingDelegate delegate;
    view.setDelegateRefresh(&delegate);
    view.resize(400, 200);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));

    sendWheel(view, QPointF(100, 100), 240, Qt::NoModifier);
    EXPECT_GT(view.contentTransform().a, 1.3);
    EXPECT_DOUBLE_EQ(view.contentTransform().d, 1.0);
    // The point under the pointer stays put while zooming.
    EXPECT_NEAR(view.contentTransform().map(QPointF(0.25, 0.5)).x(), 0.25, 1e-9);
    EXPECT_GT(delegate.changes, 0);
    const double zoomX = view.contentTransform().a;
    // A new pinch starts from the drawn transform: let the glide settle first.
    QTest::qWait(300);
    (void)QTest::qWaitFor([&] { return !view.isRefreshNeeded(); }, 4000);

    // A new modifier starts a new pinch on the y axis.
    sendWheel(view, QPointF(100, 100), 240, Qt::ShiftModifier);
    EXPECT_NEAR(view.contentTransform().a, zoomX, 1e-3);
    EXPECT_GT(view.contentTransform().d, 1.3);
    sendWheel(view, QPointF(100, 100), -2400, Qt::ControlModifier);
    QTest::qWait(400); // the pinch ends after a quiet moment and springs back
    // Uniformly back until the content covers the view again.
    const AffineTransform& t = view.contentTransform();
    EXPECT_NEAR(std::min(t.a, t.d), 1.0, 1e-9);
    EXPECT_LE(t.map(QPointF(0, 0)).x(), 1e-9);
    EXPECT_LE(t.map(QPointF(0, 0)).y(), 1e-9);
    EXPECT_GE(t.map(QPointF(1, 1)).x(), 1 - 1e-9);
    EXPECT_GE(t.map(QPointF(1, 1)).y(), 1 - 1e-9);

    // Drag zoomed content to the left.
    view.setActualContentTransform(AffineTransform::scale(2, 1).translatedAfter(-0.5, 0));
    sendMouse(view, QEvent::MouseButtonPress, {200, 100}, Qt::LeftButton, Qt::LeftButton);
    sendMouse(view, QEvent::MouseMove, {180, 100}, Qt::NoButton, Qt::LeftButton);
    sendMouse(view, QEvent::MouseMove, {160, 100}, Qt::NoButton, Qt::LeftButton);
    EXPECT_TRUE(view.model().isPanning());
    EXPECT_NEAR(view.contentTransform().tx, -0.5 - 40.0 / 400, 1e-9);
    sendMouse(view, QEvent::MouseButtonRelease, {160, 100}, Qt::LeftButton, Qt::NoButton);
    EXPECT_FALSE(view.model().isPanning());

    // Double click zooms the x axis by the double-tap zoom.
    view.setActualContentTransform(AffineTransform::identity());
    tap(view, {200, 100});
    sendMouse(view, QEvent::MouseButtonDblClick, {200, 100}, Qt::LeftButton, Qt::LeftButton);
    sendMouse(view, QEvent::MouseButtonRelease, {200, 100}, Qt::LeftButton, Qt::NoButton);
    EXPECT_DOUBLE_EQ(view.contentTransform().a, 3.0);
    QTest::qWait(QApplication::doubleClickInterval() + 100);
    EXPECT_FALSE(view.measuringActivated()) << "a double click also counted as a tap";
    view.setDelegateRefresh(nullptr);
}

TEST(ScrollView, clickMeasuresAndPartnerMirrorsTheCursor) {
    GLScrollView chart;
    GLScrollView partner;
    chart.resize(400, 200);
    partner.resize(100, 100);
    chart.setScrollViewDelegate(&partner);

    tap(chart, {100, 50});
    EXPECT_FALSE(chart.measuringActivated()) << "the tap did not wait for a double tap";
    QTest::qWait(QApplication::doubleClickInterval() + 100);
    EXPECT_TRUE(chart.measuringActivated());
    EXPECT_EQ(chart.measuringActualPosition(), QPointF(0.25, 0.75));
    EXPECT_TRUE(partner.measuringActivated());
    EXPECT_EQ(partner.measuringActualPosition(), QPointF(0.25, 0.75));

    // Right-button drag measures at once and drags the cursor in both views.
    sendMouse(chart, QEvent::MouseButtonPress, {200, 100}, Qt::RightButton, Qt::RightButton);
    sendMouse(chart, QEvent::MouseMove, {300, 150}, Qt::NoButton, Qt::RightButton);
    EXPECT_EQ(partner.measuringActualPosition(), QPointF(0.75, 0.25));
    sendMouse(chart, QEvent::MouseButtonRelease, {300, 150}, Qt::RightButton, Qt::NoButton);
    EXPECT_FALSE(chart.model().isLongPressMeasuring());

    // The next tap only switches measuring off, in both views.
    tap(chart, {10, 10});
    QTest::qWait(QApplication::doubleClickInterval() + 100);
    EXPECT_FALSE(chart.measuringActivated());
    EXPECT_FALSE(partner.measuringActivated());
    EXPECT_EQ(chart.measuringActualPosition(), QPointF(0.75, 0.25));
}

} // namespace
