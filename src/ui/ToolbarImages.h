#pragma once

#include <QColor>
#include <QIcon>
#include <QString>

namespace widmo {

/// The toolbar's images, painted by the program itself so that they are sharp
/// at every device pixel ratio and take the tint of the button that shows
/// them: "pause", "play", "record", "stop", "Gain", "reset_min", "reset_max",
/// "reset_maxmin", "settings", "help" and "chart".
///
/// Threading: main thread only (QPixmap).
class ToolbarImages {
public:
    /// The image `name` in `tint`, at 1x and 2x; a null icon for an unknown name.
    static QIcon imageNamed(const QString& name, const QColor& tint);
    /// The application icon (the window's and the desktop entry's).
    static QIcon applicationIcon();
};

} // namespace widmo
