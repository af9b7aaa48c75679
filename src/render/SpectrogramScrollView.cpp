#include "render/SpectrogramScrollView.h"

#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"
#include "dsp/MusicConverter.h"
#include "dsp/VectorHelpers.h"
#include "engine/ChartViewInterface.h"
#include "engine/MainQueue.h"
#include "render/DeviceClass.h"
#include "render/GLTexture.h"

#include <QLabel>
#include <QOpenGLFunctions>

#include <algorithm>
#include <cmath>
#include <thread>

namespace widmo {

namespace {

// The id of the thread that made the view (the main thread): comparing ids
// neither locks nor allocates, so the real-time thread may ask too.
std::thread::id& mainThreadId() {
    static std::thread::id id;
    return id;
}

constexpr int kPollMs = 16;
constexpr qint64 kPlayLineShownMs = 500;

double intervalSeconds(const AnalyzerDefaults& d) {
    return d.sampleRate() > 0.0f
               ? static_cast<double>(d.intervalSizeInFrames()) / static_cast<double>(d.sampleRate())
               : 0.0;
}

} // namespace

SpectrogramScrollView::SpectrogramScrollView(AnalyzerDefaults& defaults, QWidget* parent)
    : GLScrollView(parent), mDefaults(defaults) {
    mainThreadId() = std::this_thread::get_id();
    setColoredSpectrogram();
    setColorForSpectrogram();
    measuringPanel_ = new QLabel(this);
    measuringPanel_->setObjectName(QStringLiteral("spectrogramMeasuringPanel"));
    measuringPanel_->setStyleSheet(QStringLiteral(
        "#spectrogramMeasuringPanel { background: rgba(20, 20, 20, 200); color: white;"
        " border: 1px solid #555; padding: 3px 6px; }"));
    measuringPanel_->setFont(DeviceClass::systemFont(DeviceClass::isPad(this) ? 13.0 : 11.0, true));
    measuringPanel_->move(6, 6);
    measuringPanel_->hide();
    setMeasuringView(measuringPanel_);
    needsDisplayPoll_.setInterval(kPollMs);
    connect(&needsDisplayPoll_, &QTimer::timeout, this, &SpectrogramScrollView::pollNeedsDisplay);
}

SpectrogramScrollView::~SpectrogramScrollView() {
    // The segments delete their textures in the shared context; this view's
    // frame buffer is not needed for that.
    segmentsToWrite_.clear();
    segmentsToShow_.clear();
    currentToWrite_.store(nullptr, std::memory_order_release);
    segments_.clear();
    makeCurrent();
    bandLabel_.reset();
    doneCurrent();
}

void SpectrogramScrollView::releaseGLResources() { bandLabel_.reset(); }

// --- Colours ----------------------------------------------------------------------------------

void SpectrogramScrollView::setColorForSpectrogram() {
    switch (mDefaults.spectrogramColorType()) {
    case 0:
        setColoredSpectrogram();
        break;
    case 1:
        setBlackSpectrogram();
        break;
    case 2:
        setWhiteSpectrogram();
        break;
    default:
        break;
    }
}

void SpectrogramScrollView::setColoredSpectrogram() {
    SpectrogramColorRamp::forColorType(0, &ramp_);
    gridColor_ = {0.12f, 0.12f, 0.12f, 1.0f};
    measureLineColor_ = {1.0f, 1.0f, 1.0f, 1.0f};
}

void SpectrogramScrollView::setBlackSpectrogram() {
    SpectrogramColorRamp::forColorType(1, &ramp_);
    gridColor_ = {0.12f, 0.12f, 0.12f, 1.0f};
    measureLineColor_ = {1.0f, 1.0f, 1.0f, 1.0f};
}

void SpectrogramScrollView::setWhiteSpectrogram() {
    SpectrogramColorRamp::forColorType(2, &ramp_);
    gridColor_ = {0.9f, 0.9f, 1.0f, 1.0f};
    measureLineColor_ = {0.3f, 0.3f, 1.0f, 1.0f};
}

// --- Segments -----------------------------------------------------------------------------

void SpectrogramScrollView::prepareData() {
    Q_ASSERT(MainQueue::isMainThread());
    segmentsToWrite_.clear();
    segmentsToShow_.clear();
    currentToWrite_.store(nullptr, std::memory_order_release);
    segments_.clear();
    setColorForSpectrogram();
    const int32_t count = mDefaults.segmentCount();
    for (int32_t i = 0; i < count; ++i)
        addSegment();
    // The largest column either reduction gives: display rows or log points.
    columnScratch_.assign(static_cast<size_t>(std::max(mDefaults.fftDisplaySize(),
                                                       mDefaults.spectrogramLogIndexesCount())),
                          0.0f);
    segmentOffset_.store(0, std::memory_order_release);
    currentToWrite_.store(segmentsToWrite_.empty() ? nullptr : segmentsToWrite_.front(),
                          std::memory_order_release);
    setupStartPositions();
    setNeedsDisplay();
}

void SpectrogramScrollView::addSegment() {
    segments_.push_back(std::make_unique<SpectrogramScrollViewSegment>(mDefaults, ramp_));
    SpectrogramScrollViewSegment* segment = segments_.back().get();
    segmentsToShow_.push_front(segment);
    segmentsToWrite_.push_front(segment);
}

void SpectrogramScrollView::setupStartPositions() {
    const auto size = static_cast<float>(mDefaults.segmentSize());
    for (size_t i = 0; i < segmentsToShow_.size(); ++i)
        segmentsToShow_[i]->setPosition(static_cast<float>(i) * size);
}

void SpectrogramScrollView::clearData() {
    Q_ASSERT(MainQueue::isMainThread());
    setColorForSpectrogram();
    // The columns of the previous document must not be recomputed on top of
    // a half-rotated ring: both lists start again in the same order.
    segmentsToWrite_ = segmentsToShow_;
    for (SpectrogramScrollViewSegment* segment : segmentsToShow_) {
        segment->resetWrite();
        segment->clearData();
    }
    segmentOffset_.store(0, std::memory_order_release);
    currentToWrite_.store(segmentsToWrite_.empty() ? nullptr : segmentsToWrite_.front(),
                          std::memory_order_release);
    setupStartPositions();
    setNeedsDisplay();
}

// --- Columns (analysis queue) ---------------------------------------------------------------

void SpectrogramScrollView::addFFTdata(const float* fftData, int64_t intervalIndex) {
    if (!mDefaults.features().featureSpectrogramEnabled())
        return;
    SpectrogramScrollViewSegment* segment = currentToWrite_.load(std::memory_order_acquire);
    if (segment == nullptr || columnScratch_.empty())
        return;
    if (fftData == nullptr) {
        segment->addFFTdata(nullptr, intervalIndex); // a capture gap
        setCurrentSegmentToWrite();
        return;
    }
    const bool linear = mDefaults.linearFrequency();
    const float* reduced = linear ? mDefaults.interlaceToSpectrogramFFTData(fftData)
                                  : mDefaults.convertToLogarithmicScaleFFTData(fftData);
    const int32_t count =
        std::min(linear ? mDefaults.fftDisplaySize() : mDefaults.spectrogramLogIndexesCount() - 1,
                 static_cast<int32_t>(columnScratch_.size()));
    if (mDefaults.valuesInDB())
        VectorHelpers::powerToDecibels(reduced, kDecibelFloor, columnScratch_.data(), count);
    else
        VectorHelpers::powerToMagnitude(reduced, columnScratch_.data(), count);
    segment->addFFTdata(columnScratch_.data(), intervalIndex);
    setCurrentSegmentToWrite();
}

void SpectrogramScrollView::setCurrentSegmentToWrite() {
    SpectrogramScrollViewSegment* current = currentToWrite_.load(std::memory_order_acquire);
    if (current == nullptr || !current->isFullToWrite() || segmentsToWrite_.empty())
        return;
    segmentOffset_.fetch_add(1, std::memory_order_acq_rel);
    SpectrogramScrollViewSegment* oldest = segmentsToWrite_.back();
    segmentsToWrite_.pop_back();
    oldest->resetWrite();
    oldest->setPosition(current->position() + static_cast<float>(current->segmentSize()));
    segmentsToWrite_.push_front(oldest);
    currentToWrite_.store(oldest, std::memory_order_release);
}

// --- Scrolling ------------------------------------------------------------------------------

void SpectrogramScrollView::startScrolling() {
    Q_ASSERT(MainQueue::isMainThread());
    following_ = true;
    lastSeenInterval_ = -1;
    SpectrogramScrollViewSegment* current = currentToWrite();
    if (segmentOffset() == 0 && current != nullptr && current->writeIndex() == 0)
        setupStartPositions();
    setNeedsDisplay();
}

void SpectrogramScrollView::pauseScrolling() {
    Q_ASSERT(MainQueue::isMainThread());
    following_ = false;
    setNeedsDisplay();
}

void SpectrogramScrollView::setAnalyzerRunning(bool running) {
    analyzerRunning_ = running;
    setRefreshViewEveryFrame(running);
    setNeedsDisplay();
}

void SpectrogramScrollView::updateRightEdge() {
    const int64_t newest = mDefaults.actualInterval();
    if (!following_) {
        rightEdge_ = static_cast<double>(newest);
        lastSeenInterval_ = newest;
        return;
    }
    // The audio clock: the count of analysed intervals, and the time since it
    // last changed, in interval durations. The right edge slides from the
    // start of the newest column to its end over that time.
    if (newest != lastSeenInterval_) {
        lastSeenInterval_ = newest;
        intervalClock_.start();
    }
    const double seconds = intervalSeconds(mDefaults);
    double fraction = 1.0;
    if (seconds > 0.0 && intervalClock_.isValid())
        fraction =
            std::min(static_cast<double>(intervalClock_.nsecsElapsed()) / 1e9 / seconds, 1.0);
    rightEdge_ = std::max(0.0, static_cast<double>(newest) - 1.0 + fraction);
}

int64_t SpectrogramScrollView::intervalAtContentX(double x) const {
    const double width = std::max(1, mDefaults.spectrogramWidth());
    // Stopped, the right edge is the newest interval whether or not a frame
    // has been drawn since.
    const double right = following_ ? rightEdge_ : static_cast<double>(mDefaults.actualInterval());
    const auto v = static_cast<int64_t>(std::floor(right - width + x * width));
    return std::clamp<int64_t>(v, 0, std::max<int64_t>(0, mDefaults.actualInterval()));
}

int64_t SpectrogramScrollView::getIntervalIndexForSpectrogramPosition(float position) const {
    if (segmentsToShow_.empty())
        return 0;
    const QPointF content =
        actualContentTransform().inverted().map(QPointF(static_cast<double>(position), 0.0));
    return intervalAtContentX(std::clamp(content.x(), 0.0, 1.0));
}

int64_t SpectrogramScrollView::getIntervalIndexForSpectrogramActualPosition() const {
    if (segmentsToShow_.empty())
        return 0;
    return intervalAtContentX(std::clamp(measuringActualPosition().x(), 0.0, 1.0));
}

void SpectrogramScrollView::setPlayLinePosition(float intervalsBeforeNewest) {
    playLinePosition_.store(intervalsBeforeNewest, std::memory_order_release);
    playLineUpdates_.fetch_add(1, std::memory_order_acq_rel);
    needsDisplayFlag_.store(true, std::memory_order_release);
    // Playback starts on the main thread; from then the poll turns the
    // real-time thread's updates into frames.
    if (std::this_thread::get_id() == mainThreadId() && !needsDisplayPoll_.isActive())
        needsDisplayPoll_.start();
}

bool SpectrogramScrollView::playLineVisible() const {
    return playLineClock_.isValid() && playLineClock_.elapsed() < kPlayLineShownMs;
}

void SpectrogramScrollView::pollNeedsDisplay() {
    const uint32_t updates = playLineUpdates_.load(std::memory_order_acquire);
    if (updates != playLineUpdatesSeen_) {
        playLineUpdatesSeen_ = updates;
        playLineClock_.start();
    }
    if (needsDisplayFlag_.exchange(false, std::memory_order_acq_rel)) {
        setNeedsNewFrame();
    } else if (!playLineVisible()) {
        // Playback ended: one more frame without the line, then rest.
        needsDisplayPoll_.stop();
        setNeedsDisplay();
    }
}

// --- Measuring ------------------------------------------------------------------------------

void SpectrogramScrollView::setScrollViewDelegate(ScrollViewInterface* partner) {
    GLScrollView::setScrollViewDelegate(dynamic_cast<GLScrollView*>(partner));
}

const float* SpectrogramScrollView::recomputeSpectrum(int64_t intervalIndex, float** windowData) {
    const int64_t newest = mDefaults.actualInterval();
    const int64_t oldest = std::max<int64_t>(0, newest - mDefaults.spectrogramWidth());
    // The store is written while recording: only a stopped analyser is read.
    if (analyzerRunning_ || !mDefaults.dataValid() || intervalIndex < oldest ||
        intervalIndex >= newest || mDefaults.audioBuffersData().empty())
        return nullptr;
    if (!measureFFT_)
        measureFFT_ = std::make_unique<FFTManager>(mDefaults);
    float* out = nullptr;
    measureFFT_->computeFFTForInterval(intervalIndex, windowData, &out);
    return out;
}

SpectrogramScrollView::MeasureReading SpectrogramScrollView::measureAt(QPointF content) {
    MeasureReading m;
    const double x = std::clamp(content.x(), 0.0, 1.0);
    const double y = std::clamp(content.y(), 0.0, 1.0);
    const int64_t newest = mDefaults.actualInterval();
    const int32_t rows = std::max(1, mDefaults.fftDisplaySize());
    m.intervalIndex = std::min(intervalAtContentX(x), newest - 1);
    m.row = std::min(static_cast<int32_t>(y * rows), rows - 1);
    m.secondsBack = static_cast<double>(newest - 1 - m.intervalIndex) * intervalSeconds(mDefaults);
    if (mDefaults.linearFrequency())
        m.frequency = y * mDefaults.maxFrequency();
    else
        m.frequency = mDefaults.logStartFrequency() *
                      std::exp2(y * static_cast<double>(mDefaults.logIntervalDelta()));
    m.note = MusicConverter::convertToNote(m.frequency);
    m.valid = m.intervalIndex >= 0 && !segmentsToShow_.empty();
    if (!m.valid)
        return m;
    float* window = nullptr;
    const float* spectrum = recomputeSpectrum(m.intervalIndex, &window);
    if (spectrum == nullptr)
        return m;
    // The same reduction and scaling the column was drawn with, for one row.
    const bool linear = mDefaults.linearFrequency();
    const int32_t count = linear ? rows : mDefaults.spectrogramLogIndexesCount() - 1;
    if (count < 1)
        return m;
    measureColumn_.resize(static_cast<size_t>(std::max(count, rows)));
    if (linear)
        mDefaults.interlaceToSpectrogramFFTData(spectrum, measureColumn_.data());
    else
        mDefaults.convertToLogarithmicScaleFFTData(spectrum, measureColumn_.data());
    if (mDefaults.valuesInDB())
        VectorHelpers::powerToDecibels(measureColumn_.data(), kDecibelFloor, measureColumn_.data(),
                                       count);
    else
        VectorHelpers::powerToMagnitude(measureColumn_.data(), measureColumn_.data(), count);
    m.level = SpectrogramScrollViewSegment::valueAtRow(mDefaults, measureColumn_.data(), m.row);
    m.hasLevel = true;
    return m;
}

void SpectrogramScrollView::measuringActualPositionDidChanged() {
    if (measuredFrequencyObserver_)
        measuredFrequencyObserver_(measuredFrequency_);
    // Stopped, the chart beside shows the spectrum of the interval under the
    // cursor; while recording it shows the live input.
    if (!analyzerRunning_)
        computeFFTInDelegateChart();
}

QPointF SpectrogramScrollView::recalculateMeasuringActualPosition(QPointF position) {
    // The partner chart mirrors its own cursor (frequency and level) here
    // while the user drags it: those coordinates mean nothing on this view.
    if (const GLScrollView* partner = scrollViewDelegate();
        partner != nullptr &&
        (partner->model().isPanMeasuring() || partner->model().isLongPressMeasuring()))
        return measuringActualPosition();
    const QPointF p(std::clamp(position.x(), 0.0, 1.0), std::clamp(position.y(), 0.0, 1.0));
    const MeasureReading m = measureAt(p);
    measuredSecondsBack_ = m.secondsBack;
    measuredFrequency_ = m.frequency;
    if (!m.valid) {
        measuringText_ = QStringLiteral("No data");
    } else {
        QString level = QStringLiteral("-");
        if (m.hasLevel)
            level = mDefaults.valuesInDB() ? mDefaults.soundLevels().spectrumLevelText(m.level)
                                           : QString::asprintf("%.4f", m.level);
        measuringText_ = QString::asprintf("Time -%.3f s    Frequency %.1f Hz    Note ",
                                           m.secondsBack, m.frequency) +
                         m.note + QStringLiteral("    Level ") + level;
    }
    measuringPanel_->setText(measuringText_);
    measuringPanel_->adjustSize();
    return p;
}

double SpectrogramScrollView::getValueForKey(const QString& key) {
    if (key == QLatin1String("time"))
        return measuredSecondsBack_;
    return GLScrollView::getValueForKey(key);
}

void SpectrogramScrollView::computeFFTInDelegateChart() {
    if (delegateChart_ == nullptr || !measuringActivated())
        return;
    const int64_t interval =
        std::min(getIntervalIndexForSpectrogramActualPosition(), mDefaults.actualInterval() - 1);
    float* window = nullptr;
    const float* spectrum = recomputeSpectrum(interval, &window);
    if (spectrum != nullptr && window != nullptr)
        delegateChart_->addFFTdata(spectrum, window, nullptr);
}

// --- Drawing ---------------------------------------------------------------------------------

void SpectrogramScrollView::drawGLRect(const QRectF& /*rect*/) {
    GLPainter* e = effect();
    if (e == nullptr)
        return;
    updateRightEdge();
    const uint32_t updates = playLineUpdates_.load(std::memory_order_acquire);
    if (updates != playLineUpdatesSeen_) {
        playLineUpdatesSeen_ = updates;
        playLineClock_.start();
    }
    e->setProjection(GLPainter::unitSpaceProjection());
    const FrameKey key = frameKey();
    const double width = std::max(1, mDefaults.spectrogramWidth());
    double left = rightEdge_ - width;
    // In software the columns start on a whole pixel (less than a pixel from
    // where they would be), so that a frame slid by whole pixels is the
    // frame drawn whole.
    const double pixels = this->width() * devicePixelRatioF();
    if (e->isSoftware() && std::abs(key.transform.a) > 1e-12 && pixels > 0.0)
        left = -(static_cast<double>(key.edgePixel) / pixels - key.transform.tx) / key.transform.a *
               width;
    // In software, a frame whose columns only slid starts from the last one
    // moved by as many pixels; only the columns that came in, or were
    // uploaded, since are drawn.
    const std::optional<int> shift = e->isSoftware() ? scrollShift(key) : std::nullopt;
    if (shift) {
        e->copyShiftedFrom(shownFrame(), *shift);
        const int w = e->targetSize().width();
        const double uploaded =
            actualContentTransform()
                .map(QPointF((static_cast<double>(drawnUploadedEnd_) - left) / width, 0.0))
                .x() *
            pixels;
        // One column more: the last frame's edge column may round the other way.
        const int first =
            std::min(w + *shift, static_cast<int>(std::clamp(std::floor(uploaded), 0.0,
                                                             static_cast<double>(w)))) -
            1;
        // The tuned band's label stays put at the right edge while the
        // columns slide under it: its columns are drawn again whole.
        const int labelFirst =
            key.band && bandLabel_ ? w - static_cast<int>(bandLabel_->width()) - 12 : w;
        e->setClipColumns(std::min(first, labelFirst), w);
        ++scrolledFrames_;
    } else {
        scrolledFrames_ = 0;
    }
    const std::array<float, 4>& c0 = ramp_.levelColors[0];
    e->clearColor(c0[0], c0[1], c0[2], 1.0f);
    drawSegments(left, width);
    if (mDefaults.spectrogramGridOn())
        drawGrid(left, width);
    if (key.band)
        drawShadedBand(*key.band);
    if (playLineVisible() && !analyzerRunning_)
        drawPlayLine(left, width);
    if (measuringActivated())
        drawMeasureLines();
    e->resetClip();
    drawnKey_ = key;
    drawnRedrawRequests_ = redrawRequests();
    drawnUploadedEnd_ = uploadedEnd();
}

int64_t SpectrogramScrollView::uploadedEnd() const {
    int64_t end = 0;
    for (const SpectrogramScrollViewSegment* segment : segmentsToShow_) {
        const int64_t first = segment->firstIntervalIndex();
        if (first >= 0)
            end = std::max(end, first + segment->uploadedColumns());
    }
    return end;
}

std::optional<int> SpectrogramScrollView::scrollShift(const FrameKey& key) const {
    // Every so many frames the picture is drawn whole, so that a change no
    // request announced (a segment recoloured) does not stay on screen.
    static constexpr int kFramesFromTheLast = 30;
    FrameKey slid = key;
    slid.edgePixel = drawnKey_.edgePixel;
    const int64_t shift = key.edgePixel - drawnKey_.edgePixel;
    const QImage& shown = shownFrame();
    const int w = effect()->targetSize().width();
    if (!analyzerRunning_ || contentIsPanningOrZooming() || !(slid == drawnKey_) || key.measuring ||
        redrawRequests() != drawnRedrawRequests_ || scrolledFrames_ >= kFramesFromTheLast ||
        shown.size() != effect()->targetSize() || shift > 0 || -shift >= w / 2)
        return std::nullopt;
    // Content narrower than the view leaves border columns that must stay put.
    const AffineTransform& t = key.transform;
    if (t.map(QPointF(0.0, 0.0)).x() > 0.0 || t.map(QPointF(1.0, 1.0)).x() < 1.0)
        return std::nullopt;
    return static_cast<int>(shift);
}

SpectrogramScrollView::FrameKey SpectrogramScrollView::frameKey() const {
    FrameKey key;
    const double width = std::max(1, mDefaults.spectrogramWidth());
    key.transform = actualContentTransform();
    // Where interval 0 would be drawn, in device pixels: it moves whenever
    // every column does.
    const double x = key.transform.map(QPointF(-(rightEdge_ - width) / width, 0.0)).x();
    key.edgePixel = std::llround(x * this->width() * devicePixelRatioF());
    key.measuring = measuringActivated();
    key.measure = key.measuring ? measuringActualPosition() : QPointF();
    key.playLine = playLineUpdates_.load(std::memory_order_acquire);
    if (shadedBandSource_)
        key.band = shadedBandSource_();
    return key;
}

bool SpectrogramScrollView::frameWouldChange() {
    if (!analyzerRunning_ || contentIsPanningOrZooming())
        return true;
    updateRightEdge();
    return !(frameKey() == drawnKey_);
}

void SpectrogramScrollView::drawShadedBand(const ShadedBand& band) {
    GLPainter* e = effect();
    const AffineTransform& t = actualContentTransform();
    const QPointF low = t.map(QPointF(0.0, band.low));
    const QPointF high = t.map(QPointF(1.0, band.high));
    // Translucent, so that the calls inside the band stay visible; the edges
    // stronger, so that a narrow band on a logarithmic axis still shows.
    e->setBlending(true);
    e->prepareToDrawWithConstantColor(kBandColor[0], kBandColor[1], kBandColor[2], 0.25f);
    e->drawRectangle(low, high);
    e->prepareToDrawWithConstantColor(kBandColor[0], kBandColor[1], kBandColor[2], 0.8f);
    e->setLineWidth(1.0f);
    e->drawLine(low, QPointF(high.x(), low.y()));
    e->drawLine(QPointF(low.x(), high.y()), high);
    e->setBlending(false);
    if (band.label.isEmpty())
        return;
    if (!bandLabel_ || bandLabelText_ != band.label) {
        QFont font(QStringLiteral("Arial"));
        font.setPixelSize(DeviceClass::isPad(this) ? 15 : 12);
        bandLabel_ = e->convertToTextureText(
            band.label, font, QColor::fromRgbF(kBandColor[0], kBandColor[1], kBandColor[2]));
        bandLabelText_ = band.label;
    }
    // Above the band at the right edge; inside it when that would leave the view.
    const QSizeF frame(std::max(1, this->width()), std::max(1, this->height()));
    const double right = std::min(high.x(), 1.0) - 4.0 / frame.width();
    const double labelHeight =
        bandLabel_->height() / double(e->contentScaleFactor()) / frame.height();
    if (high.y() + 2.0 / frame.height() + labelHeight <= 1.0)
        e->drawTextTexture(bandLabel_.get(), QPointF(right, high.y() + 2.0 / frame.height()), 1.0f,
                           1, frame, QRectF());
    else
        e->drawTextTexture(bandLabel_.get(), QPointF(right, (std::max(low.y(), 0.0) + 1.0) / 2.0),
                           1.0f, 2, frame, QRectF());
}

void SpectrogramScrollView::drawSegments(double left, double width) {
    GLPainter* e = effect();
    const AffineTransform& t = actualContentTransform();
    const std::array<float, 4>& c0 = ramp_.levelColors[0];
    for (SpectrogramScrollViewSegment* segment : segmentsToShow_) {
        const int32_t columns = segment->uploadedColumns();
        const int64_t first = segment->firstIntervalIndex();
        if (columns <= 0 || first < 0)
            continue;
        const int32_t size = segment->segmentSize();
        const double x0 = (static_cast<double>(first) - left) / width;
        const double x1 = (static_cast<double>(first + size) - left) / width;
        if (x1 <= 0.0 || x0 >= 1.0)
            continue;
        if (e->isSoftware())
            segment->drawUploadedColumns([&](const uint8_t* pixels, int32_t whole) {
                e->drawRgbaImage(pixels, size, segment->rows(), whole, t.map(QPointF(x0, 0.0)),
                                 t.map(QPointF(x1, 1.0)));
            });
        else
            e->drawTexture(segment->textureName(), t.map(QPointF(x0, 0.0)),
                           t.map(QPointF(x1, 1.0)));
        if (columns < size) {
            // Columns written after the last upload: the texture still holds
            // the segment's previous picture there.
            const double xu = (static_cast<double>(first + columns) - left) / width;
            e->prepareToDrawWithConstantColor(c0[0], c0[1], c0[2], 1.0f);
            e->drawRectangle(t.map(QPointF(xu, 0.0)), t.map(QPointF(x1, 1.0)));
        }
    }
}

void SpectrogramScrollView::drawGrid(double /*left*/, double width) {
    GLPainter* e = effect();
    const AffineTransform& t = actualContentTransform();
    gridVertices_.clear();
    auto line = [this, &t](QPointF a, QPointF b) {
        const QPointF p = t.map(a);
        const QPointF q = t.map(b);
        gridVertices_.insert(gridVertices_.end(),
                             {static_cast<float>(p.x()), static_cast<float>(p.y()),
                              static_cast<float>(q.x()), static_cast<float>(q.y())});
    };
    // Lines stand at least this far apart on screen (points); denser steps
    // are thinned as the labels are.
    constexpr double kMinSpacing = 36.0;
    const double viewWidth = std::max(1, this->width());
    const double viewHeight = std::max(1, this->height());
    // Time lines stand at whole label steps back from the right edge.
    const double seconds = intervalSeconds(mDefaults);
    const double step = static_cast<double>(mDefaults.timeLabelStep());
    if (seconds > 0.0 && step > 0.0) {
        double stepX = step / seconds / width;
        for (int k = 0; k < 6 && stepX * t.a * viewWidth < kMinSpacing; ++k)
            stepX *= k % 3 == 1 ? 2.5 : 2.0; // 1, 2, 5, 10, 20, 50 label steps
        for (double x = 1.0; x >= 0.0; x -= stepX)
            line(QPointF(x, 0.0), QPointF(x, 1.0));
    }
    double lastY = -1.0;
    for (float y : gridY_) {
        const double py = t.map(QPointF(0.0, y)).y() * viewHeight;
        if (lastY >= 0.0 && py - lastY < kMinSpacing / 2.0)
            continue;
        lastY = py;
        line(QPointF(0.0, y), QPointF(1.0, y));
    }
    if (gridVertices_.empty())
        return;
    e->prepareToDrawWithConstantColor(gridColor_[0], gridColor_[1], gridColor_[2], gridColor_[3]);
    e->drawLines(gridVertices_.data(), static_cast<int>(gridVertices_.size() / 2));
}

void SpectrogramScrollView::drawPlayLine(double left, double width) {
    GLPainter* e = effect();
    const AffineTransform& t = actualContentTransform();
    const double interval = static_cast<double>(mDefaults.actualInterval()) -
                            static_cast<double>(playLinePosition_.load(std::memory_order_acquire));
    const double x = (interval - left) / width;
    e->setLineWidth(2.0f);
    e->prepareToDrawWithConstantColor(measureLineColor_[0], measureLineColor_[1],
                                      measureLineColor_[2], measureLineColor_[3]);
    e->drawLine(t.map(QPointF(x, 0.0)), t.map(QPointF(x, 1.0)));
    e->setLineWidth(1.0f);
}

void SpectrogramScrollView::drawMeasureLines() {
    GLPainter* e = effect();
    const AffineTransform& t = actualContentTransform();
    const QPointF p = measuringActualPosition();
    e->prepareToDrawWithConstantColor(measureLineColor_[0], measureLineColor_[1],
                                      measureLineColor_[2], measureLineColor_[3]);
    e->drawLine(t.map(QPointF(p.x(), 0.0)), t.map(QPointF(p.x(), 1.0)));
    e->drawLine(t.map(QPointF(0.0, p.y())), t.map(QPointF(1.0, p.y())));
}

} // namespace widmo
