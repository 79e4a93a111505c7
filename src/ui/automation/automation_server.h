// A test hook, opened only when VELLATONE_AUTOMATION_SOCKET names a path: a
// local socket on which a test finds the window's items by objectName, reads
// them, clicks them, types, presses keys, lists the rows and grabs the window
// to a PNG. Everything runs on the main thread; a client that sends a line
// longer than the limit is told so and dropped.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <map>
#include <nlohmann/json.hpp>

#include "ui/automation/automation_commands.h"

class QLocalServer;
class QLocalSocket;
class QQmlApplicationEngine;
class QQuickItem;
class QQuickWindow;

namespace vt::ui {

class AppController;

class AutomationServer : public QObject {
    Q_OBJECT

  public:
    AutomationServer(QQmlApplicationEngine& engine, AppController& app, QObject* parent = nullptr);
    ~AutomationServer() override;

    // Listens at `path` (an old socket file there is removed first); false
    // with a reason when it cannot.
    bool listen(const QString& path, QString* why);

  private:
    void accept();
    void readFrom(QLocalSocket* socket);
    nlohmann::json run(const AutomationCommand& command);
    QQuickWindow* window() const;
    QObject* find(const std::string& name) const;
    nlohmann::json describe(QObject* object) const;
    nlohmann::json click(QObject* object);
    nlohmann::json drag(QObject* from, QObject* to);
    nlohmann::json set(QObject* object, const nlohmann::json& value);
    nlohmann::json key(const std::string& key);
    nlohmann::json type(const std::string& text);
    nlohmann::json grab(const std::string& path);

    QQmlApplicationEngine& engine_;
    AppController& app_;
    QLocalServer* server_ = nullptr;
    std::map<QLocalSocket*, QByteArray> buffers_;
};

}  // namespace vt::ui
