#include "ui/automation/automation_server.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QImage>
#include <QKeyEvent>
#include <QKeySequence>
#include <QLocalServer>
#include <QLocalSocket>
#include <QMouseEvent>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>
#include <QVariant>
#include <functional>

#include "ui/bridge/app_controller.h"

namespace vt::ui {

namespace {

nlohmann::json toJson(const QVariant& v) {
    switch (v.typeId()) {
        case QMetaType::Bool:
            return v.toBool();
        case QMetaType::Int:
        case QMetaType::LongLong:
        case QMetaType::UInt:
            return v.toLongLong();
        case QMetaType::Double:
        case QMetaType::Float:
            return v.toDouble();
        default:
            break;
    }
    if (v.canConvert<QString>()) return v.toString().toStdString();
    return nullptr;
}

QVariant toVariant(const nlohmann::json& j) {
    if (j.is_boolean()) return j.get<bool>();
    if (j.is_number()) return j.get<double>();
    if (j.is_string()) return QString::fromStdString(j.get<std::string>());
    return {};
}

// Depth-first through the visual tree, popups' items included (they live
// under the window's overlay).
QObject* findItem(QQuickItem* item, const QString& name, bool wantVisible) {
    if (!item) return nullptr;
    if (item->objectName() == name && (!wantVisible || item->isVisible())) return item;
    for (QQuickItem* child : item->childItems())
        if (QObject* hit = findItem(child, name, wantVisible)) return hit;
    return nullptr;
}

void collectNames(QQuickItem* item, nlohmann::json& out) {
    if (!item || !item->isVisible()) return;
    if (!item->objectName().isEmpty()) out.push_back(item->objectName().toStdString());
    for (QQuickItem* child : item->childItems()) collectNames(child, out);
}

bool hasSignal(QObject* object, const char* signature) {
    return object->metaObject()->indexOfSignal(QMetaObject::normalizedSignature(signature)) >= 0;
}

}  // namespace

AutomationServer::AutomationServer(QQmlApplicationEngine& engine, AppController& app,
                                   QObject* parent)
    : QObject(parent), engine_(engine), app_(app) {}

AutomationServer::~AutomationServer() = default;

bool AutomationServer::listen(const QString& path, QString* why) {
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    QLocalServer::removeServer(path);
    if (!server_->listen(path)) {
        if (why) *why = server_->errorString();
        return false;
    }
    connect(server_, &QLocalServer::newConnection, this, &AutomationServer::accept);
    return true;
}

void AutomationServer::accept() {
    while (QLocalSocket* socket = server_->nextPendingConnection()) {
        buffers_[socket];
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { readFrom(socket); });
        connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
            buffers_.erase(socket);
            socket->deleteLater();
        });
    }
}

void AutomationServer::readFrom(QLocalSocket* socket) {
    auto it = buffers_.find(socket);
    if (it == buffers_.end()) return;
    QByteArray& buffer = it->second;
    buffer += socket->readAll();
    for (;;) {
        const qsizetype end = buffer.indexOf('\n');
        if (end < 0) {
            if (size_t(buffer.size()) > maxAutomationLine) {
                socket->write((automationError("the line is too long").dump() + "\n").c_str());
                socket->flush();
                buffers_.erase(socket);
                socket->disconnectFromServer();
            }
            return;
        }
        const std::string line = buffer.left(end).toStdString();
        buffer.remove(0, end + 1);
        ParsedCommand parsed = parseAutomationLine(line);
        nlohmann::json reply =
            parsed.command ? run(*parsed.command) : automationError(parsed.error);
        socket->write(
            (reply.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n").c_str());
    }
}

QQuickWindow* AutomationServer::window() const {
    for (QObject* root : engine_.rootObjects())
        if (auto* w = qobject_cast<QQuickWindow*>(root)) return w;
    return nullptr;
}

QObject* AutomationServer::find(const std::string& name) const {
    const QString wanted = QString::fromStdString(name);
    QQuickWindow* w = window();
    if (!w) return nullptr;
    // A visible item first: delegates being torn down may share a name.
    if (QObject* hit = findItem(w->contentItem(), wanted, true)) return hit;
    if (QObject* hit = findItem(w->contentItem(), wanted, false)) return hit;
    // Popups and other non-visual objects are the window's QObject children.
    return w->findChild<QObject*>(wanted);
}

nlohmann::json AutomationServer::describe(QObject* object) const {
    nlohmann::json out{{"ok", true}, {"found", true}};
    for (const char* property :
         {"text", "checked", "value", "from", "to", "enabled", "opened", "currentText", "count",
          "title", "displayText", "level", "textFormat"}) {
        QVariant v = object->property(property);
        if (v.isValid()) out[property] = toJson(v);
    }
    if (auto* item = qobject_cast<QQuickItem*>(object)) {
        out["visible"] = item->isVisible();
        out["focus"] = item->hasActiveFocus();
        const QPointF topLeft = item->mapToScene(QPointF(0, 0));
        out["rect"] = {topLeft.x(), topLeft.y(), item->width(), item->height()};
    } else {
        out["visible"] = object->property("visible").toBool();
    }
    return out;
}

nlohmann::json AutomationServer::click(QObject* object) {
    auto* item = qobject_cast<QQuickItem*>(object);
    QQuickWindow* w = item ? item->window() : nullptr;
    if (!item || !w) return automationError("not an item on the screen");
    if (!item->isVisible() || !item->isEnabled()) return automationError("not visible or enabled");
    const QPointF at = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
    // Through the window system's queue, as a real pointer arrives, so that
    // press and release pair up the way the controls expect.
    QTest::mouseMove(w, at.toPoint());
    QTest::mouseClick(w, Qt::LeftButton, Qt::NoModifier, at.toPoint());
    return {{"ok", true}};
}

nlohmann::json AutomationServer::drag(QObject* fromObject, QObject* toObject) {
    auto* from = qobject_cast<QQuickItem*>(fromObject);
    auto* to = qobject_cast<QQuickItem*>(toObject);
    QQuickWindow* w = from ? from->window() : nullptr;
    if (!from || !to || !w || !from->isVisible() || !to->isVisible())
        return automationError("both ends must be items on the screen");
    const QPoint start = from->mapToScene(QPointF(from->width() / 2, from->height() / 2)).toPoint();
    const QPoint end = to->mapToScene(QPointF(to->width() / 2, to->height() / 2)).toPoint();
    // Pressed, then moved in steps past the drag threshold, then released:
    // what a hand on a mouse does.
    QTest::mouseMove(w, start);
    QTest::mousePress(w, Qt::LeftButton, Qt::NoModifier, start);
    constexpr int steps = 12;
    for (int i = 1; i <= steps; ++i) QTest::mouseMove(w, start + (end - start) * i / steps, 10);
    QTest::mouseRelease(w, Qt::LeftButton, Qt::NoModifier, end);
    return {{"ok", true}};
}

nlohmann::json AutomationServer::set(QObject* object, const nlohmann::json& value) {
    const char* property = value.is_boolean() ? "checked" : value.is_string() ? "text" : "value";
    if (!object->property(property).isValid())
        return automationError(std::string("the item has no ") + property);
    object->setProperty(property, toVariant(value));
    // Tell the item's handlers as a person's change would.
    for (const char* signal : {"moved()", "valueModified()", "toggled()", "textEdited()"})
        if (hasSignal(object, signal)) {
            QByteArray name(signal);
            name.chop(2);
            QMetaObject::invokeMethod(object, name.constData());
            break;
        }
    return describe(object);
}

nlohmann::json AutomationServer::key(const std::string& text) {
    QQuickWindow* w = window();
    if (!w) return automationError("no window");
    const QKeySequence sequence = QKeySequence::fromString(QString::fromStdString(text));
    if (sequence.isEmpty() || sequence[0].key() == Qt::Key_unknown)
        return automationError("unknown key " + text);
    const QKeyCombination combination = sequence[0];
    QTest::keyClick(w, combination.key(), combination.keyboardModifiers());
    return {{"ok", true}};
}

nlohmann::json AutomationServer::type(const std::string& text) {
    QQuickWindow* w = window();
    if (!w) return automationError("no window");
    for (char c : text) QTest::keyClick(w, c);
    return {{"ok", true}};
}

nlohmann::json AutomationServer::grab(const std::string& path) {
    QQuickWindow* w = window();
    if (!w) return automationError("no window");
    // The pointer goes to a corner first, so that no tooltip or hover
    // highlight from the last click is in the picture.
    QTest::mouseMove(w, QPoint(1, 1));
    const QImage image = w->grabWindow();
    if (image.isNull()) return automationError("the window could not be grabbed");
    if (!image.save(QString::fromStdString(path), "PNG"))
        return automationError("could not write " + path);
    return {{"ok", true}, {"width", image.width()}, {"height", image.height()}};
}

nlohmann::json AutomationServer::run(const AutomationCommand& c) {
    if (c.cmd == "rows") {
        nlohmann::json rows = nlohmann::json::array();
        for (const RowListModel::Entry& e : app_.rows()->entries())
            rows.push_back({{"slot", e.slot},
                            {"name", e.name.toStdString()},
                            {"subtitle", e.subtitle.toStdString()},
                            {"level", e.level},
                            {"muted", e.muted},
                            {"connected", e.connected}});
        return {{"ok", true}, {"running", app_.running()}, {"rows", rows}};
    }
    if (c.cmd == "names") {
        nlohmann::json names = nlohmann::json::array();
        if (QQuickWindow* w = window()) collectNames(w->contentItem(), names);
        return {{"ok", true}, {"names", names}};
    }
    if (c.cmd == "key") return key(c.text);
    if (c.cmd == "type") return type(c.text);
    if (c.cmd == "grab") return grab(c.path);
    QObject* object = find(c.name);
    if (!object) {
        if (c.cmd == "find") return {{"ok", true}, {"found", false}};
        return automationError("no item named " + c.name);
    }
    if (c.cmd == "find") return describe(object);
    if (c.cmd == "click") return click(object);
    if (c.cmd == "drag") {
        QObject* target = find(c.to);
        if (!target) return automationError("no item named " + c.to);
        return drag(object, target);
    }
    if (c.cmd == "set") return set(object, c.value);
    if (c.cmd == "focus") {
        if (auto* item = qobject_cast<QQuickItem*>(object)) {
            item->forceActiveFocus(Qt::OtherFocusReason);
            return describe(object);
        }
        return automationError("not an item");
    }
    return automationError("unknown command " + c.cmd);
}

}  // namespace vt::ui
