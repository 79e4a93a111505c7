// Which apps are making sound now, and which streams belong to each. Every
// playing stream of another program is folded onto its app: event sounds are
// "alerts", else the stream's application.id, else its process binary, with
// a browser's or chat program's helper binaries folded onto the program. Our
// own streams never appear.
//
// Main thread: refresh() reads the server's mirror, which never waits on the
// server.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "mixer/app_streams.h"

namespace vt::mixer {

struct SourceStream {
    uint32_t index = UINT32_MAX;
    int pid = 0;           // 0 when the stream does not say
    std::string name;      // application.name, else the binary, else "PID n"
    bool playing = false;  // not corked
    bool operator==(const SourceStream&) const = default;
};

struct AppSource {
    std::string id;
    std::vector<SourceStream> streams;  // in index order
    bool playing() const;
    std::vector<uint32_t> indices() const;
    bool operator==(const AppSource&) const = default;
};

class AppCatalog {
  public:
    explicit AppCatalog(AppStreams& streams, int ownPid);

    // True when `sources` changed.
    bool refresh();
    const std::vector<AppSource>& sources() const { return sources_; }
    const AppSource* source(const std::string& id) const;

    // Sources sorted by id, so that one refresh compares with the next.
    static std::vector<AppSource> fold(const std::vector<AppStream>& streams, int ownPid);
    static std::optional<std::string> sourceID(const AppStream& stream);
    static std::string displayName(const AppStream& stream);

  private:
    AppStreams& streams_;
    int ownPid_;
    std::vector<AppSource> sources_;
};

}  // namespace vt::mixer
