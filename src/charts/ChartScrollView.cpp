#include "charts/ChartScrollView.h"

#include "dsp/SoundLevelMeter.h"

#include "charts/ChartView.h"
#include "charts/HeterodyneBand.h"
#include "core/AnalyzerDefaults.h"
#include "dsp/MusicConverter.h"
#include "render/DeviceClass.h"
#include "render/GLTexture.h"
#include "render/LevelMeterView.h"
#include "render/SpectrogramScrollView.h"

#include <QFontMetrics>
#include <QGridLayout>
#include <QLabel>
#include <QVariantMap>

#include <algorithm>
#include <cmath>
#include <limits>

namespace widmo {

namespace {

constexpr float kGridGrey = 0.12f;
constexpr float kNoLevelY = -999.0f; // the level line of a cursor without data, off the chart

const char* const kTitles[ChartScrollView::kLabelCount] = {"Frequency", "Note",    "Time",
                                                           "SPL",       "RMS Max", "RMS Min"};

double gainFactor(float gainDB) { return std::pow(10.0, gainDB / 20.0); }

} // namespace

ChartScrollView::ChartScrollView(AnalyzerDefaults& defaults, ChartView* chartView, QWidget* parent)
    : GLScrollView(parent), mDefaults(defaults), data_(defaults),
      mPointsOfChart(2 * static_cast<size_t>(ChartData::kMaxWindowSize), 0.0f),
      chartView_(chartView) {
    mGrid.reserve(128);
    gridVertices_.reserve(4 * 128);
    setDoubleTapZoomType(0);
    setMeasureScrollType(0);
    // Touches near the edge still count: the margin of one line width.
    setBorderWidth(pad() ? 2.0f : 1.0f);
    prepareMeasuringWindow();
    clearData();
}

ChartScrollView::~ChartScrollView() {
    // The panel goes first, while this object is still whole: the base view
    // watches it for destruction.
    setMeasuringView(nullptr);
    delete measuringPanel_;
    makeCurrent();
    bandLabel_.reset();
    doneCurrent();
}

void ChartScrollView::releaseGLResources() { bandLabel_.reset(); }

bool ChartScrollView::pad() const { return DeviceClass::isPad(this); }

int32_t ChartScrollView::typeOfChart() const {
    return chartView_ != nullptr ? chartView_->typeOfChart() : 0;
}

void ChartScrollView::setLevelMeterView(LevelMeterView* meter) { levelMeterView_ = meter; }

void ChartScrollView::setSecondLevelMeterView(LevelMeterView* meter) {
    secondLevelMeterView_ = meter;
}

void ChartScrollView::addFFTdata(const float* fftData, const float* fftWindowData,
                                 const float* eggWindowData) {
    data_.addFFTdata(fftData, fftWindowData, eggWindowData);
    for (LevelMeterView* meter : {levelMeterView_, secondLevelMeterView_}) {
        if (meter == nullptr)
            continue;
        if (mDefaults.features().featureVoiceEGG()) {
            // The meter reads 0 when no quotient is measured; a cycle without
            // distinct points (not a number) is none.
            const float cq = data_.closedQuotient();
            meter->setClosedQuotient(std::isnan(cq) ? 0.0f : cq);
        }
        // While the sound level meter feeds the meter, the spectrum's own
        // level is not shown there.
        if (!soundLevelsShown_)
            meter->setLevelDB(data_.levelDB());
        meter->setNeedsDisplay();
    }
    setNeedsNewFrame();
}

void ChartScrollView::showSoundLevels(const SoundLevels& levels) {
    if (mDefaults.features().featureVoiceEGG())
        return; // the voice product's meter shows the closed quotient
    const SoundLevelSettings& settings = mDefaults.soundLevels();
    const double offset = settings.splOffset().value_or(0.0);
    const bool calibrated = settings.splOffset().has_value();
    // The names follow the weighting the recording measures with, which a
    // change on the settings page reaches only at the next start.
    const auto measured = static_cast<int32_t>(levels.weighting);
    const QString w = SoundLevelSettings::letterFor(measured);
    const QString unit = SoundLevelSettings::unitFor(measured, calibrated);
    const QString peakUnit = calibrated ? QStringLiteral("dBC") : unit;
    const QString t = settings.slow() ? QStringLiteral("S") : QStringLiteral("F");
    const double bar = settings.slow() ? levels.slow : levels.fast;
    const auto figure = [offset](double v) {
        return std::isfinite(v) ? QString::number(v + offset, 'f', 1) : QStringLiteral("-");
    };
    const QString figures = QStringLiteral("L%1%2 %3 %7\nL%1eq %4 %7\nL%1%2max %5 %7\nLCpeak %6 %8")
                                .arg(w, t, figure(bar), figure(levels.leq),
                                     figure(settings.slow() ? levels.maxSlow : levels.maxFast),
                                     figure(levels.peak), unit, peakUnit);
    soundLevelsShown_ = true;
    for (LevelMeterView* meter : {levelMeterView_, secondLevelMeterView_}) {
        if (meter != nullptr)
            meter->showSoundLevels(bar, offset, unit, figures);
    }
}

void ChartScrollView::setAnalyzerRunning(bool running) {
    analyzerRunning_ = running;
    changeRefreshStateIfNeeded();
}

bool ChartScrollView::isRefreshNeeded() const {
    return GLScrollView::isRefreshNeeded() || (analyzerRunning_ && typeOfChart() == 2);
}

void ChartScrollView::clearData() {
    data_.clearData();
    soundLevelsShown_ = false;
    for (LevelMeterView* meter : {levelMeterView_, secondLevelMeterView_}) {
        if (meter != nullptr) {
            meter->clearSoundLevels();
            meter->setLevelDB(ChartData::kFloorDB);
        }
    }
    setMeasuringActivated(false);
    if (GLScrollView* partner = scrollViewDelegate()) {
        partner->setMeasuringActivated(false);
        partner->setNeedsDisplay();
    }
    setNeedsDisplay();
}

void ChartScrollView::setScrollViewDelegate(ScrollViewInterface* partner) {
    GLScrollView::setScrollViewDelegate(dynamic_cast<GLScrollView*>(partner));
}

double ChartScrollView::getValueForParameters(const QVariant& parameters) {
    const QVariantMap map = parameters.toMap();
    const float* out = data_.fftOutData();
    const double maxFrequency = mDefaults.maxFrequency();
    const int32_t n = mDefaults.fftOutSize();
    if (!map.contains("levelForFrequency") || out == nullptr || maxFrequency <= 0.0 || n < 1)
        return std::numeric_limits<double>::quiet_NaN();
    const double f = map.value("levelForFrequency").toDouble();
    const auto bin = static_cast<int32_t>(std::lround(f * n / maxFrequency));
    return out[std::clamp(bin, 0, n - 1)];
}

// --- Measuring ------------------------------------------------------------------------

QPointF ChartScrollView::recalculateMeasuringActualPosition(QPointF position) {
    switch (typeOfChart()) {
    case 1: {
        const MeasurePosition m =
            ChartGeometry::measureOscilloscope(position.x(), mDefaults.fftSize());
        mMeasurePointId = m.index;
        setValueText(Label1, QString::asprintf("%d", m.index + 1));
        return {m.position, position.y()};
    }
    case 2: {
        const MeasurePosition m = ChartGeometry::measureOctaveRTA(
            position.x(), mDefaults.octaveRTAMinIndex(), mDefaults.octaveRTAMaxIndex(),
            mDefaults.octaveRTAFrequencies());
        mMeasureIdFrequency = m.index;
        mMeasureFrequency = static_cast<float>(m.frequency);
        setValueText(Label1, QString::asprintf("%.1f Hz", m.frequency));
        setValueText(Label1B, MusicConverter::convertToNote(m.frequency));
        return {m.position, position.y()};
    }
    default: {
        const MeasurePosition m = ChartGeometry::measureSpectrum(
            position.x(), mDefaults.linearFrequency(), mDefaults.fftOutSize(),
            mDefaults.maxFrequency(), mDefaults.logStartFrequency(), mDefaults.logIntervalDelta());
        mMeasureIdFrequency = m.index;
        mMeasureFrequency = static_cast<float>(m.frequency);
        setValueText(Label1, QString::asprintf("%.1f Hz", m.frequency));
        setValueText(Label1B, MusicConverter::convertToNote(m.frequency));
        return {m.position, position.y()};
    }
    }
}

void ChartScrollView::updateMeasuringActualPositionWith(double frequency) {
    const double maxFrequency = mDefaults.maxFrequency();
    if (maxFrequency <= 0.0 || typeOfChart() == 1)
        return;
    double x = frequency / maxFrequency;
    if (typeOfChart() == 2) {
        // The band whose centre lies nearest on the band axis.
        const int32_t minIndex = mDefaults.octaveRTAMinIndex();
        const int32_t n = mDefaults.octaveRTAMaxIndex() + 1 - minIndex;
        const int32_t bands = std::max(1, mDefaults.octaveRTABandsPerOctave());
        if (n < 1 || frequency <= 0.0)
            return;
        const double band = std::log2(frequency / 15.625) * bands;
        x = (band - minIndex + 0.5) / n;
    } else if (!mDefaults.linearFrequency()) {
        if (frequency <= 0.0 || mDefaults.logIntervalDelta() <= 0.0f)
            return;
        x = std::log2(frequency / mDefaults.logStartFrequency()) / mDefaults.logIntervalDelta();
    }
    setMeasuringActivated(true);
    setMeasuringActualPosition(QPointF(x, measuringActualPosition().y()));
}

void ChartScrollView::refreshMeasuringLabels() {
    const int32_t type = typeOfChart();
    if (GLScrollView* partner = scrollViewDelegate(); partner && partner->measuringActivated()) {
        if (type == 1)
            setMeasuringActivated(false);
        updateMeasuringActualPositionWith(partner->getValueForKey("measureFrequency"));
        measuringActualPositionDidChanged();
    }
    const auto title = [&](MeasureLabel label, const char* text) {
        titleLabels_[label]->setText(QString::fromLatin1(text));
    };
    title(Label1, type == 1 ? "Sample" : "Frequency");
    title(Label3, type == 1 ? "Amplitude" : (type == 2 ? "RMS" : "SPL"));
    const bool spectrogram = mDefaults.features().featureSpectrogramEnabled();
    const auto showRow = [&](MeasureLabel label, bool on) {
        titleLabels_[label]->setVisible(on);
        valueLabels_[label]->setVisible(on);
    };
    showRow(Label1B, type != 1);
    showRow(Label2, spectrogram);
    showRow(Label4, type == 2 && mDefaults.octaveRTAMaxValuesEnabled());
    showRow(Label5, type == 2 && mDefaults.octaveRTAMinValuesEnabled());
    // Re-snap the cursor for the new chart so that its labels agree.
    if (measuringActivated())
        setMeasuringActualPosition(measuringActualPosition());
    setupMeasuringViewConstraints();
}

QString ChartScrollView::infoMeasureText() const {
    const auto pair = [&](MeasureLabel label) {
        return QStringLiteral("%1 : %2").arg(titleText(label), valueText(label));
    };
    QString text = pair(Label1);
    if (mDefaults.features().featureSpectrogramEnabled())
        text += QStringLiteral("    ") + pair(Label2);
    text += QStringLiteral("    ") + pair(Label3);
    if (mDefaults.octaveRTAMaxValuesEnabled())
        text += QStringLiteral("    ") + pair(Label4);
    if (mDefaults.octaveRTAMinValuesEnabled())
        text += QStringLiteral("    ") + pair(Label5);
    return text;
}

QString ChartScrollView::titleText(MeasureLabel label) const { return titleLabels_[label]->text(); }

QString ChartScrollView::valueText(MeasureLabel label) const { return valueLabels_[label]->text(); }

void ChartScrollView::setValueText(MeasureLabel label, const QString& text) {
    // Only changed texts reach the label: a relayout per frame would be wasted.
    if (valueLabels_[label]->text() != text)
        valueLabels_[label]->setText(text);
}

double ChartScrollView::spectrogramTime() const {
    GLScrollView* partner = scrollViewDelegate();
    return partner != nullptr ? partner->getValueForKey(QStringLiteral("time")) : 0.0;
}

QString ChartScrollView::spectrogramTimeText() const {
    GLScrollView* partner = scrollViewDelegate();
    if (partner == nullptr || !partner->measuringActivated())
        return {};
    return QString::asprintf("-%.3f s", spectrogramTime());
}

void ChartScrollView::prepareMeasuringWindow() {
    measuringPanel_ = new QWidget(this);
    measuringPanel_->setObjectName(QStringLiteral("chartMeasuringPanel"));
    measuringPanel_->setAttribute(Qt::WA_StyledBackground);
    measuringPanel_->setStyleSheet(QStringLiteral(
        "#chartMeasuringPanel { background: rgba(20, 20, 20, 200); border: 1px solid #555; }"
        "QLabel { color: white; background: transparent; }"));
    auto* grid = new QGridLayout(measuringPanel_);
    grid->setContentsMargins(6, 4, 6, 4);
    grid->setHorizontalSpacing(8);
    grid->setVerticalSpacing(1);
    QFont font = DeviceClass::systemFont(pad() ? 13.0 : 11.0, false);
    QFont bold = DeviceClass::systemFont(pad() ? 13.0 : 11.0, true);
    const QFontMetrics metrics(bold);
    // The widest texts each value can show size the value column.
    const int valueWidth = std::max({metrics.horizontalAdvance(QStringLiteral("99999.9 Hz")),
                                     metrics.horizontalAdvance(QStringLiteral("0.0000 s")),
                                     metrics.horizontalAdvance(QStringLiteral("-999 dB")),
                                     metrics.horizontalAdvance(QStringLiteral("C#10 -00.0c"))});
    for (int i = 0; i < kLabelCount; ++i) {
        titleLabels_[static_cast<size_t>(i)] = new QLabel(QString::fromLatin1(kTitles[i]));
        titleLabels_[static_cast<size_t>(i)]->setFont(font);
        valueLabels_[static_cast<size_t>(i)] = new QLabel;
        valueLabels_[static_cast<size_t>(i)]->setFont(bold);
        valueLabels_[static_cast<size_t>(i)]->setMinimumWidth(valueWidth);
        valueLabels_[static_cast<size_t>(i)]->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        grid->addWidget(titleLabels_[static_cast<size_t>(i)], i, 0);
        grid->addWidget(valueLabels_[static_cast<size_t>(i)], i, 1);
    }
    measuringPanel_->hide();
    setMeasuringView(measuringPanel_);
    refreshMeasuringLabels();
}

void ChartScrollView::setupMeasuringViewConstraints() {
    if (measuringPanel_ == nullptr)
        return;
    measuringPanel_->adjustSize();
    const int margin = pad() ? 8 : 4;
    measuringPanel_->move(std::max(0, width() - measuringPanel_->width() - margin), margin);
}

// --- Drawing --------------------------------------------------------------------------

void ChartScrollView::drawGLRect(const QRectF& rect) {
    GLPainter* e = effect();
    if (e == nullptr)
        return;
    if (viewSize_ != rect.size()) {
        viewSize_ = rect.size();
        setupMeasuringViewConstraints();
    }
    // A margin of one line width on every side keeps lines on the chart's
    // edges visible: x from -mx to 1 + mx, y from -my to 1 + my.
    const double p = pad() ? 2.0 : 1.0;
    const double mx = p / std::max(1.0, rect.width() - 2.0 * p);
    marginX_ = mx;
    const double my = p / std::max(1.0, rect.height() - 2.0 * p);
    marginY_ = my;
    const auto sx = static_cast<float>(2.0 / (1.0 + 2.0 * mx));
    const auto sy = static_cast<float>(2.0 / (1.0 + 2.0 * my));
    e->setProjection({sx, 0, 0, 0, 0, sy, 0, 0, 0, 0, -1, 0,
                      static_cast<float>(-1.0 / (1.0 + 2.0 * mx)),
                      static_cast<float>(-1.0 / (1.0 + 2.0 * my)), 0, 1});
    e->clearColor(0.0f, 0.0f, 0.0f, 1.0f);
    if (mDefaults.dataValid() && mDefaults.features().featureSecondChartEnabled())
        drawPoints();
}

void ChartScrollView::drawPoints() {
    switch (typeOfChart()) {
    case 0:
        drawSpectrumPoints();
        break;
    case 1:
        if (mDefaults.features().featureVoiceEGG())
            drawEGGPoints();
        else
            drawOscilloscopePoints();
        break;
    case 2:
        if (mDefaults.octaveRTAValid())
            drawOctaveRTAPoints();
        break;
    default:
        break;
    }
}

void ChartScrollView::drawLineStrip(int32_t count) {
    // Unit space from -m to 1 + m spans the frame (see drawGLRect).
    const double scale = static_cast<double>(effect()->contentScaleFactor());
    const auto columns = static_cast<int32_t>(std::lround(viewSize_.width() * scale));
    ChartGeometry::PixelGrid grid;
    grid.columns = std::max(columns, 1);
    grid.perUnitX = columns / (1.0 + 2.0 * marginX_);
    grid.offsetX = marginX_ * grid.perUnitX;
    grid.perUnitY = viewSize_.height() * scale / (1.0 + 2.0 * marginY_);
    grid.offsetY = marginY_ * grid.perUnitY;
    columnSpans_.resize(4 * static_cast<size_t>(grid.columns));
    const int32_t vertices =
        ChartGeometry::columnSpans(mPointsOfChart.data(), count, grid, columnSpans_.data());
    effect()->drawLines(columnSpans_.data(), vertices);
}

void ChartScrollView::drawGrid() {
    GLPainter* e = effect();
    const AffineTransform& t = actualContentTransform();
    e->prepareToDrawWithConstantColor(kGridGrey, kGridGrey, kGridGrey, 1.0f);
    // One draw per run of lines of one width: a draw call costs more than a line.
    gridVertices_.clear();
    for (size_t k = 0; k < mGrid.size(); ++k) {
        const GridLine& line = mGrid[k];
        for (const QPointF& p : {t.map(line.p1), t.map(line.p2)}) {
            gridVertices_.push_back(static_cast<float>(p.x()));
            gridVertices_.push_back(static_cast<float>(p.y()));
        }
        const bool runEnds = k + 1 == mGrid.size() || mGrid[k + 1].width > line.width ||
                             mGrid[k + 1].width < line.width;
        if (runEnds) {
            effect()->setLineWidth(line.width);
            e->drawLines(gridVertices_.data(), static_cast<int>(gridVertices_.size() / 2));
            gridVertices_.clear();
        }
    }
    effect()->setLineWidth(1.0f);
}

void ChartScrollView::drawSpectrumGrid() {
    const int32_t step = chartView_ != nullptr ? chartView_->linearFrequencyLabelStep()
                                               : mDefaults.spectrumFrequencyTexturesCount();
    ChartGeometry::spectrumGrid(
        mDefaults.linearFrequency(), mDefaults.valuesInDB(), mDefaults.maxFrequency(),
        mDefaults.logStartFrequency(), mDefaults.logIntervalDelta(),
        mDefaults.spectrumFrequencyTexturesMinValue(), mDefaults.spectrumFrequencyTexturesCount(),
        std::max(1, step), mGrid);
    drawGrid();
}

void ChartScrollView::drawOscilloscopeGrid() {
    ChartGeometry::oscilloscopeGrid(mDefaults.fftSize(), mGrid);
    drawGrid();
}

void ChartScrollView::drawOctaveRTAGrid() {
    ChartGeometry::octaveRTAGrid(mDefaults.octaveRTABandsPerOctave(), mDefaults.octaveRTAMinIndex(),
                                 mDefaults.octaveRTAMaxIndex(), mGrid);
    drawGrid();
}

void ChartScrollView::drawSpectrumPoints() {
    // In the small picture-in-picture size the curve stands alone.
    if (fullScreen())
        drawSpectrumGrid();
    drawTunedBand();
    const float* out = data_.fftOutData();
    const int32_t n = std::min(mDefaults.fftOutSize(), ChartData::kSlotSize);
    if (out != nullptr && n >= 2) {
        ChartGeometry::spectrumPoints(out, n, mDefaults.logPoints(), mDefaults.linearFrequency(),
                                      mDefaults.valuesInDB(),
                                      static_cast<float>(gainFactor(mDefaults.spectrumGainDB())),
                                      actualContentTransform(), mPointsOfChart.data());
        effect()->prepareToDrawWithConstantColor(0.0f, 1.0f, 0.0f, 1.0f);
        effect()->setLineWidth(1.0f);
        drawLineStrip(n);
    }
    if (measuringActivated())
        drawMeasureLinesSpectrum();
}

void ChartScrollView::drawTunedBand() {
    const auto band = HeterodyneBand::span(mDefaults);
    if (!band)
        return;
    GLPainter* e = effect();
    const AffineTransform& t = actualContentTransform();
    const QPointF low = t.map(QPointF(band->low, 0.0));
    const QPointF high = t.map(QPointF(band->high, 1.0));
    const auto& c = SpectrogramScrollView::kBandColor;
    e->setBlending(true);
    e->prepareToDrawWithConstantColor(c[0], c[1], c[2], 0.25f);
    e->drawRectangle(low, high);
    e->prepareToDrawWithConstantColor(c[0], c[1], c[2], 0.8f);
    e->setLineWidth(1.0f);
    e->drawLine(low, QPointF(low.x(), high.y()));
    e->drawLine(QPointF(high.x(), low.y()), high);
    e->setBlending(false);
    if (!fullScreen())
        return; // the small picture-in-picture shows the band alone
    if (!bandLabel_ || bandLabelText_ != band->label) {
        QFont font(QStringLiteral("Arial"));
        font.setPixelSize(pad() ? 15 : 12);
        bandLabel_ = e->convertToTextureText(band->label, font, QColor::fromRgbF(c[0], c[1], c[2]));
        bandLabelText_ = band->label;
    }
    // Unit space spans the frame less its margins (see drawGLRect).
    const QSizeF unit(viewSize_.width() / (1.0 + 2.0 * marginX_),
                      viewSize_.height() / (1.0 + 2.0 * marginY_));
    e->drawTextTexture(bandLabel_.get(),
                       QPointF((low.x() + high.x()) / 2.0, 1.0 - 4.0 / unit.height()), 1.0f, 3,
                       unit, QRectF());
}

void ChartScrollView::drawOscilloscopePoints() {
    drawOscilloscopeGrid();
    const float* samples = data_.fftWindowData();
    const int32_t n = std::min(mDefaults.fftSize(), ChartData::kMaxWindowSize);
    if (samples != nullptr && n >= 2) {
        ChartGeometry::oscilloscopePoints(
            samples, n, static_cast<float>(gainFactor(mDefaults.oscilloscopeGainDB())),
            actualContentTransform(), mPointsOfChart.data());
        effect()->prepareToDrawWithConstantColor(0.0f, 1.0f, 0.0f, 1.0f);
        effect()->setLineWidth(1.0f);
        drawLineStrip(n);
    }
    if (measuringActivated())
        drawMeasureLinesOscilloscope();
}

void ChartScrollView::drawEGGPoints() {
    drawOscilloscopeGrid();
    const float* cycle = data_.eggOutData();
    const int32_t n = std::min(mDefaults.fftSize(), ChartData::kEggSlotSize) / 4;
    if (cycle != nullptr && n >= 1) {
        ChartGeometry::eggPoints(cycle, n, actualContentTransform(), mPointsOfChart.data());
        effect()->prepareToDrawWithConstantColor(0.0f, 1.0f, 0.0f, 1.0f);
        effect()->setLineWidth(1.0f);
        drawLineStrip(n);
    }
    if (measuringActivated())
        drawMeasureLinesOscilloscope();
}

void ChartScrollView::drawOctaveRTAPoints() {
    drawOctaveRTAGrid();
    if (data_.fftOutData() == nullptr) {
        if (measuringActivated())
            drawMeasureLinesOctaveRTA();
        return;
    }
    data_.updateOctaveRTA(analyzerRunning_, timeSinceLastDraw());

    const int32_t minIndex = mDefaults.octaveRTAMinIndex();
    const int32_t n = mDefaults.octaveRTAMaxIndex() + 1 - minIndex;
    if (minIndex >= 0 && n >= 1) {
        const bool padDevice = pad();
        const double inset = padDevice ? 4.0 : 2.0;
        const double scale = effect()->contentScaleFactor();
        // One pixel on each side of a bar (half a pixel in the small size).
        const double gap =
            (fullScreen() ? 1.0 : 0.5) / (std::max(1.0, viewSize_.width() - inset) * scale);
        const double maxBarHeight =
            (padDevice ? 1.5 : 1.0) / std::max(1.0, viewSize_.height() - inset);
        const bool minOn = mDefaults.octaveRTAMinValuesEnabled();
        const bool maxOn = mDefaults.octaveRTAMaxValuesEnabled();
        const auto& values = data_.octaveRTAValues();
        const auto& minima = data_.octaveRTAMinValues();
        const auto& maxima = data_.octaveRTAMaxValues();
        const AffineTransform& t = actualContentTransform();
        GLPainter* e = effect();
        const auto bar = [&](double x0, double y0, double x1, double y1) {
            e->drawRectangle(t.map(QPointF(x0, y0)), t.map(QPointF(x1, y1)));
        };

        e->setBlending(true);
        for (int32_t b = 0; b < n; ++b) {
            const auto band = static_cast<size_t>(b + minIndex);
            const double x0 = static_cast<double>(b) / n + gap;
            const double x1 = static_cast<double>(b + 1) / n - gap;
            const double value = ChartGeometry::levelToY(values[band]);
            if (!minOn) {
                e->prepareToDrawWithConstantColor(0.5f, 0.5f, 1.0f, 0.8f);
                bar(x0, 0.0, x1, value);
            } else if (minima[band] < 0.0f) {
                const double minimum = ChartGeometry::levelToY(minima[band]);
                e->prepareToDrawWithConstantColor(1.0f, 0.2f, 0.2f, 0.9f);
                bar(x0, 0.0, x1, minimum);
                e->prepareToDrawWithConstantColor(0.5f, 0.5f, 1.0f, 0.8f);
                bar(x0, minimum, x1, value);
            }
            if (maxOn) {
                const double maximum = ChartGeometry::levelToY(maxima[band]);
                e->prepareToDrawWithConstantColor(0.0f, 0.8f, 0.0f, 0.8f);
                bar(x0, maximum - maxBarHeight, x1, maximum);
            }
        }
        e->setBlending(false);
    }
    if (measuringActivated())
        drawMeasureLinesOctaveRTA();
}

void ChartScrollView::drawMeasureLines(double position, double levelY) {
    GLPainter* e = effect();
    const AffineTransform& t = actualContentTransform();
    effect()->setLineWidth(2.0f);
    e->prepareToDrawWithConstantColor(0.8f, 0.3f, 0.3f, 1.0f);
    e->drawLine(t.map(QPointF(0.0, levelY)), t.map(QPointF(1.0, levelY)));
    e->prepareToDrawWithConstantColor(1.0f, 1.0f, 1.0f, 1.0f);
    e->drawLine(t.map(QPointF(position, 0.0)), t.map(QPointF(position, 1.0)));
    effect()->setLineWidth(1.0f);
}

void ChartScrollView::drawMeasureLinesSpectrum() {
    const float* out = data_.fftOutData();
    const int32_t n = mDefaults.fftOutSize();
    double levelY = kNoLevelY;
    if (out != nullptr && n >= 1) {
        const float v = out[std::clamp(mMeasureIdFrequency, 0, n - 1)];
        if (mDefaults.valuesInDB()) {
            levelY = ChartGeometry::levelToY(v);
            setValueText(Label3, mDefaults.soundLevels().spectrumLevelText(v));
        } else {
            // The line follows the displayed (gained) curve, the label the raw value.
            levelY = gainFactor(mDefaults.spectrumGainDB()) * v;
            setValueText(Label3, QString::asprintf("%.4f", static_cast<double>(v)));
        }
    } else {
        setValueText(Label3, QString());
    }
    setValueText(Label2, spectrogramTimeText());
    drawMeasureLines(measuringActualPosition().x(), levelY);
}

void ChartScrollView::drawMeasureLinesOctaveRTA() {
    double levelY = kNoLevelY;
    const int32_t band = mMeasureIdFrequency;
    if (data_.fftOutData() != nullptr && band >= 0 && band < ChartData::kBands) {
        const auto b = static_cast<size_t>(band);
        const float value = data_.octaveRTAValues()[b];
        levelY = ChartGeometry::levelToY(value);
        const SoundLevelSettings& levels = mDefaults.soundLevels();
        setValueText(Label3, levels.spectrumLevelText(value));
        setValueText(Label4, levels.spectrumLevelText(data_.octaveRTAMaxValues()[b]));
        setValueText(Label5, levels.spectrumLevelText(data_.octaveRTAMinValues()[b]));
    } else {
        setValueText(Label3, QString());
        setValueText(Label4, QString());
        setValueText(Label5, QString());
    }
    setValueText(Label2, spectrogramTimeText());
    drawMeasureLines(measuringActualPosition().x(), levelY);
}

void ChartScrollView::drawMeasureLinesOscilloscope() {
    const float* samples = data_.fftWindowData();
    const int32_t fftSize = mDefaults.fftSize();
    const int32_t point = std::clamp(mMeasurePointId, 0, std::max(0, fftSize - 1));
    double levelY = kNoLevelY;
    if (samples != nullptr && fftSize >= 1) {
        const float sample = samples[point];
        levelY = 0.5 + 0.5 * gainFactor(mDefaults.oscilloscopeGainDB()) * sample;
        setValueText(Label3, QString::asprintf("%.4f", static_cast<double>(sample)));
    } else {
        setValueText(Label3, QStringLiteral("-"));
    }
    // Time of the sample before the end of the window, as seconds, then
    // milliseconds and microseconds, each truncated.
    const double t =
        spectrogramTime() + (fftSize - 1 - point) / static_cast<double>(mDefaults.sampleRate());
    const auto seconds = static_cast<int>(std::trunc(t));
    const double rest = t - seconds;
    const auto ms = static_cast<int>(std::trunc(rest * 1000.0));
    const auto us = static_cast<int>(std::trunc(rest * 1000000.0)) % 1000;
    setValueText(Label2, QString::asprintf("-%.2ds%.3dms%.3d", seconds, ms, us));
    if (!mDefaults.features().featureVoiceEGG()) {
        drawMeasureLines(measuringActualPosition().x(), levelY);
        return;
    }
    // The EGG product marks the cycle's three crossing points instead.
    const double points = std::max(1, fftSize / 4);
    const ClosedQuotientResult& cq = data_.closedQuotientPoints();
    const AffineTransform& transform = actualContentTransform();
    GLPainter* e = effect();
    effect()->setLineWidth(2.0f);
    e->prepareToDrawWithConstantColor(1.0f, 1.0f, 1.0f, 1.0f);
    for (const int32_t crossing : {cq.pkt1, cq.pkt2, cq.pkt3}) {
        const double x = crossing / points;
        e->drawLine(transform.map(QPointF(x, 0.0)), transform.map(QPointF(x, 1.0)));
    }
    effect()->setLineWidth(1.0f);
}

} // namespace widmo
