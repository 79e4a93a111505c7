// The test receiver on its own, for end-to-end tests where the app finds it
// on the network: ap2-test-receiver ADDRESS PORT. It prints what it has
// received as it goes, and every breach of the protocol it sees, until it
// is told to end (SIGTERM or SIGINT).
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "ap2_test_receiver.h"

namespace {
volatile sig_atomic_t ending = 0;
void end(int) {
    ending = 1;
}
constexpr auto kReportInterval = std::chrono::milliseconds(200);
}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s ADDRESS PORT\n", argv[0]);
        return 2;
    }
    signal(SIGTERM, end);
    signal(SIGINT, end);
    vt::airplay_test::Ap2TestReceiver receiver(argv[1], std::atoi(argv[2]));
    std::printf("[receiver] listening on %s:%d\n", argv[1], receiver.port());
    std::fflush(stdout);
    size_t told = 0;
    size_t frames = 0;
    while (!ending) {
        std::this_thread::sleep_for(kReportInterval);
        const auto violations = receiver.violations();
        for (; told < violations.size(); ++told)
            std::printf("[receiver] violation: %s\n", violations[told].c_str());
        if (receiver.framesReceived() != frames) {
            frames = receiver.framesReceived();
            std::printf("[receiver] frames=%zu peak=%d\n", frames, receiver.peakLevel());
        }
        std::fflush(stdout);
    }
    std::printf("[receiver] violations=%zu\n", receiver.violations().size());
    return 0;
}
