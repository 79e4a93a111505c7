// The desktop's Secret Service (GNOME Keyring, KWallet) through libsecret.
// Items carry the attributes "service" and "account", so that other tools
// (secret-tool) find them by the same names. Calls block on the session bus:
// they are rare, short, and made on the main thread as the user acts.
#pragma once

#include <memory>

#include "secrets/secret_store.h"

namespace vt::secrets {

class LibsecretStore final : public SecretStore {
  public:
    // Whether a Secret Service runs on the session bus now. It is asked
    // without starting one: a service started on demand may sit behind a
    // locked keyring whose prompt nobody sees.
    static bool serviceRunning();

    std::optional<std::string> get(const std::string& service, const std::string& account) override;
    bool set(const std::string& service, const std::string& account,
             const std::string& text) override;
};

}  // namespace vt::secrets
