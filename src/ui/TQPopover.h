#pragma once

#include <QPoint>
#include <QSize>

class QWidget;

namespace widmo {

/// Places the tablet popovers: a `Qt::Popup` window beside the control that
/// opened it, kept on the control's screen.
///
/// Threading: main thread only.
class TQPopover {
public:
    /// Makes `popup` a popup window (it closes when the user clicks outside it
    /// or presses Escape).
    static void makePopup(QWidget* popup);
    /// Sizes `popup` to `size` (clamped to the screen) and shows it under
    /// `anchor`, or over it when there is no room below.
    static void presentFrom(QWidget* popup, const QWidget* anchor, QSize size);
    /// The same, hanging from the global point `point`.
    static void presentAt(QWidget* popup, QPoint point, QSize size);
};

} // namespace widmo
