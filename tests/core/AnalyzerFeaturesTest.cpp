#include "core/AnalyzerFeatures.h"
#include "core/AnalyzerDefaults.h"

#include <gtest/gtest.h>

#include <bit>

namespace widmo {
namespace {

TEST(AnalyzerFeaturesTest, derivedQueriesFollowTheirSwitches) {
    // Every combination of the three second charts: any one makes a second
    // chart, any two make it selectable.
    for (unsigned mask = 0; mask < 8; ++mask) {
        AnalyzerFeatures::Switches s;
        s.featureSpectrumEnabled = mask & 1u;
        s.featureOsciloscopeEnabled = mask & 2u;
        s.featureOctaveRTAEnabled = mask & 4u;
        EXPECT_EQ(AnalyzerFeatures(s).featureSecondChartEnabled(), mask != 0) << mask;
        EXPECT_EQ(AnalyzerFeatures(s).featureSecondChartSelectionEnabled(), std::popcount(mask) > 1)
            << mask;
        s.featureSpectrogramEnabled = true;
        EXPECT_EQ(AnalyzerFeatures(s).featurePIPEnabled(), mask != 0) << mask;
    }
    AnalyzerFeatures::Switches s;
    EXPECT_FALSE(AnalyzerFeatures(s).featureSampleRatesEnabled());
    s.featureUltrasonicEnabled = true;
    EXPECT_TRUE(AnalyzerFeatures(s).featureSampleRatesEnabled());
}

// The only test that touches the shared instances: the product is chosen once.
TEST(AnalyzerFeaturesTest, sharedInstancesFollowTheProductChosenFirst) {
    ASSERT_TRUE(AnalyzerFeatures::selectProduct(AnalyzerFeatures::voiceProduct()));
    EXPECT_TRUE(AnalyzerFeatures::sharedFeatures().featureVoiceEGG());
    EXPECT_FALSE(AnalyzerFeatures::selectProduct(AnalyzerFeatures::studioProduct()));
    EXPECT_FALSE(AnalyzerFeatures::sharedFeatures().featureSpectrogramEnabled());

    EXPECT_EQ(&AnalyzerDefaults::sharedDefaults(), &AnalyzerDefaults::sharedDefaults());
    EXPECT_FLOAT_EQ(512.0f / 44100.0f, AnalyzerDefaults::intervalSizeInSeconds());
}

} // namespace
} // namespace widmo
