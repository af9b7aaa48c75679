#pragma once

#include "dsp/OutputLimiter.h"
#include "dsp/Transposer.h"
#include "engine/AudioBlock.h"

#include <QObject>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

namespace widmo {

class AnalyzerDefaults;
class AudioSessionInterface;
class ChartViewInterface;
class SpectrogramScrollViewInterface;
class SpectrogramViewInterface;

/// Playback of the document: from the interval under the spectrogram's
/// measuring cursor (or the oldest one on screen) to the newest, optionally
/// through a transposer that plays it 2^`realTimeTransposeOctavesDown` times
/// lower at its own pace (`playbackTranspType` 2) or heterodyned to the tuned
/// band (3), then at the listening level through the output limiter. The
/// play line on the spectrogram follows.
///
/// Threading: `start`, `stop` and `firstIntervalToPlay` on the main thread;
/// `render` on the audio object's real-time playback thread. `render` reads
/// the store and the atomic played-frame count; it does not lock or allocate,
/// except that it posts once to the main thread when the document runs out.
/// The transposer is set up by `start` before the first block and only fed
/// and drained by `render` afterwards.
class DocumentPlayer final {
public:
    /// `ranOut` runs on the main thread after playback stopped by itself at
    /// the document's end. `defaults` and `audio` must outlive the player.
    DocumentPlayer(AnalyzerDefaults& defaults, AudioSessionInterface& audio,
                   std::function<void()> ranOut);
    ~DocumentPlayer();
    DocumentPlayer(const DocumentPlayer&) = delete;
    DocumentPlayer& operator=(const DocumentPlayer&) = delete;

    /// The views whose play line and running state follow playback; either may be null.
    void setViews(ChartViewInterface* chartView, SpectrogramViewInterface* spectrogramView);

    /// Plays the document from `firstIntervalToPlay` unless recording or
    /// playing (then the completion is not called).
    void start(std::function<void(bool)> completion);
    /// Stops playback (only while playing).
    void stop();
    /// The interval where playback starts: the one under the spectrogram's
    /// measuring cursor, or with measuring off the oldest one on screen.
    int64_t firstIntervalToPlay();
    /// Fills `data->count` mono samples from the store, or, when fewer
    /// samples than the block remain before the newest one, leaves the block
    /// as it is and stops playback through the main thread (once). With
    /// `playbackTranspType` 2 or 3 the block is then replaced by the
    /// transposer's output; last the level and the limiter. Real-time thread.
    void render(AudioBlock* data);
    /// The document frame playback has reached. Any thread.
    int64_t playedFrame() const { return playedFrame_.load(std::memory_order_acquire); }

private:
    /// The transposer's filter, factor and rate from the settings of now.
    void setTransposerParameters();
    SpectrogramScrollViewInterface* spectrogramScrollView() const;

    AnalyzerDefaults& defaults_;
    AudioSessionInterface& audio_;
    std::function<void()> ranOut_;
    ChartViewInterface* chartView_ = nullptr;
    SpectrogramViewInterface* spectrogramView_ = nullptr;
    /// Transposed playback (`featureTranspositionEnabled`); null otherwise.
    std::unique_ptr<Transposer> transposer_;
    OutputLimiter limiter_; ///< render thread, prepared by `start`
    std::atomic<int64_t> playedFrame_{0};
    // Set when playback ran out, so the render thread posts the stop only once.
    std::atomic<bool> stopPosted_{false};
    // Context of posted main-thread work: destroyed with the player, which
    // drops a stop still waiting in the event loop.
    QObject mainContext_;
};

} // namespace widmo
