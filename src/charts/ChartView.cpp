#include "charts/ChartView.h"

#include "core/SoundLevelSettings.h"

#include "charts/ChartGeometry.h"
#include "charts/ChartScrollView.h"
#include "core/AnalyzerDefaults.h"
#include "render/DeviceClass.h"
#include "render/GLTexture.h"
#include "render/LevelMeterView.h"

#include <QFontMetrics>
#include <QPainter>
#include <QResizeEvent>
#include <QSaveFile>

#include <algorithm>
#include <cmath>

namespace widmo {

const char* const ChartView::kProductName = "Widmo";
const char* const ChartView::kWatermark = "real-time sound analyser";

ChartView::ChartView(AnalyzerDefaults& defaults, QWidget* parent)
    : ChartFrameView(defaults, true, parent), mSpectrumDebounce(defaults.spectrumGainDB()),
      mOscilloscopeDebounce(defaults.oscilloscopeGainDB()) {
    chartScrollView_ = new ChartScrollView(defaults, this, this);
    chartScrollView_->setDelegateRefresh(this);
    placeInnerView(chartScrollView_);
    chartScrollView_->setLevelMeterView(levelMeterView_);
    logaritmicFrequencies_ = ChartLabels::logaritmicFrequencies(defaults.maxFrequency());
    setFullScreen(true);
    calculateMaxZoomWithZoomOut(true);
}

ChartView::~ChartView() { releaseGLResourcesNow(); }

ScrollViewInterface* ChartView::chartScrollView() { return chartScrollView_; }

void ChartView::addFFTdata(const float* fftData, const float* fftWindowData,
                           const float* eggWindowData) {
    chartScrollView_->addFFTdata(fftData, fftWindowData, eggWindowData);
}

void ChartView::setAnalyzerRunning(bool running) { chartScrollView_->setAnalyzerRunning(running); }

void ChartView::showSoundLevels(const SoundLevels& levels) {
    chartScrollView_->showSoundLevels(levels);
}

void ChartView::clearData() {
    chartScrollView_->clearData();
    levelMeterView_->setLevelDB(ChartData::kFloorDB);
    levelMeterView_->setNeedsDisplay();
    setNeedsDisplayWithSubviews();
}

void ChartView::clearOctaveRTAValues() { chartScrollView_->clearOctaveRTAValues(); }

void ChartView::clearOctaveRTAMinMaxLevels() { chartScrollView_->clearOctaveRTAMinMaxLevels(); }

float ChartView::levelDB() const { return chartScrollView_->levelDB(); }

void ChartView::contentWasChanged() { setNeedsDisplay(); }

void ChartView::turnOffMeasuring() {
    chartScrollView_->setMeasuringActivated(false);
    chartScrollView_->setNeedsDisplay();
}

QString ChartView::nameOfChart() const {
    switch (typeOfChart_) {
    case 1:
        return QStringLiteral("Oscilloscope");
    case 2:
        return QStringLiteral("Octave RTA");
    default:
        return QStringLiteral("Spectrum");
    }
}

// --- Layout ---------------------------------------------------------------------------------

void ChartView::resizeEvent(QResizeEvent* event) {
    ChartFrameView::resizeEvent(event);
    calculateMaxZoomWithZoomOut(false);
}

// --- Chart types and zoom -----------------------------------------------------------------

AffineTransform& ChartView::rememberedTransform(int32_t type) {
    switch (type) {
    case 1:
        return mOscilloscopeContentTransform;
    case 2:
        return mOctaveDBContentTransform;
    default:
        return mSpectrumContentTransform;
    }
}

void ChartView::setTypeOfChart(int32_t type) {
    rememberedTransform(typeOfChart_) = chartScrollView_->contentTransform();
    typeOfChart_ = type;
    chartScrollView_->setActualContentTransform(rememberedTransform(type));
    calculateMaxZoomWithZoomOut(false);
    chartScrollView_->refreshMeasuringLabels();
    setNeedsDisplayWithSubviews();
    chartScrollView_->setNeedsDisplay();
}

void ChartView::calculateMaxZoomWithZoomOut(bool zoomOut) {
    chartScrollView_->setMaxContentZoom(ChartGeometry::maxContentZoom(
        typeOfChart_, mDefaults.linearFrequency(),
        static_cast<int32_t>(logaritmicFrequencies_.size()),
        mDefaults.spectrumFrequencyTexturesCount(), mDefaults.fftSize(), pad()));
    if (zoomOut)
        chartScrollView_->zoomOut();
}

int32_t ChartView::linearFrequencyLabelStep() const {
    const int32_t count = mDefaults.spectrumFrequencyTexturesCount();
    if (!mWidestLinearFrequencyTexture || mWidestLinearFrequencyTexture->width() == 0)
        return std::max(1, count);
    const double scale = DeviceClass::contentScaleFactor(this);
    const double labelSize =
        mWidestLinearFrequencyTexture->width() / scale / std::max(1, chartScrollView_->width());
    return GLPainter::labelStep(labelSize, count, chartScrollView_->actualContentTransform().a,
                                true, pad());
}

// --- Textures -------------------------------------------------------------------------------

ChartView::TextureList ChartView::makeTextures(const QStringList& texts, const QFont& font) {
    TextureList list;
    list.reserve(static_cast<size_t>(texts.size()));
    for (const QString& text : texts)
        list.push_back(effect()->convertToTextureText(text, font, kLabelGrey));
    return list;
}

void ChartView::makeLinearGainTextures() {
    linearGainTexts_ = ChartLabels::linearGainLabels(mDefaults.spectrumGainDB());
    mLinearGainTextures = makeTextures(linearGainTexts_, valueFont(pad()));
    mSpectrumDebounce.reset(mDefaults.spectrumGainDB());
}

void ChartView::makeOscilloscopeAmplitudeTextures() {
    const float gain = mDefaults.oscilloscopeGainDB();
    mOscilloscopeAmplitudePlusTextures =
        makeTextures(ChartLabels::oscilloscopeAmplitudeLabels(gain, false), valueFont(pad()));
    mOscilloscopeAmplitudeMinusTextures =
        makeTextures(ChartLabels::oscilloscopeAmplitudeLabels(gain, true), valueFont(pad()));
    mOscilloscopeDebounce.reset(gain);
}

void ChartView::makeTexturesNow() {
    const QFont title = titleFont(pad());
    const QFont value = valueFont(pad());
    const auto text = [&](const char* s, const QFont& font) {
        return effect()->convertToTextureText(QString::fromLatin1(s), font, kLabelGrey);
    };
    mLegendFrequencyTextureLinear = text(ChartLabels::kTitleFrequencyLinear, title);
    mLegendFrequencyTextureLogarithmic = text(ChartLabels::kTitleFrequencyLogarithmic, title);
    // A calibrated input's levels are in dB SPL: the titles and labels say so.
    const SoundLevelSettings& levels = mDefaults.soundLevels();
    const QString unit = levels.spectrumUnit();
    const auto unitTitle = [&](const char* s) {
        return effect()->convertToTextureText(
            QString::fromLatin1(s).replace(QLatin1String("dBFS"), unit), title, kLabelGrey);
    };
    mLegendValuesInDBTexture = unitTitle(ChartLabels::kTitleValuesInDB);
    mLegendAmplitudeTexture = text(ChartLabels::kTitleAmplitude, title);
    mLegendRMSSPLTexture = unitTitle(ChartLabels::kTitleRMSSPL);
    mLegendFFTWindowTexture = text(ChartLabels::kTitleFFTWindow, title);

    mDbGainTextures = makeTextures(ChartLabels::dbLabels(levels.spectrumOffset()), value);
    makeLinearGainTextures();
    makeOscilloscopeAmplitudeTextures();
    mOscilloscopeFFTWindowPointsTextures =
        makeTextures(ChartLabels::oscilloscopePointsLabels(mDefaults.fftSize()), value);
    mWidestLinearFrequencyTexture = effect()->convertToTextureText(
        ChartLabels::widestLinearFrequencyLabel(mDefaults.spectrumFrequencyTexturesCount(),
                                                mDefaults.spectrumFrequencyTexturesMinValue()),
        value, kLabelGrey);
    mFreqLinearTexturesDictionary.clear();
    QStringList logTexts;
    for (int32_t f : logaritmicFrequencies_)
        logTexts << ChartLabels::logaritmicLabel(f);
    mLogarithmicFrequencyTextures = makeTextures(logTexts, value);
    mOctaveRTATextures = makeTextures(ChartLabels::octaveRTALabels(), value);
    texturesPending_ = false;
}

void ChartView::prepareTextures() {
    logaritmicFrequencies_ = ChartLabels::logaritmicFrequencies(mDefaults.maxFrequency());
    makeTexturesWhenPossible();
    calculateMaxZoomWithZoomOut(typeOfChart_ != 2);
    setNeedsDisplayWithSubviews();
}

void ChartView::refreshTextures() {
    refreshQueued_ = false;
    if (!fullScreen_ || effect() == nullptr || texturesPending_)
        return;
    const bool spectrum = mSpectrumDebounce.refresh(mDefaults.spectrumGainDB());
    const bool oscilloscopeChanged = mOscilloscopeDebounce.refresh(mDefaults.oscilloscopeGainDB());
    if (!spectrum && !oscilloscopeChanged)
        return;
    makeCurrent();
    if (spectrum)
        makeLinearGainTextures();
    if (oscilloscopeChanged)
        makeOscilloscopeAmplitudeTextures();
    doneCurrent();
    setNeedsDisplay();
}

void ChartView::setupGLResources() {
    if (texturesPending_)
        makeTexturesNow();
}

void ChartView::releaseGLResources() {
    for (TextureList* list :
         {&mLinearGainTextures, &mDbGainTextures, &mLogarithmicFrequencyTextures,
          &mOctaveRTATextures, &mOscilloscopeAmplitudePlusTextures,
          &mOscilloscopeAmplitudeMinusTextures, &mOscilloscopeFFTWindowPointsTextures})
        list->clear();
    mFreqLinearTexturesDictionary.clear();
    for (std::shared_ptr<GLTexture>* texture :
         {&mWidestLinearFrequencyTexture, &mLegendValuesInDBTexture, &mLegendAmplitudeTexture,
          &mLegendFrequencyTextureLinear, &mLegendFrequencyTextureLogarithmic,
          &mLegendRMSSPLTexture, &mLegendFFTWindowTexture})
        texture->reset();
    texturesPending_ = true;
}

// --- Drawing the labels ----------------------------------------------------------------------

QPointF ChartView::mapFromChart(QPointF content) const {
    const QRect r = chartRect();
    const double w = std::max(1, width());
    const double h = std::max(1, height());
    // The chart draws its content square inset by one line width (see its projection).
    const double p = pad() ? 2.0 : 1.0;
    const QPointF u = chartScrollView_->actualContentTransform().map(content);
    const double x = r.x() + p + u.x() * (r.width() - 2.0 * p);
    const double yUp = (h - (r.y() + r.height())) + p + u.y() * (r.height() - 2.0 * p);
    return {x / w, yUp / h};
}

void ChartView::drawXLabel(const GLTexture* texture, double contentX,
                           std::vector<std::pair<double, double>>* taken) {
    if (texture == nullptr)
        return;
    const QRectF chart = chartUnitRect();
    const double w = std::max(1, width());
    const double h = std::max(1, height());
    const QPointF anchor(mapFromChart(QPointF(contentX, 0.0)).x(), chart.y() - kLabelGap / h);
    // The meter stands right of the chart and would cover a label reaching past it.
    const QRectF bounds(chart.x() - kLabelSlack / w, 0.0, chart.width() + (kLabelSlack + 2.0) / w,
                        1.0);
    if (taken != nullptr) {
        const auto quad = GLPainter::textQuad(QSizeF(texture->width(), texture->height()), anchor,
                                              1.0, 3, QSizeF(w, h), effect()->contentScaleFactor());
        if (!quad || !GLPainter::quadFitsBounds(*quad, bounds))
            return;
        const double gap = kLabelGap / w;
        const double left = quad->vertices[0].x() - gap;
        const double right = quad->vertices[3].x() + gap;
        for (const auto& [l, r] : *taken)
            if (left < r && right > l)
                return;
        taken->emplace_back(left, right);
    }
    effect()->drawTextTexture(texture, anchor, 1.0f, 3, QSizeF(w, h), bounds);
}

void ChartView::drawYLabel(const GLTexture* texture, double contentY) {
    const QRectF chart = chartUnitRect();
    const double w = std::max(1, width());
    const double h = std::max(1, height());
    const QPointF anchor(chart.x() - kLabelGap / w, mapFromChart(QPointF(0.0, contentY)).y());
    const QRectF bounds(0.0, chart.y() - kLabelSlack / h, 1.0,
                        chart.height() + 2.0 * kLabelSlack / h);
    effect()->drawTextTexture(texture, anchor, 1.0f, 2, QSizeF(w, h), bounds);
}

void ChartView::drawSpectrumLabels() {
    if (mDefaults.valuesInDB()) {
        for (size_t i = 0; i < mDbGainTextures.size(); ++i)
            drawYLabel(mDbGainTextures[i].get(), static_cast<double>(i) / 18.0);
    } else {
        // Label k shows the amplitude drawn at height k / 20 with the current gain.
        for (size_t k = 0; k < mLinearGainTextures.size(); ++k)
            drawYLabel(mLinearGainTextures[k].get(), static_cast<double>(k) / 20.0);
    }

    const double maxFrequency = mDefaults.maxFrequency();
    if (mDefaults.linearFrequency()) {
        const int32_t count = mDefaults.spectrumFrequencyTexturesCount();
        const float minValue = mDefaults.spectrumFrequencyTexturesMinValue();
        const int32_t step = std::max(1, linearFrequencyLabelStep());
        for (int32_t i = 0; i < count && maxFrequency > 0.0; i += step) {
            const QString text = ChartLabels::linearFrequencyLabel(i, minValue);
            auto it = mFreqLinearTexturesDictionary.find(text);
            if (it == mFreqLinearTexturesDictionary.end())
                it = mFreqLinearTexturesDictionary.insert(
                    text, effect()->convertToTextureText(text, valueFont(pad()), kLabelGrey));
            drawXLabel(it.value().get(), i * static_cast<double>(minValue) / maxFrequency);
        }
        drawTitles(mLegendFrequencyTextureLinear.get(), mDefaults.valuesInDB()
                                                            ? mLegendValuesInDBTexture.get()
                                                            : mLegendAmplitudeTexture.get());
    } else {
        const double start = mDefaults.logStartFrequency();
        const double delta = mDefaults.logIntervalDelta();
        // Ten labels a decade crowd each other at the top of every decade until
        // the user zooms in: the decade labels are placed first, the others
        // only where they find room.
        const size_t count =
            std::min(mLogarithmicFrequencyTextures.size(), logaritmicFrequencies_.size());
        mTakenLabelSpans.clear();
        for (int pass = 0; pass < 2 && start > 0.0 && delta > 0.0; ++pass) {
            for (size_t j = 0; j < count; ++j) {
                const int32_t f = logaritmicFrequencies_[j];
                const bool decade = f == 100 || f == 1000 || f == 10000 || f == 100000;
                if (decade == (pass == 0))
                    drawXLabel(mLogarithmicFrequencyTextures[j].get(), std::log2(f / start) / delta,
                               &mTakenLabelSpans);
            }
        }
        drawTitles(mLegendFrequencyTextureLogarithmic.get(), mDefaults.valuesInDB()
                                                                 ? mLegendValuesInDBTexture.get()
                                                                 : mLegendAmplitudeTexture.get());
    }
}

void ChartView::drawOscilloscopeLabels() {
    for (size_t k = 0; k < mOscilloscopeAmplitudePlusTextures.size(); ++k)
        drawYLabel(mOscilloscopeAmplitudePlusTextures[k].get(),
                   0.5 + 0.05 * static_cast<double>(k));
    for (size_t k = 1; k < mOscilloscopeAmplitudeMinusTextures.size(); ++k)
        drawYLabel(mOscilloscopeAmplitudeMinusTextures[k].get(),
                   0.5 - 0.05 * static_cast<double>(k));
    const auto count = static_cast<int32_t>(mOscilloscopeFFTWindowPointsTextures.size());
    if (count > 0) {
        // The widest label (the last) decides how many may stand side by side.
        const GLTexture& widest = *mOscilloscopeFFTWindowPointsTextures.back();
        const double labelSize = widest.width() / DeviceClass::contentScaleFactor(this) /
                                 std::max(1, chartScrollView_->width());
        const int32_t step = GLPainter::labelStep(
            labelSize, count, chartScrollView_->actualContentTransform().a, true, pad());
        for (int32_t k = 0; k < count; k += std::max(1, step))
            drawXLabel(mOscilloscopeFFTWindowPointsTextures[static_cast<size_t>(k)].get(),
                       k / 32.0);
    }
    drawTitles(mLegendFFTWindowTexture.get(), mLegendAmplitudeTexture.get());
}

void ChartView::drawOctaveRTALabels() {
    for (size_t i = 0; i < mDbGainTextures.size(); ++i)
        drawYLabel(mDbGainTextures[i].get(), static_cast<double>(i) / 18.0);
    const int32_t minIndex = mDefaults.octaveRTAMinIndex();
    const int32_t maxIndex = mDefaults.octaveRTAMaxIndex();
    const int32_t bands = mDefaults.octaveRTABandsPerOctave();
    const int32_t n = maxIndex + 1 - minIndex;
    if (n >= 1 && minIndex >= 0) {
        // Label k stands at the band of the octave centre 15.625 · 2^k Hz.
        for (size_t k = 0; k < mOctaveRTATextures.size(); ++k) {
            const auto band = static_cast<int32_t>(k) * bands;
            if (band < minIndex || band > maxIndex)
                continue;
            drawXLabel(mOctaveRTATextures[k].get(), (band - minIndex + 0.5) / n);
        }
    }
    drawTitles(mLegendFrequencyTextureLogarithmic.get(), mLegendRMSSPLTexture.get());
}

void ChartView::drawGLRect(const QRectF& /*rect*/) {
    if (effect() == nullptr)
        return;
    effect()->clearColor(mLabelBorderClearColor[0], mLabelBorderClearColor[1],
                         mLabelBorderClearColor[2], mLabelBorderClearColor[3]);
    if (!fullScreen_)
        return;
    if (texturesPending_)
        makeTexturesNow();
    switch (typeOfChart_) {
    case 1:
        drawOscilloscopeLabels();
        break;
    case 2:
        drawOctaveRTALabels();
        break;
    default:
        drawSpectrumLabels();
        break;
    }
    if (!refreshQueued_) {
        refreshQueued_ = true;
        QMetaObject::invokeMethod(
            this, [this] { refreshTextures(); }, Qt::QueuedConnection);
    }
}

// --- Image ----------------------------------------------------------------------------------

QImage ChartView::imageOfChart() {
    QImage image = composedImage();
    if (image.isNull())
        return image;
    QPainter painter(&image);
    const QRect chart = chartScrollView_->geometry();
    painter.setPen(QPen(QColor(64, 64, 64), 2.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(QRectF(chart).adjusted(1.0, 1.0, -1.0, -1.0));

    QFont font(QStringLiteral("Arial"));
    font.setPixelSize(pad() ? 15 : 12);
    painter.setFont(font);
    const QFontMetrics metrics(font);
    const int line = metrics.height();
    const int x = chart.x() + 8;
    int y = chart.y() + 6 + metrics.ascent();
    painter.setPen(QColor(230, 230, 230));
    painter.drawText(x, y,
                     QStringLiteral("%1  -  %2")
                         .arg(QString::fromLatin1(kProductName), QString::fromLatin1(kWatermark)));
    y += line;
    painter.setPen(QColor(190, 190, 190));
    painter.drawText(x, y, QString::asprintf("FFT window size : %d", mDefaults.fftSize()));
    if (chartScrollView_->measuringActivated()) {
        y += line;
        painter.drawText(x, y, chartScrollView_->infoMeasureText());
    }
    painter.end();
    return image;
}

bool ChartView::writeImageOfChart(const QString& path) {
    const QImage image = imageOfChart();
    return !image.isNull() && image.save(path, "PNG");
}

QByteArray ChartView::csvOfChart() const {
    const ChartData& shown = chartScrollView_->data();
    const auto number = [](double v, int decimals) { return QByteArray::number(v, 'f', decimals); };
    // With a calibrated input the levels are in dB SPL and the header says so
    // ("level_db_spl", "level_dba", ...); without one nothing changes.
    const SoundLevelSettings& levels = mDefaults.soundLevels();
    const double offset = levels.spectrumOffset();
    const auto levelHeader = [&](const char* header) {
        QByteArray h(header);
        if (!levels.splOffset())
            return h;
        const QByteArray suffix =
            "_" +
            levels.spectrumUnit().toLower().replace(QLatin1Char(' '), QLatin1Char('_')).toLatin1();
        return h.replace("_db", suffix.constData());
    };
    QByteArray out;
    switch (typeOfChart_) {
    case 1: {
        out = "time_s,value\n";
        const float* samples = shown.fftWindowData();
        const double rate = mDefaults.sampleRate();
        for (int32_t k = 0; samples != nullptr && rate > 0.0 && k < mDefaults.fftSize(); ++k)
            out += number(k / rate, 7) + ',' + number(samples[k], 7) + '\n';
        break;
    }
    case 2: {
        out = levelHeader("centre_hz,level_db,min_db,max_db\n");
        const int32_t lo = mDefaults.octaveRTAMinIndex();
        const int32_t hi = std::min(mDefaults.octaveRTAMaxIndex(), ChartData::kBands - 2);
        for (int32_t b = std::max(lo, 0); shown.fftOutData() != nullptr && lo >= 0 && b <= hi;
             ++b) {
            const auto i = static_cast<size_t>(b);
            out += number(mDefaults.octaveRTAFrequencies()[i], 3) + ',' +
                   number(shown.octaveRTAValues()[i] + offset, 3) + ',' +
                   number(shown.octaveRTAMinValues()[i] + offset, 3) + ',' +
                   number(shown.octaveRTAMaxValues()[i] + offset, 3) + '\n';
        }
        break;
    }
    default: {
        const bool inDB = mDefaults.valuesInDB();
        out = inDB ? levelHeader("frequency_hz,level_db\n") : "frequency_hz,magnitude\n";
        const float* spectrum = shown.fftOutData();
        const int32_t bins = mDefaults.fftOutSize();
        const double binWidth = static_cast<double>(mDefaults.sampleRate()) / mDefaults.fftSize();
        for (int32_t i = 0; spectrum != nullptr && i < bins; ++i)
            out += number(i * binWidth, 4) + ',' +
                   number(inDB ? spectrum[i] + offset : spectrum[i], inDB ? 3 : 9) + '\n';
        break;
    }
    }
    return out;
}

bool ChartView::writeCsvOfChart(const QString& path) const {
    QSaveFile file(path);
    const QByteArray csv = csvOfChart();
    return file.open(QIODevice::WriteOnly) && file.write(csv) == csv.size() && file.commit();
}

} // namespace widmo
