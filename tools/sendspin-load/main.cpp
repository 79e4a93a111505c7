// Measures the Sendspin send path on loopback:
//   control under audio backlog: a client that has stopped reading, with about two
//     seconds of audio queued for it, sends "client/time" and reads again; how long
//     until it holds the answer;
//   N clients x S s: every frame arrives, in order, stamps 10 ms apart, and the
//     server process's CPU time per second of stream.
// The clients run in a child process so their work is not counted.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "load_server.h"
#include "net/monotonic.h"
#include "net/websocket_client.h"
#include "sendspin/protocol.h"

namespace {

namespace P = vt::sendspin::SendspinProtocol;
using vt::net::WebSocketClient;
using vt::net::WebSocketFrame::Opcode;
using namespace std::chrono_literals;

struct Options {
    int clients = 12;
    int seconds = 60;
    bool backlog = true;
    bool load = true;
    bool check = false;
    int serveSeconds = 0;  // only serve, for an outside client
};

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

struct ClientResult {
    int64_t frames = 0;
    int64_t lost = 0;        // frames missing between the first and the last stamp
    int64_t misordered = 0;  // steps other than +10 ms that were not gaps
};

// One listening client: hello, then frames until `seconds` of stream have arrived.
ClientResult listen(uint16_t port, int seconds, int index) {
    ClientResult result;
    WebSocketClient client;
    if (!client.connect("127.0.0.1", port, "/sendspin")) {
        result.lost = -1;
        return result;
    }
    client.sendText(
        P::clientHello("load-" + std::to_string(index), "Load " + std::to_string(index)));
    const int64_t wanted = static_cast<int64_t>(seconds) * 100;
    int64_t last = 0;
    while (result.frames < wanted) {
        auto frame = client.receive(5000);
        if (!frame) break;
        if (frame->opcode != static_cast<uint8_t>(Opcode::binary)) continue;
        const auto chunk = P::parseAudioChunk(frame->payload);
        if (!chunk || chunk->second.size() != 1920) {
            ++result.misordered;
            continue;
        }
        if (result.frames > 0) {
            const int64_t step = chunk->first - last;
            if (step > 10'000 && step % 10'000 == 0) {
                result.lost += step / 10'000 - 1;
            } else if (step != 10'000) {
                ++result.misordered;
            }
        }
        last = chunk->first;
        ++result.frames;
    }
    result.lost += wanted - result.frames - result.lost > 0 ? wanted - result.frames : 0;
    return result;
}

// Returns the answer time in ms, or a negative number on failure.
double measureBacklog(double* roundTripMs, int64_t* audioBefore) {
    vt::tools::LoadServer server;
    const uint16_t port = server.start();
    WebSocketClient client;
    // Before connecting, so the window stays small and the backlog builds in our queue.
    client.setReceiveBuffer(4096);
    if (port == 0 || !client.connect("127.0.0.1", port, "/sendspin")) return -1;
    client.sendText(P::clientHello("backlog", "Backlog"));
    // The client reads nothing now. Wait until the queue is full: about two seconds.
    const auto giveUp = std::chrono::steady_clock::now() + 20s;
    while (server.droppedFrames() == 0 && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::sleep_for(10ms);
    }
    const size_t queued = server.queuedAudioBytes();
    std::fprintf(stderr, "backlog: %zu bytes of audio queued (%.2f s), %lld dropped\n", queued,
                 static_cast<double>(queued) / 1933 / 100,
                 static_cast<long long>(server.droppedFrames()));

    const int64_t sentUs = vt::net::monotonicUs();
    client.sendText(P::clientTime(sentUs));
    *audioBefore = 0;
    while (auto frame = client.receive(5000)) {
        if (frame->opcode == static_cast<uint8_t>(Opcode::binary)) {
            ++*audioBefore;
            continue;
        }
        const auto message = P::parseServer(frame->payload);
        if (!message || !std::holds_alternative<P::ServerTime>(*message)) continue;
        const auto& time = std::get<P::ServerTime>(*message);
        if (time.clientTransmitted != sentUs) return -1;
        *roundTripMs = static_cast<double>(vt::net::monotonicUs() - sentUs) / 1000.0;
        return static_cast<double>(time.serverTransmitted - time.serverReceived) / 1000.0;
    }
    return -1;
}

bool runLoad(const Options& options, std::string* line) {
    int toChild[2], fromChild[2];
    if (pipe(toChild) != 0 || pipe(fromChild) != 0) return false;
    const pid_t child = fork();
    if (child == 0) {
        close(toChild[1]);
        close(fromChild[0]);
        uint16_t port = 0;
        if (read(toChild[0], &port, sizeof port) != sizeof port) _exit(2);
        std::vector<ClientResult> results(static_cast<size_t>(options.clients));
        std::vector<std::thread> threads;
        for (int i = 0; i < options.clients; ++i) {
            threads.emplace_back(
                [&, i] { results[static_cast<size_t>(i)] = listen(port, options.seconds, i); });
        }
        for (auto& t : threads) t.join();
        const ssize_t size = static_cast<ssize_t>(results.size() * sizeof(ClientResult));
        _exit(write(fromChild[1], results.data(), static_cast<size_t>(size)) == size ? 0 : 3);
    }
    close(toChild[0]);
    close(fromChild[1]);

    vt::tools::LoadServer server;
    const uint16_t port = server.start();
    if (write(toChild[1], &port, sizeof port) != sizeof port) return false;
    while (server.streaming() < options.clients) std::this_thread::sleep_for(5ms);
    const double cpuStart = cpuSeconds();
    const double wallStart = vt::net::monotonicSeconds();

    std::vector<ClientResult> results(static_cast<size_t>(options.clients));
    const size_t want = results.size() * sizeof(ClientResult);
    size_t got = 0;
    while (got < want) {
        const ssize_t n =
            read(fromChild[0], reinterpret_cast<char*>(results.data()) + got, want - got);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    const double wall = vt::net::monotonicSeconds() - wallStart;
    const double cpu = cpuSeconds() - cpuStart;
    int status = 0;
    waitpid(child, &status, 0);
    server.stop();
    if (got < want) {
        *line = std::to_string(options.clients) + " clients x " + std::to_string(options.seconds) +
                " s: the clients failed";
        return false;
    }
    int64_t lost = 0, misordered = 0, frames = 0;
    for (const auto& r : results) {
        lost += r.lost < 0 ? options.seconds * 100 : r.lost;
        misordered += r.misordered;
        frames += r.frames;
    }
    std::fprintf(stderr, "load: %lld frames received, %lld out of step, server dropped %lld\n",
                 static_cast<long long>(frames), static_cast<long long>(misordered),
                 static_cast<long long>(server.droppedFrames()));
    char text[128];
    std::snprintf(text, sizeof text, "%d clients x %d s: %.2f %% of one core, frames lost %lld",
                  options.clients, options.seconds, 100.0 * cpu / wall,
                  static_cast<long long>(lost));
    *line = text;
    return lost == 0 && misordered == 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--clients" && i + 1 < argc) {
            options.clients = std::atoi(argv[++i]);
        } else if (arg == "--seconds" && i + 1 < argc) {
            options.seconds = std::atoi(argv[++i]);
        } else if (arg == "--backlog-only") {
            options.load = false;
        } else if (arg == "--load-only") {
            options.backlog = false;
        } else if (arg == "--serve" && i + 1 < argc) {
            options.serveSeconds = std::atoi(argv[++i]);
        } else if (arg == "--check") {
            options.check = true;
        } else {
            std::fprintf(stderr,
                         "usage: %s [--clients N] [--seconds S] [--backlog-only|--load-only] "
                         "[--check] | --serve S\n",
                         argv[0]);
            return 2;
        }
    }
    if (options.serveSeconds > 0) {
        vt::tools::LoadServer server;
        std::printf("port %u\n", server.start());
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::seconds(options.serveSeconds));
        server.stop();
        return 0;
    }
    bool ok = true;
    // The load run forks, so it goes first, before this process has any threads;
    // its line is printed last.
    std::string loadLine;
    if (options.load) ok = runLoad(options, &loadLine) && ok;
    if (options.backlog) {
        double roundTripMs = 0;
        int64_t audioBefore = 0;
        const double answerMs = measureBacklog(&roundTripMs, &audioBefore);
        if (answerMs < 0) {
            std::printf("control under audio backlog: no answer\n");
            ok = false;
        } else {
            // The figure printed is what the client saw, from asking to reading the
            // answer: it bounds the server's own time from arrival to writing.
            std::fprintf(stderr,
                         "backlog: written %.3f ms after it arrived (server_transmitted - "
                         "server_received), behind %lld audio frames already in the socket\n",
                         answerMs, static_cast<long long>(audioBefore));
            std::printf("control under audio backlog: answered in %.2f ms\n", roundTripMs);
            if (roundTripMs > 5.0) ok = false;
        }
    }
    if (!loadLine.empty()) std::printf("%s\n", loadLine.c_str());
    return options.check && !ok ? 1 : 0;
}
