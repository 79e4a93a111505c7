// Who is a guest. A phone is known by the client id it made up itself; it
// takes a place once it has said hello, a member keeps its place while its
// socket is away, for a while, and the host can bar an id until the server
// ends. Plain value: its owner serialises it.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace vt::guests {

class GuestRoster {
  public:
    static constexpr size_t cap = 12;

    struct Guest {
        std::string clientID;
        std::optional<std::string> name;    // none until its hello
        std::optional<int64_t> connection;  // none while dropped
        std::optional<double> droppedAt;    // seconds
    };
    struct Member {
        std::string name;
        bool isYou = false;
        bool operator==(const Member&) const = default;
    };

    struct Returning {
        std::optional<int64_t> replaced;
        bool operator==(const Returning&) const = default;
    };
    struct New {
        bool operator==(const New&) const = default;
    };
    struct Full {
        bool operator==(const Full&) const = default;
    };
    struct Removed {
        bool operator==(const Removed&) const = default;
    };
    using Admission = std::variant<Returning, New, Full, Removed>;

    struct Forgotten {
        std::string clientID;
        bool operator==(const Forgotten&) const = default;
    };
    struct Dropped {
        std::string clientID;
        bool operator==(const Dropped&) const = default;
    };
    struct NoDrop {
        bool operator==(const NoDrop&) const = default;
    };
    using Drop = std::variant<Forgotten, Dropped, NoDrop>;

    enum class Status { member, removed, full, open };
    static const char* rawValue(Status status);

    const Guest* guest(const std::string& clientID) const;
    // A new phone is let in to talk, not seated: only its hello takes one of
    // the twelve places, so sockets that never say hello cannot fill the party.
    Admission admit(const std::string& clientID, int64_t connection);
    enum class Naming { first, again, full, unknown };
    // `first` when the guest had no name before and now has a place; `full`
    // when it had none and every place is taken (it is forgotten then).
    Naming named(const std::string& clientID, std::string name);
    // Members with a place: named, dropped ones included until they expire.
    size_t seated() const;
    Drop dropped(int64_t connection, double at);
    std::vector<std::string> expired(double at, double patience);
    // Bars the id; the connection it had, if any.
    std::optional<int64_t> remove(const std::string& clientID);
    // Gone of its own accord: not barred.
    bool left(const std::string& clientID);
    std::vector<Member> party(const std::string& forClientID, double at, double patience) const;
    Status status(const std::string& clientID) const;

    const std::vector<Guest>& guests() const { return guests_; }

  private:
    Guest* find(const std::string& clientID);

    std::vector<Guest> guests_;
    std::set<std::string> removed_;
};

// A name as a person typed it: trimmed, at most 40 characters, never empty.
std::string guestDisplayName(std::string_view typed, size_t maxCharacters = 40);

}  // namespace vt::guests
