#include "render/AffineTransform.h"

namespace widmo {

AffineTransform AffineTransform::concat(const AffineTransform& n) const {
    return {a * n.a + b * n.c, a * n.b + b * n.d,          c * n.a + d * n.c,
            c * n.b + d * n.d, tx * n.a + ty * n.c + n.tx, tx * n.b + ty * n.d + n.ty};
}

AffineTransform AffineTransform::translatedAfter(double x, double y) const {
    return concat(translation(x, y));
}

AffineTransform AffineTransform::scaledAfter(double sx, double sy) const {
    return concat(scale(sx, sy));
}

AffineTransform AffineTransform::inverted() const {
    const double det = a * d - b * c;
    if (det == 0.0)
        return identity();
    return {d / det, -b / det, -c / det, a / det, (c * ty - d * tx) / det, (b * tx - a * ty) / det};
}

} // namespace widmo
