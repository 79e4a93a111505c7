// A QR code drawn in whole pixels per module, never smoothed, black on a
// white ground whatever the theme, so that a phone's camera reads it.
#pragma once

#include <QtQml/qqmlregistration.h>
#include <QImage>
#include <QQuickPaintedItem>
#include <QString>

namespace vt::ui {

class QrCode : public QQuickPaintedItem {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QString text READ text WRITE setText NOTIFY textChanged)

  public:
    explicit QrCode(QQuickItem* parent = nullptr);

    QString text() const { return text_; }
    void setText(const QString& text);

    void paint(QPainter* painter) override;

  signals:
    void textChanged();

  private:
    QString text_;
    QImage image_;
};

}  // namespace vt::ui
