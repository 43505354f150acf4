#include "qt/widgets/SlotIcons.h"

#include <QPainter>
#include <QPainterPath>
#include <array>

namespace quorvel::widgets {

namespace {

void DrawSocket(QPainter& p) {
    // A USB-A socket seen from the front: a shell with its tongue.
    p.setPen(QPen(QColor(70, 90, 110), 1.5));
    p.setBrush(QColor(205, 215, 225));
    p.drawRoundedRect(QRectF(3.5, 7.5, 17, 9), 1.5, 1.5);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(70, 90, 110));
    p.drawRect(QRectF(6, 10, 12, 3));
}

void DrawPhone(QPainter& p) {
    p.setPen(QPen(QColor(20, 60, 45), 1.5));
    p.setBrush(QColor(31, 111, 80));
    p.drawRoundedRect(QRectF(6.5, 1.5, 11, 21), 2, 2);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(190, 240, 215));
    p.drawRect(QRectF(8.5, 4, 7, 13));
    p.setBrush(QColor(220, 245, 232));
    p.drawEllipse(QPointF(12, 19.5), 1.3, 1.3);
}

void DrawSpare(QPainter& p) {
    p.setPen(QPen(QColor(150, 150, 150), 1.5, Qt::DotLine));
    p.setBrush(Qt::NoBrush);
    p.drawRoundedRect(QRectF(3.5, 7.5, 17, 9), 1.5, 1.5);
}

QPixmap Draw(int index) {
    QPixmap pixmap(kSlotIconSize, kSlotIconSize);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    switch (index) {
        case 1: DrawSocket(p); break;
        case 2: DrawPhone(p); break;
        default: DrawSpare(p); break;
    }
    return pixmap;
}

}  // namespace

QPixmap SlotIcon(int index) {
    if (index < 0 || index >= kSlotIconCount) return {};
    static const std::array<QPixmap, kSlotIconCount> icons{Draw(0), Draw(1), Draw(2)};
    return icons[static_cast<std::size_t>(index)];
}

}  // namespace quorvel::widgets
