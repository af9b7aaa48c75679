#include "../core/TempSettings.h"
#include "RecordingSettingsDelegate.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "ui/FloatSlider.h"
#include "ui/TriggerSettingsPage.h"

#include <QCheckBox>
#include <QLabel>
#include <QSlider>

#include <gtest/gtest.h>

namespace widmo {
namespace {

using Trig = TriggerSettingsPage;

class TrigSettingsTest : public test::TempSettings {
protected:
    AnalyzerFeatures features = AnalyzerFeatures::studioProduct();
    test::RecordingSettingsDelegate delegate;
};

TEST_F(TrigSettingsTest, defaultsShowInHzAndDb_slidersWriteTheLiveSettings) {
    AnalyzerDefaults defaults(features, "trig-defaults");
    defaults.copyCurrentToPreferred();
    Trig page(defaults, delegate);
    // Default band 0.136054 .. 0.680272 of 22050 Hz.
    EXPECT_EQ(page.trigMinFrequencyValueLabel()->text(), "3.00 kHz");
    EXPECT_EQ(page.trigMaxFrequencyValueLabel()->text(), "15.00 kHz");
    EXPECT_EQ(page.trigLevelValueLabel()->text(), "-55 dB");

    page.trigLevelSlider()->setValue(page.trigLevelSlider()->maximum() - 10);
    EXPECT_FLOAT_EQ(defaults.trigLevel(), -10.0f);
    EXPECT_EQ(page.trigLevelValueLabel()->text(), "-10 dB");

    page.trigSwitch()->click();
    EXPECT_EQ(defaults.trigOn(), true);
    page.trigEnergySaveModeSwitch()->click();
    EXPECT_EQ(defaults.trigEnergySaveMode(), 1.0f);
    page.trigAutomaticStopSwitch()->click();
    EXPECT_EQ(defaults.trigAutomaticStop(), false);

    // The top of the upper slider is the highest frequency itself.
    page.trigMaxFrequencySlider()->setValue(Trig::kFrequencySteps);
    EXPECT_EQ(defaults.trigMaxFrequency(), 1.0f);
    EXPECT_EQ(page.trigMaxFrequencyValueLabel()->text(), "22.05 kHz");
}

TEST_F(TrigSettingsTest, bandLimitsPushEachOther_lowerStaysBelowUpper) {
    AnalyzerDefaults defaults(features, "trig-band");
    defaults.copyCurrentToPreferred();
    Trig page(defaults, delegate);
    QSlider* lo = page.trigMinFrequencySlider();
    QSlider* hi = page.trigMaxFrequencySlider();

    hi->setValue(500);
    lo->setValue(800); // above the upper limit: it moves along
    EXPECT_EQ(lo->value(), 800);
    EXPECT_EQ(hi->value(), 801);
    EXPECT_LT(defaults.trigMinFrequency(), defaults.trigMaxFrequency());

    hi->setValue(100); // below the lower limit: it moves down
    EXPECT_EQ(hi->value(), 100);
    EXPECT_EQ(lo->value(), 99);
    EXPECT_LT(defaults.trigMinFrequency(), defaults.trigMaxFrequency());

    lo->setValue(Trig::kFrequencySteps);
    EXPECT_EQ(lo->value(), Trig::kFrequencySteps - 1);
    EXPECT_EQ(hi->value(), Trig::kFrequencySteps);
    hi->setValue(0);
    EXPECT_EQ(lo->value(), 0);
    EXPECT_EQ(hi->value(), 1);
    EXPECT_FLOAT_EQ(defaults.trigMinFrequency() * 22050.0f, Trig::kLowestFrequency);
    EXPECT_LT(defaults.trigMinFrequency(), defaults.trigMaxFrequency());
}

} // namespace
} // namespace widmo
