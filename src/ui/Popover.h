#pragma once

#include <QPoint>
#include <QSize>

class QWidget;

namespace widmo {

/// Places the tablet popovers: a `Qt::Popup` window beside the control that
/// opened it, kept inside the control's window and screen.
///
/// Threading: main thread only.
class Popover {
public:
    /// Makes `popup` a popup window (it closes when the user clicks outside it
    /// or presses Escape).
    static void makePopup(QWidget* popup);
    /// Sizes `popup` to `size` and shows it under `anchor`, or over it when
    /// there is no room below, inside the part of the screen that `anchor`'s
    /// window covers (the size is clamped to that part).
    static void presentFrom(QWidget* popup, const QWidget* anchor, QSize size);
    /// The same, hanging from the global point `point`, inside the window of
    /// `popup`'s parent.
    static void presentAt(QWidget* popup, QPoint point, QSize size);
};

} // namespace widmo
