#pragma once

#include "audio/TQAudio.h"
#include "core/AnalyzerDefaults.h"
#include "engine/AnalyzerControllerDelegate.h"
#include "engine/ChartViewInterface.h"
#include "engine/MainViewControllerInterface.h"
#include "engine/TQAudioDelegate.h"
#include "engine/TQGLScrollViewInterface.h"
#include "engine/TQMessageInterface.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

namespace widmo::test {

/// Records the blocks that reach the delegate (delivery queue) and serves
/// playback samples from `source` (audio thread).
class RecordingDelegate : public TQAudioDelegate {
public:
    explicit RecordingDelegate(TQAudio& audio) : audio_(audio) {}

    void didGetNewAudioData(TQAudioData data) override {
        std::lock_guard lock(mutex_);
        onQueue_ = onQueue_ && audio_.audioDispatchQueue().isCurrent();
        pointers_.push_back(data.data);
        counts_.push_back(data.count);
        samples_.insert(samples_.end(), data.data, data.data + size_t(data.count) * 2);
    }
    void giveNewAudioData(TQAudioData* data) override {
        for (int32_t i = 0; i < data->count; ++i)
            data->data[i] = source ? source(played_ + i) : 0.0f;
        played_ += data->count;
        renderCalls.fetch_add(1, std::memory_order_relaxed);
    }

    size_t blocks() const {
        std::lock_guard lock(mutex_);
        return counts_.size();
    }
    std::vector<float*> pointers() const {
        std::lock_guard lock(mutex_);
        return pointers_;
    }
    std::vector<float> samples() const {
        std::lock_guard lock(mutex_);
        return samples_;
    }
    bool allOnQueue() const {
        std::lock_guard lock(mutex_);
        return onQueue_;
    }

    std::function<float(int64_t)> source; ///< playback sample at frame index
    std::atomic<int> renderCalls{0};

private:
    TQAudio& audio_;
    mutable std::mutex mutex_;
    bool onQueue_ = true;
    std::vector<float*> pointers_;
    std::vector<int32_t> counts_;
    std::vector<float> samples_;
    int64_t played_ = 0;
};

/// The main screen as far as the audio object reaches it: stopping the
/// analyser stops the audio object, as the real one does through the engine.
class MainScreenRecorder : public MainViewControllerInterface {
public:
    explicit MainScreenRecorder(TQAudioInterface& audio) : audio_(audio) {}
    void stopAnalyzerWithoutBlockButtonsAndRunBlock(std::function<void()> block) override {
        ++stopsWithBlock;
        audio_.stop();
        if (block)
            block();
    }
    void stopAnalyzerWithRefreshButtonsEnable(bool enable) override {
        ++stopsWithRefresh;
        lastRefreshEnable = enable;
        audio_.stop();
    }
    int stopsWithBlock = 0;
    int stopsWithRefresh = 0;
    bool lastRefreshEnable = false;

private:
    TQAudioInterface& audio_;
};

class MessageRecorder : public TQMessageInterface {
public:
    void showMessage(const QString& message, const QString& button) override {
        titles << QString();
        messages << message;
        buttons << button;
    }
    void showMessage(const QString& message, const QString& title, const QString& cancelButton,
                     const QStringList&, std::function<void(int)>) override {
        titles << title;
        messages << message;
        buttons << cancelButton;
    }
    QStringList titles, messages, buttons;
};

class ScrollViewRecorder : public TQGLScrollViewInterface {
public:
    void zoomOut() override {}
    bool measuringActivated() const override { return false; }
    void setMeasuringActivated(bool) override {}
    void setScrollViewDelegate(TQGLScrollViewInterface*) override {}
};

/// Keeps a copy of the newest spectrum the engine shows.
class ChartRecorder : public ChartViewInterface {
public:
    explicit ChartRecorder(const AnalyzerDefaults& defaults) : defaults_(defaults) {}
    TQGLScrollViewInterface* chartScrollView() override { return &scroll_; }
    void addFFTdata(const float* fftData, const float*, const float*) override {
        newest.assign(fftData, fftData + defaults_.fftOutSize());
        ++updates;
    }
    int32_t typeOfChart() const override { return 0; }
    void setAnalyzerRunning(bool) override {}
    void setNeedsDisplayWithSubviews() override {}
    void clearData() override { newest.clear(); }
    void prepareTextures() override {}

    std::vector<float> newest;
    int updates = 0;

private:
    const AnalyzerDefaults& defaults_;
    ScrollViewRecorder scroll_;
};

class EngineOwnerRecorder : public AnalyzerControllerDelegate {
public:
    void recorderDidStop() override { ++recorderStops; }
    void playerDidStop() override { ++playerStops; }
    int recorderStops = 0;
    int playerStops = 0;
};

} // namespace widmo::test
