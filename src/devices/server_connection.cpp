#include "devices/server_connection.h"

#include <algorithm>

namespace vt::devices {

ServerConnection::ServerConnection(platform::AudioBackend& backend, dispatch::MainQueue& main)
    : backend_(backend), main_(main) {}

ServerConnection::~ServerConnection() {
    stop();
}

void ServerConnection::start() {
    if (hop_) return;
    hop_ = std::make_unique<ChangeHop>(
        backend_, main_, [this] { check(); }, platform::ChangeKind::connection);
    check();
}

void ServerConnection::stop() {
    hop_.reset();
    retryTimer_.reset();
}

void ServerConnection::check() {
    if (!hop_) return;
    if (backend_.connected()) {
        if (!lostAt_) return;
        // Back by way of someone else's reconnect (or the event raced ours).
        lostAt_.reset();
        retryTimer_.reset();
        if (onBack) onBack();
        return;
    }
    if (!lostAt_) lose();
}

void ServerConnection::lose() {
    lostAt_ = main_.now();
    attempts_ = 0;
    retry_ = firstRetrySeconds;
    if (onLost) onLost();
    scheduleAttempt();
}

void ServerConnection::scheduleAttempt() {
    retryTimer_ = main_.postAfter(retry_, [this] { attempt(); });
}

void ServerConnection::attempt() {
    if (!hop_ || !lostAt_) return;
    ++attempts_;
    if (backend_.reconnect()) {
        lostAt_.reset();
        retryTimer_.reset();
        if (onBack) onBack();
        return;
    }
    retry_ = std::min(retry_ * 2, longestRetrySeconds);
    scheduleAttempt();
}

}  // namespace vt::devices
