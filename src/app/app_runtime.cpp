#include "app/app_runtime.h"

#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

#include "app/calibration_control.h"
#include "app/control_path.h"
#include "app/control_server.h"
#include "app/guest_root.h"
#include "app/local_command.h"
#include "app/mixer_control.h"
#include "app/notice_log.h"
#include "app/remote_bridge.h"
#include "calibration/pulse/pulse_microphone.h"
#include "calibration/pulse/pulse_tone_player.h"
#include "devices/sound_server.h"
#include "discovery/avahi_services.h"
#include "dispatch/work_queues.h"
#include "engine/multi_output_engine.h"
#include "guard/signal_watcher.h"
#include "model/notice_words.h"
#include "nowplaying/mpris_bus.h"
#include "platform/pulse/pulse_backend.h"
#include "platform/pulse/pulse_sink_inputs.h"
#include "secrets/secret_store.h"
#include "settings/config_paths.h"
#include "settings/debug_log_writer.h"
#include "settings/settings.h"

namespace vt::app {

namespace {

// The staged artwork, which the senders read: in the user's runtime folder
// when there is one.
std::filesystem::path artworkFolder() {
    if (const char* r = std::getenv("XDG_RUNTIME_DIR"); r && *r == '/')
        return std::filesystem::path(r) / "vellatone-nowplaying";
    const char* t = std::getenv("TMPDIR");
    return std::filesystem::path(t && *t == '/' ? t : "/tmp") /
           ("vellatone-nowplaying-" + std::to_string(::getuid()));
}

// The whole text as a finite number within [lo, hi], or nothing.
std::optional<double> numberIn(const char* text, double lo, double hi) {
    char* end = nullptr;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(v) || v < lo || v > hi) return std::nullopt;
    return v;
}

// Where guests' phones join; tests keep the server on loopback and on a port
// of their own.
std::optional<std::string> guestSetup(model::GuestSetup& guests) {
    guests.root = guestPageRoot();
    guests.options.computerName = computerName();
    if (const char* bind = std::getenv("VELLATONE_GUEST_BIND"); bind && *bind) {
        guests.options.bindAddress = bind;
        guests.options.allowsLoopbackHost = true;
        // On loopback every phone is this machine, at one address: the share
        // of threads per address would be the share of everyone.
        if (std::string_view(bind).starts_with("127."))
            guests.options.maxClientThreadsPerAddress = guests.options.maxClientThreads;
    }
    if (const char* port = std::getenv("VELLATONE_GUEST_PORT"); port && *port) {
        const std::optional<double> n = numberIn(port, 0, 65535);
        if (!n || *n != std::floor(*n))
            return "VELLATONE_GUEST_PORT is not a port number from 0 to 65535.";
        guests.port = static_cast<uint16_t>(*n);
    }
    return std::nullopt;
}

}  // namespace

void say(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}

AppRuntime::AppRuntime(dispatch::MainQueue& main)
    : main_(main), backend_(std::make_unique<platform::PulseBackend>()) {}

AppRuntime::~AppRuntime() {
    if (model_) model_->onStateChanged = nullptr;
    noticeTimer_.reset();
    stateTimer_.reset();
    signals_.reset();
    server_.reset();
    bridge_.reset();
    model_.reset();
    artworkQueue_.reset();
    mediaPlayers_.reset();
    services_.reset();
    secrets_.reset();
}

bool AppRuntime::soundServerReachable() const {
    return backend_->connected();
}

std::vector<std::string> AppRuntime::noSoundServerLines() {
    std::vector<std::string> lines{
        "vellatone: no sound server is reachable (PulseAudio, or PipeWire with "
        "pipewire-pulse), so there is nothing to capture or play to. Start one, or use "
        "scripts/run.sh, which starts a private one."};
    model::AppNoticeFacts facts;
    facts.captureAvailable = false;
    const devices::SoundServerKind kind =
        devices::soundServerKind("", devices::pipewirePulseInstalled());
    facts.soundServer = devices::soundServerWord(kind);
    facts.startCommand = devices::soundServerStartCommand(kind);
    for (const std::string& line : NoticeLog().newLines(model::applicationNotices(facts)))
        lines.push_back(line);
    return lines;
}

std::optional<std::string> AppRuntime::start(std::function<void()> quit) {
    model::GuestSetup guests;
    if (auto problem = guestSetup(guests)) return problem;

    settings_ = std::make_unique<settings::Settings>();
    openQueue_ = std::make_unique<dispatch::ConcurrentQueue>("vellatone.open", 2);
    model_ = std::make_unique<model::AppModel>(*backend_, main_, *openQueue_, *settings_,
                                               std::make_unique<settings::DebugLogWriter>());
    model_->enableGuests(std::move(guests));
    services_ = std::make_unique<discovery::AvahiServices>(main_);
    model_->enableDiscovery(*services_);
    castQueue_ = std::make_unique<cast::CastQueue>();
    model_->enableCast(castQueue_->queue());
    secrets_ = secrets::openSecretStore(settings::dataDir());
    model_->enableAirPlay(*secrets_);
    mediaPlayers_ = std::make_unique<nowplaying::MprisBus>();
    artworkQueue_ = std::make_unique<dispatch::SerialQueue>("vellatone.artwork");
    model_->enableNowPlaying(*mediaPlayers_, *artworkQueue_, artworkFolder());
    appStreams_ = std::make_unique<platform::PulseSinkInputs>();
    model_->enableMixer(*appStreams_);
    microphone_ = std::make_unique<calibration::PulseMicrophone>(main_);
    toneOutput_ = std::make_unique<calibration::PulseToneOutput>(
        main_, engine::MultiOutputEngine::kCaptureSinkName);
    model_->enableCalibration(*microphone_, *toneOutput_);

    bridge_ = std::make_unique<RemoteBridge>(*model_, *backend_, computerName(), VELLATONE_VERSION);
    server_ = std::make_unique<ControlServer>(
        main_, controlSocketPath(), [this] { return bridge_->snapshot(); },
        [this](const remote::PhoneMessage& m) {
            auto reply = bridge_->handle(m);
            if (onChange_) onChange_();
            return reply;
        },
        [this](const std::string& line) {
            std::optional<PasswordCommand> c = decodeLocalCommand(line);
            if (!c) return false;
            // What the password sheet does: open for the row, then Join.
            model_->beginPassword(c->slot);
            if (model_->passwordReceiverID()) model_->submitPassword(c->password);
            if (onChange_) onChange_();
            return true;
        });
    server_->setArtworkLookup([this](const std::string& key) -> std::optional<std::string> {
        auto artwork = model_->trackArtwork();
        if (!artwork || artwork->key != key) return std::nullopt;
        return std::move(artwork->jpeg);
    });
    server_->setMixerHandler([this](const nlohmann::json& line) {
        std::string reply = handleMixerLine(*model_, line);
        if (onChange_) onChange_();
        return reply;
    });
    server_->setCalibrationHandler(
        [this](const nlohmann::json& line, const ControlServer::Reply& reply) {
            handleCalibrationLine(*model_, main_, line, reply);
            if (onChange_) onChange_();
        });
    try {
        server_->start();
    } catch (const std::exception& e) {
        server_.reset();
        model_->shutDown();
        return e.what();
    }
    controlSocket_ = server_->path().string();

    signals_ = std::make_unique<guard::SignalWatcher>(main_, [this, quit](int signal) {
        say(std::string("vellatone: ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") +
            ": stopping and giving the output back");
        shutDown();
        quit();
    });

    model_->onStateChanged = [this] {
        server_->publish(false);
        if (onChange_) onChange_();
    };
    noticeLog_ = std::make_unique<NoticeLog>();
    noticeTimer_ = main_.repeat(0.1, [this] { logNotices(); });
    // Commands publish at once; this catches what changes on its own.
    stateTimer_ = main_.repeat(0.5, [this] { server_->publish(false); });
    main_.post([this] { logNotices(); });
    return std::nullopt;
}

void AppRuntime::publish() {
    if (server_) server_->publish(false);
}

void AppRuntime::shutDown() {
    if (shutDown_ || !model_) return;
    shutDown_ = true;
    model_->shutDown();
    publish();
}

void AppRuntime::logNotices() {
    // The server starts with the first play; a test that asked for any free
    // port reads which one here.
    if (!portSaid_ && model_->guestServer()) {
        say("vellatone: guest server on port " + std::to_string(model_->guestServer()->port()));
        portSaid_ = true;
    }
    for (const std::string& line : noticeLog_->newLines(model_->notices())) say(line);
    // The password sheet, without a window: said once each time it opens.
    std::string prompt;
    if (const auto& name = model_->passwordReceiverName()) {
        prompt = "vellatone: " + *name + " requires a password";
        if (model_->passwordRejected())
            prompt += ". It refused the password saved here. Enter the current one.";
        prompt += " (vellatonectl password SLOT reads it from standard input)";
    }
    if (prompt != passwordPrompt_ && !prompt.empty()) say(prompt);
    passwordPrompt_ = prompt;
    std::string words;
    if (model_->guestServerError())
        words = "vellatone: " + *model_->guestServerError();
    else if (model_->guestLink())
        words = "vellatone: guests join at " + model_->guestLink()->joinURL();
    if (!words.empty() && words != guestWords_) say(guestWords_ = words);
}

}  // namespace vt::app
