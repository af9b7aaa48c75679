#pragma once

#include <QPointF>

namespace widmo {

/// A 2-D affine transform with the six components a, b, c, d, tx, ty that maps
/// (x, y) to (a·x + c·y + tx, b·x + d·y + ty).
///
/// Every view maps its content square into unit view space with one of these.
/// The builder operations (`translatedAfter`, `scaledAfter`, `concat`) apply the
/// new step after the transform, so their arguments are in the space the
/// transform maps into (unit view space for a content transform).
struct AffineTransform {
    double a = 1.0;
    double b = 0.0;
    double c = 0.0;
    double d = 1.0;
    double tx = 0.0;
    double ty = 0.0;

    static AffineTransform identity() { return {}; }
    static AffineTransform translation(double x, double y) { return {1, 0, 0, 1, x, y}; }
    static AffineTransform scale(double sx, double sy) { return {sx, 0, 0, sy, 0, 0}; }

    /// This transform followed by `next`.
    AffineTransform concat(const AffineTransform& next) const;
    /// This transform followed by a translation by (x, y).
    AffineTransform translatedAfter(double x, double y) const;
    /// This transform followed by a scale by (sx, sy) about the origin.
    AffineTransform scaledAfter(double sx, double sy) const;
    /// The inverse; the identity when the transform is singular.
    AffineTransform inverted() const;

    QPointF map(const QPointF& p) const {
        return {a * p.x() + c * p.y() + tx, b * p.x() + d * p.y() + ty};
    }

    bool isIdentity() const { return *this == AffineTransform(); }
    bool operator==(const AffineTransform&) const = default;
};

} // namespace widmo
