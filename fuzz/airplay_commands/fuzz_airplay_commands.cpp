// The command pipe: any bytes in reads of varying size must give commands
// within the bounds, and the same commands however the bytes were cut.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "airplay_tool/command_parser.h"

using namespace vt::airplay_tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t step = 1 + data[0] % 97;
    std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

    CommandParser whole;
    const auto once = whole.feed(input);
    CommandParser pieces;
    std::vector<Command> cut;
    for (size_t at = 0; at < input.size(); at += step)
        for (auto& c : pieces.feed(input.substr(at, step))) cut.push_back(std::move(c));
    if (cut.size() != once.size()) std::abort();
    for (size_t i = 0; i < once.size(); ++i) {
        if (once[i].action != cut[i].action || once[i].fields != cut[i].fields) std::abort();
        if (once[i].fields.size() > kMaxFieldsPerCommand) std::abort();
        for (const auto& [key, value] : once[i].fields)
            if (key.empty() || key.find('\n') != std::string::npos ||
                value.find('\n') != std::string::npos)
                std::abort();
    }
    return 0;
}
