// A QR code as an image a screen or a phone's camera can read: error
// correction level M, each module a square of whole pixels, the quiet zone
// the standard asks for around it, black on white whatever the theme.
#pragma once

#include <QImage>
#include <QString>

namespace vt::ui {

struct QrStyle {
    int modulePixels = 8;
    int quietModules = 4;
};

// A null image when the text does not fit in any QR version.
QImage qrImage(const QString& text, QrStyle style = {});

}  // namespace vt::ui
