// The interface's handle on the application model. Every Qt part (the
// window, the sheets, the visualisers, the tray) is given this one object and
// reads the model through it on the main thread, which is Qt's event loop.
// changed() is the one signal that something may look different: after every
// action taken through the interface, whenever the model reports a change of
// its own, and on every telemetry tick while playing.
#pragma once

#include <QObject>

#include "model/app_model.h"

namespace vt::ui {

class AppController : public QObject {
    Q_OBJECT

  public:
    explicit AppController(model::AppModel& model, QObject* parent = nullptr);

    model::AppModel& model() { return model_; }
    const model::AppModel& model() const { return model_; }

  signals:
    void changed();

  protected:
    model::AppModel& model_;
};

}  // namespace vt::ui
