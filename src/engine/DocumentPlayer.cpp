#include "engine/DocumentPlayer.h"

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "engine/AudioSessionInterface.h"
#include "engine/ChartViewInterface.h"
#include "engine/MainQueue.h"
#include "engine/SpectrogramScrollViewInterface.h"
#include "engine/SpectrogramViewInterface.h"

#include <QtGlobal>

#include <algorithm>
#include <cmath>
#include <utility>

namespace widmo {

DocumentPlayer::DocumentPlayer(AnalyzerDefaults& defaults, AudioSessionInterface& audio,
                               std::function<void()> ranOut)
    : defaults_(defaults), audio_(audio), ranOut_(std::move(ranOut)) {
    if (defaults_.features().featureTranspositionEnabled())
        transposer_ = std::make_unique<Transposer>();
}

DocumentPlayer::~DocumentPlayer() = default;

void DocumentPlayer::setViews(ChartViewInterface* chartView,
                              SpectrogramViewInterface* spectrogramView) {
    chartView_ = chartView;
    spectrogramView_ = spectrogramView;
}

SpectrogramScrollViewInterface* DocumentPlayer::spectrogramScrollView() const {
    return spectrogramView_ != nullptr ? spectrogramView_->spectrogramScrollView() : nullptr;
}

int64_t DocumentPlayer::firstIntervalToPlay() {
    const int64_t current = defaults_.actualInterval();
    SpectrogramScrollViewInterface* scroll = spectrogramScrollView();
    int64_t p = 0;
    bool measuring = false;
    if (scroll != nullptr) {
        scroll->setMeasureScrollType(1);
        p = scroll->getIntervalIndexForSpectrogramActualPosition();
        if (p == current) {
            // The cursor stands at the newest interval: play the whole screen.
            scroll->setMeasuringActivated(false);
            if (chartView_ != nullptr) {
                if (ScrollViewInterface* chartScroll = chartView_->chartScrollView())
                    chartScroll->setMeasuringActivated(false);
            }
        }
        measuring = scroll->measuringActivated();
    }
    if (!measuring) {
        const int64_t width = defaults_.spectrogramWidth();
        if (current < width)
            return 0;
        p = current - width;
    }
    return std::max<int64_t>(p, 0);
}

void DocumentPlayer::start(std::function<void(bool)> completion) {
    Q_ASSERT(MainQueue::isMainThread());
    if (audio_.isRecording() || audio_.isPlaying())
        return;
    if (transposer_ != nullptr) {
        // Before the first block is played; the render thread only feeds and
        // drains it.
        transposer_->setupTransposition();
        setTransposerParameters();
    }
    limiter_.prepare(static_cast<int32_t>(defaults_.sampleRate()));
    const int64_t n = defaults_.intervalSizeInFrames();
    const int64_t first = firstIntervalToPlay();
    playedFrame_.store(first * n, std::memory_order_release);
    stopPosted_.store(false, std::memory_order_release);
    if (SpectrogramScrollViewInterface* scroll = spectrogramScrollView()) {
        const int64_t behind = (defaults_.actualInterval() * n - first * n - 1) / n;
        scroll->setPlayLinePosition(static_cast<float>(behind));
    }
    if (chartView_ != nullptr)
        chartView_->setAnalyzerRunning(true);
    audio_.startPlayer([completion = std::move(completion)](bool success) {
        if (completion)
            completion(success);
    });
}

void DocumentPlayer::setTransposerParameters() {
    const int32_t octaves = std::clamp(defaults_.realTimeTransposeOctavesDown(), 0, 6);
    transposer_->setFilter20kHzOn(defaults_.realTimeTranspFilterBelow20kHz(), int32_t{1} << octaves,
                                  static_cast<int32_t>(defaults_.sampleRate()));
    transposer_->setMode(defaults_.playbackTranspType() == 3 ? Transposer::Mode::Heterodyne
                                                             : Transposer::Mode::Transpose);
    transposer_->heterodyne().setTuning(defaults_.heterodyneTuningHz());
    transposer_->heterodyne().setBandwidth(defaults_.heterodyneBandHz());
}

void DocumentPlayer::stop() {
    Q_ASSERT(MainQueue::isMainThread());
    if (!audio_.isPlaying())
        return;
    audio_.stop();
    if (chartView_ != nullptr)
        chartView_->setAnalyzerRunning(false);
    if (SpectrogramScrollViewInterface* scroll = spectrogramScrollView()) {
        scroll->computeFFTInDelegateChart();
        scroll->setNeedsPanningStopRamp();
        scroll->setMeasureScrollType(2);
        scroll->setMeasuringActualPosition(scroll->measuringActualPosition());
    }
}

void DocumentPlayer::render(AudioBlock* data) {
    if (data == nullptr || !defaults_.dataValid())
        return;
    const int64_t n = defaults_.intervalSizeInFrames();
    const int64_t played = playedFrame_.load(std::memory_order_acquire);
    const int64_t remaining = defaults_.actualInterval() * n - played - 1;
    const std::vector<float>& store = defaults_.audioBuffersData();
    const int64_t capacity = static_cast<int64_t>(defaults_.audioBuffersIntervalsCount()) * n;
    const bool storeReady = capacity > 0 && static_cast<int64_t>(store.size()) >= capacity;
    if (storeReady && remaining > data->count) {
        if (SpectrogramScrollViewInterface* scroll = spectrogramScrollView())
            scroll->setPlayLinePosition(static_cast<float>(remaining / n));
        const auto level = static_cast<float>(
            std::pow(10.0, static_cast<double>(defaults_.outputGainValue()) / 20.0));
        int64_t position = played % capacity;
        int64_t left = data->count;
        float* out = data->data;
        while (left > 0) {
            const int64_t chunk = std::min(left, capacity - position);
            const float* src = store.data() + position;
            std::copy(src, src + chunk, out);
            out += chunk;
            left -= chunk;
            position = 0;
        }
        // Transposed or heterodyne playback: the block goes through the
        // transposer and is replaced by its output (silent for the first
        // frame and block).
        const int32_t type = defaults_.playbackTranspType();
        if (transposer_ != nullptr && (type == 2 || type == 3)) {
            transposer_->addNewData(data->data, data->count);
            setTransposerParameters();
            transposer_->getTransposedData(data->data, data->count);
        }
        limiter_.process(data->data, data->count, level);
        playedFrame_.store(played + data->count, std::memory_order_release);
    } else if (!stopPosted_.exchange(true, std::memory_order_acq_rel)) {
        // The render thread keeps calling until the main thread has stopped the
        // audio object; one request is enough.
        MainQueue::async(
            [this] {
                stop();
                if (ranOut_)
                    ranOut_();
            },
            &mainContext_);
    }
    if (spectrogramView_ != nullptr)
        spectrogramView_->setNeedsDisplay();
}

} // namespace widmo
