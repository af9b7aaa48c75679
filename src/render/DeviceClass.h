#pragma once

#include <QFont>

#include <optional>

class QWidget;

namespace widmo {

/// The device class (phone or tablet) and the content scale factor, asked by
/// every view so that sizes, fonts and zoom limits agree across the program.
///
/// A window on a screen at least 7 inches across is a tablet (desktop monitors
/// are tablets); a smaller screen, or one whose size cannot be read, is a phone.
///
/// Threading: main thread only.
class DeviceClass {
public:
    enum class Idiom { Phone, Tablet };

    /// The class of the screen `widget` is on, or of the primary screen when
    /// `widget` is null or not yet on a screen.
    static Idiom idiom(const QWidget* widget = nullptr);
    static bool isPad(const QWidget* widget = nullptr) { return idiom(widget) == Idiom::Tablet; }

    /// Makes `idiom` answer `forced` regardless of the screen (tests and
    /// screenshots of the other class); std::nullopt returns to detection.
    static void setForcedIdiom(std::optional<Idiom> forced);

    /// Pixels per point of `widget` (its device pixel ratio); 1.0 without a widget.
    static double contentScaleFactor(const QWidget* widget);

    /// The bold or regular system font whose em is `points` device-independent
    /// pixels, the unit in which every size of the views is given.
    static QFont systemFont(double points, bool bold);
    /// `font`, made smaller if `text` would be wider than `maxWidth` pixels.
    /// The views' text sizes leave room for a narrow system font; a wider
    /// one (DejaVu Sans, the usual default on Linux, sets "-144.0" about a
    /// tenth wider) would cut the text or run it into its neighbours.
    static QFont fittedFont(QFont font, const QString& text, double maxWidth);

    /// Diagonal in inches at which a screen counts as a tablet.
    static constexpr double kTabletDiagonalInches = 7.0;
};

} // namespace widmo
