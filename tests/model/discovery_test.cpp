// The model's side of discovery: the lists it publishes, AirPlay rows made
// from them, and such a row missing while its receiver is away, also across a
// restart.
#include "discovery/fake_service_browser.h"
#include "model_fixture.h"

namespace vt::model::test {
namespace {

using discovery::ServiceAddress;
using discovery::ServiceResult;

class DiscoveryModelTest : public ModelTest {
  protected:
    ~DiscoveryModelTest() override { model.reset(); }
    AppModel& launchWithDiscovery() {
        AppModel& m = launch();
        m.enableDiscovery(network);
        settle();
        return m;
    }
    void kitchenOnline(bool online) {
        std::vector<ServiceResult> results;
        if (online)
            results.push_back({"A1B2C3D4E5F6@Kitchen", {}, ServiceAddress{"10.0.0.7", 5000}});
        network.announce("_raop._tcp", results);
        settle();
    }
    discovery::FakeServiceBrowser network{main};
};

TEST_F(DiscoveryModelTest, AReceiverBecomesARowAndItsRowIsMissingWhileItIsAway) {
    AppModel& m = launchWithDiscovery();
    m.addOutput("living");
    kitchenOnline(true);
    network.announce("_googlecast._tcp", {{"Chromecast-1", {{"id", "c1"}, {"fn", "TV"}}}});
    settle();
    ASSERT_EQ(m.airplayReceivers().size(), 1u);
    ASSERT_EQ(m.castDevices().size(), 1u);
    ASSERT_EQ(m.availableAirPlayReceivers().size(), 1u);

    EXPECT_FALSE(m.addAirPlayOutput("Nowhere"));
    ASSERT_TRUE(m.addAirPlayOutput("Kitchen"));
    EXPECT_FALSE(m.addAirPlayOutput("Kitchen"));  // one row per receiver
    const int slot = int(m.rows().size()) - 1;
    EXPECT_EQ(m.rows()[slot].airplayName, "Kitchen");
    EXPECT_TRUE(m.availableAirPlayReceivers().empty());
    EXPECT_FALSE(m.isMissing(m.rows()[slot]));

    kitchenOnline(false);
    EXPECT_TRUE(m.isMissing(m.rows()[slot]));

    // The row is kept between runs, and found again when its receiver appears.
    launchWithDiscovery();
    ASSERT_EQ(model->rows().size(), 2u);
    EXPECT_TRUE(model->isMissing(model->rows()[1]));
    kitchenOnline(true);
    EXPECT_FALSE(model->isMissing(model->rows()[1]));
}

}  // namespace
}  // namespace vt::model::test
