// What the application is, window or not: the sound server, the settings,
// the model with guests enabled, the control socket that vellatonectl and
// scripts speak to, the signal watcher that turns SIGINT and SIGTERM into an
// orderly quit, and the notices on standard error. The headless program runs
// it on an EventLoop, the window on Qt's event loop; both are the main queue
// given here, and everything below runs on it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cast/cast_queue.h"
#include "dispatch/main_queue.h"
#include "model/app_model.h"

namespace vt::platform {
class PulseBackend;
class PulseSinkInputs;
}  // namespace vt::platform
namespace vt::settings {
class Settings;
}
namespace vt::dispatch {
class ConcurrentQueue;
class SerialQueue;
}  // namespace vt::dispatch
namespace vt::nowplaying {
class MediaPlayerBus;
}
namespace vt::discovery {
class AvahiServices;
}
namespace vt::secrets {
class SecretStore;
}
namespace vt::guard {
class SignalWatcher;
}

namespace vt::app {

class ControlServer;
class RemoteBridge;
class NoticeLog;

// One line on standard error, at once.
void say(const std::string& line);

class AppRuntime {
  public:
    // Connects to the sound server; nothing else happens until start().
    explicit AppRuntime(dispatch::MainQueue& main);
    ~AppRuntime();
    AppRuntime(const AppRuntime&) = delete;
    AppRuntime& operator=(const AppRuntime&) = delete;

    bool soundServerReachable() const;
    // What to tell the user when no sound server answers: the sentence and
    // the notice lines.
    static std::vector<std::string> noSoundServerLines();

    // Builds the model, enables guests, opens the control socket and starts
    // watching for signals; a signal shuts the model down (which gives the
    // output back) and then calls `quit`. Returns a sentence for the user
    // when it cannot run (a bad environment value, another instance on the
    // control socket), after which nothing has been started.
    std::optional<std::string> start(std::function<void()> quit);

    model::AppModel& model() { return *model_; }
    const std::string& controlSocket() const { return controlSocket_; }

    // Something may look different: a control-socket command was handled or
    // the model changed on its own. The window redraws on it.
    void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }
    // Main thread, after an action taken elsewhere (the window): control
    // clients hear of it at once.
    void publish();
    // Stops playing if it plays, giving the output back. Safe to call twice.
    void shutDown();

  private:
    void logNotices();

    dispatch::MainQueue& main_;
    std::unique_ptr<platform::PulseBackend> backend_;
    std::unique_ptr<settings::Settings> settings_;
    std::unique_ptr<dispatch::ConcurrentQueue> openQueue_;
    // Declared before the model, which browses through it.
    std::unique_ptr<discovery::AvahiServices> services_;
    // Before the model, so that it outlives the model's Cast senders.
    std::unique_ptr<cast::CastQueue> castQueue_;
    std::unique_ptr<secrets::SecretStore> secrets_;
    // Before the model, which follows the players through them.
    std::unique_ptr<nowplaying::MediaPlayerBus> mediaPlayers_;
    std::unique_ptr<dispatch::SerialQueue> artworkQueue_;
    std::unique_ptr<platform::PulseSinkInputs> appStreams_;
    std::unique_ptr<calibration::Microphone> microphone_;
    std::unique_ptr<calibration::ToneOutput> toneOutput_;
    std::unique_ptr<model::AppModel> model_;
    std::unique_ptr<RemoteBridge> bridge_;
    std::unique_ptr<ControlServer> server_;
    std::unique_ptr<guard::SignalWatcher> signals_;
    std::unique_ptr<NoticeLog> noticeLog_;
    std::unique_ptr<dispatch::TimerHandle> noticeTimer_, stateTimer_;
    std::function<void()> onChange_;
    std::string controlSocket_;
    std::string guestWords_;
    std::string passwordPrompt_;
    bool portSaid_ = false;
    bool shutDown_ = false;
};

}  // namespace vt::app
