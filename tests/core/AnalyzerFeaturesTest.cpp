#include "core/AnalyzerFeatures.h"
#include "core/AnalyzerDefaults.h"

#include <gtest/gtest.h>

namespace widmo {
namespace {

TEST(AnalyzerFeaturesTest, spectrumProductOffersSpectrumAndMeterOnly) {
    const AnalyzerFeatures f = AnalyzerFeatures::spectrumProduct();
    EXPECT_TRUE(f.featureSpectrumEnabled());
    EXPECT_TRUE(f.featureLevelMeterEnabled());
    EXPECT_TRUE(f.featureSampleRatesStdEnabled());
    EXPECT_TRUE(f.featureSampleRate96Enabled());
    EXPECT_FALSE(f.featureOsciloscopeEnabled());
    EXPECT_FALSE(f.featureOctaveRTAEnabled());
    EXPECT_FALSE(f.featureSpectrogramEnabled());
    EXPECT_FALSE(f.featurePlayback());
    EXPECT_FALSE(f.featureRecordTrig());
    EXPECT_FALSE(f.featureImportExportAudio());
    EXPECT_FALSE(f.featureTranspositionEnabled());
    EXPECT_FALSE(f.featureUltrasonicEnabled());
    EXPECT_FALSE(f.featureHighResolution());
    EXPECT_FALSE(f.featureVoiceEGG());
    EXPECT_TRUE(f.featureSecondChartEnabled());
    EXPECT_FALSE(f.featureSecondChartSelectionEnabled());
    EXPECT_FALSE(f.featurePIPEnabled());
    EXPECT_TRUE(f.featureSampleRatesEnabled());
}

TEST(AnalyzerFeaturesTest, studioHasEverythingButEgg_voiceHasEgg) {
    const AnalyzerFeatures studio = AnalyzerFeatures::studioProduct();
    EXPECT_TRUE(studio.featureSpectrogramEnabled());
    EXPECT_TRUE(studio.featureUltrasonicEnabled());
    EXPECT_TRUE(studio.featureHighResolution());
    EXPECT_TRUE(studio.featureRecordTrig());
    EXPECT_FALSE(studio.featureVoiceEGG());
    EXPECT_TRUE(studio.featurePIPEnabled());
    EXPECT_TRUE(studio.featureSecondChartSelectionEnabled());

    const AnalyzerFeatures voice = AnalyzerFeatures::voiceProduct();
    EXPECT_TRUE(voice.featureVoiceEGG());
    EXPECT_TRUE(voice.featureOsciloscopeEnabled());
    EXPECT_FALSE(voice.featureSpectrogramEnabled());
    EXPECT_TRUE(voice.featureSecondChartSelectionEnabled());
    EXPECT_FALSE(voice.featurePIPEnabled());
}

TEST(AnalyzerFeaturesTest, derivedQueriesFollowTheirSwitches) {
    AnalyzerFeatures::Switches s;
    EXPECT_FALSE(AnalyzerFeatures(s).featureSecondChartEnabled());
    EXPECT_FALSE(AnalyzerFeatures(s).featureSampleRatesEnabled());

    s.featureOctaveRTAEnabled = true;
    EXPECT_TRUE(AnalyzerFeatures(s).featureSecondChartEnabled());
    EXPECT_FALSE(AnalyzerFeatures(s).featureSecondChartSelectionEnabled());
    s.featureOsciloscopeEnabled = true;
    EXPECT_TRUE(AnalyzerFeatures(s).featureSecondChartSelectionEnabled());

    s.featureUltrasonicEnabled = true;
    EXPECT_TRUE(AnalyzerFeatures(s).featureSampleRatesEnabled());

    s.featureSpectrogramEnabled = true;
    EXPECT_TRUE(AnalyzerFeatures(s).featurePIPEnabled());
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
