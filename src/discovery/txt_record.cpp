#include "discovery/txt_record.h"

#include "net/text.h"

namespace vt::discovery {

namespace {

// A DNS label, and so an instance name, is at most 63 bytes; a TXT string at
// most 255. Nothing shown needs more.
constexpr size_t maxTxtValueBytes = 255;

bool isControl(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

}  // namespace

std::string cleanRemoteText(std::string_view bytes, size_t maxBytes) {
    const std::string repaired = net::repairUtf8(bytes);
    std::string out;
    out.reserve(repaired.size());
    for (unsigned char c : repaired)
        if (!isControl(c)) out.push_back(char(c));
    if (out.size() <= maxBytes) return out;
    size_t cut = maxBytes;
    // Back off to the start of a character: continuation bytes are 10xxxxxx.
    while (cut > 0 && (static_cast<unsigned char>(out[cut]) & 0xC0) == 0x80) --cut;
    out.resize(cut);
    return out;
}

void addTxtString(TxtRecord& into, std::string_view entry) {
    if (into.size() >= maxTxtKeys) return;
    const size_t eq = entry.find('=');
    const std::string_view rawKey = entry.substr(0, eq);
    if (rawKey.empty() || rawKey.size() > maxTxtKeyBytes) return;
    for (unsigned char c : rawKey)
        if (isControl(c) || c >= 0x80) return;
    const std::string key = net::toLowerAscii(rawKey);
    if (into.count(key)) return;
    const std::string_view value = eq == std::string_view::npos ? "" : entry.substr(eq + 1);
    into.emplace(key, cleanRemoteText(value, maxTxtValueBytes));
}

TxtRecord parseTxtWire(const uint8_t* data, size_t size) {
    TxtRecord record;
    if (size > maxTxtRecordBytes) size = maxTxtRecordBytes;
    size_t at = 0;
    while (at < size) {
        const size_t length = data[at++];
        if (length > size - at) break;
        addTxtString(record, std::string_view(reinterpret_cast<const char*>(data + at), length));
        at += length;
    }
    return record;
}

}  // namespace vt::discovery
