// Files that are either wholly the old version or wholly the new one, even if
// the power goes in the middle of a write, and JSON files that may have been
// damaged by hand or by a disk.
#pragma once

#include <cstddef>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vt::settings {

// Writes `bytes` to a temporary file beside `file`, flushes it to disk,
// renames it over `file` and flushes the folder, creating the folder (0700)
// if needed. On failure the old file is left as it was, the temporary file is
// removed, and `error` (if given) says why.
bool writeFileAtomically(const std::filesystem::path& file, std::string_view bytes,
                         std::string* error = nullptr);

struct JsonObjectLoad {
    nlohmann::json object = nlohmann::json::object();
    // Where a file that did not hold a JSON object was moved to.
    std::optional<std::filesystem::path> setAsideAs;
    // Why the file could not be used; empty when it was fine or absent.
    std::string error;
};

// Bounds on a file that was only ever written by us: a settings file holds a
// few kilobytes nested a few levels deep. Beyond these it is damage (or
// mischief), and reading or writing it back could exhaust memory or the stack.
inline constexpr size_t kMaxJsonFileBytes = 4 * 1024 * 1024;
inline constexpr size_t kMaxJsonDepth = 64;

// The deepest nesting of arrays and objects in `text`, counted without
// parsing (brackets inside strings do not count); stops counting once past
// `limit`.
size_t jsonNestingDepth(std::string_view text, size_t limit = kMaxJsonDepth);

struct JsonObjectParse {
    std::optional<nlohmann::json> object;
    std::string whyNot;  // when there is no object
};
// `text` as one JSON object within the bounds above, or why not.
JsonObjectParse parseJsonObject(std::string_view text);

// Reads a file that should hold one JSON object. A missing file gives an empty
// object. A file that does not parse, or holds something other than an
// object, is renamed to "<name>.broken-<UTC time>" so that nothing is lost,
// and an empty object is returned.
JsonObjectLoad loadJsonObject(const std::filesystem::path& file);

}  // namespace vt::settings
