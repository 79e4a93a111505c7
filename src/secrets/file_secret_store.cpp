#include "secrets/file_secret_store.h"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "settings/atomic_file.h"
#include "settings/private_folder.h"

namespace vt::secrets {

namespace {

// The whole file as one object of services, each an object of accounts; a
// file that is missing, too large, not ours alone or broken reads as empty.
nlohmann::json readAll(const std::filesystem::path& file) {
    struct stat st {};
    if (::lstat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
        st.st_size > off_t(FileSecretStore::maxFileBytes) || (st.st_mode & 077) != 0)
        return nlohmann::json::object();
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    settings::JsonObjectParse parsed = settings::parseJsonObject(text.str());
    return parsed.object ? *parsed.object : nlohmann::json::object();
}

}  // namespace

FileSecretStore::FileSecretStore(std::filesystem::path folder)
    : folder_(std::move(folder)), file_(folder_ / "secrets.json") {}

std::optional<std::string> FileSecretStore::get(const std::string& service,
                                                const std::string& account) {
    const nlohmann::json all = readAll(file_);
    auto s = all.find(service);
    if (s == all.end() || !s->is_object()) return std::nullopt;
    auto a = s->find(account);
    if (a == s->end() || !a->is_string()) return std::nullopt;
    return a->get<std::string>();
}

bool FileSecretStore::set(const std::string& service, const std::string& account,
                          const std::string& text) {
    if (auto why = settings::makePrivateFolder(folder_)) {
        std::fprintf(stderr, "Vellatone: cannot keep a password: %s\n", why->c_str());
        return false;
    }
    nlohmann::json all = readAll(file_);
    if (!all[service].is_object()) all[service] = nlohmann::json::object();
    if (text.empty())
        all[service].erase(account);
    else
        all[service][account] = text;
    if (all[service].empty()) all.erase(service);
    std::string error;
    if (!settings::writeFileAtomically(file_, all.dump(2), &error)) {
        std::fprintf(stderr, "Vellatone: cannot keep a password: %s\n", error.c_str());
        return false;
    }
    return true;
}

}  // namespace vt::secrets
