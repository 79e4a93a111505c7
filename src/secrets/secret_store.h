// Where passwords and tokens are kept: one text per service and account. The
// desktop's Secret Service when one answers, otherwise a file only this user
// may read.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace vt::secrets {

class SecretStore {
  public:
    virtual ~SecretStore() = default;
    // Nothing when there is none, or it cannot be read.
    virtual std::optional<std::string> get(const std::string& service,
                                           const std::string& account) = 0;
    // An empty text removes what was kept. False when it could not be kept.
    virtual bool set(const std::string& service, const std::string& account,
                     const std::string& text) = 0;
};

// The Secret Service when one is running on the session bus, else the file
// in `fallbackFolder` (and one line on standard error that says so).
std::unique_ptr<SecretStore> openSecretStore(const std::filesystem::path& fallbackFolder);

}  // namespace vt::secrets
