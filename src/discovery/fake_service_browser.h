// A scripted ServiceBrowser for tests: the test says which services of a type
// are on the network and answers resolves by hand. Results arrive through the
// main queue, as from the real one. Handles may outlive it.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "discovery/service_browser.h"
#include "dispatch/main_queue.h"

namespace vt::discovery {

class FakeServiceBrowser final : public ServiceBrowser {
  public:
    explicit FakeServiceBrowser(dispatch::MainQueue& main) : main_(main) {}

    // What the network now holds of `type`; every browser of it hears.
    void announce(const std::string& type, std::vector<ServiceResult> results);
    // Answers every open resolve of this service; nothing for a failure.
    void answer(const ServiceEndpoint& endpoint, const std::optional<ServiceResult>& result);
    // Open resolves of one service (each resolve counts until answered or dropped).
    int openResolves(const ServiceEndpoint& endpoint) const;
    int resolvesStarted() const { return resolvesStarted_; }
    void setComputerName(std::optional<std::string> name) { computerName_ = std::move(name); }

    std::unique_ptr<DiscoveryHandle> browse(const std::string& type, Results onResults) override;
    std::unique_ptr<DiscoveryHandle> resolve(const ServiceEndpoint& endpoint,
                                             Resolved done) override;
    std::optional<std::string> computerName() const override { return computerName_; }

  private:
    struct Browse {
        std::string type;
        Results onResults;
    };
    struct Job {
        ServiceEndpoint endpoint;
        Resolved done;
    };
    class Handle;

    dispatch::MainQueue& main_;
    std::map<int, Browse> browses_;
    std::map<int, Job> jobs_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    int next_ = 0;
    int resolvesStarted_ = 0;
    std::optional<std::string> computerName_;
};

}  // namespace vt::discovery
