// The command line of vellatone-airplay, as the app launches it:
//   vellatone-airplay [options] --cmdpipe <fifo> <host_ip>
// Parsing is kept apart from main so every option's rule can be tested.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vt::airplay_tool {

enum class Protocol { automatic, raop, airplay2, airplay2Compat };

struct ToolOptions {
    Protocol protocol = Protocol::automatic;
    std::string host;
    int port = 0;  // 0: the protocol's usual port
    std::string name = "Vellatone";
    int sampleRate = 44100;
    int bitDepth = 16;
    int channels = 2;
    int latencyMs = 600;
    std::string cmdPipe;
    std::string timing;  // "ptp" or "ntp"; empty when not given
    std::string dacpID;
    std::string activeRemote;
    std::optional<int> volume;  // 0-100
    std::string password;
    std::string authKey;  // AirPlay 2 credentials
    std::string bindInterface;
    std::string publishIP;
    bool ptpShared = false;
    bool ptpDaemon = false;  // run the shared PTP clock instead of streaming
    bool pairSetup = false;  // --pair-setup: pair by PIN, print the credentials, end
    bool http = false;       // --http: the receiver speaks HTTP/1.1 (a HomeKit accessory)
    bool forceEncrypt = false;
    bool forceRaw = false;
    // The receiver's TXT fields when the caller knows them.
    std::string txtEt, txtMd, txtAm, txtPk, txtPw, txtCn;
    int debug = 0;

    // The port to connect to: the given one, else 5000 for RAOP and 7000 otherwise.
    int effectivePort() const;
};

struct ParsedOptions {
    std::optional<ToolOptions> options;
    std::string error;  // why not, when options is empty
};

ParsedOptions parseToolOptions(const std::vector<std::string>& args);

std::string protocolName(Protocol protocol);

}  // namespace vt::airplay_tool
