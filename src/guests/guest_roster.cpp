#include "guests/guest_roster.h"

#include <algorithm>
#include <utility>

namespace vt::guests {

namespace {

bool isSpace(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

}  // namespace

std::string guestDisplayName(std::string_view typed, size_t maxCharacters) {
    while (!typed.empty() && isSpace(static_cast<unsigned char>(typed.front()))) {
        typed.remove_prefix(1);
    }
    while (!typed.empty() && isSpace(static_cast<unsigned char>(typed.back()))) {
        typed.remove_suffix(1);
    }
    // Count characters, not bytes, so a name is never cut inside a letter.
    size_t characters = 0;
    size_t end = 0;
    while (end < typed.size() && characters < maxCharacters) {
        ++end;
        while (end < typed.size() && (static_cast<unsigned char>(typed[end]) & 0xC0) == 0x80) ++end;
        ++characters;
    }
    std::string name(typed.substr(0, end));
    while (!name.empty() && isSpace(static_cast<unsigned char>(name.back()))) name.pop_back();
    return name.empty() ? "Guest" : name;
}

const char* GuestRoster::rawValue(Status status) {
    switch (status) {
        case Status::member:
            return "member";
        case Status::removed:
            return "removed";
        case Status::full:
            return "full";
        case Status::open:
            return "open";
    }
    return "open";
}

const GuestRoster::Guest* GuestRoster::guest(const std::string& clientID) const {
    for (const Guest& g : guests_) {
        if (g.clientID == clientID) return &g;
    }
    return nullptr;
}

GuestRoster::Guest* GuestRoster::find(const std::string& clientID) {
    return const_cast<Guest*>(std::as_const(*this).guest(clientID));
}

GuestRoster::Admission GuestRoster::admit(const std::string& clientID, int64_t connection) {
    if (removed_.contains(clientID)) return Removed{};
    if (Guest* g = find(clientID)) {
        // A member coming back is never turned away for the cap.
        Returning result{g->connection};
        g->connection = connection;
        g->droppedAt.reset();
        return result;
    }
    // Told at once when there is plainly no place; the hello checks again.
    if (seated() >= cap) return Full{};
    guests_.push_back(Guest{clientID, std::nullopt, connection, std::nullopt});
    return New{};
}

GuestRoster::Naming GuestRoster::named(const std::string& clientID, std::string name) {
    Guest* g = find(clientID);
    if (!g) return Naming::unknown;
    if (g->name) {
        g->name = std::move(name);
        return Naming::again;
    }
    if (seated() >= cap) {
        std::erase_if(guests_, [&](const Guest& x) { return x.clientID == clientID; });
        return Naming::full;
    }
    g->name = std::move(name);
    return Naming::first;
}

size_t GuestRoster::seated() const {
    return size_t(std::count_if(guests_.begin(), guests_.end(),
                                [](const Guest& g) { return g.name.has_value(); }));
}

GuestRoster::Drop GuestRoster::dropped(int64_t connection, double at) {
    auto it = std::find_if(guests_.begin(), guests_.end(),
                           [&](const Guest& g) { return g.connection == connection; });
    if (it == guests_.end()) return NoDrop{};
    if (!it->name) {
        // Nobody saw a guest that never said hello: no place to keep.
        std::string id = it->clientID;
        guests_.erase(it);
        return Forgotten{std::move(id)};
    }
    it->connection.reset();
    it->droppedAt = at;
    return Dropped{it->clientID};
}

std::vector<std::string> GuestRoster::expired(double at, double patience) {
    std::vector<std::string> gone;
    std::erase_if(guests_, [&](const Guest& g) {
        if (g.droppedAt && at - *g.droppedAt >= patience) {
            gone.push_back(g.clientID);
            return true;
        }
        return false;
    });
    return gone;
}

std::optional<int64_t> GuestRoster::remove(const std::string& clientID) {
    removed_.insert(clientID);
    auto it = std::find_if(guests_.begin(), guests_.end(),
                           [&](const Guest& g) { return g.clientID == clientID; });
    if (it == guests_.end()) return std::nullopt;
    std::optional<int64_t> connection = it->connection;
    guests_.erase(it);
    return connection;
}

bool GuestRoster::left(const std::string& clientID) {
    return std::erase_if(guests_, [&](const Guest& g) { return g.clientID == clientID; }) > 0;
}

std::vector<GuestRoster::Member> GuestRoster::party(const std::string& forClientID, double at,
                                                    double patience) const {
    std::vector<Member> members;
    if (removed_.contains(forClientID)) return members;
    for (const Guest& g : guests_) {
        if (!g.name) continue;
        if (g.droppedAt && at - *g.droppedAt >= patience) continue;
        members.push_back(Member{guestDisplayName(*g.name), g.clientID == forClientID});
    }
    return members;
}

GuestRoster::Status GuestRoster::status(const std::string& clientID) const {
    if (removed_.contains(clientID)) return Status::removed;
    if (const Guest* g = guest(clientID); g && g->name) return Status::member;
    return seated() < cap ? Status::open : Status::full;
}

}  // namespace vt::guests
