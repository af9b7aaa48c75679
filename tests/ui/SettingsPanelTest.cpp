#include "ui/SettingsPanel.h"
#include "RecordingSettingsDelegate.h"
#include "UiTestSupport.h"
#include "audio/AudioInputModel.h"
#include "audio/AudioSession.h"
#include "audio/JackNode.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "core/SettingsStore.h"
#include "render/DeviceClass.h"
#include "ui/AudioInputPage.h"
#include "ui/FloatSlider.h"
#include "ui/SegmentedControl.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QToolButton>

namespace widmo {
namespace {

using Root = SettingsPanel;

// The panel and the audio input page talk to the test sound server: this
// binary holds its lock.
class SettingsPanelTest : public test::TempSettings {
protected:
    void TearDown() override {
        DeviceClass::setForcedIdiom(std::nullopt);
        test::TempSettings::TearDown();
    }
    test::RecordingSettingsDelegate delegate;
};

TEST_F(SettingsPanelTest, everyWayOfClosingTellsTheMainScreenOnce_andReopensOnTheLastPage) {
    DeviceClass::setForcedIdiom(DeviceClass::Idiom::Tablet);
    const AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    AnalyzerDefaults defaults(features, "panel-close");
    AudioSession audio(defaults, features);
    QWidget mainScreen;
    mainScreen.resize(800, 600);
    mainScreen.show();
    Root panel(defaults, features, audio, delegate, &mainScreen);
    EXPECT_FALSE(panel.isPageOffered(Root::kPageDisplay));
    EXPECT_FALSE(panel.isPageOffered(Root::kPageTrigger));

    defaults.setLastSettingsPage(0);
    panel.presentFrom(&mainScreen);
    ASSERT_TRUE(panel.isVisible());
    EXPECT_EQ(panel.currentPage(), Root::kPageRoot);
    panel.openPage(Root::kPageGeneral);
    EXPECT_EQ(defaults.lastSettingsPage(), 1);
    EXPECT_EQ(delegate.contentSize.width(), 520);
    EXPECT_GT(delegate.contentSize.height(), 0);
    panel.closeSettings();
    panel.closeSettings();
    EXPECT_EQ(delegate.willClose, 1);
    EXPECT_FALSE(panel.isOpen());

    // Reopens on General; Escape closes it.
    panel.presentFrom(&mainScreen);
    EXPECT_EQ(panel.currentPage(), Root::kPageGeneral);
    QTest::keyClick(&panel, Qt::Key_Escape);
    EXPECT_FALSE(panel.isVisible());
    EXPECT_EQ(delegate.willClose, 2);

    // A phone covers the window; Done closes it.
    DeviceClass::setForcedIdiom(DeviceClass::Idiom::Phone);
    panel.presentFrom(&mainScreen);
    EXPECT_EQ(panel.geometry(), mainScreen.rect());
    panel.openPage(Root::kPageTrigger); // not offered: the list
    EXPECT_EQ(panel.currentPage(), Root::kPageRoot);
    EXPECT_EQ(defaults.lastSettingsPage(), 0);
    const auto buttons = panel.findChildren<QPushButton*>();
    for (QPushButton* b : buttons)
        if (b->text() == "Done")
            b->click();
    EXPECT_EQ(delegate.willClose, 3);
}

TEST_F(SettingsPanelTest, audioInputPage_listsTheTestMicrophone_channelTwoIsAnalysedChannelOne) {
    const AnalyzerFeatures features = AnalyzerFeatures::spectrumProduct();
    AnalyzerDefaults defaults(features, "panel-audio");
    AudioSession audio(defaults, features);
    AudioInputPage page(defaults, audio, delegate);
    page.viewWillAppear();
    EXPECT_EQ(defaults.lastSettingsPage(), 4);
    EXPECT_TRUE(page.inputSelectionEnabled());
    EXPECT_FALSE(page.isRowHidden(AudioInputPage::kSectionInput, 0));
    EXPECT_TRUE(page.isRowHidden(AudioInputPage::kSectionInput, 1))
        << "the not-available label shows only during playback";

    QListWidget* inputs = page.inputSourcePickerColumn(0);
    ASSERT_FALSE(inputs->findItems("WidmoTestMic", Qt::MatchExactly).isEmpty());
    EXPECT_EQ(inputs->currentItem()->text(), "WidmoTestMic");

    QListWidget* channels = page.inputSourcePickerColumn(2);
    ASSERT_EQ(channels->count(), 2);
    EXPECT_EQ(channels->item(1)->text(), "2");
    channels->setCurrentRow(1);
    EXPECT_EQ(audio.currentInputChannel(), 1);

    page.inputSourceSoftwareGainSlider()->setValue(int(12.4f - AudioInputPage::kMinSoftwareGain));
    EXPECT_EQ(defaults.softwareInputGainValue(), 12.0f);
    EXPECT_EQ(page.inputSourceSoftwareGainValueLabel()->text(), "12 dB");
    page.viewWillDisappear();
    EXPECT_FALSE(page.audioInputModel()->observingInputChanges());

    // The microphone runs at 48 kHz. A 48 kHz document: its rate, no warning.
    // A 96 kHz document: the page says the upper half is not real.
    constexpr int kRateRow = 2, kWarningRow = 3;
    defaults.setSampleRate(48000.0f);
    page.viewWillAppear();
    EXPECT_FALSE(page.isRowHidden(AudioInputPage::kSectionInput, kRateRow));
    EXPECT_EQ(page.deviceSampleRateLabel()->text(), "Device rate: 48000 Hz");
    EXPECT_TRUE(page.isRowHidden(AudioInputPage::kSectionInput, kWarningRow));
    defaults.setSampleRate(96000.0f);
    page.viewWillAppear();
    EXPECT_FALSE(page.isRowHidden(AudioInputPage::kSectionInput, kWarningRow));
    EXPECT_TRUE(
        page.sampleRateWarningLabel()->text().contains("content above 24000 Hz is not real"))
        << page.sampleRateWarningLabel()->text().toStdString();
    page.viewWillDisappear();
}

TEST_F(SettingsPanelTest, audioInputPage_jackNodeSwitch_publishesOnTheServer_orSaysThereIsNone) {
    const AnalyzerFeatures features = AnalyzerFeatures::studioProduct();
    AnalyzerDefaults defaults(features, "panel-node");
    defaults.setSampleRate(44100.0f);
    AudioSession audio(defaults, features);
    JackNode node;
    AudioInputPage page(defaults, audio, delegate);
    QCheckBox* nodeSwitch = page.audioEffectSwitch();
    ASSERT_NE(nodeSwitch, nullptr);
    const QString key = AudioInputPage::kAudioEffectEnabledKey;

    // The test services' server (48 kHz): the ports are named, the rate is
    // compared with the document's.
    nodeSwitch->click();
    EXPECT_TRUE(node.published());
    EXPECT_TRUE(SettingsStore().readBool(key));
    const QString status = page.audioEffectStatusLabel()->text();
    EXPECT_TRUE(status.contains(node.inputPortName(0))) << status.toStdString();
    EXPECT_TRUE(status.contains("choose 48000 Hz")) << status.toStdString();
    nodeSwitch->click();
    EXPECT_FALSE(node.published());
    EXPECT_FALSE(SettingsStore().readBool(key));

    // No server under that name: the user is told, the switch stays off.
    const QByteArray server = qgetenv("JACK_DEFAULT_SERVER");
    qputenv("JACK_DEFAULT_SERVER", "widmo_no_such_server");
    nodeSwitch->click();
    qputenv("JACK_DEFAULT_SERVER", server);
    EXPECT_FALSE(nodeSwitch->isChecked());
    EXPECT_FALSE(node.enabled());
    EXPECT_FALSE(SettingsStore().readBool(key));
    QMessageBox* box = test::waitMessage(5000);
    ASSERT_TRUE(box);
    EXPECT_EQ(box->text(), AudioInputPage::kNoJackServerMessage);
    box->close();
}

// The studio's listening and playback rows write their settings; one changed
// while the document plays stops it first (its real-time thread reads these
// settings), and during playback no input can be chosen. A product
// without these rows shows none.
TEST_F(SettingsPanelTest, audioInputPage_transpositionAndPlayback_writeTheirSettings) {
    const AnalyzerFeatures studio = AnalyzerFeatures::studioProduct();
    AnalyzerDefaults defaults(studio, "panel-output");
    AudioSession audio(defaults, studio);
    AudioInputPage page(defaults, audio, delegate);
    ASSERT_TRUE(page.transpositionSwitch() != nullptr && page.playbackTypeControl() != nullptr);
    EXPECT_FALSE(page.playbackOctavesControl()->isEnabled()); // as recorded: no octaves

    page.transpositionSwitch()->click();
    page.transpositionOctavesControl()->buttonForSegment(2)->click();
    page.transpositionFilterSwitch()->click();
    EXPECT_TRUE(defaults.recordingTranspositionOn());
    EXPECT_EQ(defaults.realTimeTransposeOctavesDown(), 3);
    EXPECT_TRUE(defaults.realTimeTranspFilterBelow20kHz());
    page.playbackTypeControl()->buttonForSegment(1)->click();
    page.playbackOctavesControl()->buttonForSegment(1)->click();
    EXPECT_EQ(defaults.playbackTranspType(), 1);
    EXPECT_EQ(defaults.playbackSlowDownOctaves(), 2);
    EXPECT_TRUE(page.playbackOctavesControl()->isEnabled());
    page.outputGainSlider()->setValue(page.outputGainSlider()->value() - 6);
    EXPECT_EQ(defaults.outputGainValue(), -6.0f);
    EXPECT_EQ(page.outputGainValueLabel()->text(), "-6 dB");
    EXPECT_EQ(delegate.stopAnalyzer, 0);

    // Heterodyne: its tuning and band take over from the octaves and the
    // filter; the tuning reaches up to half the rate less the band.
    EXPECT_FALSE(page.heterodyneTuningField()->isEnabled());
    page.listeningModeControl()->buttonForSegment(1)->click();
    EXPECT_EQ(defaults.listeningMode(), 1);
    EXPECT_TRUE(page.heterodyneTuningField()->isEnabled());
    EXPECT_FALSE(page.transpositionOctavesControl()->isEnabled());
    page.heterodyneBandControl()->buttonForSegment(2)->click();
    EXPECT_EQ(defaults.heterodyneBandHz(), 10000.0f);
    // (To the field's 0.1 kHz.)
    EXPECT_NEAR(page.heterodyneTuningField()->maximum(),
                (double(defaults.sampleRate()) / 2.0 - 10000.0) / 1000.0, 0.05);
    page.heterodyneTuningField()->setValue(10.5);
    EXPECT_EQ(defaults.heterodyneTuningHz(), 10500.0f);

    // During playback the page offers no input selection.
    bool started = false;
    audio.startPlayer([&](bool ok) { started = ok; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return started; }, 5000));
    page.viewWillAppear();
    EXPECT_FALSE(page.inputSelectionEnabled());
    EXPECT_TRUE(page.isRowHidden(AudioInputPage::kSectionInput, 0));
    EXPECT_FALSE(page.isRowHidden(AudioInputPage::kSectionInput, 1));
    EXPECT_FALSE(page.inputSourceSoftwareGainSlider()->isEnabled());
    EXPECT_FALSE(page.inputSourceHardwareGainSlider()->isEnabled());
    EXPECT_FALSE(page.audioInputModel()->observingInputChanges());
    page.playbackTypeControl()->buttonForSegment(2)->click();
    EXPECT_EQ(delegate.stopAnalyzer, 1);
    page.outputGainSlider()->setValue(page.outputGainSlider()->value() - 6);
    EXPECT_EQ(delegate.stopAnalyzer, 2); // playback reads the level itself: it stops first
    EXPECT_EQ(defaults.outputGainValue(), -12.0f);
    EXPECT_EQ(defaults.playbackTranspType(), 2);
    audio.stop();
    page.viewWillAppear();
    EXPECT_TRUE(page.inputSelectionEnabled());
    EXPECT_TRUE(page.inputSourceSoftwareGainSlider()->isEnabled());

    const AnalyzerFeatures plain = AnalyzerFeatures::spectrumProduct();
    AnalyzerDefaults plainDefaults(plain, "panel-output-plain");
    AudioSession plainAudio(plainDefaults, plain);
    AudioInputPage plainPage(plainDefaults, plainAudio, delegate);
    EXPECT_EQ(plainPage.transpositionSwitch(), nullptr);
    EXPECT_EQ(plainPage.outputGainSlider(), nullptr);
}

} // namespace
} // namespace widmo
