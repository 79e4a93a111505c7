// The application's side of guests: a phone that says hello becomes an output
// row, keeps that row while it reconnects, and loses it when it leaves or stays
// away too long. The rows themselves belong to the application model, which
// this reaches only through the hooks below, on the main thread.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "dispatch/main_queue.h"
#include "guests/guest_link.h"
#include "guests/guest_sender.h"
#include "guests/guest_server.h"

namespace vt::guests {

// "Guest", or "Guest · " and the name.
std::string guestRowName(const std::optional<std::string>& name);
// The row's second line while the phone's timing is assumed or measured.
std::string guestSubtitle(GuestSender::Status status, bool notTimed);

// Starting the server on first demand, as the invitation and the remote ask
// for it: the link to show, or the sentence that says why guests cannot join.
struct GuestServerStart {
    bool started = false;
    std::optional<GuestLink> link;     // none when this machine has no address
    std::optional<std::string> error;  // for the user, when the port was taken
};
GuestServerStart startGuestServer(GuestServer& server);

class GuestParty {
  public:
    struct Hooks {
        // Make the guest's row; its engine slot, or nothing when none is free.
        std::function<std::optional<int>(const std::string& clientID, const std::string& rowName)>
            addRow;
        // The guest left or stayed away too long.
        std::function<void(const std::string& clientID)> removeRow;
        std::function<void(const std::string& clientID, GuestSender::Status status)> statusChanged;
        // Make the slot a network slot read at 48 kHz by an outside thread.
        std::function<void(int slot)> prepareSlot;
        // Fills interleaved stereo for the slot; runs on the sender's pump thread.
        std::function<void(int slot, float* into, size_t frames)> render;
    };

    // `server` must outlive this; events reach `handle` on `mainQueue`.
    GuestParty(GuestServer& server, dispatch::MainQueue& mainQueue, Hooks hooks,
               std::string serverName);
    ~GuestParty();

    void handle(const GuestServer::Event& event);
    void play();
    void pause();
    void send(std::optional<sendspin::TrackInfo> meta);
    // How every guest's sender turns the track's image into what the page shows.
    void setArtworkEncoder(sendspin::SendspinStream::ArtworkEncoder encoder);
    // The host's removal: barred until the server ends. The caller drops the row.
    void remove(const std::string& clientID);
    // The row went for another reason: its sender stops, the phone is not barred.
    void drop(const std::string& clientID);
    // After rows moved: the slot each guest's row now sits at.
    void rebind(const std::string& clientID, int slot);

    std::optional<int> slot(const std::string& clientID) const;
    std::optional<GuestSender::Status> status(const std::string& clientID) const;
    size_t count() const { return senders_.size(); }
    bool running() const { return running_; }

  private:
    void add(const std::string& clientID, const std::string& name, int64_t connection);
    void forget(const std::string& clientID);
    GuestSender::Render renderFor(int slot) const;

    GuestServer& server_;
    dispatch::MainQueue& mainQueue_;
    Hooks hooks_;
    const std::string serverName_;
    bool running_ = false;
    std::optional<sendspin::TrackInfo> track_;
    sendspin::SendspinStream::ArtworkEncoder artworkEncoder_;
    std::map<std::string, std::unique_ptr<GuestSender>> senders_;
    std::map<std::string, int> slots_;
    // Status reports queued on the main thread check this before touching the party.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vt::guests
