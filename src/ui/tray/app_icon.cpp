#include "ui/tray/app_icon.h"

#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

namespace vt::ui {

namespace {

QPixmap drawIcon(int size) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    const double s = size;
    QPainterPath tile;
    tile.addRoundedRect(QRectF(s * 0.04, s * 0.04, s * 0.92, s * 0.92), s * 0.22, s * 0.22);
    QLinearGradient fill(0, 0, s, s);
    fill.setColorAt(0, QColor(0x3d, 0x7e, 0xf0));
    fill.setColorAt(1, QColor(0x6a, 0x4c, 0xd9));
    p.fillPath(tile, fill);
    // Three bars of different heights, like outputs held level with each other.
    const double heights[] = {0.42, 0.62, 0.32};
    const double barWidth = s * 0.14, gap = s * 0.08;
    double x = (s - 3 * barWidth - 2 * gap) / 2;
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(255, 255, 255, 235));
    for (double h : heights) {
        const double top = s * 0.5 - h * s / 2;
        p.drawRoundedRect(QRectF(x, top, barWidth, h * s), barWidth / 2, barWidth / 2);
        x += barWidth + gap;
    }
    return pixmap;
}

}  // namespace

QIcon appIcon() {
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64, 128, 256}) icon.addPixmap(drawIcon(size));
    return icon;
}

}  // namespace vt::ui
