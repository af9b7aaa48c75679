#include "render/SoftwareRasterizer.h"

#include <QPen>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace widmo {

namespace {

// Lines closer to upright than this (pixels over their length) are rectangles.
constexpr double kUpright = 1e-6;

// The pixels whose centres lie in [a, b): OpenGL's rule for the edges of a
// filled shape, so that touching rectangles neither overlap nor leave a gap.
std::pair<int, int> centresWithin(double a, double b, int limit) {
    if (a > b)
        std::swap(a, b);
    const double first = std::ceil(a - 0.5);
    const double end = std::ceil(b - 0.5);
    return {static_cast<int>(std::clamp(first, 0.0, static_cast<double>(limit))),
            static_cast<int>(std::clamp(end, 0.0, static_cast<double>(limit)))};
}

uint32_t blendOver(uint32_t src, uint32_t dst) {
    const uint32_t a = src >> 24;
    const uint32_t na = 255 - a;
    uint32_t out = 0xff000000u;
    for (int shift = 0; shift <= 16; shift += 8) {
        const uint32_t s = (src >> shift) & 0xffu;
        const uint32_t d = (dst >> shift) & 0xffu;
        out |= ((s * a + d * na + 127) / 255) << shift;
    }
    return out;
}

} // namespace

SoftwareRasterizer::SoftwareRasterizer(QImage* target) : target_(target) {}

SoftwareRasterizer::~SoftwareRasterizer() { end(); }

void SoftwareRasterizer::begin() {
    end();
    bits_ = reinterpret_cast<uint32_t*>(target_->bits());
    width_ = target_->width();
    height_ = target_->height();
    stride_ = target_->bytesPerLine() / 4;
    blending_ = false;
    resetClip();
}

void SoftwareRasterizer::setClipColumns(int first, int end) {
    clipFirst_ = std::clamp(first, 0, width_);
    clipEnd_ = std::clamp(end, clipFirst_, width_);
    if (painter_)
        painter_->setClipRect(QRect(clipFirst_, 0, clipEnd_ - clipFirst_, height_));
}

void SoftwareRasterizer::resetClip() {
    clipFirst_ = 0;
    clipEnd_ = width_;
    if (painter_)
        painter_->setClipping(false);
}

void SoftwareRasterizer::copyShifted(const QImage& source, int dx) {
    if (bits_ == nullptr || source.size() != QSize(width_, height_) ||
        source.format() != QImage::Format_RGB32 || std::abs(dx) >= width_)
        return;
    const int from = std::max(0, -dx);
    const auto count = static_cast<size_t>(width_ - std::abs(dx));
    for (int y = 0; y < height_; ++y) {
        const auto* in = reinterpret_cast<const uint32_t*>(source.constScanLine(y));
        std::memmove(bits_ + y * stride_ + from + dx, in + from, count * 4);
    }
}

void SoftwareRasterizer::end() {
    if (painter_) {
        painter_->end();
        painter_.reset();
    }
}

QPainter& SoftwareRasterizer::painter() {
    if (!painter_) {
        painter_ = std::make_unique<QPainter>(target_);
        painter_->setRenderHint(QPainter::Antialiasing, false);
        if (clipFirst_ > 0 || clipEnd_ < width_)
            painter_->setClipRect(QRect(clipFirst_, 0, clipEnd_ - clipFirst_, height_));
    }
    return *painter_;
}

void SoftwareRasterizer::clear(uint32_t argb) {
    const uint32_t opaque = argb | 0xff000000u;
    for (int y = 0; y < height_; ++y)
        std::fill(bits_ + y * stride_ + clipFirst_, bits_ + y * stride_ + clipEnd_, opaque);
}

void SoftwareRasterizer::fillRect(QPointF corner1, QPointF corner2, uint32_t argb) {
    if (bits_ == nullptr)
        return;
    auto [x0, x1] = centresWithin(corner1.x(), corner2.x(), width_);
    x0 = std::max(x0, clipFirst_);
    x1 = std::min(x1, clipEnd_);
    const auto [y0, y1] = centresWithin(corner1.y(), corner2.y(), height_);
    if (x0 >= x1 || y0 >= y1)
        return;
    const bool blend = blending_ && (argb >> 24) < 255;
    const uint32_t opaque = argb | 0xff000000u;
    for (int y = y0; y < y1; ++y) {
        uint32_t* row = bits_ + y * stride_;
        if (!blend) {
            std::fill(row + x0, row + x1, opaque);
            continue;
        }
        for (int x = x0; x < x1; ++x)
            row[x] = blendOver(argb, row[x]);
    }
}

void SoftwareRasterizer::drawLine(QPointF from, QPointF to, float width, uint32_t argb) {
    const double half = std::max(1.0f, width) / 2.0;
    if (std::abs(from.x() - to.x()) < kUpright) {
        fillRect(QPointF(from.x() - half, from.y()), QPointF(from.x() + half, to.y()), argb);
        return;
    }
    if (std::abs(from.y() - to.y()) < kUpright) {
        fillRect(QPointF(from.x(), from.y() - half), QPointF(to.x(), from.y() + half), argb);
        return;
    }
    QPainter& p = painter();
    p.setCompositionMode(blending_ ? QPainter::CompositionMode_SourceOver
                                   : QPainter::CompositionMode_Source);
    QPen pen{QColor::fromRgba(argb)};
    pen.setWidthF(std::max(1.0f, width));
    pen.setCapStyle(Qt::FlatCap);
    p.setPen(pen);
    p.drawLine(from, to);
}

void SoftwareRasterizer::drawRgbaNearest(const uint8_t* image, int columns, int rows, int stride,
                                         int validColumns, double left, double right, double bottom,
                                         double top) {
    if (bits_ == nullptr || image == nullptr || columns < 1 || rows < 1 || right <= left ||
        bottom <= top)
        return;
    auto [x0, x1] = centresWithin(left, right, width_);
    x0 = std::max(x0, clipFirst_);
    x1 = std::min(x1, clipEnd_);
    if (x0 >= x1)
        return;
    const auto [y0, y1] = centresWithin(top, bottom, height_);
    const double perColumn = columns / (right - left);
    const double perRow = rows / (bottom - top);
    for (int y = y0; y < y1; ++y) {
        const int r = std::clamp(static_cast<int>((bottom - (y + 0.5)) * perRow), 0, rows - 1);
        const uint8_t* texels = image + static_cast<qsizetype>(r) * stride;
        uint32_t* row = bits_ + y * stride_;
        for (int x = x0; x < x1; ++x) {
            const int c = std::min(static_cast<int>((x + 0.5 - left) * perColumn), columns - 1);
            if (c >= validColumns)
                break;
            const uint8_t* t = texels + 4 * c;
            row[x] = 0xff000000u | (uint32_t{t[0]} << 16) | (uint32_t{t[1]} << 8) | t[2];
        }
    }
}

void SoftwareRasterizer::drawImage(const QImage& image, const QTransform& imageToPixels,
                                   bool blend) {
    if (image.isNull())
        return;
    QPainter& p = painter();
    p.setCompositionMode(blend ? QPainter::CompositionMode_SourceOver
                               : QPainter::CompositionMode_Source);
    p.setTransform(imageToPixels);
    p.drawImage(QPointF(0, 0), image);
    p.resetTransform();
}

QTransform SoftwareRasterizer::textureTransform(const std::array<QPointF, 4>& pixels,
                                                const std::array<QPointF, 4>& texCoords,
                                                QSize textureSize) {
    // Texture coordinates to pixels from three vertices: P = P0 + L (tc - tc0),
    // L solving L [tc1 - tc0, tc2 - tc0] = [P1 - P0, P2 - P0].
    const QPointF a = texCoords[1] - texCoords[0];
    const QPointF b = texCoords[2] - texCoords[0];
    const double det = a.x() * b.y() - a.y() * b.x();
    if (std::abs(det) < 1e-12 || textureSize.isEmpty())
        return QTransform(0, 0, 0, 0, 0, 0);
    const QPointF pa = pixels[1] - pixels[0];
    const QPointF pb = pixels[2] - pixels[0];
    // inverse of [a b] (columns): 1/det [b.y -b.x; -a.y a.x]
    const double i11 = b.y() / det, i12 = -b.x() / det;
    const double i21 = -a.y() / det, i22 = a.x() / det;
    const double l11 = pa.x() * i11 + pb.x() * i21;
    const double l12 = pa.x() * i12 + pb.x() * i22;
    const double l21 = pa.y() * i11 + pb.y() * i21;
    const double l22 = pa.y() * i12 + pb.y() * i22;
    // Image pixel (u, v) is texture coordinate (u / w, v / h).
    const double w = textureSize.width();
    const double h = textureSize.height();
    const double dx = pixels[0].x() - (l11 * texCoords[0].x() + l12 * texCoords[0].y());
    const double dy = pixels[0].y() - (l21 * texCoords[0].x() + l22 * texCoords[0].y());
    // QTransform: x' = m11 u + m21 v + dx, y' = m12 u + m22 v + dy.
    return QTransform(l11 / w, l21 / w, l12 / h, l22 / h, dx, dy);
}

} // namespace widmo
