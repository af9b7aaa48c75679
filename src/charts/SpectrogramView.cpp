#include "charts/SpectrogramView.h"

#include "charts/ChartLabels.h"
#include "charts/ChartScrollView.h"
#include "charts/HeterodyneBand.h"
#include "core/AnalyzerDefaults.h"
#include "render/DeviceClass.h"
#include "render/GLTexture.h"
#include "render/LevelMeterView.h"
#include "render/SpectrogramScrollView.h"

#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

const char* const kTitleTime = "Time (s)";

} // namespace

SpectrogramView::SpectrogramView(AnalyzerDefaults& defaults, QWidget* parent)
    : ChartFrameView(defaults, false, parent) {
    scrollView_ = new SpectrogramScrollView(defaults, this);
    scrollView_->setDelegateRefresh(this);
    // The user's cursor on the spectrogram puts the partner chart's cursor on
    // the same frequency (the engine makes the two views partners).
    scrollView_->setMeasuredFrequencyObserver([this](double frequency) {
        if (auto* chart = dynamic_cast<ChartScrollView*>(scrollView_->scrollViewDelegate()))
            chart->updateMeasuringActualPositionWith(frequency);
    });
    scrollView_->setShadedBandSource([this]() -> std::optional<SpectrogramScrollView::ShadedBand> {
        const auto band = HeterodyneBand::span(mDefaults);
        if (!band)
            return std::nullopt;
        return SpectrogramScrollView::ShadedBand{band->low, band->high, band->label};
    });
    scrollView_->installEventFilter(this);
    placeInnerView(scrollView_);
    setFullScreen(true);
}

SpectrogramView::~SpectrogramView() { releaseGLResourcesNow(); }

// --- Engine calls ----------------------------------------------------------------------------

SpectrogramScrollViewInterface* SpectrogramView::spectrogramScrollView() { return scrollView_; }

void SpectrogramView::addFFTdata(const float* fftData, int64_t intervalIndex) {
    scrollView_->addFFTdata(fftData, intervalIndex);
}

void SpectrogramView::startScrolling() { scrollView_->startScrolling(); }

void SpectrogramView::pauseScrolling() { scrollView_->pauseScrolling(); }

void SpectrogramView::setAnalyzerRunning(bool running) { scrollView_->setAnalyzerRunning(running); }

void SpectrogramView::setNeedsDisplay() { scrollView_->raiseNeedsDisplay(); }

void SpectrogramView::setNeedsDisplayWithSubviews() { GLView::setNeedsDisplayWithSubviews(); }

void SpectrogramView::prepareData() { scrollView_->prepareData(); }

void SpectrogramView::clearData() {
    scrollView_->clearData();
    levelMeterView_->setLevelDB(-144.0f);
    GLView::setNeedsDisplayWithSubviews();
}

void SpectrogramView::prepareTextures() {
    mFrequencyLabelHeights = frequencyLabelHeights();
    scrollView_->setHorizontalGridLines(mFrequencyLabelHeights);
    makeTexturesWhenPossible();
    GLView::setNeedsDisplayWithSubviews();
}

void SpectrogramView::contentWasChanged() { GLView::setNeedsDisplay(); }

// --- Tuning ---------------------------------------------------------------------------------

bool SpectrogramView::eventFilter(QObject* watched, QEvent* event) {
    if (watched != scrollView_ || !HeterodyneBand::isOn(mDefaults)) {
        tuningClick_ = false;
        return ChartFrameView::eventFilter(watched, event);
    }
    switch (event->type()) {
    case QEvent::Wheel: {
        const auto* wheel = static_cast<QWheelEvent*>(event);
        if (wheel->modifiers() & Qt::ControlModifier)
            return false; // zooms both axes, as without listening
        // Shift+wheel arrives as a horizontal turn on some systems.
        const int delta =
            wheel->angleDelta().y() != 0 ? wheel->angleDelta().y() : wheel->angleDelta().x();
        // A fine-resolution wheel sends parts of a notch; they add up.
        wheelRemainder_ += delta;
        const int notches = wheelRemainder_ / QWheelEvent::DefaultDeltasPerStep;
        wheelRemainder_ -= notches * QWheelEvent::DefaultDeltasPerStep;
        if (notches != 0) {
            const double step = (wheel->modifiers() & Qt::ShiftModifier)
                                    ? HeterodyneBand::kFineStepHz
                                    : HeterodyneBand::kCoarseStepHz;
            tuneTo(double(mDefaults.heterodyneTuningHz()) + notches * step);
        }
        return true;
    }
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick: {
        const auto* mouse = static_cast<QMouseEvent*>(event);
        if (mouse->button() != Qt::LeftButton || !(mouse->modifiers() & Qt::ControlModifier))
            return false;
        const QPointF content = scrollView_->convertPointToScrollContent(mouse->position());
        tuneTo(HeterodyneBand::frequencyOfContent(mDefaults, content.y()));
        tuningClick_ = true;
        return true;
    }
    case QEvent::MouseMove:
    case QEvent::MouseButtonRelease:
        // The rest of a tuning click is no drag and no tap.
        if (!tuningClick_)
            return false;
        if (event->type() == QEvent::MouseButtonRelease)
            tuningClick_ = false;
        return true;
    default:
        return false;
    }
}

void SpectrogramView::tuneTo(double hz) {
    if (tuningHandler_) {
        tuningHandler_(hz);
        return;
    }
    HeterodyneBand::setTuning(mDefaults, hz);
    scrollView_->setNeedsDisplay();
}

// --- Labels ---------------------------------------------------------------------------------

std::vector<float> SpectrogramView::frequencyLabelHeights() const {
    std::vector<float> heights;
    const double maxFrequency = mDefaults.maxFrequency();
    if (maxFrequency <= 0.0)
        return heights;
    if (mDefaults.linearFrequency()) {
        const double step = mDefaults.spectrogramFrequencyTexturesMinValue();
        for (int32_t k = 0; k < mDefaults.spectrogramFrequencyTexturesCount() && step > 0.0; ++k)
            heights.push_back(static_cast<float>(k * step / maxFrequency));
    } else {
        const double start = mDefaults.logStartFrequency();
        const double delta = mDefaults.logIntervalDelta();
        for (int32_t f : ChartLabels::logaritmicFrequencies(mDefaults.maxFrequency()))
            if (start > 0.0 && delta > 0.0)
                heights.push_back(static_cast<float>(std::log2(f / start) / delta));
    }
    return heights;
}

void SpectrogramView::makeTexturesNow() {
    const QFont value = valueFont(pad());
    const QFont title = titleFont(pad());
    mTimeLabelTextures.clear();
    const double step = mDefaults.timeLabelStep();
    for (int32_t k = 0; k < mDefaults.timeLabelCount(); ++k) {
        const double seconds = k * step;
        const QString text = k == 0 ? QStringLiteral("0") : QString::number(-seconds, 'g', 4);
        mTimeLabelTextures.push_back(effect()->convertToTextureText(text, value, kLabelGrey));
    }
    mFrequencyTextures.clear();
    if (mDefaults.linearFrequency()) {
        const float minValue = mDefaults.spectrogramFrequencyTexturesMinValue();
        for (size_t k = 0; k < mFrequencyLabelHeights.size(); ++k)
            mFrequencyTextures.push_back(effect()->convertToTextureText(
                ChartLabels::linearFrequencyLabel(static_cast<int32_t>(k), minValue), value,
                kLabelGrey));
    } else {
        for (int32_t f : ChartLabels::logaritmicFrequencies(mDefaults.maxFrequency()))
            mFrequencyTextures.push_back(
                effect()->convertToTextureText(ChartLabels::logaritmicLabel(f), value, kLabelGrey));
    }
    mLegendTimeTexture =
        effect()->convertToTextureText(QString::fromLatin1(kTitleTime), title, kLabelGrey);
    mLegendFrequencyTexture = effect()->convertToTextureText(
        QString::fromLatin1(mDefaults.linearFrequency() ? ChartLabels::kTitleFrequencyLinear
                                                        : ChartLabels::kTitleFrequencyLogarithmic),
        title, kLabelGrey);
    texturesPending_ = false;
}

void SpectrogramView::setupGLResources() {
    if (texturesPending_) {
        mFrequencyLabelHeights = frequencyLabelHeights();
        scrollView_->setHorizontalGridLines(mFrequencyLabelHeights);
        makeTexturesNow();
    }
}

void SpectrogramView::releaseGLResources() {
    mTimeLabelTextures.clear();
    mFrequencyTextures.clear();
    mLegendTimeTexture.reset();
    mLegendFrequencyTexture.reset();
    texturesPending_ = true;
}

QPointF SpectrogramView::mapFromSpectrogram(QPointF content) const {
    const QRect r = chartRect();
    const double w = std::max(1, width());
    const double h = std::max(1, height());
    const QPointF u = scrollView_->actualContentTransform().map(content);
    return {(r.x() + u.x() * r.width()) / w, ((h - (r.y() + r.height())) + u.y() * r.height()) / h};
}

void SpectrogramView::drawTimeLabels() {
    const auto count = static_cast<int32_t>(mTimeLabelTextures.size());
    const double duration = mDefaults.spectrogramDuration();
    if (count < 1 || duration <= 0.0)
        return;
    const QRectF chart = chartUnitRect();
    const double w = std::max(1, width());
    const double h = std::max(1, height());
    // The widest label decides how many may stand side by side at this zoom.
    const int32_t step = std::max(
        1, effect()->labelStepForTexture(*mTimeLabelTextures.back(), count,
                                         QSizeF(scrollView_->width(), scrollView_->height()), true,
                                         scrollView_->actualContentTransform()));
    const QRectF bounds(chart.x() - kLabelSlack / w, 0.0, chart.width() + 2.0 * kLabelSlack / w,
                        1.0);
    const double secondsStep = mDefaults.timeLabelStep();
    for (int32_t k = 0; k < count; k += step) {
        const double x = 1.0 - k * secondsStep / duration;
        const QPointF anchor(mapFromSpectrogram(QPointF(x, 0.0)).x(), chart.y() - kLabelGap / h);
        effect()->drawTextTexture(mTimeLabelTextures[static_cast<size_t>(k)].get(), anchor, 1.0f, 3,
                                  QSizeF(w, h), bounds);
    }
}

void SpectrogramView::drawFrequencyLabels() {
    const QRectF chart = chartUnitRect();
    const double w = std::max(1, width());
    const double h = std::max(1, height());
    const QRectF bounds(0.0, chart.y() - kLabelSlack / h, 1.0,
                        chart.height() + 2.0 * kLabelSlack / h);
    const double scale = DeviceClass::contentScaleFactor(this);
    const size_t count = std::min(mFrequencyTextures.size(), mFrequencyLabelHeights.size());
    // Labels that would overlap one already drawn are left out; from the top
    // down, so that the crowded top of every logarithmic decade keeps its
    // decade label.
    mTakenLabelSpans.clear();
    for (size_t i = count; i-- > 0;) {
        const GLTexture* texture = mFrequencyTextures[i].get();
        if (texture == nullptr)
            continue;
        const double y = mapFromSpectrogram(QPointF(0.0, mFrequencyLabelHeights[i])).y();
        const double half = (texture->height() / scale / 2.0 + 1.0) / h;
        bool overlaps = false;
        for (const auto& [lo, hi] : mTakenLabelSpans)
            overlaps = overlaps || (y - half < hi && y + half > lo);
        if (overlaps || y < chart.y() - kLabelSlack / h || y > chart.bottom() + kLabelSlack / h)
            continue;
        mTakenLabelSpans.emplace_back(y - half, y + half);
        effect()->drawTextTexture(texture, QPointF(chart.x() - kLabelGap / w, y), 1.0f, 2,
                                  QSizeF(w, h), bounds);
    }
}

void SpectrogramView::drawGLRect(const QRectF& /*rect*/) {
    if (effect() == nullptr)
        return;
    effect()->clearColor(0.0f, 0.0f, 0.0f, 1.0f);
    if (!fullScreen_)
        return;
    if (texturesPending_)
        makeTexturesNow();
    drawTimeLabels();
    drawFrequencyLabels();
    drawTitles(mLegendTimeTexture.get(), mLegendFrequencyTexture.get());
}

// --- Image ----------------------------------------------------------------------------------

QImage SpectrogramView::imageOfChart() {
    QImage image = composedImage();
    if (image.isNull() || !scrollView_->measuringActivated() || !fullScreen_)
        return image;
    QPainter painter(&image);
    QFont font(QStringLiteral("Arial"));
    font.setPixelSize(pad() ? 15 : 12);
    painter.setFont(font);
    painter.setPen(QColor(230, 230, 230));
    const QRect chart = scrollView_->geometry();
    painter.drawText(chart.x() + 8, chart.y() + 6 + QFontMetrics(font).ascent(),
                     scrollView_->measuringText());
    painter.end();
    return image;
}

} // namespace widmo
