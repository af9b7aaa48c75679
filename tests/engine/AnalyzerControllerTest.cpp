#include "EngineFixture.h"
#include "engine/JackNodeInterface.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <sndfile.h>

#include <algorithm>
#include <future>
#include <numeric>

namespace widmo {
namespace {

using test::EngineFixture;
using test::runEventsFor;
using test::runEventsUntil;

// --- Intake: writing blocks into the ring ------------------------------------------------

class IntakeTest : public EngineFixture {};

TEST_F(IntakeTest, blockCrossingRingEnd_wrapsTail) {
    build();
    startRecording();
    std::mt19937 random(3);
    // Fill the ring up to 100 samples before its end, at the analysis' pace (a
    // block may not overwrite samples that an interval not yet analysed needs).
    int64_t left = capacity() - 100;
    while (left > 0) {
        std::vector<float> block =
            stereoBlock(static_cast<int32_t>(std::min<int64_t>(left, 4096)), random);
        push(block);
        drain();
        left -= static_cast<int64_t>(block.size() / 2);
    }
    drain();
    std::vector<float> crossing = stereoBlock(300, random);
    push(crossing);
    drain();

    const std::vector<float> mono = channelOf(crossing, 0, 1.0f);
    const std::vector<float>& store = defaults_->audioBuffersData();
    EXPECT_TRUE(std::equal(mono.begin(), mono.begin() + 100, store.end() - 100));
    EXPECT_TRUE(std::equal(mono.begin() + 100, mono.end(), store.begin()));
    EXPECT_EQ(engine_->framesWriteCount(), capacity() + 200);
}

// The gain and the channel apply from the block delivered after they change,
// to the store and to the test capture file (mono float AIFF) alike; the EGG
// product stores the other channel, ungained, beside the voice.
TEST_F(IntakeTest, gainAndChannel_selectChannelAndScale_storeAndCaptureFile_eggUngained) {
    for (const bool egg : {false, true}) {
        build(Options{.features = egg ? AnalyzerFeatures::voiceProduct()
                                      : AnalyzerFeatures::spectrumProduct()});
        ASSERT_TRUE(engine_->openTestFile());
        startRecording();
        std::mt19937 random(4);
        defaults_->setSoftwareInputGainValue(6.0f);
        audio_.setCurrentInputChannel(egg ? 0 : 1);
        std::vector<float> first = stereoBlock(1000, random);
        push(first);
        defaults_->setSoftwareInputGainValue(-20.0f);
        audio_.setCurrentInputChannel(0);
        std::vector<float> second = stereoBlock(24, random);
        push(second);
        drain();
        engine_->stopRecorder();
        engine_->closeTestFile();

        const auto concat = [](std::vector<float> a, const std::vector<float>& b) {
            a.insert(a.end(), b.begin(), b.end());
            return a;
        };
        const std::vector<float> voice = concat(channelOf(first, egg ? 0 : 1, gainOf(6.0f)),
                                                channelOf(second, 0, gainOf(-20.0f)));
        const auto& store = defaults_->audioBuffersData();
        EXPECT_TRUE(std::equal(voice.begin(), voice.end(), store.begin())) << egg;
        const std::vector<float> eggChannel =
            concat(channelOf(first, 1, 1.0f), channelOf(second, 1, 1.0f));
        EXPECT_TRUE(egg ? std::equal(eggChannel.begin(), eggChannel.end(),
                                     defaults_->eggBuffersData().begin())
                        : defaults_->eggBuffersData().empty());

        const QString path =
            QDir(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation))
                .filePath(QLatin1String(AnalyzerController::kTestFileName));
        SF_INFO info{};
        SNDFILE* file = sf_open(path.toLocal8Bit().constData(), SFM_READ, &info);
        ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
        EXPECT_EQ(info.format, SF_FORMAT_AIFF | SF_FORMAT_FLOAT);
        EXPECT_EQ(info.channels, 1);
        EXPECT_EQ(info.samplerate, 44100);
        std::vector<float> read(static_cast<size_t>(info.frames));
        EXPECT_EQ(sf_readf_float(file, read.data(), info.frames), info.frames);
        sf_close(file);
        EXPECT_EQ(read, voice);
        QFile::remove(path);
    }
}

TEST_F(IntakeTest, blocksIgnored_whenDocumentInvalidOrNotRecording_nodeReplacesDeviceAtItsRate) {
    build();
    std::mt19937 random(6);
    std::vector<float> block = stereoBlock(512, random);

    push(block); // not recording: counted, not written
    EXPECT_EQ(engine_->packetsCount(), 1);
    EXPECT_EQ(engine_->framesWriteCount(), 0);

    startRecording();
    defaults_->setDataValid(false);
    push(block); // invalid document: dropped before counting
    EXPECT_EQ(engine_->packetsCount(), 0);
    EXPECT_EQ(engine_->framesWriteCount(), 0);

    defaults_->setDataValid(true);
    engine_->didGetNewAudioDataStandard(0, block.data(), false);
    EXPECT_EQ(engine_->framesWriteCount(), 0);
    push(block);
    drain();
    EXPECT_EQ(engine_->packetsCount(), 1);
    EXPECT_EQ(engine_->framesWriteCount(), 512);

    // Blocks from another application through the inter-app node: while it is
    // connected at the document's rate they replace the device's blocks.
    struct Node : JackNodeInterface {
        bool connected() const override { return linked; }
        int32_t sampleRate() const override { return rate; }
        int32_t maxBlockFrames() const override { return 512; }
        bool linked = true;
        int32_t rate = 44100;
    } node;
    engine_->setAudioEffect(&node);
    engine_->audioEffectDidGetAudioData(AudioBlock{512, block.data()});
    push(block); // the device's block: dropped
    drain();
    EXPECT_EQ(engine_->framesWriteCount(), 1024);
    EXPECT_EQ(defaults_->actualInterval(), 2);

    // At another rate, or unconnected, the device is analysed, not the node.
    for (bool otherRate : {true, false}) {
        node.rate = otherRate ? 48000 : 44100;
        node.linked = otherRate;
        engine_->audioEffectDidGetAudioData(AudioBlock{512, block.data()});
        push(block);
        drain();
    }
    EXPECT_EQ(engine_->framesWriteCount(), 2048);

    // Not recording, the node's blocks are counted and not written: the
    // document may be rebuilt at any moment then.
    node.linked = true;
    engine_->stopRecorder();
    const int64_t packets = engine_->packetsCount();
    engine_->audioEffectDidGetAudioData(AudioBlock{512, block.data()});
    drain();
    EXPECT_EQ(engine_->packetsCount(), packets + 1);
    EXPECT_EQ(engine_->framesWriteCount(), 2048);
    engine_->setAudioEffect(nullptr);
}

// --- Too-slow detection ----------------------------------------------------------------

class TooSlowTest : public EngineFixture {
protected:
    int64_t maxLag() const {
        const float seconds =
            static_cast<float>(static_cast<double>(n()) / defaults_->sampleRate());
        return static_cast<int64_t>(0.7 / static_cast<double>(seconds));
    }

    /// Pushes more than `maxLag` intervals while queue 1 is held up.
    void lagBehind(std::mt19937& random) {
        std::promise<void> gate;
        std::shared_future<void> open = gate.get_future().share();
        engine_->analyzerQueue1().async([open] { open.wait(); });
        pushIntervals(maxLag() + 3, random);
        gate.set_value();
        drain();
    }
};

// With the spectrogram, a lag behind a recording older than the limit stops
// the engine and warns once (the message after the stop, processing going on);
// a lag right after the start, or without the spectrogram, is no fault.
TEST_F(TooSlowTest, spectrogramProduct_lagStopsEngineAndWarnsOnce_notRightAfterStartOrOtherwise) {
    for (const auto& [spectrogram, warmedUp] :
         {std::pair{true, false}, {false, true}, {true, true}}) { // the stand-ins count on
        SCOPED_TRACE(testing::Message() << spectrogram << warmedUp);
        build(Options{.features = spectrogram ? AnalyzerFeatures::studioProduct()
                                              : AnalyzerFeatures::spectrumProduct()});
        startRecording();
        std::mt19937 random(8);
        if (warmedUp) { // more than maxLag intervals in step: the recording is old enough
            pushIntervals(maxLag() + 2, random);
            drain();
            EXPECT_FALSE(engine_->tooSlow());
        }
        lagBehind(random);
        const bool reported = spectrogram && warmedUp;
        EXPECT_EQ(engine_->tooSlow(), reported);
        runEventsUntil([this] { return mainScreen_.stopsWithoutBlock == 1; }, reported ? 5000 : 20);
        EXPECT_EQ(mainScreen_.stopsWithoutBlock, reported ? 1 : 0);
        EXPECT_TRUE(messages_.shown.empty()); // the message follows the stop
        if (!reported) {
            engine_->stopRecorder();
            continue;
        }
        ASSERT_TRUE(mainScreen_.pendingBlock);
        mainScreen_.pendingBlock();
        ASSERT_EQ(messages_.shown.size(), 1u);
        EXPECT_EQ(messages_.shown[0].message,
                  QString::fromLatin1(AnalyzerController::kTooSlowMessage));
        EXPECT_EQ(messages_.shown[0].button, QStringLiteral("OK"));
        EXPECT_EQ(defaults_->actualInterval() * n(), engine_->framesWriteCount());
        lagBehind(random); // a second lag in the same recording stays silent
        runEventsFor(20);
        EXPECT_EQ(mainScreen_.stopsWithoutBlock, 1);
        engine_->stopRecorder();
    }
}

// --- Display timer -------------------------------------------------------------------------

class DisplayTest : public EngineFixture {
protected:
    void recordIntervals(int64_t count) {
        std::mt19937 random(11);
        pushIntervals(count, random);
        drain();
    }
    /// The interval whose slot the chart was given last.
    int64_t lastShown() const {
        const float* data = chart_.shownData.back();
        for (int64_t i = 0; i < FFTManager::kSlotsCount; ++i) {
            if (slot(i).second == data)
                return i;
        }
        return -1;
    }
};

TEST_F(DisplayTest, noSpectrogram_showsNewestComputedInterval) {
    build();
    startRecording();
    // Nothing analysed yet: the newest index is the one the recording starts at.
    engine_->displayChart();
    EXPECT_EQ(lastShown(), 0);
    recordIntervals(3);
    engine_->displayChart();
    ASSERT_EQ(chart_.shownData.size(), 2u);
    EXPECT_EQ(lastShown(), 2);
    EXPECT_EQ(chart_.shownWindows.back(), slot(2).first);
    EXPECT_EQ(chart_.shownEgg.back(), nullptr);

    engine_->stopRecorder();
    engine_->displayChart(); // not recording: nothing
    EXPECT_EQ(chart_.shownData.size(), 2u);
}

TEST_F(DisplayTest, followsScrolledIntervalWithinOneThirdOfWidth) {
    build(Options{.withSpectrogram = true});
    startRecording();
    const int64_t third = defaults_->spectrogramWidth() / 3;
    recordIntervals(third + 20);
    const int64_t newest = engine_->computedIntervalIndex();
    ASSERT_EQ(newest, third + 19);

    struct Case {
        int64_t scrolledTo;
        int64_t shown;
    };
    const Case cases[] = {
        {newest - (third - 1), newest - (third - 1)}, // just inside the range: followed
        {newest - third, newest},                     // one third behind: newest
        {newest, newest},
        {newest + 1, newest}, // ahead of the analysis: newest
        {0, newest},          // no segments: newest
        {1, newest},          // far behind
    };
    for (const Case& c : cases) {
        spectrogram_.scroll.rightEdgeInterval = c.scrolledTo;
        engine_->displayChart();
        EXPECT_EQ(lastShown(), c.shown) << "scrolled to " << c.scrolledTo;
    }
}

// --- Recording and playback control ----------------------------------------------------------

class ControlTest : public EngineFixture {};

// A failed start reports the failure and runs nothing; the next start resets
// the per-recording state, runs the charts and the timer (which really drives
// the chart), ignores a second start, and the stop undoes it all.
TEST_F(ControlTest, failedStartRunsNothing_startRunsChartsAndTimerFromTheDocument_stopUndoes) {
    build(Options{.withSpectrogram = true});
    audio_.startsSucceed = false;
    std::vector<bool> results;
    engine_->startRecorder([&](bool ok) { results.push_back(ok); });
    ASSERT_TRUE(runEventsUntil([&] { return results.size() == 1; }));
    EXPECT_FALSE(results[0]);
    EXPECT_FALSE(engine_->displayTimerActive());
    EXPECT_TRUE(spectrogram_.calls.empty());

    audio_.startsSucceed = true;
    defaults_->setActualInterval(40);
    std::vector<float> block(2 * 1024, 0.5f);
    push(block); // counted while not recording
    ASSERT_EQ(engine_->packetsCount(), 1);
    engine_->startRecorder([&](bool ok) { results.push_back(ok); });
    ASSERT_TRUE(runEventsUntil([&] { return results.size() == 2; }));
    EXPECT_TRUE(results[1]);
    EXPECT_EQ(engine_->computedIntervalIndex(), 40);
    EXPECT_EQ(engine_->packetsCount(), 0);
    EXPECT_TRUE(engine_->displayTimerActive());
    EXPECT_EQ(spectrogram_.calls, (std::vector<std::string>{"startScrolling", "running"}));
    EXPECT_EQ(chart_.calls.back(), "running");
    push(block);
    drain();
    chart_.shownData.clear();
    ASSERT_TRUE(runEventsUntil([&] { return !chart_.shownData.empty(); }));

    engine_->startRecorder([&](bool ok) { results.push_back(ok); });
    engine_->startPlayer([&](bool ok) { results.push_back(ok); });
    runEventsFor(20);
    EXPECT_EQ(results.size(), 2u);
    EXPECT_EQ(audio_.recorderStarts, 2);
    EXPECT_EQ(audio_.playerStarts, 0);

    engine_->stopRecorder();
    EXPECT_FALSE(engine_->displayTimerActive());
    EXPECT_FALSE(audio_.isRecording());
    EXPECT_EQ(spectrogram_.calls,
              (std::vector<std::string>{"startScrolling", "running", "pauseScrolling", "stopped",
                                        "redraw"}));
    EXPECT_EQ(chart_.calls.back(), "redraw");
    const size_t shown = chart_.shownData.size();
    runEventsFor(50);
    EXPECT_EQ(chart_.shownData.size(), shown);
}

class PlaybackTest : public EngineFixture {
protected:
    /// A document of `intervals` intervals whose sample k is k / 10000.
    void makeDocument(int64_t intervals) {
        std::vector<float>& store = defaults_->audioBuffersData();
        // Distinct values below the output limiter's ceiling (-2 dBFS), which
        // playback then passes unchanged.
        for (size_t k = 0; k < store.size(); ++k)
            store[k] = static_cast<float>(k % 7919) / 10000.0f;
        defaults_->setActualInterval(intervals);
    }

    void startPlaying() {
        bool done = false;
        engine_->startPlayer([&done](bool) { done = true; });
        ASSERT_TRUE(runEventsUntil([&done] { return done; }));
        ASSERT_TRUE(audio_.isPlaying());
    }
};

TEST_F(PlaybackTest, stopsOneBlockBeforeNewestSample) {
    build(Options{.withSpectrogram = true});
    makeDocument(4); // 2048 samples; the newest is sample 2047
    defaults_->setOutputGainValue(-6.0f);
    startPlaying();
    EXPECT_EQ(engine_->actualPlayedFrame(), 0);
    EXPECT_FLOAT_EQ(spectrogram_.scroll.playLine.load(), 3.0f); // (2048 - 0 - 1) / 512

    const float gain = gainOf(-6.0f);
    std::vector<float> out(512);
    for (int block = 0; block < 3; ++block) {
        AudioBlock data{512, out.data()};
        engine_->giveNewAudioData(&data);
        for (size_t k = 0; k < out.size(); ++k) {
            ASSERT_EQ(out[k],
                      gain * (static_cast<float>(block * 512 + static_cast<int>(k)) / 10000.0f))
                << "block " << block << " sample " << k;
        }
    }
    EXPECT_EQ(engine_->actualPlayedFrame(), 1536);
    EXPECT_FLOAT_EQ(spectrogram_.scroll.playLine.load(), 1.0f); // 1023 / 512 before the third

    // 511 samples remain, no more than a block of 511: the block is left alone
    // and playback stops through the main thread, once however often it is asked.
    std::fill(out.begin(), out.end(), 7.0f);
    for (int repeat = 0; repeat < 3; ++repeat) {
        AudioBlock data{511, out.data()};
        engine_->giveNewAudioData(&data);
    }
    EXPECT_EQ(engine_->actualPlayedFrame(), 1536);
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float v) { return v == 7.0f; }));
    EXPECT_EQ(delegate_.playerStops, 0); // posted, not run inline
    ASSERT_TRUE(runEventsUntil([this] { return delegate_.playerStops > 0; }));
    runEventsFor(20);
    EXPECT_EQ(delegate_.playerStops, 1);
    EXPECT_FALSE(audio_.isPlaying());
    EXPECT_EQ(spectrogram_.scroll.chartRecomputes, 1);
    EXPECT_EQ(spectrogram_.scroll.panningStopRamps, 1);
    EXPECT_EQ(spectrogram_.scroll.measureScrollTypes.back(), 2);
    EXPECT_EQ(spectrogram_.scroll.positionSets, 1);
    EXPECT_GE(spectrogram_.redraws.load(), 6);
}

TEST_F(PlaybackTest, readsAcrossRingEnd) {
    build();
    const int64_t c = defaults_->audioBuffersIntervalsCount();
    makeDocument(c + 8); // the newest intervals sit at the ring's start
    const int64_t width = defaults_->spectrogramWidth();
    startPlaying();
    const int64_t first = (c + 8 - width) * n();
    EXPECT_EQ(engine_->actualPlayedFrame(), first);
    // Play up to 100 samples before the ring's end, then a block that crosses it.
    const int64_t toEnd = capacity() - first % capacity();
    std::vector<float> out(static_cast<size_t>(toEnd - 100));
    AudioBlock data{static_cast<int32_t>(out.size()), out.data()};
    engine_->giveNewAudioData(&data);
    std::vector<float> crossing(300);
    AudioBlock cross{300, crossing.data()};
    engine_->giveNewAudioData(&cross);
    const std::vector<float>& store = defaults_->audioBuffersData();
    EXPECT_TRUE(std::equal(crossing.begin(), crossing.begin() + 100, store.end() - 100));
    EXPECT_TRUE(std::equal(crossing.begin() + 100, crossing.end(), store.begin()));
}

// Measuring off: the oldest interval on screen, 0 for a short document. On:
// the interval under the cursor; the cursor at the newest interval switches
// measuring off on both charts. Without the spectrogram: the oldest interval
// of the last screen's width.
TEST_F(PlaybackTest, firstIntervalToPlay_followsCursorOrScreen) {
    build(Options{.withSpectrogram = true});
    ASSERT_EQ(defaults_->spectrogramWidth(), 172);
    auto& scroll = spectrogram_.scroll;
    const struct {
        int64_t intervals;
        bool measuring;
        int64_t cursor, first;
        bool measuringAfter;
    } cases[] = {{100, false, 0, 0, false},
                 {300, false, 0, 128, false},
                 {300, true, 250, 250, true},
                 {300, true, 300, 128, false},
                 {300, true, -5, 0, true}};
    for (const auto& c : cases) {
        defaults_->setActualInterval(c.intervals);
        scroll.measuring = chart_.scroll.measuring = c.measuring;
        scroll.cursorInterval = c.cursor;
        EXPECT_EQ(engine_->player().firstIntervalToPlay(), c.first) << c.cursor;
        EXPECT_EQ(scroll.measuring, c.measuringAfter) << c.cursor;
        EXPECT_EQ(chart_.scroll.measuring, c.measuringAfter) << c.cursor;
        EXPECT_EQ(scroll.measureScrollTypes.back(), 1);
    }

    build();
    defaults_->setActualInterval(100);
    EXPECT_EQ(engine_->player().firstIntervalToPlay(), 0);
    defaults_->setActualInterval(defaults_->spectrogramWidth() + 7);
    EXPECT_EQ(engine_->player().firstIntervalToPlay(), 7);
}

// --- Document: rebuild and recalculation ---------------------------------------------------------

class DocumentTest : public EngineFixture {
protected:
    /// An engine, first rebuilt on a store restored from the last session with
    /// `actualInterval` recorded intervals: the whole store counting from 1, or
    /// ten samples of 3. Returns the restored samples.
    std::vector<float> buildOnRestoredStore(bool wholeStore, int64_t actualInterval) {
        std::vector<float> restored;
        build(Options{.restore = [&](AnalyzerDefaults& d) {
            d.recalculateDocumentSettings();
            restored.assign(wholeStore ? storeSize() : 10, 3.0f);
            if (wholeStore)
                std::iota(restored.begin(), restored.end(), 1.0f);
            d.audioBuffersData() = restored;
            d.setActualInterval(actualInterval);
        }});
        return restored;
    }
    size_t storeSize() const { return static_cast<size_t>(defaults_->audioBufferByteSize() / 4); }
};

TEST_F(DocumentTest, firstRebuildKeepsRestoredStore_secondClearsIt_emptyHistoryStartsFresh) {
    const std::vector<float> restored = buildOnRestoredStore(true, 57);
    EXPECT_EQ(defaults_->audioBuffersData(), restored);
    EXPECT_EQ(defaults_->actualInterval(), 0);
    EXPECT_EQ(engine_->framesWriteCount(), 0);
    EXPECT_EQ(chart_.scroll.zoomOuts, 1);
    EXPECT_EQ(std::count(chart_.calls.begin(), chart_.calls.end(), "clearData"), 1);
    EXPECT_EQ(chart_.calls.back(), "prepareTextures");

    defaults_->setActualInterval(57);
    engine_->rebuildDataWithClear();
    ASSERT_EQ(defaults_->audioBuffersData().size(), storeSize());
    EXPECT_TRUE(std::all_of(defaults_->audioBuffersData().begin(),
                            defaults_->audioBuffersData().end(),
                            [](float v) { return v == 0.0f; }));
    EXPECT_EQ(defaults_->actualInterval(), 0);

    buildOnRestoredStore(false, 0); // a store, but nothing recorded: a fresh one
    EXPECT_EQ(defaults_->audioBuffersData().size(), storeSize());
    EXPECT_EQ(defaults_->audioBuffersData()[0], 0.0f);
}

TEST_F(DocumentTest, rebuild_followsNewGeometry_andSparesOctaveZoom) {
    build(Options{.withSpectrogram = true});
    EXPECT_EQ(spectrogram_.scroll.partner, &chart_.scroll); // measuring cursors mirror
    EXPECT_EQ(chart_.scroll.partner, &spectrogram_.scroll);
    chart_.type = 2; // octave RTA keeps its zoom
    const int zoomOuts = chart_.scroll.zoomOuts;
    defaults_->setFftSize(16384);
    defaults_->setIntervalSizePower(2);
    engine_->rebuildDataWithClear();
    EXPECT_EQ(defaults_->intervalSizeInFrames(), 128);
    EXPECT_EQ(defaults_->audioBuffersData().size(),
              static_cast<size_t>(defaults_->audioBufferByteSize() / 4));
    EXPECT_EQ(chart_.scroll.zoomOuts, zoomOuts);
    EXPECT_GE(spectrogram_.scroll.zoomOuts, 2);
    // Without the spectrogram switch the spectrogram is neither prepared nor textured.
    EXPECT_EQ(std::count(spectrogram_.calls.begin(), spectrogram_.calls.end(), "prepareData"), 0);
    EXPECT_EQ(std::count(spectrogram_.calls.begin(), spectrogram_.calls.end(), "prepareTextures"),
              0);
}

// With nothing recorded the finish block still comes later, not inline; with a
// document the last screen's intervals are recomputed in order.
TEST_F(DocumentTest, recalculate_nothingToDoCallsBlockLater_elseRecomputesLastScreenInOrder) {
    build(Options{.withSpectrogram = true});
    defaults_->setDataValid(false);
    int finished = 0;
    engine_->recalculateDataWithFinishBlock([&finished] { ++finished; });
    EXPECT_EQ(finished, 0);
    EXPECT_TRUE(defaults_->dataValid());
    ASSERT_TRUE(runEventsUntil([&finished] { return finished == 1; }));
    runEventsFor(10);
    EXPECT_EQ(finished, 1);

    const int64_t width = defaults_->spectrogramWidth();
    const int64_t end = width + 10;
    const std::vector<float> mono = test::noise(static_cast<size_t>(end * n()), 12);
    std::copy(mono.begin(), mono.end(), defaults_->audioBuffersData().begin());
    defaults_->setActualInterval(end);

    int64_t columnsAtFinish = -1;
    engine_->recalculateDataWithFinishBlock(
        [&] { columnsAtFinish = static_cast<int64_t>(spectrogram_.columns.size()); });
    ASSERT_TRUE(runEventsUntil([&] { return columnsAtFinish >= 0; }));
    EXPECT_EQ(columnsAtFinish, width);
    std::vector<int64_t> expected(static_cast<size_t>(width));
    std::iota(expected.begin(), expected.end(), int64_t{10});
    EXPECT_EQ(spectrogram_.columns, expected);
    EXPECT_EQ(engine_->framesWriteCount(), end * n());
    EXPECT_EQ(spectrogram_.calls.front(), "clearData");

    for (int64_t i : {end - 1, end - 100})
        expectSlotHolds(mono, i);
}

} // namespace
} // namespace widmo
