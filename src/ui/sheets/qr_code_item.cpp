#include "ui/sheets/qr_code_item.h"

#include <QPainter>
#include <algorithm>
#include <cmath>

#include "ui/qr/qr_image.h"

namespace vt::ui {

QrCode::QrCode(QQuickItem* parent) : QQuickPaintedItem(parent) {
    setAntialiasing(false);
    setFillColor(Qt::white);
}

void QrCode::setText(const QString& text) {
    if (text == text_) return;
    text_ = text;
    image_ = text_.isEmpty() ? QImage() : qrImage(text_);
    setImplicitSize(image_.width(), image_.height());
    emit textChanged();
    update();
}

void QrCode::paint(QPainter* painter) {
    if (image_.isNull()) return;
    const double side = std::min(width(), height());
    // Whole multiples of the image keep every module the same size; smaller
    // than the image, smooth scaling would blur edges, so it stays sharp.
    const double factor =
        side >= image_.width() ? std::floor(side / image_.width()) : side / image_.width();
    const double drawn = image_.width() * factor;
    const QRectF target((width() - drawn) / 2, (height() - drawn) / 2, drawn, drawn);
    painter->setRenderHint(QPainter::SmoothPixmapTransform, false);
    painter->drawImage(target, image_);
}

}  // namespace vt::ui
