#include "batch/SpectrogramCanvas.h"

#include "core/AnalyzerDefaults.h"

#include <QFont>
#include <QFontMetrics>
#include <QPainter>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace widmo {

namespace {

// A time label: seconds for pictures up to 10 minutes, clock time beyond.
QString timeLabel(double t, bool clock) {
    if (!clock)
        return QString::number(t, 'g', 6);
    const auto whole = static_cast<int64_t>(std::floor(t + 1e-6));
    const double fraction = t - static_cast<double>(whole);
    QString text = QStringLiteral("%1:%2:%3")
                       .arg(whole / 3600)
                       .arg((whole / 60) % 60, 2, 10, QLatin1Char('0'))
                       .arg(whole % 60, 2, 10, QLatin1Char('0'));
    if (fraction > 1e-3)
        text += QString::number(fraction, 'f', 2).mid(1);
    return text;
}

} // namespace

SpectrogramCanvas::SpectrogramCanvas(int32_t rows, int64_t maxColumns)
    : rows_(std::max(2, rows)), maxColumns_(std::min(maxColumns, columnLimit(std::max(2, rows)))) {
    pageColumns_ = std::clamp<int64_t>(maxColumns_, 1, kPageColumns);
    pages_.reserve(static_cast<size_t>((maxColumns_ + pageColumns_ - 1) / pageColumns_));
}

SpectrogramCanvas::~SpectrogramCanvas() = default;

bool SpectrogramCanvas::ensureColumns(int64_t columns, const uint8_t clear[3]) {
    if (columns > maxColumns_)
        return false;
    while (static_cast<int64_t>(pages_.size()) * pageColumns_ < columns) {
        const size_t bytes = static_cast<size_t>(pageColumns_) * static_cast<size_t>(rows_) * 3;
        // Zeros, then the clear colour in the top row: every other pixel of a
        // column is written by whoever draws it, and no column is left undrawn.
        auto page = std::make_unique<uint8_t[]>(bytes);
        for (size_t k = 0; k < columnStride(); k += 3)
            std::memcpy(page.get() + k, clear, 3);
        pages_.push_back(std::move(page));
    }
    columns_ = std::max(columns_, columns);
    return true;
}

void SpectrogramCanvas::drawFrame(const Frame& frame, const AnalyzerDefaults& d) {
    const int w = width();
    const int h = height();
    const auto columns = static_cast<int>(columns_);
    top_ = QImage(w, kTopMargin, QImage::Format_RGB888);
    bottom_ = QImage(w, kBottomMargin, QImage::Format_RGB888);
    left_ = QImage(kLeftMargin, rows_, QImage::Format_RGB888);
    right_ = QImage(kRightMargin, rows_, QImage::Format_RGB888);
    const QRect plot(kLeftMargin, kTopMargin, columns, rows_);

    // Each margin gets the same drawing, moved to where it lies in the
    // picture: the painter clips what falls outside it.
    const auto paint = [&](QImage& image, int x0, int y0) {
        image.fill(Qt::white);
        QPainter p(&image);
        p.translate(-x0, -y0);
        QFont font(QStringLiteral("Arial"));
        font.setPixelSize(12);
        p.setFont(font);
        const QFontMetrics fm(font);
        p.setPen(Qt::black);
        p.drawRect(plot.adjusted(-1, -1, 0, 0));
        p.drawText(QRect(kLeftMargin, 0, std::max(columns, 600), kTopMargin),
                   Qt::AlignLeft | Qt::AlignVCenter, frame.title);

        // Frequency labels: the 1-2-5 step that leaves about 40 pixels between
        // labels on a linear axis; octave-spaced 1-2-5 values on a logarithmic one.
        const double maxF = d.maxFrequency();
        const auto rowOf = [&](double f) -> double {
            if (d.linearFrequency())
                return f / maxF * rows_;
            return std::log2(f / d.logStartFrequency()) * rows_ / d.logIntervalDelta();
        };
        const auto label = [](double f) {
            return f >= 1000.0 ? QString::number(f / 1000.0, 'g', 4) + QStringLiteral(" k")
                               : QString::number(f, 'g', 4);
        };
        std::vector<double> ticks;
        if (d.linearFrequency()) {
            const int step = AnalyzerDefaults::roundUpTo125Series(
                static_cast<float>(maxF / std::max(1.0, rows_ / 40.0)), 1, 1000000);
            for (double f = 0.0; f <= maxF; f += step)
                ticks.push_back(f);
        } else {
            for (double decade = 1.0; decade <= maxF; decade *= 10.0) {
                for (const double m : {1.0, 2.0, 5.0}) {
                    const double f = m * decade;
                    if (f >= d.logStartFrequency() && f <= maxF)
                        ticks.push_back(f);
                }
            }
        }
        double lastY = 1e9;
        for (const double f : ticks) {
            const double y = plot.bottom() - rowOf(f);
            if (lastY - y < fm.height() * 1.2)
                continue;
            lastY = y;
            const int iy = static_cast<int>(std::lround(y));
            p.drawLine(kLeftMargin - 5, iy, kLeftMargin - 1, iy);
            p.drawText(QRect(0, iy - fm.height(), kLeftMargin - 8, 2 * fm.height()),
                       Qt::AlignRight | Qt::AlignVCenter, label(f));
        }
        p.save();
        p.translate(12, plot.center().y());
        p.rotate(-90);
        p.drawText(QRect(-100, -10, 200, 20), Qt::AlignCenter, QStringLiteral("Frequency (Hz)"));
        p.restore();

        // Time labels: a 1-2-5 step in hundredths of a second, about 100
        // pixels apart, counted from the picture's start time.
        const double perColumn = frame.secondsPerColumn;
        const double duration = perColumn * columns;
        const bool clock = frame.startSeconds + duration >= 600.0;
        const double step = AnalyzerDefaults::roundUpTo125Series(
                                static_cast<float>(perColumn * 100.0 * 100.0), 1, 2000000000) /
                            100.0;
        const double firstTick = std::ceil(frame.startSeconds / step - 1e-9) * step;
        for (double t = firstTick; t <= frame.startSeconds + duration + 1e-9; t += step) {
            const int x =
                kLeftMargin + static_cast<int>(std::lround((t - frame.startSeconds) / perColumn));
            p.drawLine(x, plot.bottom() + 1, x, plot.bottom() + 5);
            p.drawText(QRect(x - 50, plot.bottom() + 6, 100, fm.height()), Qt::AlignCenter,
                       timeLabel(t, clock));
        }
        p.drawText(QRect(kLeftMargin, h - fm.height() - 4, std::max(columns, 200), fm.height() + 2),
                   Qt::AlignHCenter | Qt::AlignVCenter,
                   clock ? QStringLiteral("Time (h:mm:ss)") : QStringLiteral("Time (s)"));
    };
    paint(top_, 0, 0);
    paint(bottom_, 0, kTopMargin + rows_);
    paint(left_, 0, kTopMargin);
    paint(right_, kLeftMargin + columns, kTopMargin);
}

void SpectrogramCanvas::rgbRows(int first, int count, uint8_t* out, size_t stride) const {
    const auto columns = static_cast<size_t>(columns_);
    int y = first;
    const int end = first + count;
    // Frame rows above and below the plot, and the margins beside it.
    for (; y < end && y < kTopMargin; ++y)
        std::memcpy(out + static_cast<size_t>(y - first) * stride, top_.constScanLine(y),
                    static_cast<size_t>(width()) * 3);
    const int plotEnd = std::min(end, kTopMargin + rows_);
    for (int r = y; r < plotEnd; ++r) {
        uint8_t* line = out + static_cast<size_t>(r - first) * stride;
        std::memcpy(line, left_.constScanLine(r - kTopMargin), kLeftMargin * 3);
        std::memcpy(line + (kLeftMargin + columns) * 3, right_.constScanLine(r - kTopMargin),
                    kRightMargin * 3);
    }
    if (y < plotEnd) {
        // The plot: each page gives a run of every row.
        const size_t pageRow = columnStride();
        for (size_t page = 0; page * static_cast<size_t>(pageColumns_) < columns; ++page) {
            const size_t x0 = page * static_cast<size_t>(pageColumns_);
            const size_t bytes = std::min(pageRow, (columns - x0) * 3);
            const uint8_t* src = pages_[page].get();
            for (int r = y; r < plotEnd; ++r)
                std::memcpy(out + static_cast<size_t>(r - first) * stride + (kLeftMargin + x0) * 3,
                            src + static_cast<size_t>(r - kTopMargin) * pageRow, bytes);
        }
        y = plotEnd;
    }
    for (; y < end; ++y)
        std::memcpy(out + static_cast<size_t>(y - first) * stride,
                    bottom_.constScanLine(y - kTopMargin - rows_),
                    static_cast<size_t>(width()) * 3);
}

} // namespace widmo
