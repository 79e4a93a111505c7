// vellatone-guest-host: the engine and the guest server without the rest of
// the application, for the end-to-end test and the guest timing measurement.
// One speaker row plays to a sink of the sound server; every phone that joins
// becomes a guest row after it, as in the application.
//
//   vellatone-guest-host --root DIR [--port N] [--speaker SINK=DELAY_MS]
//       [--patience S] [--bind ADDR] [--seconds N]
//
// Prints "listening PORT" once the server is up and "rows JSON" whenever the
// rows change. Reads "remove CLIENT_ID" and "quit" lines on standard input.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "devices/device_monitor.h"
#include "dispatch/event_loop.h"
#include "dispatch/work_queues.h"
#include "engine/multi_output_engine.h"
#include "guests/guest_party.h"
#include "guests/guest_server.h"
#include "platform/pulse/pulse_backend.h"

namespace {

vt::dispatch::EventLoop* gLoop = nullptr;

void onSignal(int) {
    if (gLoop) gLoop->quit();
}

[[noreturn]] void usage() {
    std::fprintf(stderr,
                 "usage: vellatone-guest-host --root DIR [--port N] [--speaker SINK=DELAY_MS]\n"
                 "       [--patience S] [--bind ADDR] [--seconds N]\n");
    std::exit(2);
}

struct Row {
    std::string name;
    std::optional<std::string> guestID;
    std::optional<vt::guests::GuestSender::Status> status;
};

}  // namespace

int main(int argc, char** argv) {
    std::string root, bind = "127.0.0.1", speaker = "living";
    double speakerDelayMs = 0, patience = 15.0, seconds = 3600;
    int port = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) usage();
            return argv[++i];
        };
        if (arg == "--root") {
            root = next();
        } else if (arg == "--port") {
            port = std::atoi(next().c_str());
        } else if (arg == "--bind") {
            bind = next();
        } else if (arg == "--patience") {
            patience = std::atof(next().c_str());
        } else if (arg == "--seconds") {
            seconds = std::atof(next().c_str());
        } else if (arg == "--speaker") {
            const std::string value = next();
            const size_t eq = value.find('=');
            if (eq == std::string::npos || eq == 0) usage();
            speaker = value.substr(0, eq);
            speakerDelayMs = std::atof(value.substr(eq + 1).c_str());
        } else {
            usage();
        }
    }
    if (root.empty() || port < 0 || port > 65535) usage();

    vt::dispatch::EventLoop loop;
    gLoop = &loop;
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    auto backend = std::make_unique<vt::platform::PulseBackend>();
    if (!backend->connected()) {
        std::fprintf(stderr, "vellatone-guest-host: no sound server\n");
        return 2;
    }
    vt::dispatch::ConcurrentQueue openQueue("com.kessor.vellatone.output-open", 2);
    vt::engine::MultiOutputEngine engine(*backend, loop, openQueue);
    vt::devices::DeviceMonitor monitor(*backend, loop);
    monitor.onDeviceListChanged = [&engine] { engine.handleDeviceListChange(); };
    monitor.start();

    std::vector<Row> rows{{speaker, std::nullopt, std::nullopt}};
    engine.setOutputDevice(0, speaker);
    engine.setDelayMs(0, speakerDelayMs);
    engine.setVolume(0, 1.0);

    auto printRows = [&] {
        nlohmann::json list = nlohmann::json::array();
        for (size_t i = 0; i < rows.size(); ++i) {
            const Row& r = rows[i];
            list.push_back({{"slot", i},
                            {"name", r.name},
                            {"guest", r.guestID ? nlohmann::json(*r.guestID) : nlohmann::json()},
                            {"subtitle", r.status ? vt::guests::guestSubtitle(*r.status, false)
                                                  : std::string("Speaker")}});
        }
        std::printf("rows %s\n", list.dump().c_str());
        std::fflush(stdout);
    };
    auto indexOf = [&](const std::string& id) -> std::optional<size_t> {
        for (size_t i = 0; i < rows.size(); ++i) {
            if (rows[i].guestID == id) return i;
        }
        return std::nullopt;
    };

    vt::guests::GuestServer::Options options;
    options.bindAddress = bind;
    options.allowsLoopbackHost = true;
    options.computerName = "Test computer";
    vt::guests::GuestServer server(root, static_cast<uint16_t>(port), patience, loop, loop,
                                   options);

    std::unique_ptr<vt::guests::GuestParty> party;
    auto dropRow = [&](size_t index) {
        rows.erase(rows.begin() + static_cast<long>(index));
        // Later guests move down one slot, in forward order so no two share one.
        for (size_t i = index; i < rows.size(); ++i) {
            if (!rows[i].guestID) continue;
            const int slot = static_cast<int>(i);
            engine.setDelayMs(slot, 0);
            engine.setVolume(slot, 1.0);
            party->rebind(*rows[i].guestID, slot);
        }
        printRows();
    };
    vt::guests::GuestParty::Hooks hooks;
    hooks.addRow = [&](const std::string& id, const std::string& name) -> std::optional<int> {
        if (rows.size() >= static_cast<size_t>(vt::engine::MultiOutputEngine::maxOutputs)) {
            return std::nullopt;
        }
        rows.push_back({name, id, vt::guests::GuestSender::Status::paused});
        const int slot = static_cast<int>(rows.size() - 1);
        engine.setOutputDevice(slot, std::nullopt);
        engine.setDelayMs(slot, 0);
        engine.setVolume(slot, 1.0);
        engine.setMuted(slot, false);
        printRows();
        return slot;
    };
    hooks.removeRow = [&](const std::string& id) {
        if (auto i = indexOf(id)) dropRow(*i);
    };
    hooks.statusChanged = [&](const std::string& id, vt::guests::GuestSender::Status status) {
        if (auto i = indexOf(id)) {
            rows[*i].status = status;
            printRows();
        }
    };
    hooks.prepareSlot = [&engine](int slot) { engine.prepareAirPlaySlot(slot, 48000); };
    hooks.render = [&engine](int slot, float* into, size_t frames) {
        engine.renderAirPlay(slot, into, static_cast<uint32_t>(frames));
    };
    char hostName[256] = {};
    gethostname(hostName, sizeof hostName - 1);
    party = std::make_unique<vt::guests::GuestParty>(server, loop, hooks, hostName);
    server.onEvent = [&](const vt::guests::GuestServer::Event& e) { party->handle(e); };

    try {
        engine.start();
        server.start();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vellatone-guest-host: %s\n", e.what());
        return 1;
    }
    party->play();
    std::printf("listening %u\n", server.port());
    printRows();

    std::thread input([&loop, &party, &indexOf, &dropRow] {
        std::string line;
        while (std::getline(std::cin, line)) {
            if (line.rfind("remove ", 0) == 0) {
                const std::string id = line.substr(7);
                loop.post([&, id] {
                    party->remove(id);
                    if (auto i = indexOf(id)) dropRow(*i);
                });
            } else if (line == "quit") {
                break;
            }
        }
        loop.post([&loop] { loop.quit(); });
    });
    input.detach();

    auto end = loop.postAfter(seconds, [&] { loop.quit(); });
    loop.run();
    gLoop = nullptr;
    party.reset();
    server.stop();
    monitor.stop();
    engine.stop();
    std::printf("stopped\n");
    std::fflush(stdout);
    std::_Exit(0);  // the input thread may still sit in a read
}
