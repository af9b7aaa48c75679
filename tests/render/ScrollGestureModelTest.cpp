#include "render/ScrollGestureModel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

using widmo::AffineTransform;
using widmo::GestureState;
using widmo::ScrollGestureModel;

namespace {

constexpr double kW = 320.0;
constexpr double kH = 200.0;

// The widget's side of the model; the widget tests cover what it is told.
struct IdleHost : ScrollGestureModel::Host {
    void scrollNeedsDisplay() override {}
    void scrollContentWasChanged() override {}
    void scrollMeasuringSwitchedOffByTap() override {}
    void scrollMeasuringPositionDidChange() override {}
};

class ScrollGestureModelTest : public ::testing::Test {
protected:
    ScrollGestureModelTest() : model(&host) { model.setViewSize(QSizeF(kW, kH)); }

    // Two fingers `spread` points apart about `centre` at `degrees` from the
    // horizontal (y grows downwards, as touches do).
    static std::pair<QPointF, QPointF> fingers(QPointF centre, double degrees, double spread) {
        const double r = degrees * std::numbers::pi / 180.0;
        const QPointF half(spread / 2 * std::cos(r), -spread / 2 * std::sin(r));
        return {centre - half, centre + half};
    }

    void pinch(double degrees, double scale, QPointF centre = QPointF(kW / 2, kH / 2),
               bool end = true) {
        const auto [a, b] = fingers(centre, degrees, 100);
        model.handlePinch(GestureState::Began, 1.0, 2, a, b);
        model.handlePinch(GestureState::Changed, scale, 2, a, b);
        if (end)
            model.handlePinch(GestureState::Ended, scale, 2, a, b);
    }

    QPointF corner0() const { return model.contentTransform().map(QPointF(0, 0)); }
    QPointF corner1() const { return model.contentTransform().map(QPointF(1, 1)); }

    // Content point in view points (origin top left).
    QPointF viewPoint(QPointF content) const {
        const QPointF u = model.actualContentTransform().map(content);
        return {u.x() * kW, (1 - u.y()) * kH};
    }

    IdleHost host;
    ScrollGestureModel model;
};

TEST_F(ScrollGestureModelTest, pinchAxisFollowsFingerAngle) {
    // Fingers nearly side by side: x only, by the cos-weighted factor.
    pinch(10, 2.0, QPointF(kW / 2, kH / 2), false);
    EXPECT_NEAR(model.contentTransform().a, 1 + std::cos(10 * std::numbers::pi / 180), 1e-9);
    EXPECT_DOUBLE_EQ(model.contentTransform().d, 1.0);
    EXPECT_EQ(model.zoomAxes(), QPointF(1, 0));
    // The content under the pinch centre stays under it.
    const QPointF c = model.contentTransform().map(QPointF(0.5, 0.5));
    EXPECT_NEAR(c.x(), 0.5, 1e-9);
    model.handlePinch(GestureState::Cancelled, 2.0, 2, {}, {});
    EXPECT_TRUE(model.contentTransform().isIdentity());

    // Diagonal: both axes by the full factor.
    pinch(45, 2.0, QPointF(kW / 4, kH / 2), false);
    EXPECT_DOUBLE_EQ(model.contentTransform().a, 2.0);
    EXPECT_DOUBLE_EQ(model.contentTransform().d, 2.0);
    model.handlePinch(GestureState::Cancelled, 2.0, 2, {}, {});

    // Nearly vertical: y only.
    pinch(80, 2.0, QPointF(kW / 2, kH / 2), false);
    EXPECT_DOUBLE_EQ(model.contentTransform().a, 1.0);
    EXPECT_NEAR(model.contentTransform().d, 1 + std::sin(80 * std::numbers::pi / 180), 1e-9);
}

// Zooming out past the full view springs back on the widget (ScrollView tests);
// here the upper limits, which the widget tests do not reach.
TEST_F(ScrollGestureModelTest, pinchEndCorrectsZoomIntoLimits_maxZoomAtLeastTwoPerAxis) {
    // Zoomed in past the limit: shrinks back to the limit, still covering the view.
    EXPECT_EQ(model.maxContentZoom(), QPointF(20, 20));
    pinch(45, 30.0);
    EXPECT_NEAR(model.contentTransform().a, 20.0, 1e-9);
    EXPECT_NEAR(model.contentTransform().d, 20.0, 1e-9);
    EXPECT_LE(corner0().x(), 1e-9);
    EXPECT_GE(corner1().y(), 1 - 1e-9);
    EXPECT_FALSE(model.isZooming());

    // An x-only pinch below 1 leaves y alone and restores x.
    model.setActualContentTransform(AffineTransform::scale(1.0, 4.0).translatedAfter(0, -1));
    pinch(5, 0.25);
    EXPECT_NEAR(model.contentTransform().a, 1.0, 1e-9);
    EXPECT_NEAR(model.contentTransform().d, 4.0, 1e-9);

    model.setActualContentTransform(AffineTransform::identity());
    model.setMaxContentZoom(QPointF(1.5, 30));
    EXPECT_EQ(model.maxContentZoom(), QPointF(2.0, 30));
    pinch(45, 5.0);
    EXPECT_NEAR(model.contentTransform().a, 2.0, 1e-9);
    EXPECT_NEAR(model.contentTransform().d, 2.0, 1e-9);
}

TEST_F(ScrollGestureModelTest, flingGlidesAndStopsInsideEdges) {
    // Zoomed 3x, in the middle of the content.
    model.setActualContentTransform(AffineTransform::scale(3, 3).translatedAfter(-1, -1));
    model.handlePan(GestureState::Began, {}, {600, 0}, 1, {100, 100});
    model.handlePan(GestureState::Changed, {30, 0}, {600, 0}, 1, {130, 100});
    model.handlePan(GestureState::Ended, {30, 0}, {600, 0}, 1, {130, 100});
    EXPECT_NEAR(model.contentTransform().tx, -1 + 30 / kW, 1e-12);
    ASSERT_TRUE(model.isPanningStopRamp());
    EXPECT_DOUBLE_EQ(model.panningLastVelocity().x(), 10.0); // points per frame

    // 10 points a frame decaying by 0.93 falls below 0.1 after 64 frames.
    int frames = 0;
    double lastTx = model.contentTransform().tx;
    while (model.isPanningStopRamp() && frames < 1000) {
        model.calculateTransformStopRamp();
        model.frameDrawn();
        ++frames;
        EXPECT_GE(model.contentTransform().tx, lastTx - 1e-12) << "the glide turned back";
        lastTx = model.contentTransform().tx;
    }
    EXPECT_EQ(frames, 64);
    EXPECT_EQ(model.correctionRefreshCounter(), ScrollGestureModel::kCorrectionFrames - 1);

    // A hard fling against the left edge springs back and rests on the edge.
    model.handlePan(GestureState::Began, {}, {6000, -6000}, 1, {100, 100});
    model.handlePan(GestureState::Ended, {}, {6000, -6000}, 1, {100, 100});
    for (int i = 0; i < 200 && model.isPanningStopRamp(); ++i)
        model.calculateTransformStopRamp();
    EXPECT_FALSE(model.isPanningStopRamp());
    EXPECT_NEAR(corner0().x(), 0.0, 1e-9);
    EXPECT_NEAR(corner0().y(), 0.0, 1e-9);
    EXPECT_NEAR(model.contentTransform().a, 3.0, 1e-12);
}

TEST_F(ScrollGestureModelTest, drawnTransformGlidesThenViewGoesIdle) {
    model.setContentTransform(AffineTransform::scale(2, 2));
    model.calculateTransformStopRamp();
    EXPECT_DOUBLE_EQ(model.actualContentTransform().a, 1.15);
    EXPECT_TRUE(model.isRefreshNeeded());
    for (int i = 0; i < 400 && model.isRefreshNeeded(); ++i) {
        model.calculateTransformStopRamp();
        model.frameDrawn();
    }
    EXPECT_FALSE(model.isRefreshNeeded());
    EXPECT_NEAR(model.actualContentTransform().a, 2.0, 0.01);

    // A cancelled pan puts the target back where it started.
    model.handlePan(GestureState::Began, {}, {}, 1, {10, 10});
    model.handlePan(GestureState::Changed, {50, 20}, {}, 1, {60, 30});
    EXPECT_TRUE(model.isPanning());
    model.handlePan(GestureState::Cancelled, {}, {}, 1, {60, 30});
    EXPECT_EQ(model.contentTransform(), AffineTransform::scale(2, 2));
    EXPECT_FALSE(model.isPanningStopRamp());
}

TEST_F(ScrollGestureModelTest, panNearCursorDragsItWithinGrabRadius) {
    model.setMeasuringActivated(true);
    model.setMeasuringActualPosition(QPointF(0.5, 0.5));
    const QPointF cursor = viewPoint(QPointF(0.5, 0.5));

    // Type 0: grabbed by x distance only.
    model.setMeasureScrollType(0);
    model.handlePan(GestureState::Began, {}, {}, 1, cursor + QPointF(39, 90));
    EXPECT_TRUE(model.isPanMeasuring());
    EXPECT_FALSE(model.isPanning());
    EXPECT_EQ(model.typeOfContinueMeasuring(), 2);
    model.handlePan(GestureState::Ended, {}, {}, 1, {});
    model.setMeasuringActualPosition(QPointF(0.5, 0.5));

    model.handlePan(GestureState::Began, {}, {}, 1, cursor + QPointF(41, 0));
    EXPECT_FALSE(model.isPanMeasuring());
    EXPECT_TRUE(model.isPanning());
    model.handlePan(GestureState::Cancelled, {}, {}, 1, {});
    // Two fingers never grab for the one-axis types.
    model.handlePan(GestureState::Began, {}, {}, 2, cursor + QPointF(5, 0));
    EXPECT_FALSE(model.isPanMeasuring());
    model.handlePan(GestureState::Cancelled, {}, {}, 2, {});

    // Type 2, diagonal 42 points away: one finger grabs along x only, two
    // fingers (radius 50) grab both axes.
    model.setMeasureScrollType(2);
    model.handlePan(GestureState::Began, {}, {}, 1, cursor + QPointF(30, 30));
    EXPECT_TRUE(model.isPanMeasuring());
    EXPECT_EQ(model.typeOfContinueMeasuring(), 0);
    // The cursor follows in x and keeps its y.
    model.handlePan(GestureState::Changed, {}, {}, 1, cursor + QPointF(64, 30));
    EXPECT_NEAR(model.measuringActualPosition().x(), 0.5 + 64 / kW, 1e-9);
    EXPECT_DOUBLE_EQ(model.measuringActualPosition().y(), 0.5);
    EXPECT_TRUE(model.contentTransform().isIdentity()) << "the content moved while measuring";
    model.handlePan(GestureState::Ended, {}, {}, 1, {});
    EXPECT_FALSE(model.isPanningStopRamp());

    model.setMeasuringActualPosition(QPointF(0.5, 0.5));
    model.handlePan(GestureState::Began, {}, {}, 2, cursor + QPointF(30, 30));
    EXPECT_TRUE(model.isPanMeasuring());
    EXPECT_EQ(model.typeOfContinueMeasuring(), 2);
}

// Taps that switch measuring on and off are covered on the widget (ScrollView tests).
TEST_F(ScrollGestureModelTest, longPressMeasuresAndBlocksPanningUnderIt) {
    model.handleLongPress(GestureState::Began, QPointF(160, 100));
    EXPECT_TRUE(model.isLongPressMeasuring());
    EXPECT_TRUE(model.measuringActivated());
    model.handlePan(GestureState::Began, {40, 0}, {}, 1, QPointF(200, 100));
    EXPECT_FALSE(model.isPanning());
    model.handleLongPress(GestureState::Changed, QPointF(0, 0));
    EXPECT_EQ(model.measuringActualPosition(), QPointF(0, 1));
    model.handleLongPress(GestureState::Ended, QPointF(0, 0));
    EXPECT_FALSE(model.isLongPressMeasuring());
}

TEST_F(ScrollGestureModelTest, doubleTapZoomsInAndOutPerType) {
    // Horizontal: the tapped point moves to the horizontal centre.
    model.handleDoubleTap(QPointF(0.4 * kW, 50));
    EXPECT_DOUBLE_EQ(model.contentTransform().a, 3.0);
    EXPECT_DOUBLE_EQ(model.contentTransform().d, 1.0);
    EXPECT_NEAR(model.contentTransform().map(QPointF(0.4, 0.75)).x(), 0.5, 1e-12);
    model.handleDoubleTap(QPointF(10, 50));
    EXPECT_TRUE(model.contentTransform().isIdentity());

    // Near an edge the zoom-in snaps back so that no gap shows.
    model.handleDoubleTap(QPointF(5, 50));
    EXPECT_NEAR(corner0().x(), 0.0, 1e-12);

    // Both axes: zoom out by the smaller axis about the tap.
    model.setActualContentTransform(AffineTransform::identity());
    model.setDoubleTapZoomType(2);
    model.handleDoubleTap(QPointF(0.5 * kW, 0.5 * kH));
    EXPECT_EQ(model.contentTransform(), AffineTransform(3, 0, 0, 3, -1, -1));
    model.setContentTransform(AffineTransform::scale(4, 2).translatedAfter(-1, -0.5));
    model.handleDoubleTap(QPointF(0.5 * kW, 0.5 * kH));
    EXPECT_NEAR(model.contentTransform().a, 2.0, 1e-12);
    EXPECT_NEAR(model.contentTransform().d, 1.0, 1e-12);

    // Vertical zoom out keeps the x zoom.
    model.setDoubleTapZoomType(1);
    model.setContentTransform(AffineTransform::scale(2, 3).translatedAfter(-0.5, -1));
    model.handleDoubleTap(QPointF(100, 100));
    EXPECT_EQ(model.contentTransform(), AffineTransform(2, 0, 0, 1, -0.5, 0));
}

TEST_F(ScrollGestureModelTest, touchConversionHonoursBorderAndZoom) {
    model.setBorderWidth(10);
    EXPECT_EQ(model.convertPointToScrollContent(QPointF(10, kH - 10)), QPointF(0, 0));
    EXPECT_EQ(model.convertPointToScrollContent(QPointF(-50, -50)), QPointF(0, 1));
    EXPECT_EQ(model.convertPointToScrollContent(QPointF(kW / 2, kH / 2)), QPointF(0.5, 0.5));
    model.setBorderWidth(0);
    model.setActualContentTransform(AffineTransform::scale(4, 2).translatedAfter(-1, -0.5));
    const QPointF c = model.convertPointToScrollContent(QPointF(kW / 4, kH / 4));
    EXPECT_NEAR(c.x(), (0.25 + 1) / 4, 1e-12);
    EXPECT_NEAR(c.y(), (0.75 + 0.5) / 2, 1e-12);
}

} // namespace
