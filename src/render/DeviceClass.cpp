#include "render/DeviceClass.h"

#include <QFontDatabase>
#include <QFontMetricsF>
#include <QGuiApplication>
#include <QScreen>
#include <QWidget>

#include <cmath>

namespace widmo {

namespace {
std::optional<DeviceClass::Idiom> gForcedIdiom;
} // namespace

DeviceClass::Idiom DeviceClass::idiom(const QWidget* widget) {
    if (gForcedIdiom)
        return *gForcedIdiom;
    const QScreen* screen = widget != nullptr ? widget->screen() : nullptr;
    if (screen == nullptr)
        screen = QGuiApplication::primaryScreen();
    if (screen == nullptr)
        return Idiom::Phone;
    const QSizeF mm = screen->physicalSize();
    if (mm.width() <= 0.0 || mm.height() <= 0.0)
        return Idiom::Phone;
    const double inches = std::hypot(mm.width(), mm.height()) / 25.4;
    return inches >= kTabletDiagonalInches ? Idiom::Tablet : Idiom::Phone;
}

void DeviceClass::setForcedIdiom(std::optional<Idiom> forced) { gForcedIdiom = forced; }

double DeviceClass::contentScaleFactor(const QWidget* widget) {
    return widget != nullptr ? widget->devicePixelRatioF() : 1.0;
}

QFont DeviceClass::systemFont(double points, bool bold) {
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    // Qt's point sizes follow the screen's logical DPI; the views' sizes are in
    // device-independent pixels, so convert through that DPI.
    double dpi = 96.0;
    if (const QScreen* screen = QGuiApplication::primaryScreen())
        dpi = screen->logicalDotsPerInchY();
    font.setPointSizeF(points * 72.0 / dpi);
    font.setBold(bold);
    return font;
}

QFont DeviceClass::fittedFont(QFont font, const QString& text, double maxWidth) {
    // Hinting does not scale the width exactly with the size: shrink again
    // until it fits (two rounds at most in practice).
    for (int round = 0; round < 4; ++round) {
        const double width = QFontMetricsF(font).horizontalAdvance(text);
        if (width <= maxWidth || width <= 0.0)
            break;
        font.setPointSizeF(font.pointSizeF() * maxWidth / width * (round == 0 ? 1.0 : 0.97));
    }
    return font;
}

} // namespace widmo
