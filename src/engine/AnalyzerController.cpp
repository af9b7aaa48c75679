#include "engine/AnalyzerController.h"

#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"
#include "engine/AnalyzerControllerDelegate.h"
#include "engine/AudioSessionInterface.h"
#include "engine/ChartViewInterface.h"
#include "engine/JackNodeInterface.h"
#include "engine/LastSessionSaver.h"
#include "engine/MainQueue.h"
#include "engine/MainScreenInterface.h"
#include "engine/MessageInterface.h"
#include "engine/SpectrogramScrollViewInterface.h"
#include "engine/SpectrogramViewInterface.h"

#include <QDir>
#include <QPointer>
#include <QStandardPaths>
#include <QtGlobal>

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <thread>
#include <utility>

namespace widmo {

const char* const AnalyzerController::kTooSlowMessage =
    "Your device is too slow for current settings. Real-time analysis is not possible. Try to "
    "change the settings. Choose a smaller window size, a larger FFT calculations interval, or a "
    "smaller spectrogram size, etc.";
const char* const AnalyzerController::kTestFileName = "rta-audio_v5.aif";

namespace {

constexpr const char* kQueue1Label = "org.widmo.analyzer.myAnalyzerQueue1";
constexpr const char* kQueue2Label = "org.widmo.analyzer.myAnalyzerQueue2";

/// dst[k] = gain * src[stride * k]: one channel out of an interleaved block.
void scaleWithStride(const float* src, int32_t stride, float gain, float* dst, int32_t count) {
    for (int32_t k = 0; k < count; ++k) {
        dst[k] = gain * src[static_cast<int64_t>(stride) * k];
    }
}

/// Copies `count` samples into the ring `ring` (length `capacity`) starting at
/// ring position `position`, wrapping to the ring's start.
void writeToRing(float* ring, int64_t capacity, int64_t position, const float* src, int64_t count) {
    while (count > 0) {
        const int64_t n = std::min(count, capacity - position);
        std::copy_n(src, n, ring + position);
        src += n;
        count -= n;
        position = 0;
    }
}

float decibelsToFactor(float decibels) {
    return static_cast<float>(std::pow(10.0, static_cast<double>(decibels) / 20.0));
}

bool isSlotOf(int64_t reading, int64_t writing) {
    return reading >= 0 &&
           FFTManager::slotOfInterval(reading) == FFTManager::slotOfInterval(writing);
}

// The slot writer's state: interval j being written is 2j + 1, finished 2j.
int64_t slotWriteBusy(int64_t interval) { return 2 * interval + 1; }
int64_t slotWriteDone(int64_t interval) { return 2 * interval; }

} // namespace

void AnalyzerController::ProcessingTask::run() { owner_.processIntervals(); }

AnalyzerController::AnalyzerController(AnalyzerDefaults& defaults, FFTManager& fftManager,
                                       AudioSessionInterface& audio)
    : defaults_(defaults), fftManager_(fftManager), audio_(audio),
      mAnalyzerQueue1(std::make_unique<DispatchQueue>(kQueue1Label)),
      mAnalyzerQueue2(std::make_unique<DispatchQueue>(kQueue2Label)),
      player_(defaults, audio, [this] {
          if (delegate_ != nullptr)
              delegate_->playerDidStop();
      }) {
    audio_.setDelegate(this);
    mAudioData = AudioBlock{};
    mEggData = AudioBlock{};
    // Sized for the largest block now, so that the intake never allocates.
    createMDataBufferIfNeededWithSize(kScratchFrames);
    mAnalyzerQueue1Counter.store(0, std::memory_order_release);
    mAnalyzerQueue2Counter.store(0, std::memory_order_release);
}

AnalyzerController::~AnalyzerController() {
    timer_.invalidate();
    if (audio_.isRecording() || audio_.isPlaying()) {
        audio_.stop();
    }
    if (audio_.delegate() == this) {
        audio_.setDelegate(nullptr);
    }
    // The queues' destructors run what is still queued; the processing task and
    // the recalculation tasks refer to this object, so they go first.
    mAnalyzerQueue1.reset();
    mAnalyzerQueue2.reset();
    closeTestFile();
}

void AnalyzerController::setChartViews(ChartViewInterface* chartView,
                                       SpectrogramViewInterface* spectrogramView) {
    chartView_ = chartView;
    spectrogramView_ = spectrogramView;
    player_.setViews(chartView, spectrogramView);
    SpectrogramScrollViewInterface* spectrogramScroll = spectrogramScrollView();
    ScrollViewInterface* chartScroll = chartScrollView();
    if (spectrogramScroll != nullptr && chartScroll != nullptr) {
        spectrogramScroll->setScrollViewDelegate(chartScroll);
        chartScroll->setScrollViewDelegate(spectrogramScroll);
    }
}

SpectrogramScrollViewInterface* AnalyzerController::spectrogramScrollView() const {
    return spectrogramView_ != nullptr ? spectrogramView_->spectrogramScrollView() : nullptr;
}

ScrollViewInterface* AnalyzerController::chartScrollView() const {
    return chartView_ != nullptr ? chartView_->chartScrollView() : nullptr;
}

int64_t AnalyzerController::intervalSize() const { return defaults_.intervalSizeInFrames(); }

// --- Intake ------------------------------------------------------------------------------

void AnalyzerController::didGetNewAudioData(AudioBlock data) {
    if (!defaults_.dataValid()) {
        return;
    }
    const int64_t packets = mPacketsCount.fetch_add(1, std::memory_order_acq_rel) + 1;
    // A recording that waits for the trigger drops its first blocks (the input's
    // start-up); without the trigger nothing is skipped. While the JACK node is
    // connected, its blocks are analysed instead of the device's.
    const bool withTrig = workingWithTrig_.load(std::memory_order_acquire);
    const int64_t skip = withTrig ? trigStartupSkip() : 0;
    if (!audio_.isRecording() || packets <= skip || audioEffectFeeds() ||
        mIntakeBusy.exchange(true, std::memory_order_acquire)) {
        return;
    }
    intakeBlock(data);
    mIntakeBusy.store(false, std::memory_order_release);
}

void AnalyzerController::intakeBlock(AudioBlock data) {
    const bool withTrig = workingWithTrig_.load(std::memory_order_acquire);
    if (withTrig && !trigIsStarted_.load(std::memory_order_seq_cst)) {
        didGetNewAudioDataWithTrig(data);
        return;
    }
    if (withTrig && trigAutomaticStop_.load(std::memory_order_relaxed)) {
        // The document ends at exactly the spectrogram's width: the block that
        // reaches it is cut, and the next one finds no room and stops.
        const int64_t n = intervalSize();
        const int64_t room = int64_t{defaults_.spectrogramWidth()} * n -
                             mFramesWriteCount.load(std::memory_order_relaxed);
        const int64_t count = std::min<int64_t>(room, data.count);
        if (count >= 1) {
            didGetNewAudioDataStandard(static_cast<int32_t>(count), data.data, false);
        } else {
            mDocumentFull.store(true, std::memory_order_release);
        }
        return;
    }
    didGetNewAudioDataStandard(data.count, data.data, false);
}

int64_t AnalyzerController::trigStartupSkip() const {
    if (defaults_.features().featureUltrasonicEnabled() && !defaults_.cpu64bit()) {
        return 50;
    }
    return static_cast<int64_t>(defaults_.sampleRate() * 7.0f / 44100.0f);
}

void AnalyzerController::didGetNewAudioDataWithTrig(AudioBlock data) {
    const int32_t channel = audio_.currentInputChannel() == 1 ? 1 : 0;
    const float gain = decibelsToFactor(defaults_.softwareInputGainValue());
    if (!trigger_.addBlock(data.data, data.count, channel, gain)) {
        return;
    }
    // Fired. From the next block on the intake writes into the document; first
    // the pre-trigger audio enters it, interval by interval, in order.
    const int64_t first = defaults_.actualInterval();
    trigIsStarted_.store(true, std::memory_order_seq_cst);
    const int64_t replayed = trigger_.preTriggerChunks([this](const float* samples, int32_t count) {
        didGetNewAudioDataStandard(count, samples, true);
    });
    // The chart skips the replayed intervals and shows the live ones.
    mShowChartInTrigAfterInterval.store(first + replayed - 1, std::memory_order_release);
}

bool AnalyzerController::audioEffectFeeds() const {
    const JackNodeInterface* effect = audioEffect_.load(std::memory_order_acquire);
    // The document's rate changes only while nothing records, so the intake may
    // read it; a node at another rate would show every frequency shifted.
    return effect != nullptr && effect->connected() &&
           effect->sampleRate() == static_cast<int32_t>(std::lround(defaults_.sampleRate()));
}

void AnalyzerController::audioEffectDidGetAudioData(AudioBlock data) {
    if (!defaults_.dataValid()) {
        return;
    }
    mPacketsCount.fetch_add(1, std::memory_order_acq_rel);
    // The node runs whether or not the analyser does; the store is written only
    // while recording, when the document cannot be rebuilt under the intake.
    if (audio_.isRecording() && audioEffectFeeds() &&
        !mIntakeBusy.exchange(true, std::memory_order_acquire)) {
        intakeBlock(data);
        mIntakeBusy.store(false, std::memory_order_release);
    }
}

void AnalyzerController::captureStopped(int64_t lostAtMs, CaptureGaps::Cause cause) {
    Q_ASSERT(MainQueue::isMainThread());
    // Behind the intervals captured before the loss.
    mAnalyzerQueue1->async(
        [this, lostAtMs, cause] { levelMonitor_.captureStopped(lostAtMs, cause); });
}

void AnalyzerController::didMissAudio(int64_t frames, int64_t lostAtMs, CaptureGaps::Cause cause) {
    const bool withTrig = workingWithTrig_.load(std::memory_order_acquire);
    // Nothing enters the document while the trigger waits or the node feeds it.
    if (frames <= 0 || !defaults_.dataValid() || !audio_.isRecording() || audioEffectFeeds() ||
        (withTrig && !trigIsStarted_.load(std::memory_order_seq_cst)) ||
        mIntakeBusy.exchange(true, std::memory_order_acquire)) {
        return;
    }
    std::vector<float>& store = defaults_.audioBuffersData();
    const int64_t n = intervalSize();
    const int64_t capacity = static_cast<int64_t>(defaults_.audioBuffersIntervalsCount()) * n;
    const int64_t written = mFramesWriteCount.load(std::memory_order_relaxed);
    if (withTrig && trigAutomaticStop_.load(std::memory_order_relaxed)) {
        frames = std::min<int64_t>(frames, int64_t{defaults_.spectrogramWidth()} * n - written);
    }
    if (capacity > 0 && static_cast<int64_t>(store.size()) >= capacity && frames > 0) {
        // As in didGetNewAudioDataStandard: the analysis and the saver's reads
        // are ordered before these writes.
        const int64_t analysed = defaults_.actualInterval() * n;
        (void)mStoreCopyMark.load(std::memory_order_acquire);
        // The samples from the oldest window the analysis has yet to read up
        // to the loss stay; silence goes over the newest frames of the gap.
        const int64_t keep = written - std::max<int64_t>(0, analysed - defaults_.fftSize());
        const int64_t silent = std::clamp<int64_t>(capacity - keep, 0, frames);
        std::fill_n(mAudioData.data, mAudioData.count, 0.0f);
        std::vector<float>& eggStore = defaults_.eggBuffersData();
        const bool egg = static_cast<int64_t>(eggStore.size()) >= capacity;
        for (int64_t done = 0; done < silent;) {
            const int64_t count = std::min<int64_t>(silent - done, mAudioData.count);
            const int64_t position = (written + frames - silent + done) % capacity;
            writeToRing(store.data(), capacity, position, mAudioData.data, count);
            if (egg) {
                writeToRing(eggStore.data(), capacity, position, mAudioData.data, count);
            }
            done += count;
        }
        // The gap is known before its frames are published.
        defaults_.captureGaps().add({written, frames, lostAtMs, cause});
        mFramesWriteCount.store(written + frames, std::memory_order_release);
    }
    mIntakeBusy.store(false, std::memory_order_release);
}

void AnalyzerController::createMDataBufferIfNeededWithSize(int32_t count) {
    if (count > mAudioData.count) {
        // Free first, then a fresh zero-filled block: the old contents are scratch.
        std::vector<float>().swap(mAudioDataStorage);
        mAudioDataStorage.assign(static_cast<size_t>(count), 0.0f);
        mAudioData = AudioBlock{count, mAudioDataStorage.data()};
    }
    if (defaults_.features().featureVoiceEGG() && count > mEggData.count) {
        std::vector<float>().swap(mEggDataStorage);
        mEggDataStorage.assign(static_cast<size_t>(count), 0.0f);
        mEggData = AudioBlock{count, mEggDataStorage.data()};
    }
}

void AnalyzerController::didGetNewAudioDataStandard(int32_t count, const float* data,
                                                    bool fromTrig) {
    if (count <= 0 || data == nullptr) {
        return;
    }
    std::vector<float>& store = defaults_.audioBuffersData();
    const int64_t n = intervalSize();
    const int64_t capacity = static_cast<int64_t>(defaults_.audioBuffersIntervalsCount()) * n;
    if (capacity <= 0 || static_cast<int64_t>(store.size()) < capacity) {
        return; // no document prepared
    }
    createMDataBufferIfNeededWithSize(count);

    const bool egg = defaults_.features().featureVoiceEGG();
    if (!fromTrig) {
        const float gain = decibelsToFactor(defaults_.softwareInputGainValue());
        const int64_t channel = audio_.currentInputChannel() == 1 ? 1 : 0;
        scaleWithStride(data + channel, 2, gain, mAudioData.data, count);
        if (egg) {
            scaleWithStride(data + (1 - channel), 2, 1.0f, mEggData.data, count);
        }
    } else {
        std::copy_n(data, count, mAudioData.data);
        // The pre-trigger ring holds one channel only; the EGG block keeps its
        // previous contents, as the trigger's replay has no second channel.
    }

    // Pairs with the release store of actualInterval on queue 1: every window
    // the queue has finished reading is ordered before the writes below, which
    // may reuse its samples one ring lap later.
    (void)defaults_.actualInterval();
    (void)mStoreCopyMark.load(std::memory_order_acquire); // the same for the session saver

    const int64_t written = mFramesWriteCount.load(std::memory_order_relaxed);
    const int64_t position = written % capacity;
    writeToRing(store.data(), capacity, position, mAudioData.data, count);
    std::vector<float>& eggStore = defaults_.eggBuffersData();
    if (egg && static_cast<int64_t>(eggStore.size()) >= capacity) {
        writeToRing(eggStore.data(), capacity, position, mEggData.data, count);
    }
    if (sf_private_tag* file = mTestWavFileRef.load(std::memory_order_acquire)) {
        sf_write_float(file, mAudioData.data, count);
    }
    mFramesWriteCount.store(written + count, std::memory_order_release);

    // At most one processing task is queued; a block arriving while one is
    // pending only adds samples, which the running task picks up.
    int expected = 0;
    if (mAnalyzerQueue1Counter.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
        mAnalyzerQueue1->async(processingTask_);
    }
}

// --- Processing (queue 1) ----------------------------------------------------------------------

void AnalyzerController::processIntervals() {
    const int64_t n = intervalSize();
    const double intervalSeconds = static_cast<double>(
        static_cast<float>(static_cast<double>(n) / static_cast<double>(defaults_.sampleRate())));
    const int64_t maxLag = static_cast<int64_t>(0.7 / intervalSeconds);
    const bool spectrogramOn = defaults_.features().featureSpectrogramEnabled();

    for (;;) {
        int64_t interval = defaults_.actualInterval();
        int64_t written = mFramesWriteCount.load(std::memory_order_acquire);
        while (interval * n + n <= written) {
            // Only a product with a spectrogram tells the user; without one a
            // lagging engine falls behind silently, by design. A capture gap
            // arrives all at once and is no lag: the check waits until the
            // analysis has passed the newest one.
            const std::optional<CaptureGaps::Gap> gap = defaults_.captureGaps().newest();
            if (spectrogramOn && written / n - interval > maxLag &&
                !(gap && gap->endFrame() > interval * n) &&
                !mTooSlow.load(std::memory_order_acquire) &&
                interval - mStartIntervalMem.load(std::memory_order_acquire) > maxLag) {
                mTooSlow.store(true, std::memory_order_release);
                raiseTooSlow();
            }
            computeInterval(interval, true);
            mComputedIntervalIndex.store(interval, std::memory_order_release);
            ++interval;
            defaults_.setActualInterval(interval);
            written = mFramesWriteCount.load(std::memory_order_acquire);
        }
        mAnalyzerQueue1Counter.fetch_sub(1, std::memory_order_acq_rel);
        // A block that arrived between the last check and the release above saw
        // the task pending and did not submit one. Claim the flag again and go on
        // rather than leave its intervals until the next block.
        written = mFramesWriteCount.load(std::memory_order_acquire);
        if (interval * n + n > written) {
            return;
        }
        int expected = 0;
        if (!mAnalyzerQueue1Counter.compare_exchange_strong(expected, 1,
                                                            std::memory_order_acq_rel)) {
            return; // the intake submitted a new task, which will do it
        }
    }
}

void AnalyzerController::computeInterval(int64_t intervalIndex, bool live) {
    // Announce the slot, then wait while the display timer reads an interval
    // that shares it (only possible 256 intervals apart; it reads for a few
    // microseconds). See the Threading paragraph of the header.
    const int64_t n = intervalSize();
    // An interval whose middle lies in a capture gap holds no sound: it is
    // drawn as a gap, and the level meter's time moves on over it.
    if (const std::optional<CaptureGaps::Gap> gap =
            defaults_.captureGaps().gapAt(intervalIndex * n + n / 2)) {
        if (live) {
            levelMonitor_.skipGap(n, *gap);
        }
        if (spectrogramView_ != nullptr) {
            spectrogramView_->addFFTdata(nullptr, intervalIndex);
        }
        return;
    }
    mSlotWriteState.store(slotWriteBusy(intervalIndex), std::memory_order_seq_cst);
    while (isSlotOf(mChartReadIntervalIndex.load(std::memory_order_seq_cst), intervalIndex)) {
        std::this_thread::yield();
    }
    float* windowData = nullptr;
    float* dataOut = nullptr;
    fftManager_.computeFFTForInterval(intervalIndex, &windowData, &dataOut);
    if (dataOut != nullptr) {
        const int32_t bins = defaults_.fftOutSize();
        if (live) {
            const int64_t capacity = int64_t{defaults_.audioBuffersIntervalsCount()} * n;
            const std::vector<float>& store = defaults_.audioBuffersData();
            if (capacity > 0 && static_cast<int64_t>(store.size()) >= capacity) {
                levelMonitor_.measure(store.data() + (intervalIndex * n) % capacity, n, dataOut,
                                      bins);
            }
        }
        levelMonitor_.correctSpectrum(dataOut, bins);
    }
    if (spectrogramView_ != nullptr && dataOut != nullptr) {
        spectrogramView_->addFFTdata(dataOut, intervalIndex);
    }
    mSlotWriteState.store(slotWriteDone(intervalIndex), std::memory_order_seq_cst);
}

void AnalyzerController::raiseTooSlow() {
    MainQueue::async(
        [this] {
            auto showMessage = [messages = messages_] {
                if (messages != nullptr) {
                    messages->showMessage(QString::fromLatin1(kTooSlowMessage),
                                          QStringLiteral("OK"));
                }
            };
            if (mainScreen_ != nullptr) {
                mainScreen_->stopAnalyzerWithoutBlockButtonsAndRunBlock(showMessage);
            } else {
                stopRecorder();
                showMessage();
            }
        },
        &mainContext_);
}

// --- Display (main thread) -----------------------------------------------------------------

void AnalyzerController::displayChart() {
    Q_ASSERT(MainQueue::isMainThread());
    if (!audio_.isRecording()) {
        return;
    }
    followIntakeFlags();
    if (!audio_.isRecording()) {
        return; // the document became full and the recording stopped
    }
    const bool withTrig = workingWithTrig_.load(std::memory_order_acquire);
    if (withTrig) {
        // The trigger page may change these while the recording runs.
        trigAutomaticStop_.store(defaults_.trigAutomaticStop(), std::memory_order_relaxed);
        trigger_.refreshSettings();
    }
    if (withTrig && !trigIsStarted_.load(std::memory_order_seq_cst)) {
        // Waiting: the chart shows the trigger's newest measurement, unless
        // energy saving is on.
        if (defaults_.trigEnergySaveMode() == 0.0f &&
            mPacketsCount.load(std::memory_order_acquire) > trigStartupSkip()) {
            showTriggerMeasurement();
        }
        return;
    }
    const int64_t computed = mComputedIntervalIndex.load(std::memory_order_acquire);
    SpectrogramScrollViewInterface* scroll = spectrogramScrollView();
    const int64_t scrolledTo =
        scroll != nullptr ? scroll->getIntervalIndexForSpectrogramPosition(1.0f) : 0;
    const int64_t followRange = defaults_.spectrogramWidth() / 3;
    int64_t shown = -1;
    if (scrolledTo >= 1 && std::llabs(scrolledTo - computed) < followRange && computed >= 1 &&
        scrolledTo <= computed) {
        shown = scrolledTo; // the chart follows what the user scrolled to
    } else if (computed >= 0) {
        shown = computed;
    }
    // After the trigger fired, the replayed pre-trigger intervals are not shown.
    if (withTrig && shown <= mShowChartInTrigAfterInterval.load(std::memory_order_acquire)) {
        return;
    }
    if (shown >= 0) {
        showChartInterval(shown);
    }
    showSoundLevels();
}

void AnalyzerController::showSoundLevels() {
    if (chartView_ != nullptr && levelMonitor_.hasLevels()) {
        chartView_->showSoundLevels(levelMonitor_.levels());
    }
    if (levelMonitor_.logFailed() && !logFailureShown_) {
        logFailureShown_ = true;
        if (messages_ != nullptr) {
            messages_->showMessage(
                QStringLiteral("The level log %1 could not be written (is the disk full?). "
                               "The log has stopped; the recording goes on.")
                    .arg(levelMonitor_.logPath()),
                QStringLiteral("OK"));
        }
    }
}

void AnalyzerController::followIntakeFlags() {
    if (workingWithTrig_.load(std::memory_order_acquire) && !trigStartShown_ &&
        trigIsStarted_.load(std::memory_order_seq_cst)) {
        trigStartShown_ = true;
        if (spectrogramView_ != nullptr) {
            spectrogramView_->startScrolling();
            spectrogramView_->setAnalyzerRunning(true);
        }
        if (chartView_ != nullptr) {
            chartView_->setAnalyzerRunning(true);
        }
    }
    if (mDocumentFull.exchange(false, std::memory_order_acq_rel)) {
        defaults_.setReadOnly(true);
        defaults_.setTimeOfDocument(defaults_.spectrogramDuration());
        stopRecorder();
        if (delegate_ != nullptr) {
            delegate_->recorderDidStop();
        }
    }
}

void AnalyzerController::showTriggerMeasurement() {
    const int64_t index = trigger_.measurementCount();
    if (chartView_ == nullptr || index < 1) {
        return;
    }
    // Marks the slot before checking that the trigger still waits: once it has
    // fired, queue 1 may compute a document interval into the same slot, and
    // then waits for this mark to clear (see computeInterval).
    mChartReadIntervalIndex.store(index, std::memory_order_seq_cst);
    if (!trigIsStarted_.load(std::memory_order_seq_cst)) {
        float* windowData = nullptr;
        float* dataOut = nullptr;
        float* eggWindowData = nullptr;
        fftManager_.resultsForInterval(index, &windowData, &dataOut, &eggWindowData);
        if (dataOut != nullptr && windowData != nullptr) {
            chartView_->addFFTdata(dataOut, windowData, nullptr);
        }
    }
    mChartReadIntervalIndex.store(-1, std::memory_order_seq_cst);
}

void AnalyzerController::showChartInterval(int64_t intervalIndex) {
    if (chartView_ == nullptr) {
        return;
    }
    mChartReadIntervalIndex.store(intervalIndex, std::memory_order_seq_cst);
    const int64_t state = mSlotWriteState.load(std::memory_order_seq_cst);
    const int64_t writing = state >= 0 ? state / 2 : -1;
    const bool busy = state >= 0 && state % 2 == 1;
    // The slot is lost once an interval 256 or more later has started in it, and
    // busy while the interval itself is being computed.
    const bool overwritten = writing >= intervalIndex + FFTManager::kSlotsCount;
    const bool inProgress = busy && writing == intervalIndex;
    if (!overwritten && !inProgress) {
        float* windowData = nullptr;
        float* dataOut = nullptr;
        float* eggWindowData = nullptr;
        fftManager_.resultsForInterval(intervalIndex, &windowData, &dataOut, &eggWindowData);
        if (dataOut != nullptr && windowData != nullptr) {
            chartView_->addFFTdata(dataOut, windowData, eggWindowData);
        }
    }
    mChartReadIntervalIndex.store(-1, std::memory_order_seq_cst);
}

// --- Recording and playback (main thread) --------------------------------------------------------

void AnalyzerController::startRecorder(std::function<void(bool)> completion) {
    Q_ASSERT(MainQueue::isMainThread());
    if (audio_.isRecording() || audio_.isPlaying()) {
        return;
    }
    const int64_t current = defaults_.actualInterval();
    mPacketsCount.store(0, std::memory_order_release);
    mTooSlow.store(false, std::memory_order_release);
    mComputedIntervalIndex.store(current, std::memory_order_release);
    mStartIntervalMem.store(current, std::memory_order_release);
    const bool withTrig = defaults_.features().featureRecordTrig() && defaults_.trigOn();
    trigIsStarted_.store(false, std::memory_order_seq_cst);
    mDocumentFull.store(false, std::memory_order_release);
    mShowChartInTrigAfterInterval.store(-1, std::memory_order_release);
    trigStartShown_ = false;
    if (withTrig) {
        // The trigger's measurements use the FFT engine from the intake: queue 1
        // must have finished with it. The window table and the scratch blocks
        // are made here rather than on the intake.
        mAnalyzerQueue1->waitUntilEmpty();
        fftManager_.prepareWindow();
        createMDataBufferIfNeededWithSize(
            static_cast<int32_t>(std::max(intervalSize(), int64_t{4096})));
        trigger_.arm();
    }
    trigAutomaticStop_.store(defaults_.trigAutomaticStop(), std::memory_order_relaxed);
    workingWithTrig_.store(withTrig, std::memory_order_release);
    // The node's real-time thread must not allocate: its scratch blocks are
    // sized here, while no intake runs.
    if (const JackNodeInterface* effect = audioEffect_.load(std::memory_order_acquire)) {
        createMDataBufferIfNeededWithSize(effect->maxBlockFrames());
    }
    // The meter starts from zero; the queue may still be closing the last log.
    mAnalyzerQueue1->waitUntilEmpty();
    levelMonitor_.prepare();
    logFailureShown_ = false;
    if (!levelMonitor_.logError().isEmpty() && messages_ != nullptr) {
        messages_->showMessage(levelMonitor_.logError(), QStringLiteral("OK"));
    }
    audio_.startRecorder([this, completion = std::move(completion)](bool success) {
        if (success) {
            // With the trigger, the views start when it fires (followIntakeFlags).
            if (!workingWithTrig_.load(std::memory_order_acquire)) {
                if (spectrogramView_ != nullptr) {
                    spectrogramView_->startScrolling();
                    spectrogramView_->setAnalyzerRunning(true);
                }
                if (chartView_ != nullptr) {
                    chartView_->setAnalyzerRunning(true);
                }
            }
            timer_.start([this] { displayChart(); });
            if (saver_ != nullptr) {
                saver_->recordingStarted();
            }
        }
        if (completion) {
            completion(success);
        }
    });
}

void AnalyzerController::stopRecorder() {
    Q_ASSERT(MainQueue::isMainThread());
    if (!audio_.isRecording()) {
        return;
    }
    timer_.invalidate();
    audio_.stop();
    // Behind the recording's last intervals.
    mAnalyzerQueue1->async([this] { levelMonitor_.finish(); });
    if (saver_ != nullptr) {
        saver_->recordingStopped();
    }
    if (spectrogramView_ != nullptr) {
        spectrogramView_->pauseScrolling();
        spectrogramView_->setAnalyzerRunning(false);
    }
    if (chartView_ != nullptr) {
        chartView_->setAnalyzerRunning(false);
    }
    if (spectrogramView_ != nullptr) {
        spectrogramView_->setNeedsDisplayWithSubviews();
    }
    if (chartView_ != nullptr) {
        chartView_->setNeedsDisplayWithSubviews();
    }
}

void AnalyzerController::afterQueuedAnalysis(std::function<void()> block, QObject* context) {
    Q_ASSERT(MainQueue::isMainThread());
    // The queue is serial: this task runs after every earlier one has ended.
    QPointer<QObject> guard(context);
    mAnalyzerQueue1->async([block = std::move(block), guard]() mutable {
        MainQueue::async(
            [block = std::move(block), guard] {
                if (guard)
                    block();
            },
            nullptr);
    });
}

void AnalyzerController::startPlayer(std::function<void(bool)> completion) {
    player_.start(std::move(completion));
}

void AnalyzerController::stopPlayer() { player_.stop(); }

void AnalyzerController::giveNewAudioData(AudioBlock* data) { player_.render(data); }

// --- Document (main thread)
// ------------------------------------------------------------------------

void AnalyzerController::rebuildDataWithClear() {
    Q_ASSERT(MainQueue::isMainThread());
    defaults_.recalculateDocumentSettings();
    defaults_.generateAllIndexes();
    prepareData();
    prepareTextures();
}

void AnalyzerController::prepareData() {
    prepareAudioBuffersData();
    if (defaults_.features().featureSpectrogramEnabled() && spectrogramView_ != nullptr) {
        spectrogramView_->prepareData();
        spectrogramView_->clearData();
    }
    if (chartView_ != nullptr) {
        chartView_->clearData();
    }
    if (SpectrogramScrollViewInterface* scroll = spectrogramScrollView()) {
        scroll->zoomOut();
    }
    if (chartView_ != nullptr && chartView_->typeOfChart() != 2) {
        chartView_->chartScrollView()->zoomOut();
    }
}

void AnalyzerController::prepareAudioBuffersData() {
    // Queue 1 and the session saver read the store; what they have queued
    // finishes first.
    mAnalyzerQueue1->waitUntilEmpty();
    if (saver_ != nullptr) {
        saver_->waitUntilIdle();
    }
    storeGeneration_.fetch_add(1, std::memory_order_acq_rel);
    std::vector<float>& store = defaults_.audioBuffersData();
    if (!mFirstStorePreparationDone && !store.empty() && defaults_.actualInterval() != 0) {
        // A store restored from the last session: keep its samples. The caller
        // restores actualInterval afterwards and recalculates.
        mFramesWriteCount.store(0, std::memory_order_release);
        defaults_.setActualInterval(0);
        mFirstStorePreparationDone = true;
        return;
    }
    const size_t samples = static_cast<size_t>(std::max(defaults_.audioBufferByteSize(), 0)) / 4;
    // Release before allocating, so the old and the new store never coexist.
    std::vector<float>().swap(store);
    std::vector<float>().swap(defaults_.eggBuffersData());
    defaults_.captureGaps().clear();
    store.assign(samples, 0.0f);
    if (defaults_.features().featureVoiceEGG()) {
        defaults_.eggBuffersData().assign(samples, 0.0f);
    }
    mFramesWriteCount.store(0, std::memory_order_release);
    defaults_.setActualInterval(0);
    mFirstStorePreparationDone = true;
}

void AnalyzerController::prepareTextures() {
    if (defaults_.features().featureSpectrogramEnabled() && spectrogramView_ != nullptr) {
        spectrogramView_->prepareTextures();
    }
    if (defaults_.features().featureSecondChartEnabled() && chartView_ != nullptr) {
        chartView_->prepareTextures();
    }
}

void AnalyzerController::recalculateDataWithFinishBlock(std::function<void()> finishBlock) {
    Q_ASSERT(MainQueue::isMainThread());
    defaults_.setDataValid(true);
    const int64_t end = defaults_.actualInterval();
    mFramesWriteCount.store(end * intervalSize(), std::memory_order_release);
    storeGeneration_.fetch_add(1, std::memory_order_acq_rel);
    const int64_t width = defaults_.spectrogramWidth();
    const int64_t start = end >= width ? end - width : 0;
    if (spectrogramView_ != nullptr) {
        spectrogramView_->clearData();
    }
    if (chartView_ != nullptr) {
        chartView_->clearData();
    }
    defaults_.generateAllIndexes();
    mAnalyzerQueue1->waitUntilEmpty();
    levelMonitor_.prepareSpectrumCorrection();
    if (start >= end) {
        MainQueue::async(std::move(finishBlock), &mainContext_);
        return;
    }
    // One task per interval, in order; the last one reports.
    for (int64_t i = start; i < end - 1; ++i) {
        mAnalyzerQueue1->async([this, i] { computeInterval(i, false); });
    }
    mAnalyzerQueue1->async([this, last = end - 1, finishBlock = std::move(finishBlock)] {
        computeInterval(last, false);
        MainQueue::async(finishBlock, &mainContext_);
    });
}

int64_t AnalyzerController::copyStoreInto(std::vector<float>& mirror, int64_t from,
                                          int64_t maxFrames) {
    const std::vector<float>& store = defaults_.audioBuffersData();
    const auto capacity = static_cast<int64_t>(mirror.size());
    if (capacity == 0 || static_cast<int64_t>(store.size()) != capacity) {
        return -1;
    }
    const int64_t written = mFramesWriteCount.load(std::memory_order_acquire);
    int64_t at = std::max({from, written - std::min(maxFrames, capacity), int64_t{0}});
    while (at < written) {
        const int64_t position = at % capacity;
        const int64_t count = std::min(written - at, capacity - position);
        std::copy_n(store.data() + position, count, mirror.data() + position);
        at += count;
    }
    mStoreCopyMark.store(written, std::memory_order_release);
    return written;
}

bool AnalyzerController::openTestFile() {
    closeTestFile();
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    QDir().mkpath(folder);
    const QByteArray path = QDir(folder).filePath(QLatin1String(kTestFileName)).toLocal8Bit();
    SF_INFO info{};
    info.samplerate = static_cast<int>(defaults_.sampleRate());
    info.channels = 1;
    info.format = SF_FORMAT_AIFF | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.constData(), SFM_WRITE, &info);
    if (file == nullptr) {
        qWarning("error %d from %s", sf_error(nullptr), "sf_open");
        return false;
    }
    mTestWavFileRef.store(file, std::memory_order_release);
    return true;
}

void AnalyzerController::closeTestFile() {
    if (SNDFILE* file = mTestWavFileRef.exchange(nullptr, std::memory_order_acq_rel)) {
        const int status = sf_close(file);
        if (status != 0) {
            qWarning("error %d from %s", status, "sf_close");
        }
    }
}

} // namespace widmo
