// A many-client Sendspin server for measuring: every client that says hello
// gets its own timed stream, as guests' phones will.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "net/sendspin_connection.h"
#include "net/sendspin_transport.h"
#include "sendspin/stream.h"

namespace vt::tools {

class LoadServer : public net::SendspinTransport {
  public:
    LoadServer();
    ~LoadServer() override;

    uint16_t start();  // loopback, a port the system picks
    void stop();
    int64_t droppedFrames() const;
    int streaming() const { return streaming_.load(); }
    // Bytes of audio waiting in our queues, over all clients.
    size_t queuedAudioBytes() const;

    void sendText(std::string text, int64_t to) override;
    void sendTextBuilding(std::function<std::string()> building, int64_t to) override;
    void sendBinary(std::string data, int64_t to) override;

  private:
    void serve(int fd, int64_t id);
    std::shared_ptr<net::SendspinConnection> find(int64_t id) const;

    int listener_ = -1;
    std::atomic<bool> running_{false};
    std::atomic<int> streaming_{0};
    std::thread acceptThread_;
    std::vector<std::thread> clients_;
    mutable std::mutex lock_;
    std::map<int64_t, std::shared_ptr<net::SendspinConnection>> connections_;
    int64_t pastDropped_ = 0;
};

}  // namespace vt::tools
