// Responses of a server that never keeps a connection alive.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vt::net {

namespace HTTPResponse {

std::string status(int code, std::string_view reason, std::optional<std::string_view> type,
                   std::string_view body);
std::string upgrade(std::string_view key);
// Loops until every byte is out; a write of zero or an error gives false.
bool writeAll(int fd, std::string_view data);

}  // namespace HTTPResponse

}  // namespace vt::net
