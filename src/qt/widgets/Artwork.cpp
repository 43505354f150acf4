#include "qt/widgets/Artwork.h"

namespace quorvel::widgets {

namespace {
QString Drawing(int icon) {
    switch (icon) {
        case 161:
        case 162: return QStringLiteral("start");
        case 164:
        case 165: return QStringLiteral("stop");
        case 166:
        case 167: return QStringLiteral("settings");
        case 168:
        case 169: return QStringLiteral("help");
        default: return {};
    }
}
}  // namespace

QIcon ButtonIcon(int iconIn, int iconOut) {
    const QString in = Drawing(iconIn), out = Drawing(iconOut);
    if (in.isEmpty() || out.isEmpty()) return {};
    QIcon icon;
    icon.addPixmap(QPixmap(QStringLiteral(":/artwork/button-%1-out.png").arg(out)), QIcon::Normal);
    icon.addPixmap(QPixmap(QStringLiteral(":/artwork/button-%1-in.png").arg(in)), QIcon::Active);
    return icon;
}

QPixmap Logo() {
    return QPixmap(QStringLiteral(":/artwork/logo.png"));
}

QIcon WindowIcon() {
    return QIcon(QStringLiteral(":/artwork/quorvel-64.png"));
}

}  // namespace quorvel::widgets
