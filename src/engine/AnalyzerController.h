#pragma once

#include "engine/AudioBlock.h"
#include "engine/AudioSessionDelegate.h"
#include "engine/DispatchQueue.h"
#include "engine/DisplayTimer.h"
#include "engine/DocumentPlayer.h"
#include "engine/JackNodeDelegate.h"
#include "engine/RecordingTrigger.h"
#include "engine/SoundLevelMonitor.h"

#include <QObject>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

struct sf_private_tag;

namespace widmo {

class AnalyzerControllerDelegate;
class AnalyzerDefaults;
class ChartViewInterface;
class FFTManager;
class LastSessionSaver;
class MainScreenInterface;
class SpectrogramScrollViewInterface;
class SpectrogramViewInterface;
class JackNodeInterface;
class AudioSessionInterface;
class ScrollViewInterface;
class MessageInterface;

/// The analysis engine between the audio input and the displays.
///
/// Captured blocks arrive through `didGetNewAudioData` (or the inter-app node's
/// `audioEffectDidGetAudioData`); the engine takes the selected input channel,
/// applies the software input gain and writes the samples into the document's
/// ring-shaped sample store. Every complete interval is then transformed by the
/// FFT engine on the serial analysis queue 1 and handed to the spectrogram; a
/// 60 Hz display timer on the main thread shows the newest analysed interval on
/// the second chart. The engine also starts and stops recording and playback,
/// prepares the sample store and recomputes the document from stored samples.
///
/// With the trigger armed (`trigOn`, products with `featureRecordTrig`), a
/// recording first skips trunc(sampleRate × 7 / 44100) blocks, then feeds the
/// `RecordingTrigger` until it fires; the pre-trigger audio then enters the
/// document interval by interval, and later blocks go straight in. With
/// `trigAutomaticStop` the document ends at exactly `spectrogramWidth`
/// intervals: the block that reaches it is cut, the recording stops, and the
/// document becomes read-only.
///
/// Threading: three contexts, no locks between them.
/// - Intake context: the audio object's serial delivery queue (or the inter-app
///   node's real-time thread) runs `didGetNewAudioData`, `audioEffectDidGetAudioData`
///   and `didGetNewAudioDataStandard`: it writes the ring, then publishes the write
///   count with a release store of `mFramesWriteCount`. While the node feeds the
///   engine the device's blocks are dropped; at the moment the source changes
///   both may arrive at once, and `mIntakeBusy` (taken with an exchange, never
///   waited for) drops the block that finds the other one writing. No lock, no
///   allocation (the scratch blocks hold `kScratchFrames` from the start and
///   grow only for a larger block, which the audio object never delivers; the
///   processing task is a member object submitted with the queue's
///   allocation-free `async(Task&)`).
/// - Analysis queue 1: the processing task and the recalculation tasks. It reads
///   only intervals that are complete (acquire load of `mFramesWriteCount`) and
///   publishes progress with release stores of `actualInterval` and
///   `mComputedIntervalIndex`. The intake reads `actualInterval` with acquire
///   before writing, so every window the queue has finished with is ordered
///   before the writes that reuse its samples; the ring's spare intervals keep
///   the two apart. `mAnalyzerQueue1Counter` is 1 while a task is queued or
///   running; both sides claim it with compare-and-swap, so at most one
///   processing task is ever queued.
/// - Main thread: everything else (the display timer, starts and stops, the
///   rebuild steps, delegate calls). Work for the main thread from the other
///   contexts is always posted, never run inline.
/// - Real-time playback thread: `giveNewAudioData` hands the block to the
///   `DocumentPlayer` (see its Threading).
/// The display timer reads a result slot of the FFT engine while queue 1 may
/// be computing 256 intervals ahead into the same slot: the main thread marks
/// the interval it reads (`mChartReadIntervalIndex`), queue 1 marks the one it
/// writes and when it is done (`mSlotWriteState`), both sequentially consistent; the reader
/// skips a slot being or already overwritten and the writer waits (briefly,
/// only in that case) until the reader has finished with its slot.
/// The trigger's firing and a full document are raised by the intake as
/// atomic flags (sequentially consistent for the firing, which the display
/// timer's reading of a trigger measurement pairs with); the display timer
/// acts on them on the main thread (scrolling starts, the recording stops),
/// so the intake never posts or allocates for them.
/// The intervals of a capture gap are not transformed: the spectrogram gets
/// a gap column for each, and the level meter skips them.
/// Settings and geometry change only while the engine is stopped.
class AnalyzerController final : public AudioSessionDelegate, public JackNodeDelegate {
public:
    /// The too-slow message (spectrogram products only).
    static const char* const kTooSlowMessage;
    /// Name of the test capture file in the documents folder.
    static const char* const kTestFileName;
    /// Frames the scratch blocks hold from construction: one capture buffer of
    /// the audio object, its largest block.
    static constexpr int32_t kScratchFrames = 32768;

    /// Registers the engine as `audio`'s delegate and creates the two analysis
    /// queues. `defaults`, `fftManager` and `audio` must outlive the engine.
    /// Main thread (the display timer lives on the constructing thread).
    AnalyzerController(AnalyzerDefaults& defaults, FFTManager& fftManager,
                       AudioSessionInterface& audio);
    /// Stops recording and playback, runs the queued analysis work to its end
    /// and unregisters from the audio object.
    ~AnalyzerController() override;
    AnalyzerController(const AnalyzerController&) = delete;
    AnalyzerController& operator=(const AnalyzerController&) = delete;

    // --- Collaborators (main thread, engine stopped) --------------------------------

    /// The chart views, owned by the widget tree that shows them. Either may be
    /// null (no second chart, no spectrogram). Makes the two scroll views each
    /// other's scroll delegate when both exist.
    void setChartViews(ChartViewInterface* chartView, SpectrogramViewInterface* spectrogramView);
    ChartViewInterface* chartView() const { return chartView_; }
    SpectrogramViewInterface* spectrogramView() const { return spectrogramView_; }
    void setDelegate(AnalyzerControllerDelegate* delegate) { delegate_ = delegate; }
    AnalyzerControllerDelegate* delegate() const { return delegate_; }
    /// The main screen and the alert helper, used for the too-slow message.
    void setMainScreen(MainScreenInterface* mainScreen) { mainScreen_ = mainScreen; }
    void setMessages(MessageInterface* messages) { messages_ = messages; }
    /// The last-session saver, told of every start and stop of a recording and
    /// waited for before the store is replaced; null for none.
    void setSessionSaver(LastSessionSaver* saver) { saver_ = saver; }
    /// The inter-app node, or null. While it is connected at the document's
    /// sample rate, a recording analyses the node's blocks instead of the
    /// device's. Must outlive the engine, or be reset to null first.
    void setAudioEffect(const JackNodeInterface* audioEffect) {
        audioEffect_.store(audioEffect, std::memory_order_release);
    }

    bool isBackground() const { return isBackground_; }
    void setIsBackground(bool background) { isBackground_ = background; }

    // --- Intake ---------------------------------------------------------------------

    /// One captured block (interleaved stereo). Dropped while the document is not
    /// valid or the audio object is not recording. Delivery queue.
    void didGetNewAudioData(AudioBlock data) override;
    /// One block from the inter-app node (interleaved stereo). Taken only while
    /// the document is valid, the audio object records and the node's rate is
    /// the document's. The node's real-time thread.
    void audioEffectDidGetAudioData(AudioBlock data) override;
    /// Writes `count` frames into the store and schedules processing. `data` is
    /// interleaved stereo, or with `fromTrig` mono samples already gained.
    /// Intake context; a count of 0 or less does nothing.
    void didGetNewAudioDataStandard(int32_t count, const float* data, bool fromTrig);
    /// Capture lost its input and waits for it (a recording that keeps
    /// going): the level log says when. Main thread.
    void captureStopped(int64_t lostAtMs, CaptureGaps::Cause cause) override;
    /// Capture resumes after `frames` missed frames: the document moves on by
    /// as many frames of silence, marked as a gap (`CaptureGaps`), so that
    /// what follows is at its true time. The newest frames of a gap longer
    /// than the store are written; frames the analysis still needs are not
    /// written over. Delivery queue.
    void didMissAudio(int64_t frames, int64_t lostAtMs, CaptureGaps::Cause cause) override;
    /// Grows the scratch blocks to hold `count` samples (zero-filled; only when
    /// `count` exceeds their size). Intake context.
    void createMDataBufferIfNeededWithSize(int32_t count);

    // --- Display ----------------------------------------------------------------------

    /// The display timer's action: shows the interval to display on the chart.
    /// Main thread; nothing happens unless the audio object is recording.
    void displayChart();

    // --- Recording and playback (main thread) -------------------------------------------

    /// Starts recording unless recording or playing (then the completion is not
    /// called). On success the spectrogram scrolls, both charts run and the
    /// display timer starts; the completion gets the audio object's outcome.
    void startRecorder(std::function<void(bool)> completion);
    /// Stops recording (only while recording).
    void stopRecorder();
    /// Runs `block` on the main thread once analysis queue 1 has finished
    /// every task queued before this call (a processing task of the intervals
    /// that arrived before a stop reads the geometry to its end). Dropped with
    /// `context`. Main thread.
    void afterQueuedAnalysis(std::function<void()> block, QObject* context);
    /// Plays the document (`DocumentPlayer::start`).
    void startPlayer(std::function<void(bool)> completion);
    /// Stops playback (only while playing).
    void stopPlayer();
    /// Playback source (`DocumentPlayer::render`). Real-time thread.
    void giveNewAudioData(AudioBlock* data) override;
    /// Playback of the document.
    DocumentPlayer& player() { return player_; }
    /// The sound level meter of the recording.
    SoundLevelMonitor& levelMonitor() { return levelMonitor_; }

    // --- Document (main thread, engine stopped) ---------------------------------------------

    /// New geometry, empty document: geometry, index tables, data, textures.
    void rebuildDataWithClear();
    /// Prepares the store and clears both charts.
    void prepareData();
    /// Prepares the sample store (waiting for any queued analysis first). The
    /// first call in the engine's life keeps a restored store (one that exists
    /// with actualInterval != 0) and only resets the counters; every other call
    /// replaces the store with a zero-filled one of `audioBufferByteSize` bytes.
    void prepareAudioBuffersData();
    /// The charts rebuild their textures for the current geometry.
    void prepareTextures();
    /// Recomputes the last `spectrogramWidth` intervals from the stored samples
    /// on queue 1, then runs `finishBlock` on the main thread (always posted,
    /// also when there is nothing to compute).
    void recalculateDataWithFinishBlock(std::function<void()> finishBlock);

    /// Opens "rta-audio_v5.aif" in the documents folder for writing (AIFF, mono
    /// 32-bit float at the sample rate); while open, the intake appends every
    /// gained block to it. False (and an "error %d from %s" log) on failure.
    /// Main thread, only while not recording.
    bool openTestFile();
    /// Closes the test file, if open. Main thread, only while not recording.
    void closeTestFile();

    /// Copies the store's samples from document frame `from` up to the newest
    /// written one (at most the newest `maxFrames`) into `mirror`, a ring of
    /// the store's length, at the same positions; returns the frames written
    /// so far, or -1 when the store is not `mirror`'s length. Any thread but
    /// the intake; `maxFrames` must leave the store's spare intervals (the
    /// intake writes only there meanwhile).
    int64_t copyStoreInto(std::vector<float>& mirror, int64_t from, int64_t maxFrames);
    /// Changes whenever the store's contents are replaced or recalculated,
    /// so that a copy made before no longer counts. Any thread.
    int64_t storeGeneration() const { return storeGeneration_.load(std::memory_order_acquire); }

    // --- State, for the main screen and tests -----------------------------------------

    int64_t framesWriteCount() const { return mFramesWriteCount.load(std::memory_order_acquire); }
    int64_t computedIntervalIndex() const {
        return mComputedIntervalIndex.load(std::memory_order_acquire);
    }
    int64_t packetsCount() const { return mPacketsCount.load(std::memory_order_acquire); }
    int64_t actualPlayedFrame() const { return player_.playedFrame(); }
    bool tooSlow() const { return mTooSlow.load(std::memory_order_acquire); }
    /// This recording waits for (or started with) the trigger.
    bool workingWithTrig() const { return workingWithTrig_.load(std::memory_order_acquire); }
    /// The trigger of this recording has fired.
    bool trigIsStarted() const { return trigIsStarted_.load(std::memory_order_seq_cst); }
    const RecordingTrigger& trigger() const { return trigger_; }
    /// Blocks dropped at the start of a recording that waits for the trigger.
    int64_t trigStartupSkip() const;
    bool displayTimerActive() const { return timer_.isActive(); }
    DispatchQueue& analyzerQueue1() { return *mAnalyzerQueue1; }
    DispatchQueue& analyzerQueue2() { return *mAnalyzerQueue2; }

private:
    /// The processing task: one object, resubmitted whenever the intake finds no
    /// task pending, so that submitting never allocates.
    class ProcessingTask final : public DispatchQueue::Task {
    public:
        explicit ProcessingTask(AnalyzerController& owner) : owner_(owner) {}
        void run() override;

    private:
        AnalyzerController& owner_;
    };

    void processIntervals();
    /// FFT of `intervalIndex` into its result slot, then the spectrogram column.
    /// Queue 1.
    /// `live`: a recorded interval seen for the first time, which the sound
    /// level meter measures; recalculations only correct the spectrum.
    void computeInterval(int64_t intervalIndex, bool live);
    void raiseTooSlow();
    /// Hands interval `intervalIndex`'s cached results to the chart. Main thread.
    void showChartInterval(int64_t intervalIndex);
    /// The sound level meter's figures on the chart's meter; a failed level
    /// log said once. Main thread (display timer).
    void showSoundLevels();
    /// The armed trigger's newest measurement on the chart. Main thread.
    void showTriggerMeasurement();
    /// One block into the document, through the trigger while it waits and
    /// cut at the spectrogram's width with automatic stop. Called by one
    /// intake at a time (`mIntakeBusy`): the device's or the node's.
    void intakeBlock(AudioBlock data);
    /// Intake of a block while the trigger waits; replays the pre-trigger
    /// audio when this block fires it. Intake context.
    void didGetNewAudioDataWithTrig(AudioBlock data);
    /// Acts on the intake's flags: the trigger fired, the document is full.
    /// Main thread (display timer).
    void followIntakeFlags();
    SpectrogramScrollViewInterface* spectrogramScrollView() const;
    ScrollViewInterface* chartScrollView() const;
    int64_t intervalSize() const;

    AnalyzerDefaults& defaults_;
    FFTManager& fftManager_;
    AudioSessionInterface& audio_;

    /// The node is connected at the document's rate. Intake context.
    bool audioEffectFeeds() const;

    // Fields in the engine's declaration order. The trigger's fields (pre-trigger
    // ring, its counters and chart buffers) belong beside these once the trigger
    // is built.
    std::atomic<int64_t> mFramesWriteCount{0};
    std::unique_ptr<DispatchQueue> mAnalyzerQueue1;
    std::unique_ptr<DispatchQueue> mAnalyzerQueue2; // created, deliberately given no work
    std::atomic<int64_t> mPacketsCount{0};
    bool mFirstStorePreparationDone = false;
    std::atomic<int64_t> mComputedIntervalIndex{0};
    std::atomic<int64_t> mStartIntervalMem{0};
    std::atomic<sf_private_tag*> mTestWavFileRef{nullptr};
    AudioBlock mAudioData;
    AudioBlock mEggData;
    std::vector<float> mAudioDataStorage;
    std::vector<float> mEggDataStorage;
    std::atomic<int> mAnalyzerQueue1Counter{0};
    std::atomic<int> mAnalyzerQueue2Counter{0};
    std::atomic<bool> mTooSlow{false};
    bool isBackground_ = false;
    ChartViewInterface* chartView_ = nullptr;
    SpectrogramViewInterface* spectrogramView_ = nullptr;
    AnalyzerControllerDelegate* delegate_ = nullptr;
    std::atomic<const JackNodeInterface*> audioEffect_{nullptr};
    DisplayTimer timer_;

    MainScreenInterface* mainScreen_ = nullptr;
    MessageInterface* messages_ = nullptr;
    ProcessingTask processingTask_{*this};
    // Result-slot hand-over between queue 1 and the display timer (see Threading).
    std::atomic<int64_t> mSlotWriteState{-1}; // 2j + 1 writing interval j, 2j done; -1 none
    std::atomic<int64_t> mChartReadIntervalIndex{-1};
    DocumentPlayer player_;
    SoundLevelMonitor levelMonitor_{defaults_};
    bool logFailureShown_ = false; // main thread: said once per recording
    // The recording trigger (see the class comment).
    RecordingTrigger trigger_{defaults_, fftManager_};
    std::atomic<bool> workingWithTrig_{false};
    std::atomic<bool> trigIsStarted_{false};
    std::atomic<bool> trigAutomaticStop_{false}; // copy of the setting, refreshed per tick
    bool trigStartShown_ = false;                // main thread: scrolling started after firing
    // The chart shows only intervals after this one once the trigger fired.
    std::atomic<int64_t> mShowChartInTrigAfterInterval{-1};
    // Set by the intake when the document reached the spectrogram's width.
    std::atomic<bool> mDocumentFull{false};
    LastSessionSaver* saver_ = nullptr;
    std::atomic<int64_t> storeGeneration_{0};
    // Released by `copyStoreInto` after reading, acquired by the intake before
    // writing: the reads are ordered before the writes that reuse the samples.
    std::atomic<int64_t> mStoreCopyMark{0};
    // An intake is writing the store (see Threading).
    std::atomic<bool> mIntakeBusy{false};
    // Context of posted main-thread work: destroyed with the engine, which drops
    // work still waiting in the event loop.
    QObject mainContext_;
};

} // namespace widmo
