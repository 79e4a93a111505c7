#include "cast/sender_ending.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "cast/cast_message.h"

namespace vt::cast {

void endChannel(const std::shared_ptr<CastChannel>& channel,
                const std::optional<std::string>& sessionID, bool stopTV,
                dispatch::MainQueue& queue, double writeWaitSeconds,
                std::vector<std::unique_ptr<dispatch::TimerHandle>>& timers) {
    if (!channel) return;
    if (!stopTV || !sessionID) {
        channel->close();
        return;
    }
    const std::weak_ptr<CastChannel> weak = channel;
    const auto closeChannel = [weak] {
        if (auto c = weak.lock()) c->close();
    };
    channel->send(kReceiverID, kReceiverNamespace, {{"type", "STOP"}, {"sessionId", *sessionID}},
                  closeChannel);
    timers.push_back(queue.postAfter(writeWaitSeconds, closeChannel));
}

void runAndWait(dispatch::MainQueue& queue, double seconds,
                std::function<void(std::function<void()> done)> task) {
    struct Done {
        std::mutex lock;
        std::condition_variable signal;
        bool done = false;
    };
    auto done = std::make_shared<Done>();
    queue.post([done, task = std::move(task)] {
        task([done] {
            std::lock_guard lock(done->lock);
            done->done = true;
            done->signal.notify_all();
        });
    });
    std::unique_lock lock(done->lock);
    done->signal.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return done->done; });
}

}  // namespace vt::cast
