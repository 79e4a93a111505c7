#include "ui/sheets/eq_graph.h"

#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>
#include <vector>

#ifdef VELLATONE_HAVE_EQ_ANALYSER
#include "spectrum/eq_analyser.h"
#endif

namespace vt::ui {

namespace {

constexpr double handleRadius = 7.0;
constexpr double reach = 16.0;
constexpr int curvePoints = 240;
constexpr int spectrumMs = 33;

}  // namespace

double EqGraphScale::x(double hz) const {
    const double t = std::log(std::clamp(hz, lowHz, highHz) / lowHz) / std::log(highHz / lowHz);
    return t * width;
}

double EqGraphScale::hz(double xPos) const {
    const double t = std::clamp(xPos / std::max(width, 1.0), 0.0, 1.0);
    return lowHz * std::pow(highHz / lowHz, t);
}

double EqGraphScale::y(double dbValue) const {
    const double t = (rangeDb - std::clamp(dbValue, -rangeDb, rangeDb)) / (2 * rangeDb);
    return t * height;
}

double EqGraphScale::db(double yPos) const {
    const double t = std::clamp(yPos / std::max(height, 1.0), 0.0, 1.0);
    return rangeDb - t * 2 * rangeDb;
}

EqGraph::EqGraph(QQuickItem* parent) : QQuickPaintedItem(parent) {
    setAntialiasing(true);
    setAcceptedMouseButtons(Qt::LeftButton);
    sampling_.setInterval(spectrumMs);
    connect(&sampling_, &QTimer::timeout, this, [this] {
        if (controller_) controller_->sampleSpectrum();
    });
    connect(this, &EqGraph::colorsChanged, this, [this] { update(); });
}

void EqGraph::setController(EqualiserSheetController* controller) {
    if (controller == controller_) return;
    if (controller_) disconnect(controller_, nullptr, this, nullptr);
    controller_ = controller;
    if (controller_) {
        connect(controller_, &EqualiserSheetController::settingsChanged, this,
                [this] { update(); });
        connect(controller_, &EqualiserSheetController::spectrumChanged, this,
                [this] { update(); });
    }
    updateSampling();
    emit controllerChanged();
    update();
}

void EqGraph::itemChange(ItemChange change, const ItemChangeData& data) {
    QQuickPaintedItem::itemChange(change, data);
    if (change == ItemVisibleHasChanged || change == ItemSceneChange) updateSampling();
}

void EqGraph::updateSampling() {
    // The analysis runs only while the graph can be seen.
    const bool want = controller_ && isVisible() && window();
    if (want && !sampling_.isActive())
        sampling_.start();
    else if (!want)
        sampling_.stop();
}

EqGraphScale EqGraph::scale() const {
    return EqGraphScale{std::max(width(), 1.0), std::max(height(), 1.0)};
}

QPointF EqGraph::handlePosition(int band) const {
    const EqGraphScale s = scale();
    const equaliser::EQBand& b = controller_->shown().bands[size_t(band)];
    // A kind without gain has no height of its own; it sits on the 0 dB line.
    const double dbValue = equaliser::usesGain(b.kind) ? b.gainDb : 0.0;
    return QPointF(s.x(b.frequency), s.y(dbValue));
}

std::optional<int> EqGraph::bandAt(QPointF point) const {
    if (!controller_ || !controller_->valid()) return std::nullopt;
    std::optional<int> best;
    double bestDistance = reach;
    const auto& bands = controller_->shown().bands;
    for (int i = 0; i < int(bands.size()); ++i) {
        if (bands[i].kind == equaliser::EQKind::off) continue;
        const QPointF d = handlePosition(i) - point;
        const double distance = std::hypot(d.x(), d.y());
        if (distance <= bestDistance) {
            bestDistance = distance;
            best = i;
        }
    }
    return best;
}

void EqGraph::mousePressEvent(QMouseEvent* event) {
    dragged_ = bandAt(event->position());
    if (!dragged_) {
        event->ignore();
        return;
    }
    emit activeBandChanged();
    event->accept();
}

void EqGraph::mouseMoveEvent(QMouseEvent* event) {
    if (!dragged_ || !controller_) return;
    const EqGraphScale s = scale();
    const int band = *dragged_;
    controller_->setBandFrequency(band, s.hz(event->position().x()));
    if (equaliser::usesGain(controller_->shown().bands[size_t(band)].kind))
        // Half-decibel steps: finer than anyone hears, coarse enough to hit 0.
        controller_->setBandGainDb(band, std::round(s.db(event->position().y()) * 2) / 2);
    event->accept();
}

void EqGraph::mouseReleaseEvent(QMouseEvent* event) {
    if (!dragged_) return;
    dragged_.reset();
    if (controller_) controller_->commit();
    emit activeBandChanged();
    event->accept();
}

void EqGraph::wheelEvent(QWheelEvent* event) {
    const std::optional<int> band = bandAt(event->position());
    if (!band || !controller_ || event->angleDelta().y() == 0) {
        event->ignore();
        return;
    }
    const double q = controller_->shown().bands[size_t(*band)].q;
    controller_->setBandQ(*band, event->angleDelta().y() > 0 ? q * 1.1 : q / 1.1);
    event->accept();
}

void EqGraph::paint(QPainter* p) {
    const EqGraphScale s = scale();
    p->setRenderHint(QPainter::Antialiasing);
    if (backgroundColor_.alpha() > 0)
        p->fillRect(QRectF(0, 0, s.width, s.height), backgroundColor_);
    drawGrid(p, s);
    if (!controller_ || !controller_->valid()) return;
    drawSpectrum(p, s);
    drawCurve(p, s);
    drawHandles(p, s);
}

void EqGraph::drawGrid(QPainter* p, const EqGraphScale& s) const {
    p->setPen(QPen(gridColor_, 1));
    for (double hz : {50.0, 100.0, 200.0, 500.0, 1000.0, 2000.0, 5000.0, 10000.0})
        p->drawLine(QPointF(s.x(hz), 0), QPointF(s.x(hz), s.height));
    for (double dbValue : {-18.0, -12.0, -6.0, 6.0, 12.0, 18.0})
        p->drawLine(QPointF(0, s.y(dbValue)), QPointF(s.width, s.y(dbValue)));
    p->setPen(QPen(gridColor_.darker(110), 1.5));
    p->drawLine(QPointF(0, s.y(0)), QPointF(s.width, s.y(0)));

    QFont font = p->font();
    font.setPixelSize(10);
    p->setFont(font);
    p->setPen(textColor_);
    const std::pair<double, const char*> labels[] = {
        {100.0, "100"}, {1000.0, "1k"}, {10000.0, "10k"}};
    for (const auto& [hz, text] : labels)
        p->drawText(QPointF(s.x(hz) + 3, s.height - 4), QString::fromLatin1(text));
    for (double dbValue : {-12.0, 12.0})
        p->drawText(QPointF(3, s.y(dbValue) - 3),
                    QString::number(int(dbValue)).prepend(dbValue > 0 ? "+" : ""));
}

#ifdef VELLATONE_HAVE_EQ_ANALYSER
namespace {

// Where each band of the analyser really lies. The low bands are pushed up
// to one transform bin each, so they sit above their nominal log spacing;
// drawing them at the bins they read keeps a tone under its own frequency.
const std::vector<double>& bandEdgesHz() {
    static const std::vector<double> edges = [] {
        const double binHz =
            EqualiserSheetController::sampleRate / spectrum::SpectrumAnalyser::size;
        std::vector<double> hz;
        for (int edge : spectrum::SpectrumAnalyser::bandEdges(spectrum::EQAnalyser::bandCount))
            hz.push_back(std::max(edge - 0.5, 0.0) * binHz);
        return hz;
    }();
    return edges;
}

}  // namespace
#endif

void EqGraph::drawSpectrum(QPainter* p, const EqGraphScale& s) const {
#ifdef VELLATONE_HAVE_EQ_ANALYSER
    const std::span<const float> levels = controller_->spectrum();
    const std::vector<double>& edges = bandEdgesHz();
    if (levels.empty() || edges.size() < levels.size() + 1) return;
    // Levels are 0 to 1 over the analyser's own 66 dB, drawn as a soft area
    // from the floor: a picture of where the music sits, not a second scale.
    QPainterPath area;
    area.moveTo(s.x(edges[0]), s.height);
    for (size_t i = 0; i < levels.size(); ++i) {
        const double top = s.height * (1.0 - std::clamp(double(levels[i]), 0.0, 1.0));
        area.lineTo(s.x(edges[i]), top);
        area.lineTo(s.x(edges[i + 1]), top);
    }
    area.lineTo(s.x(edges[levels.size()]), s.height);
    area.closeSubpath();
    p->fillPath(area, spectrumColor_);
#else
    (void)p;
    (void)s;
#endif
}

void EqGraph::drawCurve(QPainter* p, const EqGraphScale& s) const {
    QPainterPath curve;
    for (int i = 0; i <= curvePoints; ++i) {
        const double xPos = s.width * i / curvePoints;
        const QPointF point(xPos, s.y(controller_->curveDb(s.hz(xPos))));
        if (i == 0)
            curve.moveTo(point);
        else
            curve.lineTo(point);
    }
    QColor fill = curveColor_;
    fill.setAlphaF(controller_->eqEnabled() ? 0.16f : 0.06f);
    QPainterPath under = curve;
    under.lineTo(s.width, s.y(0));
    under.lineTo(0, s.y(0));
    under.closeSubpath();
    p->fillPath(under, fill);

    QPen pen(curveColor_, 2.5);
    // Switched off, the shape stays visible but says that it does nothing.
    if (!controller_->eqEnabled()) {
        pen.setStyle(Qt::DashLine);
        pen.setColor(textColor_);
    }
    p->setPen(pen);
    p->setBrush(Qt::NoBrush);
    p->drawPath(curve);
}

void EqGraph::drawHandles(QPainter* p, const EqGraphScale&) const {
    const auto& bands = controller_->shown().bands;
    QFont font = p->font();
    font.setPixelSize(9);
    font.setBold(true);
    p->setFont(font);
    for (int i = 0; i < int(bands.size()); ++i) {
        if (bands[i].kind == equaliser::EQKind::off) continue;
        const QPointF c = handlePosition(i);
        const bool active = dragged_ == i;
        p->setPen(QPen(curveColor_, active ? 3 : 2));
        p->setBrush(active ? curveColor_ : handleColor_);
        const double r = active ? handleRadius + 1.5 : handleRadius;
        p->drawEllipse(c, r, r);
        p->setPen(active ? handleColor_ : curveColor_);
        p->drawText(QRectF(c.x() - r, c.y() - r, 2 * r, 2 * r), Qt::AlignCenter,
                    QString::number(i + 1));
    }
}

}  // namespace vt::ui
