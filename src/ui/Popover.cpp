#include "ui/Popover.h"

#include <QGuiApplication>
#include <QRect>
#include <QScreen>
#include <QWidget>

#include <algorithm>

namespace widmo {

namespace {

// The part of the screen that a popup of `owner`'s window may cover: the
// window's own area on its screen, or the whole screen without a window.
QRect allowedArea(const QWidget* owner, QScreen* screen) {
    const QRect area = screen != nullptr ? screen->availableGeometry() : QRect(0, 0, 1280, 800);
    const QWidget* window = owner != nullptr ? owner->window() : nullptr;
    if (window == nullptr || !window->isVisible())
        return area;
    const QRect inside = window->geometry() & area;
    return inside.isEmpty() ? area : inside;
}

// Shows `popup` with its top edge at `below`, or its bottom edge at `above`
// when it does not fit below, centred horizontally on `centreX`, inside
// `area` (a popup larger than the area is shrunk to it; its page scrolls).
void place(QWidget* popup, int centreX, int below, int above, QSize size, const QRect& area) {
    size = size.boundedTo(area.size());
    popup->resize(size);
    const int x =
        std::clamp(centreX - size.width() / 2, area.left(), area.right() - size.width() + 1);
    int y = below;
    if (y + size.height() > area.bottom() + 1)
        y = above - size.height();
    y = std::clamp(y, area.top(), area.bottom() - size.height() + 1);
    popup->move(x, y);
    popup->show();
    popup->raise();
    popup->activateWindow();
}

} // namespace

void Popover::makePopup(QWidget* popup) {
    popup->setWindowFlags(Qt::Popup);
    popup->setAttribute(Qt::WA_DeleteOnClose, false);
}

void Popover::presentFrom(QWidget* popup, const QWidget* anchor, QSize size) {
    if (anchor == nullptr) {
        const QScreen* screen = QGuiApplication::primaryScreen();
        const QPoint c = screen != nullptr ? screen->availableGeometry().center() : QPoint();
        presentAt(popup, QPoint(c.x(), c.y() - size.height() / 2), size);
        return;
    }
    const QPoint topLeft = anchor->mapToGlobal(QPoint(0, 0));
    place(popup, topLeft.x() + anchor->width() / 2, topLeft.y() + anchor->height(), topLeft.y(),
          size, allowedArea(anchor, anchor->screen()));
}

void Popover::presentAt(QWidget* popup, QPoint point, QSize size) {
    place(popup, point.x(), point.y(), point.y(), size,
          allowedArea(popup->parentWidget(), QGuiApplication::screenAt(point)));
}

} // namespace widmo
