#include "discovery/resolver_table.h"

namespace vt::discovery {

void ResolverTable::resolve(const std::string& id, const ServiceEndpoint& endpoint,
                            std::function<void(const ServiceResult&)> found) {
    if (running_.count(id)) return;
    Running& entry = running_[id];
    entry.timeout = main_.postAfter(timeoutSeconds, [this, id] { running_.erase(id); });
    entry.handle = services_.resolve(
        endpoint, [this, id, found = std::move(found)](const std::optional<ServiceResult>& result) {
            running_.erase(id);
            if (result && result->address) found(*result);
        });
}

}  // namespace vt::discovery
