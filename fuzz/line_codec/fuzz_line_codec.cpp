// Arbitrary bytes from a peer through the line framing, and every line through
// both message decoders. A line that decodes must survive being written and
// read again unchanged, and the framing must give back exactly what it took.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "remote/line_codec.h"
#include "remote/message_codec.h"

namespace {

using vt::remote::MacMessage;
using vt::remote::PhoneMessage;

template <class Message>
void expectStable(const Message& first, std::optional<Message> (*decode)(std::string_view)) {
    std::string again = vt::remote::encode(first);
    if (again.empty() || again.back() != '\n' || again.find('\n') != again.size() - 1) std::abort();
    again.pop_back();
    const std::optional<Message> second = decode(again);
    if (!second || !(*second == first)) std::abort();
}

// Parsed once, then read as either side's message: the parse is most of the
// cost, and the two readers share it.
void decodeBoth(std::string_view line) {
    nlohmann::json json;
    try {
        json = vt::remote::parseLine(line);
    } catch (const vt::remote::DecodeError&) {
        return;
    }
    try {
        expectStable(vt::remote::phoneMessageFromJson(json), vt::remote::tryDecodePhoneMessage);
    } catch (const vt::remote::DecodeError&) {
    }
    try {
        expectStable(vt::remote::macMessageFromJson(json), vt::remote::tryDecodeMacMessage);
    } catch (const vt::remote::DecodeError&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    // The first byte picks a limit, the second where the bytes are split
    // into two reads, so that limits and splits both get explored.
    const std::size_t limit = data[0] < 128 ? 16 + data[0] : vt::remote::phoneLineBytes;
    const std::string_view input(reinterpret_cast<const char*>(data + 2), size - 2);
    const std::size_t cut = input.empty() ? 0 : data[1] % (input.size() + 1);

    vt::remote::LineCodec codec(limit);
    std::vector<std::string> lines;
    std::string taken;
    bool refused = false;
    for (const std::string_view part : {input.substr(0, cut), input.substr(cut)}) {
        try {
            for (std::string& line : codec.feed(part)) lines.push_back(std::move(line));
            taken.append(part);
        } catch (const vt::remote::LineCodec::Error&) {
            if (!codec.pending().empty()) std::abort();
            refused = true;
            break;
        }
    }
    if (!refused) {
        std::string rebuilt;
        for (const std::string& line : lines) {
            if (line.size() > limit || line.find('\n') != std::string::npos) std::abort();
            rebuilt += line + "\n";
        }
        rebuilt += codec.pending();
        if (rebuilt != taken || codec.pending().size() > limit) std::abort();
    }

    for (const std::string& line : lines) decodeBoth(line);
    // What is left unfinished, as the last line of a stream that ended.
    if (!refused) decodeBoth(codec.pending());
    return 0;
}
