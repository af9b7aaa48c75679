#pragma once

#include "charts/ChartFrameView.h"
#include "engine/SpectrogramViewInterface.h"
#include "render/ScrollObserver.h"

#include <QImage>
#include <QRect>
#include <QSize>

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace widmo {

class AnalyzerDefaults;
class LevelMeterView;
class SpectrogramScrollView;
class GLTexture;

/// The spectrogram as the main screen places it: the scrolling texture view
/// (`SpectrogramScrollView`) with a time axis below it (seconds back from the
/// newest column), a frequency axis beside it (linear in kHz or logarithmic in
/// Hz, following `linearFrequency`) and the level meter at its LEFT edge
/// (full screen); or the bare spectrogram filling the view (picture in
/// picture).
///
/// The engine hands it every analysed interval (`addFFTdata`, analysis queue);
/// the scroll view turns it into one texture column. The meter is fed from
/// outside through `levelMeterView()->setLevelDB`.
///
/// To show it: create it with the document's `AnalyzerDefaults`, hand it to
/// `AnalyzerController::setChartViews`; the engine calls `prepareData`,
/// `clearData` and `prepareTextures` whenever the geometry changes. For the
/// engine's `computeFFTInDelegateChart` (the second chart showing the interval
/// under the spectrogram's cursor) hand the chart to `scroll()->setDelegateChart`.
///
/// While heterodyne listening is on (`HeterodyneBand::isOn`), the tuned band
/// is shaded across the spectrogram with its frequency, and the mouse tunes
/// it: the wheel by 1 kHz a notch, with Shift by 100 Hz (Ctrl+wheel still
/// zooms both axes); Ctrl+click tunes to the frequency under the pointer. With
/// listening off the wheel and the click do what they always do.
///
/// Threading: main thread, except `addFFTdata` (analysis queue, in interval
/// order; it writes only the column being filled) and `setNeedsDisplay`
/// (any thread, also the real-time playback thread: it only stores an atomic
/// flag in the scroll view, whose main-thread poll turns it into frames while
/// a play line moves; while the analyser runs the spectrogram draws every
/// frame anyway).
class SpectrogramView : public ChartFrameView,
                        public SpectrogramViewInterface,
                        public ScrollObserver {
    Q_OBJECT
public:
    /// `defaults` must outlive the view; its product switches decide the meter.
    explicit SpectrogramView(AnalyzerDefaults& defaults, QWidget* parent = nullptr);
    ~SpectrogramView() override;

    SpectrogramScrollView* scroll() const { return scrollView_; }

    /// What is on screen (axes, spectrogram, meter) as one image, device
    /// pixels; a null image before the view has a size or without OpenGL.
    QImage imageOfChart();

    // SpectrogramViewInterface
    SpectrogramScrollViewInterface* spectrogramScrollView() override;
    /// One column of interval `intervalIndex` (`fftOutSize` power values;
    /// null: a capture gap).
    /// Analysis queue; does nothing without the spectrogram product switch.
    void addFFTdata(const float* fftData, int64_t intervalIndex) override;
    /// From the first column: segments placed from time 0; scrolling follows
    /// the newest column.
    void startScrolling() override;
    /// The view stops following; the user pans through what is stored.
    void pauseScrolling() override;
    void setAnalyzerRunning(bool running) override;
    /// Raises a flag only (any thread); see Threading.
    void setNeedsDisplay() override;
    void setNeedsDisplayWithSubviews() override;
    /// Creates `segmentCount` segments of `segmentSize` x `fftDisplaySize`
    /// (main thread; the engine is stopped).
    void prepareData() override;
    /// Forgets every column and uploads the cleared textures (main thread).
    void clearData() override;
    /// Rebuilds the axis label textures for the current geometry; before the
    /// GL context exists they are made when it does.
    void prepareTextures() override;

    /// Takes a tuning asked for with the mouse (Hz, not yet clamped); the
    /// owner stores it (`HeterodyneBand::setTuning`) and applies it to what
    /// plays. Without a handler the view stores it and redraws itself.
    void setTuningHandler(std::function<void(double hz)> handler) {
        tuningHandler_ = std::move(handler);
    }

    // ScrollObserver: the spectrogram's transform moved, the axes follow.
    void contentWasChanged() override;

protected:
    /// The spectrogram's wheel and Ctrl+click while heterodyne listening is on.
    bool eventFilter(QObject* watched, QEvent* event) override;
    void drawGLRect(const QRectF& rect) override;
    void setupGLResources() override;
    void releaseGLResources() override;

private:
    using TextureList = std::vector<std::shared_ptr<GLTexture>>;
    void makeTexturesNow() override;
    /// Spectrogram content point (through its transform) to unit space of this view.
    QPointF mapFromSpectrogram(QPointF content) const;
    void drawTimeLabels();
    void drawFrequencyLabels();
    /// Content heights of the frequency labels (and the grid's lines).
    std::vector<float> frequencyLabelHeights() const;

    void tuneTo(double hz);

    SpectrogramScrollView* scrollView_ = nullptr;
    std::function<void(double)> tuningHandler_;
    int wheelRemainder_ = 0;        // wheel units short of a whole notch (120 a notch)
    bool tuningClick_ = false;      // a Ctrl+click's press was taken; its release is too
    TextureList mTimeLabelTextures; // label k: k steps back from the newest column
    TextureList mFrequencyTextures; // at the heights of mFrequencyLabelHeights
    std::vector<float> mFrequencyLabelHeights;
    std::shared_ptr<GLTexture> mLegendTimeTexture;
    std::shared_ptr<GLTexture> mLegendFrequencyTexture;
};

} // namespace widmo
