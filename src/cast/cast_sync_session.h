// What a clock-synced receiver has said so far, and whether its latest report
// makes the row gain or lose its sync. Pure state: the sender feeds it.
#pragma once

#include <cstdint>
#include <optional>

namespace vt::cast {

struct CastSyncSession {
    enum class Change { gained, lost, none };

    std::optional<int64_t> client;  // the Sendspin connection in use
    bool everConnected = false;
    bool helloSeen = false;
    std::optional<int64_t> streamingTo;  // the connection the stream was started for
    bool synced = false;                 // the receiver says it plays in sync
    bool everSynced = false;

    // A report counts as in sync only while the stream goes to the
    // connection in use: a receiver still playing an old connection's frames
    // is not in step with what we send now.
    Change receiverReport(bool reportSynced, bool playing) {
        if (reportSynced && playing && streamingTo && client) {
            const bool current = *streamingTo == *client;
            if (current == synced) return Change::none;
            if (current) {
                synced = true;
                everSynced = true;
                return Change::gained;
            }
            synced = false;
            return Change::lost;
        }
        if (!synced) return Change::none;
        synced = false;
        return Change::lost;
    }
};

}  // namespace vt::cast
