#pragma once

// Recording stand-ins for the engine's collaborators, shared by the engine and
// audio tests: each remembers what it was asked, and answers queries with
// values the test sets.

#include "dsp/SoundLevelMeter.h"
#include "engine/AnalyzerControllerDelegate.h"
#include "engine/AudioSessionInterface.h"
#include "engine/ChartViewInterface.h"
#include "engine/MainQueue.h"
#include "engine/MainScreenInterface.h"
#include "engine/MessageInterface.h"
#include "engine/SpectrogramScrollViewInterface.h"
#include "engine/SpectrogramViewInterface.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace widmo::test {

/// Runs the main event loop until `done` answers true or `timeoutMs` passed.
inline bool runEventsUntil(const std::function<bool()>& done, int timeoutMs = 5000) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

inline void runEventsFor(int ms) {
    runEventsUntil([] { return false; }, ms);
}

/// The audio object: starts succeed or fail as told; completions arrive later
/// on the main thread, as the real one delivers them.
class FakeAudio : public AudioSessionInterface {
public:
    void setDelegate(AudioSessionDelegate* delegate) override { delegate_ = delegate; }
    AudioSessionDelegate* delegate() const override { return delegate_; }
    bool isRecording() const override { return recording.load(std::memory_order_acquire); }
    bool isPlaying() const override { return playing.load(std::memory_order_acquire); }
    bool isSetupInProgress() const override { return false; }
    int64_t currentInputChannel() const override { return channel.load(std::memory_order_acquire); }
    void setCurrentInputChannel(int64_t c) override { channel.store(c, std::memory_order_release); }
    void startRecorder(std::function<void(bool)> completion) override {
        ++recorderStarts;
        complete(recording, std::move(completion));
    }
    void startPlayer(std::function<void(bool)> completion) override {
        ++playerStarts;
        complete(playing, std::move(completion));
    }
    void stop() override {
        recording.store(false, std::memory_order_release);
        playing.store(false, std::memory_order_release);
    }

    std::atomic<bool> recording{false};
    std::atomic<bool> playing{false};
    std::atomic<int64_t> channel{0};
    bool startsSucceed = true;
    int recorderStarts = 0;
    int playerStarts = 0;

private:
    void complete(std::atomic<bool>& state, std::function<void(bool)> completion) {
        MainQueue::async([&state, ok = startsSucceed, completion = std::move(completion)] {
            state.store(ok, std::memory_order_release);
            completion(ok);
        });
    }
    AudioSessionDelegate* delegate_ = nullptr;
};

/// A chart's scroll view: counts zoom-outs, keeps the measuring switch and partner.
template <class Interface> class FakeScrollViewOf : public Interface {
public:
    void zoomOut() override { ++zoomOuts; }
    bool measuringActivated() const override { return measuring; }
    void setMeasuringActivated(bool a) override { measuring = a; }
    void setScrollViewDelegate(ScrollViewInterface* p) override { partner = p; }

    int zoomOuts = 0;
    bool measuring = false;
    ScrollViewInterface* partner = nullptr;
};

using FakeScrollView = FakeScrollViewOf<ScrollViewInterface>;

class FakeSpectrogramScrollView : public FakeScrollViewOf<SpectrogramScrollViewInterface> {
public:
    int64_t getIntervalIndexForSpectrogramPosition(float) const override {
        return rightEdgeInterval.load(std::memory_order_acquire);
    }
    int64_t getIntervalIndexForSpectrogramActualPosition() const override { return cursorInterval; }
    void setMeasureScrollType(int32_t t) override { measureScrollTypes.push_back(t); }
    QPointF measuringActualPosition() const override { return position; }
    void setMeasuringActualPosition(QPointF p) override {
        position = p;
        ++positionSets;
    }
    void setPlayLinePosition(float v) override { playLine.store(v, std::memory_order_release); }
    void computeFFTInDelegateChart() override { ++chartRecomputes; }
    void setNeedsPanningStopRamp() override { ++panningStopRamps; }

    std::atomic<int64_t> rightEdgeInterval{0};
    int64_t cursorInterval = 0;
    std::vector<int32_t> measureScrollTypes;
    QPointF position{0.25, 0.5};
    int positionSets = 0;
    std::atomic<float> playLine{-1.0f};
    int chartRecomputes = 0;
    int panningStopRamps = 0;
};

/// The spectrogram: keeps the index of every column it receives (analysis queue).
class FakeSpectrogramView : public SpectrogramViewInterface {
public:
    SpectrogramScrollViewInterface* spectrogramScrollView() override { return &scroll; }
    void addFFTdata(const float*, int64_t intervalIndex) override {
        columns.push_back(intervalIndex);
    }
    void startScrolling() override { calls.emplace_back("startScrolling"); }
    void pauseScrolling() override { calls.emplace_back("pauseScrolling"); }
    void setAnalyzerRunning(bool r) override { calls.emplace_back(r ? "running" : "stopped"); }
    void setNeedsDisplay() override { redraws.fetch_add(1, std::memory_order_relaxed); }
    void setNeedsDisplayWithSubviews() override { calls.emplace_back("redraw"); }
    void prepareData() override { calls.emplace_back("prepareData"); }
    void clearData() override { calls.emplace_back("clearData"); }
    void prepareTextures() override { calls.emplace_back("prepareTextures"); }

    FakeSpectrogramScrollView scroll;
    std::vector<int64_t> columns; // written on the analysis queue; read after it drained
    std::vector<std::string> calls;
    std::atomic<int> redraws{0};
};

/// The second chart: remembers the pointers it was given; `onData` may copy them.
class FakeChartView : public ChartViewInterface {
public:
    ScrollViewInterface* chartScrollView() override { return &scroll; }
    void addFFTdata(const float* fftData, const float* fftWindowData,
                    const float* eggWindowData) override {
        shownData.push_back(fftData);
        shownWindows.push_back(fftWindowData);
        shownEgg.push_back(eggWindowData);
        if (onData)
            onData(fftData);
    }
    void showSoundLevels(const SoundLevels& l) override { soundLevels.push_back(l); }
    int32_t typeOfChart() const override { return type; }
    void setAnalyzerRunning(bool r) override { calls.emplace_back(r ? "running" : "stopped"); }
    void setNeedsDisplayWithSubviews() override { calls.emplace_back("redraw"); }
    void clearData() override { calls.emplace_back("clearData"); }
    void prepareTextures() override { calls.emplace_back("prepareTextures"); }

    FakeScrollView scroll;
    int32_t type = 0;
    std::vector<const float*> shownData;
    std::vector<const float*> shownWindows;
    std::vector<const float*> shownEgg;
    std::function<void(const float*)> onData;
    std::vector<std::string> calls;
    std::vector<SoundLevels> soundLevels;
};

class FakeMessages : public MessageInterface {
public:
    struct Shown {
        QString title, message, button;
    };
    void showMessage(const QString& message, const QString& button) override {
        shown.push_back({QString(), message, button});
    }
    void showMessage(const QString& message, const QString& title, const QString& cancelButton,
                     const QStringList&, std::function<void(int)>) override {
        shown.push_back({title, message, cancelButton});
    }
    std::vector<Shown> shown;
};

/// The main screen. Wired to an audio object it stops it and runs the block at
/// once, as the real one does through the engine; otherwise it keeps the block
/// for the test to run.
class FakeMainScreen : public MainScreenInterface {
public:
    explicit FakeMainScreen(AudioSessionInterface* audio = nullptr) : audio_(audio) {}
    void stopAnalyzerWithoutBlockButtonsAndRunBlock(std::function<void()> block) override {
        ++stopsWithoutBlock;
        pendingBlock = std::move(block);
        if (audio_) {
            audio_->stop();
            if (pendingBlock)
                std::exchange(pendingBlock, nullptr)();
        }
    }
    void stopAnalyzerWithRefreshButtonsEnable(bool enable) override {
        ++stopsWithRefresh;
        lastRefreshEnable = enable;
        if (audio_)
            audio_->stop();
    }
    int stopsWithoutBlock = 0;
    int stopsWithRefresh = 0;
    bool lastRefreshEnable = false;
    std::function<void()> pendingBlock;

private:
    AudioSessionInterface* audio_;
};

class FakeDelegate : public AnalyzerControllerDelegate {
public:
    void recorderDidStop() override { ++recorderStops; }
    void playerDidStop() override { ++playerStops; }
    int recorderStops = 0;
    int playerStops = 0;
};

} // namespace widmo::test
