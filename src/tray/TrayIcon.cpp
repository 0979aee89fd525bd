// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrayIcon.h"

#include <QPainter>
#include <QPixmap>

namespace {
QPixmap drawn(TrayLook look, int size)
{
    // The glyph is a mask: painted once in the outline colour around itself, then in the
    // fill colour on top.
    const QPixmap mask = QIcon(QStringLiteral(":/icons/statusIcon.svg")).pixmap(size, size);
    const auto tinted = [&mask](const QColor &colour) {
        QPixmap out = mask;
        QPainter painter(&out);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(out.rect(), colour);
        return out;
    };
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal outline = std::max(1.0, size / 22.0);
    const QPixmap dark = tinted(QColor(0x20, 0x20, 0x20, 230));
    for (const QPointF offset :
         {QPointF(-outline, 0), QPointF(outline, 0), QPointF(0, -outline), QPointF(0, outline)})
        painter.drawPixmap(offset, dark);
    painter.setOpacity(look == TrayLook::Idle ? 0.75 : 1.0);
    painter.drawPixmap(0, 0, tinted(QColor(0xf4, 0xf4, 0xf4)));
    painter.setOpacity(1.0);

    const qreal badge = size * 0.42;
    const QRectF corner(size - badge, size - badge, badge, badge);
    painter.setPen(QPen(QColor(0x20, 0x20, 0x20), outline));
    switch (look) {
    case TrayLook::Idle:
        break;
    case TrayLook::Busy:
        painter.setBrush(Qt::NoBrush);
        painter.setPen(QPen(QColor(0x20, 0x20, 0x20), badge * 0.45));
        painter.drawEllipse(corner.adjusted(badge * 0.2, badge * 0.2, -badge * 0.2, -badge * 0.2));
        painter.setPen(QPen(QColor(0xf5, 0xa6, 0x23), badge * 0.25));
        painter.drawEllipse(corner.adjusted(badge * 0.2, badge * 0.2, -badge * 0.2, -badge * 0.2));
        break;
    case TrayLook::Running:
        painter.setBrush(QColor(0x2e, 0xb8, 0x4b));
        painter.drawEllipse(corner.adjusted(outline / 2, outline / 2, -outline / 2, -outline / 2));
        break;
    case TrayLook::Problem: {
        painter.setBrush(QColor(0xe0, 0x2f, 0x2f));
        painter.drawEllipse(corner.adjusted(outline / 2, outline / 2, -outline / 2, -outline / 2));
        painter.setPen(QPen(Qt::white, std::max(1.0, badge / 6)));
        const qreal x = corner.center().x();
        painter.drawLine(QPointF(x, corner.top() + badge * 0.22),
                         QPointF(x, corner.top() + badge * 0.58));
        painter.drawPoint(QPointF(x, corner.top() + badge * 0.76));
        break;
    }
    }
    return pixmap;
}
} // namespace

QIcon trayIcon(TrayLook look)
{
    QIcon icon;
    for (const int size : {16, 22, 24, 32, 48, 64})
        icon.addPixmap(drawn(look, size));
    return icon;
}

void initCorvelResources()
{
    Q_INIT_RESOURCE(resources);
}
