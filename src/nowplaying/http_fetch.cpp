#include "nowplaying/http_fetch.h"

#include <curl/curl.h>

#include <mutex>

namespace vt::nowplaying {

namespace {

struct Sink {
    std::string bytes;
    size_t maxBytes = 0;
    bool tooLarge = false;
};

size_t append(char* data, size_t size, size_t count, void* user) {
    auto* sink = static_cast<Sink*>(user);
    const size_t n = size * count;
    if (sink->bytes.size() + n > sink->maxBytes) {
        sink->tooLarge = true;
        return 0;  // ends the transfer
    }
    sink->bytes.append(data, n);
    return n;
}

constexpr long kMaxRedirects = 3;

}  // namespace

std::optional<std::string> fetchHttp(const std::string& url, size_t maxBytes, long timeoutMs) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    CURL* curl = curl_easy_init();
    if (curl == nullptr) return std::nullopt;
    Sink sink;
    sink.maxBytes = maxBytes;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(maxBytes));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    const CURLcode result = curl_easy_perform(curl);
    curl_easy_cleanup(curl);
    if (result != CURLE_OK || sink.tooLarge || sink.bytes.empty()) return std::nullopt;
    return std::move(sink.bytes);
}

}  // namespace vt::nowplaying
