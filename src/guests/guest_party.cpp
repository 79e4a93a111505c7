#include "guests/guest_party.h"

#include <utility>

namespace vt::guests {

std::string guestRowName(const std::optional<std::string>& name) {
    return name ? "Guest \u00b7 " + *name : "Guest";
}

std::string guestSubtitle(GuestSender::Status status, bool notTimed) {
    switch (status) {
        case GuestSender::Status::waiting:
            return "Guest \u00b7 joining";
        case GuestSender::Status::reconnecting:
            return "Guest \u00b7 Reconnecting";
        case GuestSender::Status::playing:
            return notTimed ? "Guest \u00b7 Not timed yet" : "Guest \u00b7 playing";
        case GuestSender::Status::paused:
            return notTimed ? "Guest \u00b7 Not timed yet" : "Guest \u00b7 paused";
    }
    return "Guest";
}

GuestServerStart startGuestServer(GuestServer& server) {
    GuestServerStart result;
    try {
        server.start();
    } catch (const net::ServerError&) {
        result.error = "Port " + std::to_string(GuestLink::defaultPort) +
                       " is taken by another app, so guests cannot join.";
        return result;
    }
    result.started = true;
    if (auto address = GuestServer::lanIPv4()) result.link = GuestLink{*address, server.port()};
    return result;
}

GuestParty::GuestParty(GuestServer& server, dispatch::MainQueue& mainQueue, Hooks hooks,
                       std::string serverName)
    : server_(server),
      mainQueue_(mainQueue),
      hooks_(std::move(hooks)),
      serverName_(std::move(serverName)) {}

GuestParty::~GuestParty() {
    alive_.reset();
    for (auto& [id, sender] : senders_) sender->stop();
}

GuestSender::Render GuestParty::renderFor(int slot) const {
    auto render = hooks_.render;
    return [render, slot](float* into, size_t frames) {
        if (render) render(slot, into, frames);
    };
}

void GuestParty::handle(const GuestServer::Event& event) {
    using Kind = GuestServer::Event::Kind;
    auto it = senders_.find(event.clientID);
    switch (event.kind) {
        case Kind::joined:
            add(event.clientID, event.name, event.connection);
            break;
        case Kind::returned:
            if (it != senders_.end()) it->second->attach(event.connection);
            break;
        case Kind::dropped:
            if (it != senders_.end()) it->second->detach();
            break;
        case Kind::gone:
            if (it != senders_.end()) {
                forget(event.clientID);
                if (hooks_.removeRow) hooks_.removeRow(event.clientID);
            }
            break;
        case Kind::text:
            if (it != senders_.end()) it->second->handle(event.text, event.connection);
            break;
    }
}

void GuestParty::add(const std::string& clientID, const std::string& name, int64_t connection) {
    if (senders_.contains(clientID) || !hooks_.addRow) return;
    const std::optional<int> slot = hooks_.addRow(clientID, guestRowName(name));
    if (!slot) return;  // no slot free: a member of the party without a row
    if (hooks_.prepareSlot) hooks_.prepareSlot(*slot);
    auto sender = std::make_unique<GuestSender>(clientID, connection, server_, renderFor(*slot),
                                                mainQueue_, mainQueue_, serverName_);
    GuestSender* raw = sender.get();
    sender->onStatus = [this, alive = std::weak_ptr<bool>(alive_), clientID,
                        raw](GuestSender::Status status) {
        if (alive.expired()) return;
        // A replaced sender's late report must not touch the new one's row.
        auto it = senders_.find(clientID);
        if (it == senders_.end() || it->second.get() != raw) return;
        if (hooks_.statusChanged) hooks_.statusChanged(clientID, status);
    };
    if (artworkEncoder_) sender->setArtworkEncoder(artworkEncoder_);
    if (track_) sender->send(track_);
    slots_[clientID] = *slot;
    senders_[clientID] = std::move(sender);
    if (running_) raw->play();
}

void GuestParty::forget(const std::string& clientID) {
    auto it = senders_.find(clientID);
    if (it == senders_.end()) return;
    it->second->stop();
    senders_.erase(it);
    slots_.erase(clientID);
}

void GuestParty::play() {
    running_ = true;
    for (auto& [id, sender] : senders_) sender->play();
}

void GuestParty::pause() {
    running_ = false;
    for (auto& [id, sender] : senders_) sender->pause();
}

void GuestParty::send(std::optional<sendspin::TrackInfo> meta) {
    track_ = meta;
    for (auto& [id, sender] : senders_) sender->send(meta);
}

void GuestParty::setArtworkEncoder(sendspin::SendspinStream::ArtworkEncoder encoder) {
    artworkEncoder_ = std::move(encoder);
    for (auto& [id, sender] : senders_) sender->setArtworkEncoder(artworkEncoder_);
}

void GuestParty::remove(const std::string& clientID) {
    server_.remove(clientID);
    forget(clientID);
}

void GuestParty::drop(const std::string& clientID) {
    forget(clientID);
}

void GuestParty::rebind(const std::string& clientID, int slot) {
    auto it = senders_.find(clientID);
    if (it == senders_.end() || slots_[clientID] == slot) return;
    if (hooks_.prepareSlot) hooks_.prepareSlot(slot);
    it->second->setRender(renderFor(slot));
    slots_[clientID] = slot;
}

std::optional<int> GuestParty::slot(const std::string& clientID) const {
    auto it = slots_.find(clientID);
    return it == slots_.end() ? std::nullopt : std::optional<int>(it->second);
}

std::optional<GuestSender::Status> GuestParty::status(const std::string& clientID) const {
    auto it = senders_.find(clientID);
    if (it == senders_.end()) return std::nullopt;
    return it->second->currentStatus();
}

}  // namespace vt::guests
