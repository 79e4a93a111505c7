#include "discovery/fake_service_browser.h"

#include <functional>

namespace vt::discovery {

class FakeServiceBrowser::Handle final : public DiscoveryHandle {
  public:
    explicit Handle(std::function<void()> end) : end_(std::move(end)) {}
    ~Handle() override { end_(); }

  private:
    std::function<void()> end_;
};

void FakeServiceBrowser::announce(const std::string& type, std::vector<ServiceResult> results) {
    for (const auto& [id, b] : browses_) {
        if (b.type != type) continue;
        const int key = id;
        main_.post([this, key, results, alive = std::weak_ptr<bool>(alive_)] {
            if (!alive.lock()) return;
            auto it = browses_.find(key);
            if (it != browses_.end()) it->second.onResults(results);
        });
    }
}

void FakeServiceBrowser::answer(const ServiceEndpoint& endpoint,
                                const std::optional<ServiceResult>& result) {
    for (const auto& [id, job] : jobs_) {
        if (!(job.endpoint == endpoint)) continue;
        const int key = id;
        main_.post([this, key, result, alive = std::weak_ptr<bool>(alive_)] {
            if (!alive.lock()) return;
            auto it = jobs_.find(key);
            if (it == jobs_.end()) return;
            Resolved done = it->second.done;
            jobs_.erase(it);
            done(result);
        });
    }
}

int FakeServiceBrowser::openResolves(const ServiceEndpoint& endpoint) const {
    int n = 0;
    for (const auto& [id, job] : jobs_) n += job.endpoint == endpoint;
    return n;
}

std::unique_ptr<DiscoveryHandle> FakeServiceBrowser::browse(const std::string& type,
                                                            Results onResults) {
    const int id = next_++;
    browses_[id] = Browse{type, std::move(onResults)};
    return std::make_unique<Handle>([this, id, alive = std::weak_ptr<bool>(alive_)] {
        if (alive.lock()) browses_.erase(id);
    });
}

std::unique_ptr<DiscoveryHandle> FakeServiceBrowser::resolve(const ServiceEndpoint& endpoint,
                                                             Resolved done) {
    const int id = next_++;
    ++resolvesStarted_;
    jobs_[id] = Job{endpoint, std::move(done)};
    return std::make_unique<Handle>([this, id, alive = std::weak_ptr<bool>(alive_)] {
        if (alive.lock()) jobs_.erase(id);
    });
}

}  // namespace vt::discovery
