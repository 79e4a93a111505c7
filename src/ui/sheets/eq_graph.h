// The equaliser's graph: the response curve on a log-frequency axis from
// 20 Hz to 20 kHz, over the live spectrum, with a handle for each band that
// is not off. Dragging a handle moves its band's frequency (and gain, for the
// kinds that have one); the wheel over a handle changes its Q.
#pragma once

#include <QtQml/qqmlregistration.h>
#include <QColor>
#include <QPointer>
#include <QQuickPaintedItem>
#include <QTimer>
#include <optional>

#include "ui/sheets/eq_sheet_controller.h"

namespace vt::ui {

// Where values sit on the graph; shared by drawing and dragging.
struct EqGraphScale {
    double width = 1;
    double height = 1;
    static constexpr double lowHz = 20.0;
    static constexpr double highHz = 20000.0;
    static constexpr double rangeDb = 24.0;

    double x(double hz) const;
    double hz(double x) const;
    double y(double db) const;
    double db(double y) const;
};

class EqGraph : public QQuickPaintedItem {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(vt::ui::EqualiserSheetController* controller READ controller WRITE setController
                   NOTIFY controllerChanged)
    Q_PROPERTY(int activeBand READ activeBand NOTIFY activeBandChanged)
    Q_PROPERTY(QColor curveColor MEMBER curveColor_ NOTIFY colorsChanged)
    Q_PROPERTY(QColor gridColor MEMBER gridColor_ NOTIFY colorsChanged)
    Q_PROPERTY(QColor textColor MEMBER textColor_ NOTIFY colorsChanged)
    Q_PROPERTY(QColor spectrumColor MEMBER spectrumColor_ NOTIFY colorsChanged)
    Q_PROPERTY(QColor handleColor MEMBER handleColor_ NOTIFY colorsChanged)
    Q_PROPERTY(QColor backgroundColor MEMBER backgroundColor_ NOTIFY colorsChanged)

  public:
    explicit EqGraph(QQuickItem* parent = nullptr);

    EqualiserSheetController* controller() const { return controller_; }
    void setController(EqualiserSheetController* controller);
    int activeBand() const { return dragged_.value_or(-1); }

    void paint(QPainter* painter) override;

    // The band whose handle is within reach of this point, nearest first.
    std::optional<int> bandAt(QPointF point) const;
    QPointF handlePosition(int band) const;

  signals:
    void controllerChanged();
    void activeBandChanged();
    void colorsChanged();

  protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void itemChange(ItemChange change, const ItemChangeData& data) override;

  private:
    EqGraphScale scale() const;
    void updateSampling();
    void drawGrid(QPainter* p, const EqGraphScale& s) const;
    void drawSpectrum(QPainter* p, const EqGraphScale& s) const;
    void drawCurve(QPainter* p, const EqGraphScale& s) const;
    void drawHandles(QPainter* p, const EqGraphScale& s) const;

    QPointer<EqualiserSheetController> controller_;
    std::optional<int> dragged_;
    QTimer sampling_;
    QColor curveColor_{0x2f, 0x7d, 0xf6};
    QColor gridColor_{0x80, 0x80, 0x80, 0x40};
    QColor textColor_{0x80, 0x80, 0x80};
    QColor spectrumColor_{0x80, 0x80, 0x80, 0x50};
    QColor handleColor_{0xff, 0xff, 0xff};
    QColor backgroundColor_{Qt::transparent};
};

}  // namespace vt::ui
