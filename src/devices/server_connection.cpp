#include "devices/server_connection.h"

#include <algorithm>

#include "devices/sound_server.h"

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
    defaultHop_.reset();
    sessionManagerTimer_.reset();
}

void ServerConnection::check() {
    if (!hop_) return;
    const bool waiting = defaultHop_ != nullptr;
    if (backend_.connected()) {
        // Back by way of someone else's reconnect (or the event raced ours).
        if (lostAt_ && !waiting) answered();
        return;
    }
    if (!lostAt_) {
        lose();
    } else if (waiting) {
        // Gone again before its session manager was ready: try afresh.
        defaultHop_.reset();
        sessionManagerTimer_.reset();
        retry_ = firstRetrySeconds;
        scheduleAttempt();
    }
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
        answered();
        return;
    }
    retry_ = std::min(retry_ * 2, longestRetrySeconds);
    scheduleAttempt();
}

void ServerConnection::answered() {
    retryTimer_.reset();
    if (sessionManagerPending()) {
        awaitSessionManager();
    } else {
        announceBack();
    }
}

void ServerConnection::awaitSessionManager() {
    defaultHop_ = std::make_unique<ChangeHop>(
        backend_, main_,
        [this] {
            if (defaultHop_ && backend_.connected() && !sessionManagerPending()) announceBack();
        },
        platform::ChangeKind::server);
    sessionManagerTimer_ = main_.postAfter(sessionManagerWaitSeconds, [this] {
        if (defaultHop_ && backend_.connected()) announceBack();
    });
}

bool ServerConnection::sessionManagerPending() const {
    return soundServerKind(backend_.serverName(), false) == SoundServerKind::pipeWire &&
           !backend_.defaultSinkName();
}

void ServerConnection::announceBack() {
    defaultHop_.reset();
    sessionManagerTimer_.reset();
    lostAt_.reset();
    if (onBack) onBack();
}

}  // namespace vt::devices
