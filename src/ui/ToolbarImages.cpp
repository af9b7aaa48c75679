#include "ui/ToolbarImages.h"

#include <QFont>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

#include <cmath>
#include <numbers>

namespace widmo {
namespace {

constexpr int kPoints = 24; // logical size of a toolbar image

// Draws `name` on a kPoints x kPoints canvas; false for an unknown name.
bool paintImage(QPainter& p, const QString& name, const QColor& tint) {
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(tint);
    if (name == QLatin1String("pause")) {
        p.drawRoundedRect(QRectF(6, 4, 4, 16), 1, 1);
        p.drawRoundedRect(QRectF(14, 4, 4, 16), 1, 1);
    } else if (name == QLatin1String("play")) {
        QPainterPath path;
        path.moveTo(7, 4);
        path.lineTo(20, 12);
        path.lineTo(7, 20);
        path.closeSubpath();
        p.drawPath(path);
    } else if (name == QLatin1String("record")) {
        p.drawEllipse(QRectF(5, 5, 14, 14));
    } else if (name == QLatin1String("stop")) {
        p.drawRoundedRect(QRectF(6, 6, 12, 12), 1.5, 1.5);
    } else if (name == QLatin1String("Gain")) {
        // Three faders at different heights.
        p.setPen(QPen(tint, 1.5));
        for (int i = 0; i < 3; ++i)
            p.drawLine(QPointF(6 + 6 * i, 4), QPointF(6 + 6 * i, 20));
        p.setPen(Qt::NoPen);
        const double knobs[3] = {14, 7, 11};
        for (int i = 0; i < 3; ++i)
            p.drawRoundedRect(QRectF(3 + 6 * i, knobs[i], 6, 4), 1, 1);
    } else if (name.startsWith(QLatin1String("reset_"))) {
        // A circular arrow around the hold(s) it resets.
        p.setPen(QPen(tint, 2));
        p.setBrush(Qt::NoBrush);
        p.drawArc(QRectF(3, 3, 18, 18), 60 * 16, 300 * 16);
        p.setPen(Qt::NoPen);
        p.setBrush(tint);
        QPainterPath head;
        head.moveTo(16.5, 0.5);
        head.lineTo(21, 5.5);
        head.lineTo(14.5, 7);
        head.closeSubpath();
        p.drawPath(head);
        QFont font = p.font();
        font.setPixelSize(6);
        font.setBold(true);
        p.setFont(font);
        p.setPen(tint);
        const QString text = name == QLatin1String("reset_min")   ? QStringLiteral("MIN")
                             : name == QLatin1String("reset_max") ? QStringLiteral("MAX")
                                                                  : QStringLiteral("M/M");
        p.drawText(QRectF(0, 0, kPoints, kPoints), Qt::AlignCenter, text);
    } else if (name == QLatin1String("settings")) {
        QPainterPath gear;
        const double c = 12.0;
        for (int i = 0; i < 8; ++i) {
            const double a = i * std::numbers::pi / 4.0;
            gear.addPolygon(
                QPolygonF{QPointF(c + 7 * std::cos(a - 0.25), c + 7 * std::sin(a - 0.25)),
                          QPointF(c + 10.5 * std::cos(a - 0.17), c + 10.5 * std::sin(a - 0.17)),
                          QPointF(c + 10.5 * std::cos(a + 0.17), c + 10.5 * std::sin(a + 0.17)),
                          QPointF(c + 7 * std::cos(a + 0.25), c + 7 * std::sin(a + 0.25))});
        }
        gear.addEllipse(QPointF(c, c), 7.5, 7.5);
        gear.setFillRule(Qt::WindingFill);
        QPainterPath hole;
        hole.addEllipse(QPointF(c, c), 3.2, 3.2);
        p.drawPath(gear.subtracted(hole));
    } else if (name == QLatin1String("help")) {
        p.setPen(QPen(tint, 1.8));
        p.setBrush(Qt::NoBrush);
        p.drawEllipse(QRectF(2.5, 2.5, 19, 19));
        QFont font = p.font();
        font.setPixelSize(14);
        font.setBold(true);
        p.setFont(font);
        p.drawText(QRectF(0, 0, kPoints, kPoints), Qt::AlignCenter, QStringLiteral("?"));
    } else if (name == QLatin1String("chart")) {
        p.setPen(QPen(tint, 1.8, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.setBrush(Qt::NoBrush);
        p.drawPolyline(QPolygonF{QPointF(3, 19), QPointF(7, 15), QPointF(10, 17), QPointF(13, 6),
                                 QPointF(16, 14), QPointF(21, 12)});
        p.drawLine(QPointF(2, 21.5), QPointF(22, 21.5));
    } else if (name == QLatin1String("clear")) {
        // A waste bin.
        p.drawRoundedRect(QRectF(9, 3, 6, 3), 1, 1);
        p.drawRoundedRect(QRectF(4, 5, 16, 2.5), 1, 1);
        QPainterPath bin;
        bin.moveTo(6, 9);
        bin.lineTo(18, 9);
        bin.lineTo(16.5, 21);
        bin.lineTo(7.5, 21);
        bin.closeSubpath();
        p.drawPath(bin);
    } else if (name == QLatin1String("recalculate")) {
        // Two arrows chasing each other round a circle.
        p.setPen(QPen(tint, 2));
        p.setBrush(Qt::NoBrush);
        p.drawArc(QRectF(4, 4, 16, 16), 20 * 16, 140 * 16);
        p.drawArc(QRectF(4, 4, 16, 16), 200 * 16, 140 * 16);
        p.setPen(Qt::NoPen);
        p.setBrush(tint);
        p.drawPolygon(QPolygonF{QPointF(2, 10), QPointF(8, 10), QPointF(5, 14)});
        p.drawPolygon(QPolygonF{QPointF(22, 14), QPointF(16, 14), QPointF(19, 10)});
    } else if (name == QLatin1String("share")) {
        // An arrow rising out of an open box.
        p.setPen(QPen(tint, 1.8));
        p.setBrush(Qt::NoBrush);
        p.drawPolyline(QPolygonF{QPointF(8, 9), QPointF(4.5, 9), QPointF(4.5, 21.5),
                                 QPointF(19.5, 21.5), QPointF(19.5, 9), QPointF(16, 9)});
        p.drawLine(QPointF(12, 15), QPointF(12, 3));
        p.setPen(Qt::NoPen);
        p.setBrush(tint);
        p.drawPolygon(QPolygonF{QPointF(7.5, 7), QPointF(12, 1.5), QPointF(16.5, 7)});
    } else if (name == QLatin1String("pip")) {
        // A small picture in the corner of a large one.
        p.setPen(QPen(tint, 1.8));
        p.setBrush(Qt::NoBrush);
        p.drawRoundedRect(QRectF(2.5, 4.5, 19, 15), 1.5, 1.5);
        p.setPen(Qt::NoPen);
        p.setBrush(tint);
        p.drawRect(QRectF(12, 7, 7, 5.5));
    } else {
        return false;
    }
    return true;
}

QPixmap render(const QString& name, const QColor& tint, double scale) {
    QPixmap pixmap(int(kPoints * scale), int(kPoints * scale));
    pixmap.setDevicePixelRatio(scale);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    if (!paintImage(p, name, tint))
        return {};
    return pixmap;
}

} // namespace

QIcon ToolbarImages::imageNamed(const QString& name, const QColor& tint) {
    QIcon icon;
    for (const double scale : {1.0, 2.0}) {
        const QPixmap pixmap = render(name, tint, scale);
        if (pixmap.isNull())
            return {};
        icon.addPixmap(pixmap);
    }
    return icon;
}

QIcon ToolbarImages::applicationIcon() {
    // A small spectrum on a dark tile: the same picture as the desktop entry's icon.
    QIcon icon;
    for (const int size : {16, 32, 48, 64, 128, 256}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter p(&pixmap);
        p.setRenderHint(QPainter::Antialiasing);
        p.scale(size / 64.0, size / 64.0);
        p.setPen(Qt::NoPen);
        p.setBrush(QColor(24, 28, 36));
        p.drawRoundedRect(QRectF(2, 2, 60, 60), 12, 12);
        p.setPen(QPen(QColor(80, 220, 120), 4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.setBrush(Qt::NoBrush);
        p.drawPolyline(QPolygonF{QPointF(10, 48), QPointF(18, 40), QPointF(24, 44), QPointF(31, 14),
                                 QPointF(38, 36), QPointF(46, 30), QPointF(54, 46)});
        icon.addPixmap(pixmap);
    }
    return icon;
}

} // namespace widmo
