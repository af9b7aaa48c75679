#include "TestSignals.h"
#include "audio/AudioInputModel.h"
#include "audio/AudioSession.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"

#include <QSignalSpy>
#include <QTest>

#include <gtest/gtest.h>

namespace widmo {
namespace {

using namespace test;
using Picker = AudioInputModel;

class AudioInputPickerTest : public ::testing::Test {
protected:
    void TearDown() override {
        unloadSecondMicrophone();
        runTool("pactl", {"set-default-source", "widmo_mic"});
    }

    /// Names of the virtual microphones some stream records from.
    static QStringList recordedMicrophones() {
        QString sources, outputs;
        runTool("pactl", {"list", "short", "sources"}, &sources);
        runTool("pactl", {"list", "short", "source-outputs"}, &outputs);
        QStringList names;
        for (const QString& output : outputs.split('\n', Qt::SkipEmptyParts))
            for (const QString& line : sources.split('\n', Qt::SkipEmptyParts))
                if (line.section('\t', 0, 0) == output.section('\t', 1, 1) &&
                    line.section('\t', 1, 1).startsWith("widmo_mic"))
                    names << line.section('\t', 1, 1);
        return names;
    }

    int loadSecondMicrophone() {
        return secondMic_ = loadMicrophone("widmo_sink", "widmo_mic2", "SecondMic");
    }
    void unloadSecondMicrophone() {
        if (secondMic_ >= 0)
            unloadModule(std::exchange(secondMic_, -1));
    }
    /// The port row of the second microphone.
    static int secondRow(const Picker& p) { return p.titleForRow(0, 0) == "SecondMic" ? 0 : 1; }
    static QString selectedPort(const Picker& p) {
        return p.titleForRow(p.selectedRowInComponent(Picker::kComponentPort), 0);
    }

    AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    AnalyzerDefaults defaults{features, "audio-picker-test"};
    AudioSession audio{defaults, features};
    Picker picker{audio, defaults};
    int secondMic_ = -1;
};

TEST_F(AudioInputPickerTest, listsTheVirtualMicrophoneByItsDescription_withTwoChannelRows) {
    QSignalSpy refreshed(&picker, &Picker::selectionRefreshed);
    picker.refreshPickerInputWithDelay(false);
    EXPECT_EQ(refreshed.count(), 1);
    EXPECT_EQ(picker.selectedRowInComponent(Picker::kComponentPort), 0);
    // Rows outside a list read "---".
    const std::pair<int, QStringList> columns[] = {{Picker::kComponentPort, {"WidmoTestMic"}},
                                                   {Picker::kComponentDataSource, {}},
                                                   {Picker::kComponentChannel, {"1", "2"}}};
    for (const auto& [component, titles] : columns) {
        ASSERT_EQ(picker.numberOfRowsInComponent(component), titles.size());
        for (int row = -1; row <= titles.size(); ++row)
            EXPECT_EQ(picker.titleForRow(row, component),
                      row >= 0 && row < titles.size() ? titles[row] : "---");
    }

    picker.didSelectRow(1, Picker::kComponentChannel);
    EXPECT_EQ(audio.currentInputChannel(), 1);
    EXPECT_EQ(picker.selectedRowInComponent(Picker::kComponentChannel), 1);
    picker.didSelectRow(2, Picker::kComponentChannel); // out of range: ignored
    EXPECT_EQ(audio.currentInputChannel(), 1);
    picker.refreshPickerInputSelection();
    EXPECT_EQ(picker.selectedRowInComponent(Picker::kComponentChannel), 1);
}

TEST_F(AudioInputPickerTest, deviceArrivalAndRemoval_refreshAfterADelay_onlyWhileObserved) {
    picker.refreshPickerInputSelection();
    QSignalSpy refreshed(&picker, &Picker::selectionRefreshed);

    // Not observed: the list stays as it was.
    ASSERT_GE(loadSecondMicrophone(), 0);
    QTest::qWait(800);
    EXPECT_EQ(refreshed.count(), 0);
    EXPECT_EQ(picker.numberOfRowsInComponent(Picker::kComponentPort), 1);
    unloadSecondMicrophone();
    QTest::qWait(800);

    picker.setObservingInputChanges(true);
    ASSERT_GE(loadSecondMicrophone(), 0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return refreshed.count() > 0; }, 3000));
    ASSERT_EQ(picker.numberOfRowsInComponent(Picker::kComponentPort), 2);
    EXPECT_EQ(picker.titleForRow(1 - secondRow(picker), 0), "WidmoTestMic");

    // Choosing a port makes it the preferred input, and the delayed refresh
    // selects it as the current one.
    refreshed.clear();
    picker.didSelectRow(secondRow(picker), Picker::kComponentPort);
    EXPECT_EQ(audio.preferredInput().description, "SecondMic");
    EXPECT_EQ(refreshed.count(), 0); // not at once
    ASSERT_TRUE(QTest::qWaitFor([&] { return refreshed.count() > 0; }, 1000));
    EXPECT_EQ(audio.currentInput().description, "SecondMic");
    EXPECT_EQ(selectedPort(picker), "SecondMic");

    // Removal: the list shrinks and the current input falls back to the default.
    refreshed.clear();
    unloadSecondMicrophone();
    ASSERT_TRUE(QTest::qWaitFor([&] { return refreshed.count() > 0; }, 3000));
    EXPECT_EQ(picker.numberOfRowsInComponent(Picker::kComponentPort), 1);
    EXPECT_EQ(audio.currentInput().description, "WidmoTestMic");
    EXPECT_EQ(picker.selectedRowInComponent(Picker::kComponentPort), 0);
}

TEST_F(AudioInputPickerTest, nothingChosen_opensTheServersDefaultInput_andFollowsItUntilAChoice) {
    ASSERT_GE(loadSecondMicrophone(), 0);
    ASSERT_EQ(runTool("pactl", {"set-default-source", "widmo_mic2"}), 0);

    // A first start: a new audio object with no input chosen records from the
    // server's default, the second of the two inputs.
    AudioSession fresh{defaults, features};
    Picker freshPicker{fresh, defaults};
    freshPicker.setObservingInputChanges(true);
    freshPicker.refreshPickerInputSelection();
    EXPECT_EQ(fresh.currentInput().description, "SecondMic");
    EXPECT_EQ(selectedPort(freshPicker), "SecondMic");
    ASSERT_TRUE(completes([&](auto done) { fresh.startRecorder(done); }));
    EXPECT_EQ(recordedMicrophones(), QStringList{"widmo_mic2"});

    // Another default while nothing is chosen: the capture, the page and the
    // next start follow it.
    QSignalSpy refreshed(&freshPicker, &Picker::selectionRefreshed);
    ASSERT_EQ(runTool("pactl", {"set-default-source", "widmo_mic"}), 0);
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return recordedMicrophones() == QStringList{"widmo_mic"}; }, 3000));
    EXPECT_TRUE(fresh.isRecording());
    fresh.stop();
    ASSERT_TRUE(QTest::qWaitFor([&] { return refreshed.count() > 0; }, 3000));
    EXPECT_EQ(fresh.currentInput().description, "WidmoTestMic");
    EXPECT_EQ(selectedPort(freshPicker), "WidmoTestMic");

    // Once the user chooses, a change of the default no longer moves the input.
    freshPicker.didSelectRow(secondRow(freshPicker), Picker::kComponentPort);
    ASSERT_EQ(runTool("pactl", {"set-default-source", "widmo_mic2"}), 0);
    ASSERT_EQ(runTool("pactl", {"set-default-source", "widmo_mic"}), 0);
    QTest::qWait(500);
    EXPECT_EQ(fresh.currentInput().description, "SecondMic");
}

// Software gain: half away from zero, magnitudes below 3 dB snap to 0.
// Hardware gain (the capture volume): two decimals, half away from zero.
TEST_F(AudioInputPickerTest, gains_roundAsTheSlidersShow_andReachTheSettingsAndTheDevice) {
    const std::pair<float, float> softwareGains[] = {{2.4f, 0.0f},   {2.5f, 3.0f},   {2.6f, 3.0f},
                                                     {-2.49f, 0.0f}, {-2.5f, -3.0f}, {-3.0f, -3.0f},
                                                     {17.5f, 18.0f}};
    for (const auto& [slider, gain] : softwareGains)
        EXPECT_FLOAT_EQ(Picker::roundSoftwareGain(slider), gain) << slider;
    EXPECT_FLOAT_EQ(picker.setSoftwareInputGain(-11.6f), -12.0f);
    EXPECT_FLOAT_EQ(defaults.softwareInputGainValue(), -12.0f);
    EXPECT_EQ(picker.softwareInputGainLabel(), "-12 dB");
    picker.setSoftwareInputGain(1.0f);
    EXPECT_EQ(picker.softwareInputGainLabel(), "0 dB");

    picker.refreshPickerInputSelection();
    ASSERT_TRUE(picker.isInputGainSettable());
    EXPECT_FLOAT_EQ(Picker::roundHardwareGain(0.125f), 0.13f);
    EXPECT_FLOAT_EQ(Picker::roundHardwareGain(0.994f), 0.99f);
    EXPECT_FLOAT_EQ(picker.setHardwareInputGain(0.5049f), 0.5f);
    EXPECT_FLOAT_EQ(audio.inputGain(), 0.5f);
    EXPECT_EQ(picker.hardwareInputGainLabel(), "0.50");
}

} // namespace
} // namespace widmo
