#include "core/AnalyzerFeatures.h"
#include "core/AnalyzerDefaults.h"

#include <gtest/gtest.h>

namespace widmo {
namespace {

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
