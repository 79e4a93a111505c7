// A scripted connection: the test plays the TV's side by hand.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "cast/cast_connection.h"
#include "cast/cast_frame_reader.h"

namespace vt::cast::testing {

class FakeCastConnection final : public CastConnection {
  public:
    struct Shared {
        std::mutex mutex;
        Events events;
        std::vector<CastMessage> written;
        bool started = false;
        bool cancelled = false;
        CastFrameReader writtenReader;
    };

    explicit FakeCastConnection(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
    void start(Events events) override {
        std::lock_guard lock(shared_->mutex);
        shared_->events = std::move(events);
        shared_->started = true;
    }
    bool write(std::string_view bytes) override {
        std::lock_guard lock(shared_->mutex);
        if (shared_->cancelled) return false;
        auto messages = shared_->writtenReader.append(bytes);
        if (!messages) return false;
        for (auto& m : *messages) shared_->written.push_back(std::move(m));
        return true;
    }
    void cancel() override {
        std::lock_guard lock(shared_->mutex);
        shared_->cancelled = true;
    }

  private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace vt::cast::testing
