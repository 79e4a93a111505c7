#include <cstdio>

#include "secrets/file_secret_store.h"
#include "secrets/libsecret_store.h"
#include "secrets/secret_store.h"

namespace vt::secrets {

std::unique_ptr<SecretStore> openSecretStore(const std::filesystem::path& fallbackFolder) {
    if (LibsecretStore::serviceRunning()) return std::make_unique<LibsecretStore>();
    auto store = std::make_unique<FileSecretStore>(fallbackFolder);
    std::fprintf(stderr,
                 "Vellatone: no Secret Service answers; passwords are kept in %s, readable "
                 "only by you.\n",
                 store->file().c_str());
    return store;
}

}  // namespace vt::secrets
