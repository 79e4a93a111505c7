// The visualiser as a scene-graph item: while the model plays it reads the
// newest 2048 samples of the capture (mixed to mono) about sixty times a
// second, analyses them with the time that really passed since the last
// frame, and draws the chosen style as one node of coloured triangles. When
// playing stops it lets the bars fall, then stops asking for frames.
// Main thread only, apart from updatePaintNode, which Qt runs while the main
// thread waits.
//
// With OpenGL (or any hardware interface) a frame is one node of coloured
// triangles; with the software renderer, which draws no custom geometry, it
// is a rectangle node per quad, and only the visualiser's own area is
// repainted.
#pragma once

#include <QtQml/qqmlregistration.h>
#include <QColor>
#include <QElapsedTimer>
#include <QMetaObject>
#include <QPointer>
#include <QQuickItem>
#include <QTimer>
#include <vector>

#include "spectrum/spectrum_state.h"
#include "ui/bridge/app_controller.h"
#include "ui/visualiser/visualiser_geometry.h"

namespace vt::ui::visualiser {

class VisualiserView : public QQuickItem {
    Q_OBJECT
    QML_NAMED_ELEMENT(VisualiserView)
    // The AppController (a QObject here, so QML need not know its type).
    Q_PROPERTY(QObject* app READ app WRITE setApp NOTIFY appChanged)
    // "Spectrum" or "Scope"; anything else draws the spectrum.
    Q_PROPERTY(QString style READ style WRITE setStyle NOTIFY styleChanged)
    Q_PROPERTY(QColor barColor MEMBER barColor_ NOTIFY coloursChanged)
    Q_PROPERTY(QColor barBaseColor MEMBER barBaseColor_ NOTIFY coloursChanged)
    Q_PROPERTY(QColor capColor MEMBER capColor_ NOTIFY coloursChanged)
    Q_PROPERTY(QColor traceColor MEMBER traceColor_ NOTIFY coloursChanged)
    // True while frames are being asked for.
    Q_PROPERTY(bool animating READ animating NOTIFY animatingChanged)

  public:
    static constexpr int frameMs = 16;

    explicit VisualiserView(QQuickItem* parent = nullptr);

    QObject* app() const { return app_; }
    void setApp(QObject* app);
    QString style() const { return style_; }
    void setStyle(const QString& style);
    bool animating() const { return ticker_.isActive(); }

  signals:
    void appChanged();
    void styleChanged();
    void coloursChanged();
    void animatingChanged();

  protected:
    QSGNode* updatePaintNode(QSGNode* old, UpdatePaintNodeData* data) override;
    void geometryChange(const QRectF& now, const QRectF& before) override;
    void itemChange(ItemChange change, const ItemChangeData& value) override;

  private:
    bool playing() const;
    bool software() const;
    // Starts the frames when there is something to show, stops them when
    // there is not.
    void refresh();
    void frame();
    void rebuild();
    bool scope() const { return style_ == QStringLiteral("Scope"); }
    // The software renderer draws no custom geometry, but it repaints only
    // what changed, so there each quad becomes a rectangle node.
    QSGNode* updateGeometryNode(QSGNode* old);
    QSGNode* updateRectangleNodes(QSGNode* old);

    QPointer<AppController> app_;
    QMetaObject::Connection appChanged_;
    QString style_ = QStringLiteral("Spectrum");
    QColor barColor_{0x0a, 0x84, 0xff};
    QColor barBaseColor_{0x0a, 0x84, 0xff, 0x60};
    QColor capColor_{0x1c, 0x1c, 0x1e};
    QColor traceColor_{0x0a, 0x84, 0xff};

    QTimer ticker_;
    QElapsedTimer clock_;
    spectrum::SpectrumState state_;
    std::vector<Vertex> vertices_;
    bool verticesChanged_ = true;
};

}  // namespace vt::ui::visualiser
