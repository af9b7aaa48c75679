#include "render/GLView.h"

#include <QPaintEvent>
#include <QTest>

#include <gtest/gtest.h>

using widmo::GLView;

namespace {

class CountingView : public GLView {
public:
    using GLView::GLView;
    int frames = 0;

protected:
    void drawGLRect(const QRectF&) override {
        ++frames;
        effect()->clearColor(0.2f, 0.4f, 0.6f, 1.0f);
    }
};

// Runs the event loop until `done` or `ms` have passed; the checks that follow
// say what was expected.
template <typename F> void spinUntil(F done, int ms) { (void)QTest::qWaitFor(done, ms); }

class GLViewTest : public ::testing::Test {
protected:
    void SetUp() override {
        view.resize(120, 80);
        view.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
        spinUntil([&] { return view.isFrameDriverPaused(); }, 3000);
        QTest::qWait(50);
    }
    CountingView view;
};

TEST_F(GLViewTest, redrawRequestDrawsSixtyFramesThenStops) {
    ASSERT_TRUE(view.isFrameDriverPaused());
    const int idle = view.frames;
    QTest::qWait(200);
    EXPECT_EQ(view.frames, idle) << "an idle view kept drawing";

    view.setNeedsDisplay();
    EXPECT_FALSE(view.isFrameDriverPaused());
    spinUntil([&] { return view.isFrameDriverPaused(); }, 5000);
    ASSERT_TRUE(view.isFrameDriverPaused());
    const int drawn = view.frames - idle;
    EXPECT_GE(drawn, 60);
    EXPECT_LE(drawn, 62); // an expose may add a frame
    EXPECT_GT(view.timeSinceLastDraw(), 0.0);
    EXPECT_EQ(view.framesPerSecond(), 60.0);

    QTest::qWait(200);
    EXPECT_EQ(view.frames - idle, drawn) << "frames after the driver paused";

    // A second request starts it again.
    view.setNeedsDisplay();
    spinUntil([&] { return view.frames > idle + drawn + 5; }, 3000);
    EXPECT_GT(view.frames, idle + drawn + 5);
}

TEST_F(GLViewTest, everyFrameAndLayoutAnimationKeepItRunning) {
    CountingView child(&view);
    view.setRefreshViewEveryFrame(true);
    spinUntil([&] { return view.frames > 80; }, 5000);
    EXPECT_GT(view.frames, 80);
    EXPECT_FALSE(view.isFrameDriverPaused());
    view.setRefreshViewEveryFrame(false);
    spinUntil([&] { return view.isFrameDriverPaused(); }, 3000);
    EXPECT_TRUE(view.isFrameDriverPaused()) << "frames left from no request";

    view.setViewLayoutIsAnimating(true);
    EXPECT_TRUE(child.viewLayoutIsAnimating());
    EXPECT_FALSE(view.isFrameDriverPaused());
    EXPECT_FALSE(child.isFrameDriverPaused());
    view.setViewLayoutIsAnimating(false);
    EXPECT_TRUE(view.isFrameDriverPaused());
    EXPECT_TRUE(child.isFrameDriverPaused());

    // Child views get their request queued, not at once.
    view.setNeedsDisplayWithSubviews();
    EXPECT_EQ(view.needsDisplayFrames(), GLView::kRedrawFrames);
    EXPECT_EQ(child.needsDisplayFrames(), 0);
    QCoreApplication::processEvents();
    EXPECT_GT(child.needsDisplayFrames(), 0);
}

// Two views of one window that both draw every frame ask for their repaint in
// the same tick: the window is composed once per frame, not once per view.
TEST_F(GLViewTest, viewsOfOneWindowDrawInTheSameTick) {
    struct UpdateCounter : QObject {
        int requests = 0;
        bool eventFilter(QObject* o, QEvent* e) override {
            requests += e->type() == QEvent::UpdateRequest;
            return QObject::eventFilter(o, e);
        }
    } counter;
    CountingView child(&view);
    child.setGeometry(10, 10, 40, 30);
    child.show();
    QTest::qWait(50);
    view.installEventFilter(&counter);
    const int before = view.frames;
    view.setRefreshViewEveryFrame(true);
    QTest::qWait(8); // half a frame apart
    child.setRefreshViewEveryFrame(true);
    QTest::qWait(600);
    const int frames = view.frames - before;
    EXPECT_GT(frames, 25);
    EXPECT_LE(counter.requests, frames + 3);
    view.removeEventFilter(&counter);
}

// In software a frame repaints only the band of rows that changed (the row
// a bar left and the row it moved to, with all between), and a frame that
// changed nothing repaints nothing.
TEST(GLViewSoftware, repaintsOnlyTheRowsThatChanged) {
    if (!GLView::drawsInSoftware())
        GTEST_SKIP() << "the OpenGL path repaints the whole view";
    struct BarView : GLView {
        int row = 10;
        int paints = 0;
        QRect painted;
        void drawGLRect(const QRectF&) override {
            effect()->clearColor(0.0f, 0.0f, 0.0f, 1.0f);
            effect()->prepareToDrawWithConstantColor(1.0f, 1.0f, 1.0f, 1.0f);
            // One pixel row high, across the middle of the view.
            effect()->drawRectangle(QPointF(0.25, 1.0 - (row + 0.9) / height()),
                                    QPointF(0.75, 1.0 - (row + 0.1) / height()));
        }
        void paintEvent(QPaintEvent* event) override {
            ++paints;
            painted = event->rect();
            GLView::paintEvent(event);
        }
    } view;
    view.resize(120, 80);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    spinUntil([&] { return view.isFrameDriverPaused(); }, 3000);
    QTest::qWait(50);
    const QImage before = view.grabFramebuffer();
    EXPECT_EQ(before.pixel(60, 10), qRgb(255, 255, 255));
    EXPECT_EQ(before.pixel(60, 11), qRgb(0, 0, 0));

    const int paints = view.paints;
    const int64_t drawn = view.drawnFrameCount();
    view.setNeedsNewFrame();
    spinUntil([&] { return view.drawnFrameCount() > drawn; }, 1000);
    QTest::qWait(50);
    EXPECT_GT(view.drawnFrameCount(), drawn);
    EXPECT_EQ(view.paints, paints) << "an unchanged frame was repainted";

    view.row = 40;
    view.setNeedsNewFrame();
    spinUntil([&] { return view.paints > paints; }, 1000);
    EXPECT_EQ(view.painted, QRect(0, 10, 120, 31));
}

} // namespace
