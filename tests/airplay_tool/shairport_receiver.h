// Debian's shairport-sync as a real AirPlay 1 receiver for the integration
// tests, on 127.0.0.1:5000 of the test's own network namespace, playing into
// a sink of the test's private sound server, with its metadata pipe read.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "airplay_tool/child_process.h"

namespace vt::airplay_tool::testing {

inline constexpr int kReceiverPort = 5000;

struct ReceiverConfig {
    std::string pulseServer;  // "unix:/..." of the private sound server
    std::string sink = "airport";
    std::string password;  // empty: none
    std::string name = "Kitchen";
};

class ShairportReceiver {
  public:
    ShairportReceiver(const std::string& dir, const ReceiverConfig& config) : dir_(dir) {
        metadataPipe_ = dir + "/metadata";
        mkfifo(metadataPipe_.c_str(), 0600);
        metadataFd_ = open(metadataPipe_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        metadataReader_ = std::thread([this] { readMetadata(); });
        const std::string conf = dir + "/shairport.conf";
        std::ofstream out(conf);
        out << "general = { name = \"" << config.name << "\"; port = " << kReceiverPort
            << "; output_backend = \"pa\"; mdns_backend = \"avahi\"; udp_port_base = 6001;";
        if (!config.password.empty()) out << " password = \"" << config.password << "\";";
        if (const char* extra = getenv("VT_SHAIRPORT_GENERAL")) out << " " << extra;
        out << " };\n";
        out << "pa = { server = \"" << config.pulseServer << "\"; sink = \"" << config.sink
            << "\"; };\n";
        out << "metadata = { enabled = \"yes\"; include_cover_art = \"yes\"; pipe_name = \""
            << metadataPipe_ << "\"; cover_art_cache_directory = \"\"; };\n";
        // Its own account of each session (flushes, sync errors, what it
        // dropped), printed when a test fails: what went wrong on the
        // receiver's side is seldom seen again.
        out << "diagnostics = { statistics = \"yes\"; log_verbosity = 2; };\n";
        out.close();
        process_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/usr/bin/shairport-sync", "-c", conf, "-u"}, false);
    }

    ~ShairportReceiver() {
        process_.reset();
        stop_ = true;
        if (metadataReader_.joinable()) metadataReader_.join();
        if (metadataFd_ >= 0) close(metadataFd_);
    }

    // True once the RTSP port takes connections.
    bool waitUntilListening(int timeoutMs = 8000) {
        for (int waited = 0; waited < timeoutMs; waited += 50) {
            int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(kReceiverPort);
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
            close(fd);
            if (ok) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    void kill() {
        process_->kill(SIGKILL);
        process_->wait(std::chrono::seconds(5));
    }
    std::string log() { return process_->transcript(); }

    std::string metadata() {
        std::lock_guard lock(mutex_);
        return metadata_;
    }

  private:
    void readMetadata() {
        char buf[65536];
        while (!stop_) {
            pollfd p{metadataFd_, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            ssize_t n = read(metadataFd_, buf, sizeof buf);
            if (n > 0) {
                std::lock_guard lock(mutex_);
                metadata_.append(buf, static_cast<size_t>(n));
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        }
    }

    std::string dir_;
    std::string metadataPipe_;
    int metadataFd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread metadataReader_;
    std::mutex mutex_;
    std::string metadata_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace vt::airplay_tool::testing
