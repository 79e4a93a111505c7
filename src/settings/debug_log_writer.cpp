#include "settings/debug_log_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "dispatch/work_queues.h"
#include "settings/config_paths.h"
#include "settings/private_folder.h"

namespace vt::settings {

namespace fs = std::filesystem;

// Touched only on the queue, apart from the flag.
struct DebugLogWriter::State {
    int fd = -1;
    std::atomic<bool> givenUp{false};

    void giveUp() {
        givenUp = true;
        closeFile();
    }
    void closeFile() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
};

DebugLogWriter::DebugLogWriter() : DebugLogWriter(driftLogFile()) {}

DebugLogWriter::DebugLogWriter(fs::path file)
    : file_(std::move(file)),
      state_(std::make_shared<State>()),
      queue_(std::make_unique<dispatch::SerialQueue>("vellatone.debuglog")) {}

DebugLogWriter::~DebugLogWriter() {
    close();
    // The queue's destructor runs what is left, the close included.
    queue_.reset();
}

void DebugLogWriter::append(std::string line) {
    if (line.empty() || line.back() != '\n') line.push_back('\n');
    queue_->async([state = state_, path = file_, line = std::move(line)] {
        if (state->givenUp) return;
        if (state->fd < 0) {
            if (path.has_parent_path()) {
                if (auto why = makePrivateFolder(path.parent_path())) {
                    std::fprintf(stderr, "[debuglog] %s Drift logging stops.\n", why->c_str());
                    state->giveUp();
                    return;
                }
            }
            // A link left in our place would send the log to a file of someone else's choosing.
            state->fd =
                ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644);
            if (state->fd < 0) {
                std::fprintf(stderr, "[debuglog] cannot open %s; drift logging stops\n",
                             path.c_str());
                state->giveUp();
                return;
            }
        }
        const char* p = line.data();
        size_t left = line.size();
        while (left > 0) {
            ssize_t n = ::write(state->fd, p, left);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                std::fprintf(stderr, "[debuglog] cannot write %s; drift logging stops\n",
                             path.c_str());
                state->giveUp();
                return;
            }
            p += n;
            left -= static_cast<size_t>(n);
        }
    });
}

void DebugLogWriter::close() {
    queue_->async([state = state_] { state->closeFile(); });
}

void DebugLogWriter::flush() {
    queue_->waitIdle();
}

bool DebugLogWriter::givenUp() const {
    return state_->givenUp;
}

std::string driftLine(double unixSeconds, std::span<const DriftSample> rows) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.3f", unixSeconds);
    std::string line = buf;
    for (const DriftSample& r : rows) {
        std::snprintf(buf, sizeof buf, ",%.0f,%.0f", r.ppm, r.fillErrorMs);
        line += buf;
    }
    line += '\n';
    return line;
}

}  // namespace vt::settings
