// AirPlay receivers' passwords, one per receiver id.
#pragma once

#include <optional>
#include <string>

#include "secrets/secret_store.h"

namespace vt::secrets {

class AirPlayPasswordStore {
  public:
    static constexpr const char* service = "Vellatone AirPlay password";

    explicit AirPlayPasswordStore(SecretStore& store) : store_(store) {}

    std::optional<std::string> password(const std::string& receiverID) {
        auto text = store_.get(service, receiverID);
        if (text && text->empty()) return std::nullopt;
        return text;
    }
    // An empty password removes the one kept.
    void set(const std::string& password, const std::string& receiverID) {
        store_.set(service, receiverID, password);
    }

  private:
    SecretStore& store_;
};

}  // namespace vt::secrets
