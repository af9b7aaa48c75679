#include "../core/TempSettings.h"
#include "RecordingSettingsDelegate.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "ui/DisplaySettingsPage.h"
#include "ui/GeneralSettingsPage.h"
#include "ui/SegmentedControl.h"

#include <QCheckBox>
#include <QLabel>
#include <QToolButton>

#include <gtest/gtest.h>

namespace widmo {
namespace {

using General = GeneralSettingsPage;

void clickSegment(SegmentedControl* control, int segment) {
    ASSERT_NE(control->buttonForSegment(segment), nullptr);
    control->buttonForSegment(segment)->click();
}

// Each table maps back to its segment (the page selects the segment of a stored
// value); a value off the tables selects the first segment.
TEST(SettingsSegmentTables, mapBothWays_offTableValuesFallToSegmentZero) {
    for (int s = 0; s <= 8; ++s)
        EXPECT_EQ(General::segmentForFftSize(General::fftSizeForSegment(s)), s);
    for (int s = 0; s <= 6; ++s)
        EXPECT_EQ(General::segmentForSampleRate(General::sampleRateForSegment(s)), s);
    for (int s = 0; s < 4; ++s) {
        EXPECT_EQ(General::segmentForBand(General::bandForSegment(s)), s);
        EXPECT_EQ(General::segmentForDisplaySize(General::displaySizeForSegment(s)), s);
    }
    EXPECT_EQ(General::sampleRateForSegment(7), 44100);
    EXPECT_EQ(General::segmentForSampleRate(22050), 0);
    EXPECT_EQ(General::bandForSegment(4), 1);
    EXPECT_EQ(General::segmentForBand(24), 0);
}

class GeneralSettingsTest : public test::TempSettings {
protected:
    test::RecordingSettingsDelegate delegate;
};

TEST_F(GeneralSettingsTest,
       spectrumProduct_intervalSegmentsStartAtPowerOne_titlesFollowSampleRate) {
    const AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    AnalyzerDefaults defaults(features, "general-interval");
    defaults.copyCurrentToPreferred();
    defaults.setPreferredIntervalSizePower(1);
    General page(defaults, features, delegate);
    page.refreshSelection();
    SegmentedControl* interval = page.intervalSegmentedControl();

    // Without high resolution: four segments, powers 1..4.
    ASSERT_EQ(interval->numberOfSegments(), 4);
    EXPECT_EQ(interval->selectedSegmentIndex(), 0);
    // 44.1 kHz: 32-frame minimum interval; power 1 is 64 frames.
    EXPECT_EQ(interval->titleForSegmentAtIndex(0), "1.5ms");
    EXPECT_EQ(interval->titleForSegmentAtIndex(3), "11.6ms");

    // Choosing 96 kHz (64-frame minimum) retitles every segment at once.
    ASSERT_EQ(page.sampleRateSegmentedControl()->numberOfSegments(), 3);
    clickSegment(page.sampleRateSegmentedControl(), 2);
    EXPECT_EQ(defaults.preferredSampleRate(), 96000.0f);
    EXPECT_EQ(interval->titleForSegmentAtIndex(0), "1.3ms");
    EXPECT_EQ(interval->titleForSegmentAtIndex(3), "10.7ms");
    EXPECT_EQ(defaults.sampleRate(), 44100.0f) << "only the pending value changes";

    clickSegment(interval, 0);
    EXPECT_EQ(defaults.preferredIntervalSizePower(), 1);
    clickSegment(interval, 3);
    EXPECT_EQ(defaults.preferredIntervalSizePower(), 4);
}

TEST_F(GeneralSettingsTest, controlsWritePreferredOrLiveSettings_andTellTheMainScreen) {
    const AnalyzerFeatures features = AnalyzerFeatures::studioProduct();
    AnalyzerDefaults defaults(features, "general-controls");
    defaults.copyCurrentToPreferred();
    General page(defaults, features, delegate);

    clickSegment(page.fftSizeSegmentedControl(), 8);
    EXPECT_EQ(defaults.preferredFftSize(), 65536);
    EXPECT_EQ(defaults.fftSize(), 4096);
    clickSegment(page.fftWindowTypeSegmentedControl(), 3);
    EXPECT_EQ(defaults.preferredFftWindowType(), 3);
    clickSegment(page.displaySizeSegmentedControl(), 0);
    EXPECT_EQ(defaults.preferredFftDisplaySize(), 512);
    // High resolution: segment s is power s.
    clickSegment(page.intervalSegmentedControl(), 0);
    EXPECT_EQ(defaults.preferredIntervalSizePower(), 0);
    ASSERT_EQ(page.sampleRateSegmentedControl()->numberOfSegments(), 7);
    clickSegment(page.sampleRateSegmentedControl(), 6);
    EXPECT_EQ(defaults.preferredSampleRate(), 384000.0f);

    clickSegment(page.octaveBandSegmentedControl(), 3);
    EXPECT_EQ(defaults.octaveRTABandsPerOctave(), 12);
    EXPECT_EQ(delegate.octaveIndexes, 1);
    EXPECT_EQ(delegate.refreshAll, 1);
    page.octaveMinValuesSwitch()->click();
    EXPECT_EQ(defaults.octaveRTAMinValuesEnabled(), true);
    EXPECT_EQ(delegate.measuringView, 1);
    clickSegment(page.amplitudeScaleSegmentedControl(), 0);
    EXPECT_FALSE(defaults.preferredValuesInDB());
    clickSegment(page.frequencyScaleSegmentedControl(), 0);
    EXPECT_TRUE(defaults.preferredLinearFrequency());
}

TEST_F(GeneralSettingsTest, lengthLabel_andWidthShadowZeroSelectsFirstSegment) {
    const AnalyzerFeatures features = AnalyzerFeatures::studioProduct();
    AnalyzerDefaults defaults(features, "general-length");
    defaults.copyCurrentToPreferred();
    General page(defaults, features, delegate);
    // Defaults: 44.1 kHz, 512-frame interval, 2048 rows, full width: 5168 columns.
    EXPECT_EQ(page.spectrogramLengthLabel()->text(),
              "Length : 60.0 s   Bitmap size : 5168 x 2048 pixels");

    clickSegment(page.spectrogramWidthSegmentedControl(), 1);
    EXPECT_EQ(defaults.preferredSpectrogramWidthDivisor(), 2);
    EXPECT_EQ(page.spectrogramLengthLabel()->text(),
              "Length : 30.0 s   Bitmap size : 2584 x 2048 pixels");

    defaults.setPreferredSpectrogramWidthDivisor(0);
    page.refreshSelection();
    EXPECT_EQ(page.spectrogramWidthSegmentedControl()->selectedSegmentIndex(), 0);
}

TEST_F(GeneralSettingsTest, hiddenSectionsFollowTheProduct) {
    struct Case {
        const char* name;
        AnalyzerFeatures features;
        std::vector<bool> hidden; // sections 0..7
    };
    const Case cases[] = {
        {"widmo",
         AnalyzerFeatures::spectrumProduct(),
         {false, false, true, true, false, true, false, false}},
        {"widmo-studio",
         AnalyzerFeatures::studioProduct(),
         {false, false, false, false, true, true, false, false}},
        {"widmo-voice",
         AnalyzerFeatures::voiceProduct(),
         {false, false, true, true, false, true, false, false}},
    };
    for (const Case& c : cases) {
        AnalyzerDefaults defaults(c.features, QString("general-hidden-") + c.name);
        General page(defaults, c.features, delegate);
        ASSERT_EQ(page.numberOfSections(), int(c.hidden.size()));
        for (int s = 0; s < page.numberOfSections(); ++s) {
            EXPECT_EQ(page.isHiddenSection(s), c.hidden[size_t(s)]) << c.name << " section " << s;
            if (c.hidden[size_t(s)]) {
                EXPECT_EQ(page.heightForHeaderInSection(s), 0) << c.name << " section " << s;
            }
        }
        // The notes on spectrogram recalculation only with a spectrogram.
        EXPECT_EQ(page.isRowHidden(General::kSectionFft, 2),
                  !c.features.featureSpectrogramEnabled())
            << c.name;

        DisplaySettingsPage display(defaults, c.features, delegate);
        EXPECT_EQ(display.isHiddenSection(DisplaySettingsPage::kSectionOctave),
                  !c.features.featureOctaveRTAEnabled())
            << c.name;
    }
}

TEST_F(GeneralSettingsTest, displayPage_gridIsLiveColourIsPending) {
    const AnalyzerFeatures features = AnalyzerFeatures::studioProduct();
    AnalyzerDefaults defaults(features, "display-controls");
    defaults.copyCurrentToPreferred();
    DisplaySettingsPage page(defaults, features, delegate);
    const bool grid = defaults.spectrogramGridOn();
    page.spectrogramGridSwitch()->click();
    EXPECT_EQ(defaults.spectrogramGridOn(), !grid);
    EXPECT_EQ(delegate.refreshAll, 1);
    clickSegment(page.spectrogramColorSegmentedControl(), 2);
    EXPECT_EQ(defaults.preferredSpectrogramColorType(), 2);
    EXPECT_EQ(defaults.spectrogramColorType(), 0);
    clickSegment(page.octaveBandSegmentedControl(), 1);
    EXPECT_EQ(defaults.octaveRTABandsPerOctave(), 3);
    EXPECT_EQ(delegate.octaveIndexes, 1);
}

} // namespace
} // namespace widmo
