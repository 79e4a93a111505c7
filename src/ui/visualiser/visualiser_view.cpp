#include "ui/visualiser/visualiser_view.h"

#include <QQuickWindow>
#include <QSGGeometryNode>
#include <QSGRectangleNode>
#include <QSGRendererInterface>
#include <QSGVertexColorMaterial>
#include <algorithm>
#include <cstring>

namespace vt::ui::visualiser {

namespace {

Rgba rgba(const QColor& c) {
    const QColor rgb = c.toRgb();
    return {static_cast<uint8_t>(rgb.red()), static_cast<uint8_t>(rgb.green()),
            static_cast<uint8_t>(rgb.blue()), static_cast<uint8_t>(rgb.alpha())};
}

// The vertex-colour material blends premultiplied colours.
Rgba premultiplied(const QColor& c) {
    Rgba v = rgba(c);
    auto scale = [&](uint8_t x) { return static_cast<uint8_t>(x * v.a / 255); };
    return {scale(v.r), scale(v.g), scale(v.b), v.a};
}

}  // namespace

VisualiserView::VisualiserView(QQuickItem* parent) : QQuickItem(parent) {
    setFlag(ItemHasContents, true);
    state_.prepare(1);
    vertices_.reserve(static_cast<std::size_t>(spectrum::SpectrumAnalyser::size) * 6);
    ticker_.setTimerType(Qt::PreciseTimer);
    ticker_.setInterval(frameMs);
    connect(&ticker_, &QTimer::timeout, this, &VisualiserView::frame);
    connect(this, &VisualiserView::coloursChanged, this, [this] {
        rebuild();
        update();
    });
    clock_.start();
}

void VisualiserView::setApp(QObject* app) {
    auto* controller = qobject_cast<AppController*>(app);
    if (controller == app_) return;
    disconnect(appChanged_);
    app_ = controller;
    if (app_) appChanged_ = connect(app_, &AppController::changed, this, &VisualiserView::refresh);
    emit appChanged();
    refresh();
}

void VisualiserView::setStyle(const QString& style) {
    if (style == style_) return;
    style_ = style;
    emit styleChanged();
    rebuild();
    update();
    refresh();
}

bool VisualiserView::software() const {
    return window() != nullptr &&
           window()->rendererInterface()->graphicsApi() == QSGRendererInterface::Software;
}

bool VisualiserView::playing() const {
    return app_ && app_->model().isRunning();
}

void VisualiserView::refresh() {
    const bool shown = isVisible() && window() != nullptr && width() > 0 && height() > 0;
    if (shown && playing() && !ticker_.isActive()) {
        state_.lastFrame.reset();
        ticker_.start();
        emit animatingChanged();
        frame();
    } else if (!shown && ticker_.isActive()) {
        ticker_.stop();
        emit animatingChanged();
    }
}

void VisualiserView::frame() {
    const double dt = state_.advance(static_cast<double>(clock_.nsecsElapsed()) * 1e-9);
    const bool live = playing();
    if (live)
        app_->model().engine().fillRecentSamples(state_.samples, 0.0);
    else
        std::fill(state_.samples.begin(), state_.samples.end(), 0.0f);
    spectrum::SpectrumAnalyser& analyser = state_.analysers.front();
    analyser.analyse(state_.samples, dt);
    rebuild();
    update();

    if (!live) {
        // Stopped: once the marks have fallen there is nothing left to move.
        const auto peaks = analyser.peaks();
        const bool calm =
            std::all_of(peaks.begin(), peaks.end(), [](float p) { return p <= quietLevel; });
        if (calm) {
            ticker_.stop();
            emit animatingChanged();
        }
    }
}

void VisualiserView::rebuild() {
    const auto w = static_cast<float>(width());
    const auto h = static_cast<float>(height());
    if (scope()) {
        const float thickness = std::max(1.5f, h * 0.006f);
        // Each column is a node of its own under the software renderer.
        const float column = software() ? 4.0f : 2.0f;
        buildScope(vertices_, state_.samples, w, h, thickness, premultiplied(traceColor_), column);
    } else {
        const spectrum::SpectrumAnalyser& analyser = state_.analysers.front();
        buildSpectrum(
            vertices_, analyser.levels(), analyser.peaks(), w, h,
            {premultiplied(barColor_), premultiplied(barBaseColor_), premultiplied(capColor_)});
    }
    verticesChanged_ = true;
}

QSGNode* VisualiserView::updatePaintNode(QSGNode* old, UpdatePaintNodeData*) {
    return software() ? updateRectangleNodes(old) : updateGeometryNode(old);
}

QSGNode* VisualiserView::updateRectangleNodes(QSGNode* old) {
    QSGNode* root = old != nullptr ? old : new QSGNode;
    if (old == nullptr) verticesChanged_ = true;
    if (!verticesChanged_) return root;
    const int quads = static_cast<int>(vertices_.size() / 6);
    while (root->childCount() < quads) root->appendChildNode(window()->createRectangleNode());
    while (root->childCount() > quads) {
        QSGNode* last = root->lastChild();
        root->removeChildNode(last);
        delete last;
    }
    QSGNode* child = root->firstChild();
    for (int q = 0; q < quads; ++q, child = child->nextSibling()) {
        const Vertex& topLeft = vertices_[static_cast<std::size_t>(q) * 6];
        const Vertex& bottomRight = vertices_[static_cast<std::size_t>(q) * 6 + 5];
        auto* rect = static_cast<QSGRectangleNode*>(child);
        rect->setRect(QRectF(QPointF(topLeft.x, topLeft.y), QPointF(bottomRight.x, bottomRight.y)));
        // The vertices hold premultiplied colour; the node wants it plain.
        const int a = topLeft.a;
        auto plain = [a](uint8_t c) { return a == 0 ? 0 : std::min(255, c * 255 / a); };
        rect->setColor(QColor(plain(topLeft.r), plain(topLeft.g), plain(topLeft.b), a));
    }
    verticesChanged_ = false;
    return root;
}

QSGNode* VisualiserView::updateGeometryNode(QSGNode* old) {
    auto* node = static_cast<QSGGeometryNode*>(old);
    if (node == nullptr) {
        node = new QSGGeometryNode;
        auto* geometry = new QSGGeometry(QSGGeometry::defaultAttributes_ColoredPoint2D(), 0);
        geometry->setDrawingMode(QSGGeometry::DrawTriangles);
        geometry->setVertexDataPattern(QSGGeometry::StreamPattern);
        node->setGeometry(geometry);
        node->setFlag(QSGNode::OwnsGeometry);
        node->setMaterial(new QSGVertexColorMaterial);
        node->setFlag(QSGNode::OwnsMaterial);
        verticesChanged_ = true;
    }
    if (verticesChanged_) {
        QSGGeometry* geometry = node->geometry();
        const int count = static_cast<int>(vertices_.size());
        if (geometry->vertexCount() != count) geometry->allocate(count);
        static_assert(sizeof(Vertex) == sizeof(QSGGeometry::ColoredPoint2D));
        if (count > 0)
            std::memcpy(geometry->vertexData(), vertices_.data(),
                        vertices_.size() * sizeof(Vertex));
        node->markDirty(QSGNode::DirtyGeometry);
        verticesChanged_ = false;
    }
    return node;
}

void VisualiserView::geometryChange(const QRectF& now, const QRectF& before) {
    QQuickItem::geometryChange(now, before);
    if (now.size() != before.size()) {
        rebuild();
        update();
        refresh();
    }
}

void VisualiserView::itemChange(ItemChange change, const ItemChangeData& value) {
    QQuickItem::itemChange(change, value);
    if (change == ItemVisibleHasChanged || change == ItemSceneChange) refresh();
}

}  // namespace vt::ui::visualiser
