#include "ui/qr/qr_image.h"

#include <qrencode.h>

#include <QByteArray>
#include <algorithm>
#include <memory>

namespace vt::ui {

QImage qrImage(const QString& text, QrStyle style) {
    const QByteArray utf8 = text.toUtf8();
    // Version 0 lets the encoder pick the smallest symbol that holds the
    // text, switching to denser modes for runs of digits where it can.
    std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeString(utf8.constData(), 0, QR_ECLEVEL_M, QR_MODE_8, 1), &QRcode_free);
    if (!code || code->width <= 0 || style.modulePixels <= 0 || style.quietModules < 0)
        return QImage();

    const int modules = code->width;
    const int side = (modules + 2 * style.quietModules) * style.modulePixels;
    QImage image(side, side, QImage::Format_Grayscale8);
    image.fill(255);
    for (int y = 0; y < modules; ++y) {
        for (int x = 0; x < modules; ++x) {
            // The lowest bit of each byte is the module's colour; the others
            // say what kind of module it is.
            if (!(code->data[y * modules + x] & 1)) continue;
            const int left = (x + style.quietModules) * style.modulePixels;
            const int top = (y + style.quietModules) * style.modulePixels;
            for (int row = top; row < top + style.modulePixels; ++row) {
                uchar* line = image.scanLine(row);
                std::fill(line + left, line + left + style.modulePixels, uchar(0));
            }
        }
    }
    return image;
}

}  // namespace vt::ui
