#include "TestSignals.h"
#include "audio/AudioInputPickerViewDataSource.h"
#include "audio/TQAudio.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"

#include <QSignalSpy>
#include <QTest>

#include <gtest/gtest.h>

namespace widmo {
namespace {

using Picker = AudioInputPickerViewDataSource;

class AudioInputPickerTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (secondMic_ >= 0)
            test::unloadModule(secondMic_);
        test::runTool("pactl", {"set-default-source", "widmo_mic"});
    }

    /// Names of the virtual microphones some stream records from.
    static QStringList recordedMicrophones() {
        QString sources, outputs;
        test::runTool("pactl", {"list", "short", "sources"}, &sources);
        test::runTool("pactl", {"list", "short", "source-outputs"}, &outputs);
        QStringList names;
        for (const QString& output : outputs.split('\n', Qt::SkipEmptyParts)) {
            const QString source = output.section('\t', 1, 1);
            for (const QString& line : sources.split('\n', Qt::SkipEmptyParts)) {
                const QString name = line.section('\t', 1, 1);
                if (line.section('\t', 0, 0) == source && name.startsWith("widmo_mic"))
                    names << name;
            }
        }
        return names;
    }

    int loadSecondMicrophone() {
        QString out;
        test::runTool("pactl",
                      {"load-module", "module-remap-source", "master=widmo_sink.monitor",
                       "source_name=widmo_mic2", "source_properties=device.description=SecondMic"},
                      &out);
        secondMic_ = out.trimmed().toInt();
        return secondMic_;
    }
    void unloadSecondMicrophone() {
        test::unloadModule(secondMic_);
        secondMic_ = -1;
    }

    AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    AnalyzerDefaults defaults{features, "audio-picker-test"};
    TQAudio audio{defaults, features};
    Picker picker{audio, defaults};
    int secondMic_ = -1;
};

TEST_F(AudioInputPickerTest, listsTheVirtualMicrophoneByItsDescription_withTwoChannelRows) {
    QSignalSpy refreshed(&picker, &Picker::selectionRefreshed);
    picker.refreshPickerInputWithDelay(false);
    EXPECT_EQ(refreshed.count(), 1);

    ASSERT_EQ(picker.numberOfRowsInComponent(Picker::kComponentPort), 1);
    EXPECT_EQ(picker.titleForRow(0, Picker::kComponentPort), "WidmoTestMic");
    EXPECT_EQ(picker.selectedRowInComponent(Picker::kComponentPort), 0);
    EXPECT_EQ(picker.titleForRow(1, Picker::kComponentPort), "---");
    EXPECT_EQ(picker.numberOfRowsInComponent(Picker::kComponentDataSource), 0);
    EXPECT_EQ(picker.titleForRow(0, Picker::kComponentDataSource), "---");
    ASSERT_EQ(picker.numberOfRowsInComponent(Picker::kComponentChannel), 2);
    EXPECT_EQ(picker.titleForRow(0, Picker::kComponentChannel), "1");
    EXPECT_EQ(picker.titleForRow(1, Picker::kComponentChannel), "2");
    EXPECT_EQ(picker.titleForRow(2, Picker::kComponentChannel), "---");
    EXPECT_EQ(picker.titleForRow(-1, Picker::kComponentChannel), "---");

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
    QStringList titles{picker.titleForRow(0, 0), picker.titleForRow(1, 0)};
    titles.sort();
    EXPECT_EQ(titles, QStringList({"SecondMic", "WidmoTestMic"}));

    // Choosing a port makes it the preferred input, and the delayed refresh
    // selects it as the current one.
    const int second = picker.titleForRow(0, 0) == "SecondMic" ? 0 : 1;
    refreshed.clear();
    picker.didSelectRow(second, Picker::kComponentPort);
    EXPECT_EQ(audio.preferredInput().description, "SecondMic");
    EXPECT_EQ(refreshed.count(), 0); // not at once
    ASSERT_TRUE(QTest::qWaitFor([&] { return refreshed.count() > 0; }, 1000));
    EXPECT_EQ(audio.currentInput().description, "SecondMic");
    EXPECT_EQ(picker.selectedRowInComponent(Picker::kComponentPort), second);

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
    ASSERT_EQ(test::runTool("pactl", {"set-default-source", "widmo_mic2"}), 0);

    // A first start: a new audio object with no input chosen records from the
    // server's default, the second of the two inputs.
    TQAudio fresh{defaults, features};
    Picker freshPicker{fresh, defaults};
    freshPicker.setObservingInputChanges(true);
    freshPicker.refreshPickerInputSelection();
    EXPECT_EQ(fresh.currentInput().description, "SecondMic");
    EXPECT_EQ(freshPicker.titleForRow(freshPicker.selectedRowInComponent(0), 0), "SecondMic");
    int calls = 0;
    bool started = false;
    fresh.startRecorder([&](bool ok) {
        ++calls;
        started = ok;
    });
    ASSERT_TRUE(QTest::qWaitFor([&] { return calls > 0; }, 5000));
    ASSERT_TRUE(started);
    EXPECT_EQ(recordedMicrophones(), QStringList{"widmo_mic2"});

    // Another default while nothing is chosen: the capture, the page and the
    // next start follow it.
    QSignalSpy refreshed(&freshPicker, &Picker::selectionRefreshed);
    ASSERT_EQ(test::runTool("pactl", {"set-default-source", "widmo_mic"}), 0);
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return recordedMicrophones() == QStringList{"widmo_mic"}; }, 3000));
    EXPECT_TRUE(fresh.isRecording());
    fresh.stop();
    ASSERT_TRUE(QTest::qWaitFor([&] { return refreshed.count() > 0; }, 3000));
    EXPECT_EQ(fresh.currentInput().description, "WidmoTestMic");
    EXPECT_EQ(freshPicker.titleForRow(freshPicker.selectedRowInComponent(0), 0), "WidmoTestMic");

    // Once the user chooses, a change of the default no longer moves the input.
    const int second = freshPicker.titleForRow(0, 0) == "SecondMic" ? 0 : 1;
    freshPicker.didSelectRow(second, Picker::kComponentPort);
    ASSERT_EQ(test::runTool("pactl", {"set-default-source", "widmo_mic2"}), 0);
    ASSERT_EQ(test::runTool("pactl", {"set-default-source", "widmo_mic"}), 0);
    QTest::qWait(500);
    EXPECT_EQ(fresh.currentInput().description, "SecondMic");
}

TEST_F(AudioInputPickerTest, softwareGain_roundsHalfAwayFromZero_andSnapsBelow3dBToZero) {
    EXPECT_FLOAT_EQ(Picker::roundSoftwareGain(2.4f), 0.0f);
    EXPECT_FLOAT_EQ(Picker::roundSoftwareGain(2.6f), 3.0f);
    EXPECT_FLOAT_EQ(Picker::roundSoftwareGain(2.5f), 3.0f);
    EXPECT_FLOAT_EQ(Picker::roundSoftwareGain(-2.5f), -3.0f);
    EXPECT_FLOAT_EQ(Picker::roundSoftwareGain(-2.49f), 0.0f);
    EXPECT_FLOAT_EQ(Picker::roundSoftwareGain(-3.0f), -3.0f);
    EXPECT_FLOAT_EQ(Picker::roundSoftwareGain(17.5f), 18.0f);

    EXPECT_FLOAT_EQ(picker.setSoftwareInputGain(-11.6f), -12.0f);
    EXPECT_FLOAT_EQ(defaults.softwareInputGainValue(), -12.0f);
    EXPECT_EQ(picker.softwareInputGainLabel(), "-12 dB");
    picker.setSoftwareInputGain(1.0f);
    EXPECT_EQ(picker.softwareInputGainLabel(), "0 dB");
}

TEST_F(AudioInputPickerTest, hardwareGain_isTheCaptureVolume_roundedToTwoDecimals) {
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
