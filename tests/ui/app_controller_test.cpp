// The window's view of the model: the row list announces changed values
// without rebuilding (so a strip keeps its focus while the meters move) and
// rebuilds when rows come or go; the calls clamp what they are given and move
// rows by one place from the keyboard.
#include "ui/bridge/app_controller.h"

#include <QCoreApplication>
#include <map>

#include "discovery/fake_service_browser.h"
#include "model_fixture.h"

namespace vt::model::test {
namespace {

class AppControllerTest : public ModelTest {
  protected:
    static void SetUpTestSuite() {
        static int argc = 1;
        static char name[] = "app_controller_test";
        static char* argv[] = {name, nullptr};
        if (!QCoreApplication::instance()) new QCoreApplication(argc, argv);
    }

    std::vector<std::string> names(const ui::AppController& app) {
        std::vector<std::string> out;
        for (const auto& e : const_cast<ui::AppController&>(app).rows()->entries())
            out.push_back(e.name.toStdString());
        return out;
    }
};

TEST_F(AppControllerTest, AddingListsTheRowAndTakesItOutOfTheAddableOnes) {
    ui::AppController app(launch());
    EXPECT_EQ(app.addableOutputs().size(), 4);
    EXPECT_TRUE(app.addOutput("living"));
    EXPECT_FALSE(app.addOutput("nowhere"));
    settle();
    EXPECT_EQ(names(app), std::vector<std::string>{"Living"});
    EXPECT_EQ(app.addableOutputs().size(), 3);
    for (const QVariant& v : app.addableOutputs())
        EXPECT_NE(v.toMap()["id"].toString(), QString("living"));
}

TEST_F(AppControllerTest, ThePaletteOffersDiscoveredOutputsWithWhyTheyMayNotBeReady) {
    discovery::FakeServiceBrowser network(main);
    ui::AppController app(launch());
    model->enableDiscovery(network);
    network.announce("_raop._tcp", {{"A1B2C3D4E5F6@Kitchen", {}}});
    network.announce("_googlecast._tcp",
                     {{"Chromecast-1",
                       {{"id", "c1"}, {"fn", "TV"}, {"st", "1"}, {"rs", "YouTube"}},
                       discovery::ServiceAddress{"10.0.0.8", 8009}}});
    settle();
    std::map<QString, QString> detail;
    for (const QVariant& v : app.addableOutputs())
        detail[v.toMap()["id"].toString()] = v.toMap()["detail"].toString();
    EXPECT_EQ(detail["air:Kitchen"], QString::fromUtf8("AirPlay · resolving…"));
    EXPECT_EQ(detail["cast:c1"], QString::fromUtf8("Google Cast · in use, playing YouTube"));

    EXPECT_TRUE(app.addOutput("air:Kitchen"));
    settle();
    EXPECT_EQ(names(app), std::vector<std::string>{"Kitchen"});
    for (const QVariant& v : app.addableOutputs())
        EXPECT_NE(v.toMap()["id"].toString(), QString("air:Kitchen"));
    EXPECT_TRUE(app.addOutput("cast:c1"));
    settle();
    EXPECT_EQ(names(app), (std::vector<std::string>{"Kitchen", "TV"}));
    model.reset();
}

TEST_F(AppControllerTest, ChangedValuesAreAnnouncedInPlaceAndNewRowsRebuildTheList) {
    ui::AppController app(withRows({"living", "kitchen"}));
    app.refresh();
    int resets = 0, changes = 0;
    QObject::connect(app.rows(), &QAbstractItemModel::modelReset, [&] { ++resets; });
    QObject::connect(app.rows(), &QAbstractItemModel::dataChanged,
                     [&](const QModelIndex& from, const QModelIndex& to) {
                         EXPECT_EQ(from.row(), 1);
                         EXPECT_EQ(to.row(), 1);
                         ++changes;
                     });
    app.setVolume(1, 0.25);
    EXPECT_EQ(resets, 0);
    EXPECT_EQ(changes, 1);
    EXPECT_DOUBLE_EQ(
        app.rows()->data(app.rows()->index(1), ui::RowListModel::VolumeRole).toDouble(), 0.25);
    // Nothing changed: nothing announced.
    app.refresh();
    EXPECT_EQ(changes, 1);

    app.addOutput("den");
    EXPECT_EQ(resets, 1);
    EXPECT_EQ(app.rows()->count(), 3);
}

TEST_F(AppControllerTest, CallsClampWhatTheyAreGiven) {
    ui::AppController app(withRows({"living"}));
    app.setDelay(0, 9000);
    EXPECT_DOUBLE_EQ(model->rows()[0].delayMs, 5000);
    app.setDelay(0, -9000);
    EXPECT_DOUBLE_EQ(model->rows()[0].delayMs, -5000);
    app.setVolume(0, 3);
    EXPECT_DOUBLE_EQ(model->rows()[0].volume, 1);
    app.setMasterVolume(-1);
    EXPECT_DOUBLE_EQ(model->masterVolume(), 0);
    app.setPlaybackMode("Instant");
    EXPECT_EQ(app.playbackMode(), "Instant");
    app.setPlaybackMode("nonsense");
    EXPECT_EQ(app.playbackMode(), "Together");
}

TEST_F(AppControllerTest, MovingByOnePlaceStopsAtTheEnds) {
    ui::AppController app(withRows({"living", "kitchen", "den"}));
    app.refresh();
    const int kitchen = app.rows()->entries()[1].slot;
    app.moveRowBy(kitchen, -1);
    EXPECT_EQ(names(app), (std::vector<std::string>{"Kitchen", "Living", "Den"}));
    app.moveRowBy(app.rows()->entries()[0].slot, -1);
    EXPECT_EQ(names(app), (std::vector<std::string>{"Kitchen", "Living", "Den"}));
    app.moveRowBy(app.rows()->entries()[2].slot, 1);
    EXPECT_EQ(names(app), (std::vector<std::string>{"Kitchen", "Living", "Den"}));
    app.moveRowBy(app.rows()->entries()[0].slot, 1);
    EXPECT_EQ(names(app), (std::vector<std::string>{"Living", "Kitchen", "Den"}));
}

TEST_F(AppControllerTest, RemovingOffersTheRowBackByName) {
    ui::AppController app(withRows({"living", "kitchen"}));
    app.removeOutput(1);
    EXPECT_TRUE(app.canUndoRemove());
    EXPECT_EQ(app.lastRemovedName(), "Kitchen");
    app.undoRemove();
    EXPECT_EQ(names(app), (std::vector<std::string>{"Living", "Kitchen"}));
    // A slot that is not there is ignored.
    app.removeOutput(7);
    EXPECT_EQ(app.rows()->count(), 2);
}

}  // namespace
}  // namespace vt::model::test
