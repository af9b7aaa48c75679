#include "ui/TQPopover.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWidget>

#include <algorithm>

namespace widmo {

namespace {

// Shows `popup` with its top edge at `below`, or its bottom edge at `above`
// when it does not fit below, centred horizontally on `centreX`.
void place(QWidget* popup, int centreX, int below, int above, QSize size, QScreen* screen) {
    const QRect area = screen != nullptr ? screen->availableGeometry() : QRect(0, 0, 1280, 800);
    size = size.boundedTo(area.size());
    popup->resize(size);
    int x = std::clamp(centreX - size.width() / 2, area.left(), area.right() - size.width() + 1);
    int y = below;
    if (y + size.height() > area.bottom() + 1)
        y = std::max(above - size.height(), area.top());
    popup->move(x, y);
    popup->show();
    popup->raise();
    popup->activateWindow();
}

} // namespace

void TQPopover::makePopup(QWidget* popup) {
    popup->setWindowFlags(Qt::Popup);
    popup->setAttribute(Qt::WA_DeleteOnClose, false);
}

void TQPopover::presentFrom(QWidget* popup, const QWidget* anchor, QSize size) {
    if (anchor == nullptr) {
        const QScreen* screen = QGuiApplication::primaryScreen();
        const QPoint c = screen != nullptr ? screen->availableGeometry().center() : QPoint();
        presentAt(popup, QPoint(c.x(), c.y() - size.height() / 2), size);
        return;
    }
    const QPoint topLeft = anchor->mapToGlobal(QPoint(0, 0));
    place(popup, topLeft.x() + anchor->width() / 2, topLeft.y() + anchor->height(), topLeft.y(),
          size, anchor->screen());
}

void TQPopover::presentAt(QWidget* popup, QPoint point, QSize size) {
    place(popup, point.x(), point.y(), point.y(), size, QGuiApplication::screenAt(point));
}

} // namespace widmo
