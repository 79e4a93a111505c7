// What every sheet's controller shares: the `app` the window hands it, and a
// hook that runs when it is set and whenever the app's model changes, so the
// sheet's words follow the model.
#pragma once

#include <QtQml/qqmlregistration.h>
#include <QObject>
#include <QPointer>

namespace vt::model {
class AppModel;
}

namespace vt::ui {

class AppController;

class AppSheetController : public QObject {
    Q_OBJECT
    QML_ANONYMOUS
    Q_PROPERTY(QObject* app READ app WRITE setApp NOTIFY appChanged)

  public:
    using QObject::QObject;

    QObject* app() const;
    void setApp(QObject* app);

  signals:
    void appChanged();

  protected:
    AppController* appController() const;
    model::AppModel* model() const;
    // The model's changes no longer reach this sheet (while it goes).
    void stopFollowingApp() { disconnect(changedConnection_); }
    // Another app is about to be taken; the old one is still set.
    virtual void leavingApp() {}
    // The app was set, or its model changed.
    virtual void appUpdated() {}

  private:
    QPointer<AppController> app_;
    QMetaObject::Connection changedConnection_;
};

}  // namespace vt::ui
