#include "airplay_tool/tool_options.h"

#include <charconv>
#include <functional>
#include <map>

namespace vt::airplay_tool {

namespace {

constexpr int kRaopDefaultPort = 5000;
constexpr int kAirPlay2DefaultPort = 7000;

std::optional<int> parseInt(const std::string& text, int lo, int hi) {
    int value = 0;
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || ptr != end || value < lo || value > hi) return std::nullopt;
    return value;
}

std::optional<Protocol> parseProtocol(const std::string& text) {
    if (text == "auto") return Protocol::automatic;
    if (text == "raop") return Protocol::raop;
    if (text == "airplay2") return Protocol::airplay2;
    if (text == "airplay2-compat") return Protocol::airplay2Compat;
    return std::nullopt;
}

}  // namespace

int ToolOptions::effectivePort() const {
    if (port > 0) return port;
    return protocol == Protocol::raop || protocol == Protocol::automatic ? kRaopDefaultPort
                                                                         : kAirPlay2DefaultPort;
}

std::string protocolName(Protocol protocol) {
    switch (protocol) {
        case Protocol::automatic:
            return "auto";
        case Protocol::raop:
            return "raop";
        case Protocol::airplay2:
            return "airplay2";
        case Protocol::airplay2Compat:
            return "airplay2-compat";
    }
    return "auto";
}

ParsedOptions parseToolOptions(const std::vector<std::string>& args) {
    ToolOptions o;
    using Setter = std::function<std::optional<std::string>(const std::string&)>;
    auto text = [](std::string& field) -> Setter {
        return [&field](const std::string& v) -> std::optional<std::string> {
            field = v;
            return std::nullopt;
        };
    };
    auto number = [](int& field, int lo, int hi, const char* what) -> Setter {
        return [&field, lo, hi, what](const std::string& v) -> std::optional<std::string> {
            auto n = parseInt(v, lo, hi);
            if (!n)
                return std::string(what) + " must be a number from " + std::to_string(lo) + " to " +
                       std::to_string(hi);
            field = *n;
            return std::nullopt;
        };
    };
    int volume = -1;
    const std::map<std::string, Setter> valued = {
        {"--protocol",
         [&o](const std::string& v) -> std::optional<std::string> {
             auto p = parseProtocol(v);
             if (!p) return "unknown protocol \"" + v + "\"";
             o.protocol = *p;
             return std::nullopt;
         }},
        {"--name", text(o.name)},
        {"--port", number(o.port, 1, 65535, "--port")},
        {"--samplerate", number(o.sampleRate, 8000, 192000, "--samplerate")},
        {"--bitdepth",
         [&o](const std::string& v) -> std::optional<std::string> {
             if (v != "16" && v != "24") return "--bitdepth must be 16 or 24";
             o.bitDepth = v == "16" ? 16 : 24;
             return std::nullopt;
         }},
        {"--channels", number(o.channels, 1, 2, "--channels")},
        {"--latency", number(o.latencyMs, 0, 10000, "--latency")},
        {"--cmdpipe", text(o.cmdPipe)},
        {"--timing",
         [&o](const std::string& v) -> std::optional<std::string> {
             if (v != "ptp" && v != "ntp") return "--timing must be ptp or ntp";
             o.timing = v;
             return std::nullopt;
         }},
        {"--dacp", text(o.dacpID)},
        {"--activeremote", text(o.activeRemote)},
        {"--volume", number(volume, 0, 100, "--volume")},
        {"--password", text(o.password)},
        {"--auth", text(o.authKey)},
        {"--if", text(o.bindInterface)},
        {"--publish-ip", text(o.publishIP)},
        {"--et", text(o.txtEt)},
        {"--md", text(o.txtMd)},
        {"--am", text(o.txtAm)},
        {"--pk", text(o.txtPk)},
        {"--pw", text(o.txtPw)},
        {"--cn", text(o.txtCn)},
        {"--debug", number(o.debug, 0, 9, "--debug")},
    };
    const std::map<std::string, bool*> flags = {
        {"--ptp-shared", &o.ptpShared}, {"--ptp-daemon", &o.ptpDaemon},
        {"--encrypt", &o.forceEncrypt}, {"--raw", &o.forceRaw},
        {"--pair-setup", &o.pairSetup}, {"--http", &o.http},
    };

    std::vector<std::string> positional;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (auto f = flags.find(arg); f != flags.end()) {
            *f->second = true;
            continue;
        }
        if (auto v = valued.find(arg); v != valued.end()) {
            if (i + 1 >= args.size()) return {std::nullopt, arg + " needs a value"};
            if (auto problem = v->second(args[++i])) return {std::nullopt, *problem};
            continue;
        }
        if (arg.size() > 1 && arg[0] == '-') return {std::nullopt, "unknown option " + arg};
        positional.push_back(arg);
    }
    // The daemon serves every receiver, so it is given none.
    if (o.ptpDaemon && positional.empty()) return {o, ""};
    if (positional.size() != 1) return {std::nullopt, "exactly one receiver host is needed"};
    if (o.forceEncrypt && o.forceRaw)
        return {std::nullopt, "--encrypt and --raw exclude each other"};
    o.host = positional[0];
    if (volume >= 0) o.volume = volume;
    return {o, ""};
}

}  // namespace vt::airplay_tool
