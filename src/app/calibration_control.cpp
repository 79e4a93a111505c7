#include "app/calibration_control.h"

#include "calibration/calibrator.h"

namespace vt::app {

namespace {

using calibration::Calibrator;

std::string failed(const std::string& why) {
    return nlohmann::json{{"type", "calibration.failed"}, {"why", why}}.dump();
}

std::optional<int> intField(const nlohmann::json& line, const char* key) {
    const auto it = line.find(key);
    if (it == line.end() || !it->is_number_integer()) return std::nullopt;
    return it->get<int>();
}

}  // namespace

void handleCalibrationLine(model::AppModel& model, dispatch::MainQueue& main,
                           const nlohmann::json& line, const ControlServer::Reply& reply) {
    const auto slot = intField(line, "slot");
    const auto reference = intField(line, "reference");
    const auto methodField = line.find("method");
    const std::string methodText = methodField != line.end() && methodField->is_string()
                                       ? methodField->get<std::string>()
                                       : std::string();
    // A measurement a script can run alone: no taps, no listening.
    const bool scriptable = methodText == "microphone" || methodText == "reported";
    const Calibrator::Method method =
        Calibrator::methodFromRaw(methodText).value_or(Calibrator::Method::reported);
    const auto applyField = line.find("apply");
    const bool apply =
        applyField != line.end() && applyField->is_boolean() && applyField->get<bool>();
    if (line.value("type", "") != "calibration.run" || !slot || !reference || !scriptable) {
        reply(failed("That is not a measurement this socket runs."));
        return;
    }
    if (model.calibrator()) {
        reply(failed("A measurement is already running."));
        return;
    }
    if (!model.canCalibrate(*slot) || *reference == *slot) {
        reply(failed("Slot " + std::to_string(*slot) +
                     " cannot be measured now: it must be playing and audible, and so must "
                     "another output."));
        return;
    }
    Calibrator* c = model.beginCalibration(*slot, *reference);
    if (!c) {
        reply(failed("Slot " + std::to_string(*reference) +
                     " cannot be the reference: it must be playing and audible."));
        return;
    }
    auto forward = c->onChanged;
    const int measured = *slot;
    c->onChanged = [&model, &main, c, forward, reply, apply, measured] {
        if (forward) forward();
        const Calibrator::PhaseKind kind = c->phase().kind;
        if (kind != Calibrator::PhaseKind::done && kind != Calibrator::PhaseKind::failed) return;
        const Calibrator::Phase phase = c->phase();
        // Ended outside the calibrator's own call.
        main.post([&model, c, phase, reply, apply, measured] {
            if (model.calibrator() != c) return;
            if (phase.kind == Calibrator::PhaseKind::failed) {
                c->cancel();
                reply(failed(phase.message));
                return;
            }
            if (apply)
                c->apply();
            else
                c->cancel();
            reply(nlohmann::json{{"type", "calibration.done"},
                                 {"slot", measured},
                                 {"ms", phase.milliseconds},
                                 {"applied", apply}}
                      .dump());
        });
    };
    c->setMethod(method);
    c->begin();
}

}  // namespace vt::app
