#include <fstream>

#include "model_fixture.h"

namespace vt::model::test {
namespace {

using settings::VisualiserStyle;

class VisualiserModelTest : public ModelTest {};

TEST_F(VisualiserModelTest, StyleAndHiddenAreKeptBetweenRuns) {
    AppModel& first = launch();
    EXPECT_EQ(first.visualiserStyle(), VisualiserStyle::sheets);
    EXPECT_FALSE(first.visualiserHidden());
    first.setVisualiserStyle(VisualiserStyle::scope);
    first.setVisualiserHidden(true);

    AppModel& second = launch();
    EXPECT_EQ(second.visualiserStyle(), VisualiserStyle::scope);
    EXPECT_TRUE(second.visualiserHidden());
    EXPECT_EQ(settings->visualiserStyle(), VisualiserStyle::scope);
}

TEST_F(VisualiserModelTest, AnUnknownStoredStyleComesBackAsSheets) {
    launch();
    {
        std::ofstream out(dir / "settings.json");
        out << R"({"visualiserStyle": "Fireworks", "visualiserHidden": true})";
    }
    AppModel& m = launch();
    EXPECT_EQ(m.visualiserStyle(), VisualiserStyle::sheets);
    EXPECT_TRUE(m.visualiserHidden());
}

}  // namespace
}  // namespace vt::model::test
