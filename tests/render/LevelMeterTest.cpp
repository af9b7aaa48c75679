#include "render/DeviceClass.h"
#include "render/LevelMeterView.h"

#include <QImage>
#include <QLabel>
#include <QTest>

#include <gtest/gtest.h>

#include <vector>

using widmo::AnalyzerFeatures;
using widmo::DeviceClass;
using widmo::LevelMeterView;

namespace {

// Levels 0, -3, -20 and -144 dB are checked on screen below; here the rounding.
TEST(LevelMeterLitCount, columnSpansMinus88ToFullScale) {
    EXPECT_EQ(LevelMeterView::litSegmentCount(-1.0, false), 43);
    EXPECT_EQ(LevelMeterView::litSegmentCount(-144.0, false), -28);
    EXPECT_EQ(LevelMeterView::litSegmentCount(-2.6, false), 42); // rounds to 85 first
    EXPECT_EQ(LevelMeterView::litSegmentCount(-88.5, false), 0); // half away from zero: -1 -> 0
    EXPECT_EQ(LevelMeterView::litSegmentCount(-144.0, true), -56);
}

enum class Seg { Red, Grey, Yellow, Other };

Seg classify(const QColor& c) {
    if (c.red() > 230 && c.green() < 50 && c.blue() < 50)
        return Seg::Red;
    if (c.red() > 210 && c.green() > 210 && c.blue() < 30)
        return Seg::Yellow;
    if (std::abs(c.red() - 51) <= 3 && std::abs(c.green() - 51) <= 3 &&
        std::abs(c.blue() - 51) <= 3)
        return Seg::Grey;
    return Seg::Other;
}

class LevelMeterTest : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        pad = GetParam();
        DeviceClass::setForcedIdiom(pad ? DeviceClass::Idiom::Tablet : DeviceClass::Idiom::Phone);
    }
    void TearDown() override { DeviceClass::setForcedIdiom(std::nullopt); }

    std::unique_ptr<LevelMeterView> makeMeter(const AnalyzerFeatures& features) {
        auto meter = std::make_unique<LevelMeterView>(nullptr, features);
        meter->resize(pad ? 50 : 40, pad ? 800 : 400);
        meter->setFullScreen(true);
        return meter;
    }

    // Colour of every segment, bottom first, sampled at its centre.
    std::vector<Seg> segments(const QImage& img) const {
        const auto& m = LevelMeterView::metrics(pad);
        const double h = img.height();
        const double pitch = (1.0 - m.legendSpace / h) / m.segments;
        std::vector<Seg> out;
        for (int i = 0; i < m.segments; ++i) {
            const double yUnit = (i + 0.5) * pitch - m.segmentGap / h / 2;
            out.push_back(
                classify(img.pixelColor(img.width() / 2, static_cast<int>((1.0 - yUnit) * h))));
        }
        return out;
    }

    QImage holdLevel(LevelMeterView& meter, float level) {
        meter.setLevelDB(level);
        QImage img;
        for (int i = 0; i < 80; ++i)
            img = meter.grabFramebuffer();
        return img;
    }

    bool pad = false;
};

TEST_P(LevelMeterTest, heldLevelsLightTheStatedSegments) {
    auto meter = makeMeter(AnalyzerFeatures::spectrumProduct());
    const int n = LevelMeterView::metrics(pad).segments;
    struct Case {
        float level;
        int red; // segments 0..red-1 red
        bool yellowTop;
    };
    const std::vector<Case> cases =
        pad ? std::vector<Case>{{0, 87, true}, {-3, 85, false}, {-20, 68, false}, {-144, 0, false}}
            : std::vector<Case>{{0, 43, true}, {-3, 42, false}, {-20, 34, false}, {-144, 0, false}};
    for (const Case& c : cases) {
        const std::vector<Seg> segs = segments(holdLevel(*meter, c.level));
        for (int i = 0; i < n; ++i) {
            Seg expected = i < c.red ? Seg::Red : Seg::Grey;
            if (i == n - 1 && c.yellowTop)
                expected = Seg::Yellow;
            EXPECT_EQ(segs[static_cast<size_t>(i)], expected)
                << "level " << c.level << " segment " << i;
        }
    }
    // The read-out fits the meter's width.
    const auto& m = LevelMeterView::metrics(pad);
    const auto* readout = meter->findChild<QLabel*>();
    ASSERT_NE(readout, nullptr);
    EXPECT_EQ(readout->text(), "-144.0");
    EXPECT_LE(readout->sizeHint().width(), readout->width());
    EXPECT_LE(readout->geometry().right(), m.meterWidth);
}

TEST_P(LevelMeterTest, smoothingAndReadoutCadence) {
    auto meter = makeMeter(AnalyzerFeatures::spectrumProduct());
    meter->setLevelDB(-20.0f);
    meter->grabFramebuffer();
    EXPECT_NEAR(meter->lastLevelDB(), -94.4f, 1e-4);
    EXPECT_EQ(meter->dbLabel()->text(), "-144.0") << "the read-out waits for its turn";
    meter->grabFramebuffer();
    EXPECT_NEAR(meter->lastLevelDB(), -64.64f, 1e-4);
    EXPECT_EQ(meter->dbLabel()->text(), "-64.6");

    // Rewritten on frames 2, 9, 16...: only every seventh frame changes the text.
    std::vector<int> rewrites;
    QString last = meter->dbLabel()->text();
    for (int frame = 3; frame <= 17; ++frame) {
        meter->grabFramebuffer();
        if (meter->dbLabel()->text() != last)
            rewrites.push_back(frame);
        last = meter->dbLabel()->text();
    }
    EXPECT_EQ(rewrites, (std::vector<int>{9, 16}));

    // No signal: the smoothed value stays, the read-out says -144.0.
    const float kept = meter->lastLevelDB();
    meter->setLevelDB(-200.0f);
    for (int i = 0; i < 8; ++i)
        meter->grabFramebuffer();
    EXPECT_EQ(meter->lastLevelDB(), kept);
    EXPECT_EQ(meter->dbLabel()->text(), "-144.0");
    const std::vector<Seg> segs = segments(meter->grabFramebuffer());
    EXPECT_EQ(std::count(segs.begin(), segs.end(), Seg::Red), 0);
}

TEST_P(LevelMeterTest, notFullScreenShowsOnlyTheBackground) {
    auto meter = makeMeter(AnalyzerFeatures::spectrumProduct());
    holdLevel(*meter, -10.0f);
    const QString text = meter->dbLabel()->text();
    const float shown = meter->lastLevelDB();
    meter->setFullScreen(false);
    meter->setLevelDB(0.0f);
    const QImage img = holdLevel(*meter, 0.0f);
    for (int y = 0; y < img.height(); y += 7)
        for (int x = 0; x < img.width(); x += 3)
            ASSERT_EQ(img.pixel(x, y), qRgb(13, 13, 13)) << x << "," << y;
    EXPECT_EQ(meter->dbLabel()->text(), text);
    EXPECT_EQ(meter->lastLevelDB(), shown);
}

TEST_P(LevelMeterTest, closedQuotientLineRisesGraduallyAndDropsAtOnce) {
    AnalyzerFeatures::Switches s;
    s.featureLevelMeterEnabled = true;
    s.featureVoiceEGG = true;
    auto meter = makeMeter(AnalyzerFeatures(s));
    const double h = pad ? 800 : 400;
    const double column = 1.0 - LevelMeterView::metrics(pad).legendSpace / h;
    const auto lineRow = [&](const QImage& img) {
        // The red line, searched in the left margin column where the scale is not.
        for (int y = 0; y < img.height(); ++y) {
            const QColor c = img.pixelColor(img.width() - 8, y);
            if (c.red() > 200 && c.green() < 40)
                return y;
        }
        return -1;
    };
    meter->setClosedQuotient(0.5f);
    meter->grabFramebuffer();
    EXPECT_NEAR(meter->lastCQ(), 0.1f, 1e-6);
    QImage img;
    for (int i = 0; i < 120; ++i)
        img = meter->grabFramebuffer();
    EXPECT_NEAR(meter->lastCQ(), 0.5f, 1e-4);
    EXPECT_NEAR(lineRow(img), (1.0 - column * 0.5) * h, 3.0);
    EXPECT_EQ(meter->dbLabel()->text(), "50");
    meter->setClosedQuotient(0.0f);
    img = meter->grabFramebuffer();
    EXPECT_EQ(meter->lastCQ(), 0.0f);
    EXPECT_NEAR(lineRow(img), h, 4.0);
}

// The turned legend, on either side and in both modes, stands wholly inside
// the meter: clear of the top edge, no shorter than its text, and ending above
// the read-out whatever the system font's width.
TEST_P(LevelMeterTest, legendInsideTheMeter_eitherSide_bothModes) {
    AnalyzerFeatures::Switches cq;
    cq.featureLevelMeterEnabled = true;
    cq.featureVoiceEGG = true;
    const auto isLegend = [](QRgb c) {
        return std::abs(qRed(c) - 128) < 60 && qRed(c) == qGreen(c) && qGreen(c) == qBlue(c) &&
               std::abs(qRed(c) - 51) > 3;
    };
    const auto& m = LevelMeterView::metrics(pad);
    const int legendRows = static_cast<int>(m.readoutOrigin.y());
    for (const AnalyzerFeatures& features :
         {AnalyzerFeatures::spectrumProduct(), AnalyzerFeatures(cq)})
        for (const bool right : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << "egg " << features.featureVoiceEGG() << ", right " << right);
            auto meter = makeMeter(features);
            meter->setOnTheRight(right);
            const QImage img = meter->grabFramebuffer();
            int top = img.height();
            int bottom = -1;
            int inkBesideReadout = 0;
            for (int y = 0; y < static_cast<int>(m.legendSpace); ++y)
                for (int x = 0; x < img.width(); ++x)
                    if (y >= legendRows) {
                        inkBesideReadout += img.pixelColor(x, y).green() > 60 ? 1 : 0;
                    } else if (isLegend(img.pixel(x, y))) {
                        top = std::min(top, y);
                        bottom = std::max(bottom, y);
                    }
            EXPECT_GE(top, 2);
            EXPECT_GT(bottom - top, legendRows / 2);
            EXPECT_EQ(inkBesideReadout, 0);
        }
}

// Shown on screen and fed a steady level as the engine does (a new value and a
// redraw request every 1/60 s), the meter draws while the column rises, then no
// more frames until the level moves to another segment.
TEST_P(LevelMeterTest, steadyLevel_drawsNoFramesOnceSettled) {
    auto meter = makeMeter(AnalyzerFeatures::spectrumProduct());
    meter->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(meter.get()));
    const auto feed = [&](float level, int ms) {
        for (int t = 0; t < ms; t += 17) {
            meter->setLevelDB(level);
            meter->setNeedsDisplay();
            QTest::qWait(17);
        }
    };
    feed(-20.0f, 600);
    const int64_t settled = meter->drawnFrameCount();
    feed(-20.0f, 500);
    EXPECT_LE(meter->drawnFrameCount(), settled + 1) << "frames of an unchanged picture";
    feed(-6.0f, 300);
    EXPECT_GT(meter->drawnFrameCount(), settled + 2);
    EXPECT_EQ(LevelMeterView::litSegmentCount(meter->lastLevelDB(), pad),
              LevelMeterView::litSegmentCount(-6.0, pad));
}

INSTANTIATE_TEST_SUITE_P(DeviceClasses, LevelMeterTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& p) {
                             return p.param ? "tablet" : "phone";
                         });

} // namespace
