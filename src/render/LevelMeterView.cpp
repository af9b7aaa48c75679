#include "render/LevelMeterView.h"

#include "render/DeviceClass.h"

#include <QFontMetricsF>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QPainter>

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

const LevelMeterView::Metrics kPhone{44, 2.0, 1.0, 83.0, 11.5, 11.5, QPointF(1, 65), 40, 5, 4.0};
const LevelMeterView::Metrics kTablet{88, 1.0, 2.0, 157.0, 15.0, 14.0, QPointF(3, 135), 50, 7, 6.0};

const QColor kLegendColor = QColor::fromRgbF(0.5f, 0.5f, 0.5f);
const QColor kReadoutColor = QColor::fromRgbF(1.0f, 0.1f, 0.1f);

} // namespace

const LevelMeterView::Metrics& LevelMeterView::metrics(bool pad) { return pad ? kTablet : kPhone; }

LevelMeterView::LevelMeterView(QWidget* parent, const AnalyzerFeatures& features)
    : GLView(parent), features_(features), pad_(DeviceClass::isPad(parent)) {
    commonInit();
}

LevelMeterView::~LevelMeterView() {
    makeCurrent();
    releaseGLResources();
    doneCurrent();
}

void LevelMeterView::commonInit() {
    // The textures need the GL context, which exists from the first show or
    // grab on; `setupGLResources` makes them then.

    const Metrics& m = metrics(pad_);
    // The read-out keeps the same margin on both sides of the meter.
    const QFont font = DeviceClass::fittedFont(DeviceClass::systemFont(m.readoutFontSize, true),
                                               "-144.0", m.meterWidth - 2.0 * m.readoutOrigin.x());
    mDBLabel = new QLabel(this);
    mDBLabel->setFont(font);
    mDBLabel->setAlignment(Qt::AlignCenter);
    mDBLabel->setAutoFillBackground(false);
    mDBLabel->setAttribute(Qt::WA_TranslucentBackground);
    QPalette palette = mDBLabel->palette();
    palette.setColor(QPalette::WindowText, kReadoutColor);
    mDBLabel->setPalette(palette);
    const QSizeF size = QFontMetricsF(font).size(Qt::TextSingleLine, "-144.0");
    mDBLabel->setGeometry(
        static_cast<int>(m.readoutOrigin.x()), static_cast<int>(m.readoutOrigin.y()),
        static_cast<int>(std::ceil(size.width())), static_cast<int>(std::ceil(size.height())));
    resetToEmpty();
}

void LevelMeterView::showEmpty() {
    resetToEmpty();
    setNeedsDisplay();
}

void LevelMeterView::resetToEmpty() {
    setLevelDB(-144.0f);
    setClosedQuotient(0.0f);
    mLastLevelDB = -144.0f;
    mLastCQ = 0.0f;
    mRefreshCounter = 0;
    mDBLabel->setText(features_.featureLevelMeterEnabled() ? "-144.0" : QString());
}

void LevelMeterView::setupGLResources() { prepareTextures(); }

void LevelMeterView::releaseGLResources() {
    mLegendTitleTexture.reset();
    mLegendLine1Texture.reset();
    mLegendLine2Texture.reset();
    mScaleTexture.reset();
    dbTexture_.reset();
}

void LevelMeterView::prepareTextures() {
    GLPainter* e = effect();
    if (e == nullptr)
        return;
    mScaleTexture = e->convertToTextureImage(scaleCQImage());

    const bool cq = features_.featureVoiceEGG();
    const Metrics& m = metrics(pad_);
    const QFont base = DeviceClass::systemFont(m.legendFontSize * (cq ? 0.9 : 1.0), true);
    // The legend hangs below the top margin and must end above the read-out,
    // with the read-out's own margin between them.
    const double room = m.readoutOrigin.y() - m.readoutOrigin.x() - m.legendMargin;
    if (pad_) {
        const QString legend = cq ? "Closed quotient (%)" : "SPL Meter (" + unit_ + ")";
        mLegendTitleTexture = e->convertToTextureText(
            legend, DeviceClass::fittedFont(base, legend, room), kLegendColor);
    } else {
        const QString line1 = cq ? "Closed" : "SPL Meter";
        const QString line2 = cq ? "quotient (%)" : "(" + unit_ + ")";
        // One size for both lines, fitted to the longer.
        const QFont font =
            DeviceClass::fittedFont(DeviceClass::fittedFont(base, line1, room), line2, room);
        mLegendLine1Texture = e->convertToTextureText(line1, font, kLegendColor);
        mLegendLine2Texture = e->convertToTextureText(line2, font, kLegendColor);
    }
}

int LevelMeterView::litSegmentCount(double v, bool pad) {
    const double k = pad ? 1.0 : 0.5;
    return static_cast<int>(std::trunc(std::round(v + 88.0) * k));
}

void LevelMeterView::drawGLRect(const QRectF& rect) {
    GLPainter* e = effect();
    if (e == nullptr)
        return;
    e->clearColor(0.05f, 0.05f, 0.05f, 1.0f);
    if (!fullScreen_ || !features_.featureLevelMeterEnabled())
        return;

    if (legendDirty_) {
        legendDirty_ = false;
        prepareTextures();
    }
    const double w = rect.width();
    const double h = rect.height();
    const float level = levelDB();
    double shown = -144.0;
    if (level >= -144.0f) {
        mLastLevelDB = nextLevelDB();
        shown = mLastLevelDB;
    }
    const float cq = closedQuotient();
    mLastCQ = nextCQ();

    if (features_.featureVoiceEGG())
        drawClosedQuotient(w, h);
    else
        drawLevelColumn(shown, w, h);
    drawLegend(w, h);

    if (mRefreshCounter < 0) {
        mRefreshCounter = 6;
        mDBLabel->setText(readoutText(shown, cq));
        mDBLabel->update();
    }
    --mRefreshCounter;
}

float LevelMeterView::nextLevelDB() const {
    const double level = levelDB();
    // A time-weighted level is shown as it is: smoothing it again would change
    // its time constant.
    if (!glide_)
        return static_cast<float>(level);
    return static_cast<float>(mLastLevelDB + 0.4 * (level - mLastLevelDB));
}

float LevelMeterView::nextCQ() const {
    const float cq = closedQuotient();
    // The line drops at once instead of gliding down.
    return cq == 0.0f ? 0.0f : static_cast<float>(mLastCQ + 0.2 * (double(cq) - mLastCQ));
}

int LevelMeterView::cqRow(double cq, double h) const {
    const double columnHeight = h - metrics(pad_).legendSpace;
    return static_cast<int>(std::lround(columnHeight * cq * devicePixelRatioF()));
}

QString LevelMeterView::readoutText(double shownLevel, float cq) const {
    if (features_.featureVoiceEGG())
        return QString::asprintf("%.0f", double(cq) * 100.0);
    return QString::asprintf("%.1f", shownLevel > -144.0 ? shownLevel + offset_ : shownLevel);
}

bool LevelMeterView::frameWouldChange() {
    if (!fullScreen_ || !features_.featureLevelMeterEnabled())
        return litShown_ == -2;
    const float level = levelDB();
    const float cq = closedQuotient();
    const double next = level >= -144.0f ? nextLevelDB() : -144.0;
    if (mRefreshCounter < 0 && readoutText(next, cq) != mDBLabel->text())
        return true;
    if (mRefreshCounter >= 0)
        --mRefreshCounter;
    if (features_.featureVoiceEGG()) {
        const double h = height();
        return cqRow(nextCQ(), h) != cqRowShown_ || cqRow(cq, h) != cqRowShown_;
    }
    return litSegmentCount(next, pad_) != litShown_ ||
           litSegmentCount(std::max(level, -144.0f), pad_) != litShown_;
}

void LevelMeterView::drawLevelColumn(double shownLevel, double /*w*/, double h) {
    GLPainter* e = effect();
    const Metrics& m = metrics(pad_);
    const int n = m.segments;
    const int lit = litSegmentCount(shownLevel, pad_);
    litShown_ = lit;
    const double columnHeight = 1.0 - m.legendSpace / h;
    const double pitch = columnHeight / n;
    const double gap = m.segmentGap / h;

    // Walking down from the top, the colour turns red only after the segment
    // with index L is drawn, so segments 0..L-1 are red and L itself stays grey
    // (or yellow when it is the top one).
    if (n - 1 <= lit)
        e->prepareToDrawWithConstantColor(0.9f, 0.9f, 0.0f, 1.0f);
    else
        e->prepareToDrawWithConstantColor(0.2f, 0.2f, 0.2f, 1.0f);
    for (int i = n - 1; i >= 0; --i) {
        e->drawRectangle(QPointF(0.2, i * pitch), QPointF(0.8, (i + 1) * pitch - gap));
        if (i <= lit)
            e->prepareToDrawWithConstantColor(1.0f, 0.1f, 0.1f, 1.0f);
    }
}

void LevelMeterView::drawClosedQuotient(double w, double h) {
    GLPainter* e = effect();
    const Metrics& m = metrics(pad_);
    const double columnHeight = 1.0 - m.legendSpace / h;
    e->setLineWidth(5.0f);
    if (mScaleTexture)
        e->drawTexture(mScaleTexture.get(), QPointF(5.0 / w, columnHeight),
                       QPointF(1.0 - 5.0 / w, 0.0));
    e->prepareToDrawWithConstantColor(1.0f, 0.0f, 0.0f, 1.0f);
    const double y = columnHeight * mLastCQ;
    cqRowShown_ = cqRow(mLastCQ, h);
    e->drawLine(QPointF(5.0 / w, y), QPointF(1.0 - 5.0 / w, y));
}

void LevelMeterView::drawLegend(double w, double h) {
    GLPainter* e = effect();
    const QSizeF frame(w, h);
    // Hung from the top edge itself, the first glyph's top row was cut off.
    const double top = 1.0 - metrics(pad_).legendMargin / h;
    if (pad_) {
        e->drawTextTexture(mLegendTitleTexture.get(), QPointF(0.5, top), 1.0f, onTheRight_ ? 8 : 7,
                           frame, QRectF());
        return;
    }
    // Turned to read bottom to top (left) the first line stands further left;
    // reading top to bottom (right) it stands further right.
    const int orientation = onTheRight_ ? 8 : 7;
    const double x1 = onTheRight_ ? 0.7 : 0.35;
    const double x2 = onTheRight_ ? 0.35 : 0.7;
    e->drawTextTexture(mLegendLine1Texture.get(), QPointF(x1, top), 1.0f, orientation, frame,
                       QRectF());
    e->drawTextTexture(mLegendLine2Texture.get(), QPointF(x2, top), 1.0f, orientation, frame,
                       QRectF());
}

void LevelMeterView::showSoundLevels(double barLevelDB, double offset, const QString& unit,
                                     const QString& figures) {
    glide_ = false;
    offset_ = offset;
    if (unit != unit_) {
        unit_ = unit;
        legendDirty_ = true;
    }
    // Silence is minus infinity, which the column shows as no signal.
    setLevelDB(std::isfinite(barLevelDB) ? static_cast<float>(std::max(barLevelDB, -200.0))
                                         : -200.0f);
    if (figuresLabel_ == nullptr && parentWidget() != nullptr) {
        figuresLabel_ = new QLabel(parentWidget());
        figuresLabel_->setObjectName(QStringLiteral("soundLevelFigures"));
        figuresLabel_->setFont(DeviceClass::systemFont(pad_ ? 13.0 : 11.0, true));
        figuresLabel_->setStyleSheet(
            QStringLiteral("QLabel { background: rgba(20, 20, 20, 200); color: rgb(235, 235, 235); "
                           "padding: 3px 6px; }"));
        figuresLabel_->setAttribute(Qt::WA_TransparentForMouseEvents);
    }
    if (figuresLabel_ != nullptr) {
        figuresLabel_->setText(figures);
        figuresLabel_->adjustSize();
        placeFiguresLabel();
        figuresLabel_->setVisible(fullScreen_);
        figuresLabel_->raise();
    }
    setNeedsDisplay();
}

void LevelMeterView::clearSoundLevels() {
    glide_ = true;
    offset_ = 0.0;
    if (unit_ != QLatin1String("dBFS")) {
        unit_ = QStringLiteral("dBFS");
        legendDirty_ = true;
    }
    if (figuresLabel_ != nullptr)
        figuresLabel_->hide();
}

void LevelMeterView::placeFiguresLabel() {
    if (figuresLabel_ == nullptr)
        return;
    // Beside the column, at the bottom, on the chart's side of the meter.
    const QRect g = geometry();
    const QSize size = figuresLabel_->size();
    const int x = onTheRight_ ? g.left() - size.width() - 4 : g.right() + 5;
    const int y = g.bottom() - size.height() - 40;
    figuresLabel_->move(x, std::max(0, y));
}

void LevelMeterView::setFullScreen(bool on) {
    fullScreen_ = on;
    if (figuresLabel_ != nullptr && !glide_)
        figuresLabel_->setVisible(on);
}

void LevelMeterView::resizeEvent(QResizeEvent* event) {
    GLView::resizeEvent(event);
    placeFiguresLabel();
}

void LevelMeterView::moveEvent(QMoveEvent* event) {
    GLView::moveEvent(event);
    placeFiguresLabel();
}

QImage LevelMeterView::scaleCQImage() {
    constexpr int kWidth = 64;
    constexpr int kHeight = 512;
    constexpr int kMargin = 8; // keeps the 0 and 100 labels inside the picture
    QImage image(kWidth, kHeight, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setRenderHint(QPainter::TextAntialiasing);
    // Paint upright in a mirrored frame: 0 % ends up at the top of the image.
    p.translate(0, kHeight);
    p.scale(1, -1);
    const double span = kHeight - 2.0 * kMargin;
    QFont font = DeviceClass::systemFont(13, true);
    p.setFont(font);
    p.fillRect(QRectF(kWidth * 0.45, kMargin, 3, span), QColor(90, 90, 90));
    for (int percent = 0; percent <= 100; percent += 10) {
        const double y = kHeight - kMargin - span * percent / 100.0;
        const bool major = percent % 50 == 0;
        const double tick = major ? 20.0 : 12.0;
        p.fillRect(QRectF(kWidth * 0.45 - tick + 3, y - 1, tick, 2), QColor(150, 150, 150));
        if (major) {
            p.setPen(QColor(200, 200, 200));
            p.drawText(QRectF(kWidth * 0.5 + 4, y - 10, kWidth * 0.5 - 4, 20),
                       Qt::AlignLeft | Qt::AlignVCenter, QString::number(percent));
        }
    }
    p.end();
    return image;
}

} // namespace widmo
