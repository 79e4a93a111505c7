// The stand-in for a Secret Service: one JSON file of mode 0600 in a folder of
// mode 0700, read afresh on every call (it is small, and another instance may
// have written it). Its contents are plain text to anyone who can read this
// user's files, which is why a running Secret Service is always preferred.
#pragma once

#include <filesystem>

#include "secrets/secret_store.h"

namespace vt::secrets {

class FileSecretStore final : public SecretStore {
  public:
    // At most this many bytes are read; a larger file is damage.
    static constexpr size_t maxFileBytes = 1024 * 1024;

    explicit FileSecretStore(std::filesystem::path folder);

    std::optional<std::string> get(const std::string& service, const std::string& account) override;
    bool set(const std::string& service, const std::string& account,
             const std::string& text) override;

    const std::filesystem::path& file() const { return file_; }

  private:
    std::filesystem::path folder_, file_;
};

}  // namespace vt::secrets
