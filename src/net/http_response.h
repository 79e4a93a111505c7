// Responses of a server that never keeps a connection alive.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "net/http_request.h"

namespace vt::net {

namespace HTTPResponse {

std::string status(int code, std::string_view reason, std::optional<std::string_view> type,
                   std::string_view body);
std::string upgrade(std::string_view key);
// What to answer an upgrade we cannot take, or nothing when it is one we speak:
// a request without a version is malformed (400); another version than 13 is
// told which one we speak (426), so the client may retry with it.
std::optional<std::string> webSocketRefusal(const HTTPRequest& request);
// Loops until every byte is out; a write of zero or an error gives false.
bool writeAll(int fd, std::string_view data);

}  // namespace HTTPResponse

}  // namespace vt::net
