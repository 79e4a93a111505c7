// The mixer's strips as the window lists them: each app under the first
// group that holds it, folding, the editor's view of a group, and what
// "Done" keeps of members the editor never listed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QCoreApplication>
#include <fstream>

#include "fake_app_streams.h"
#include "model_fixture.h"
#include "ui/bridge/app_controller.h"

namespace vt::model::test {
namespace {

class MixerStripsTest : public ModelTest {
  protected:
    static void SetUpTestSuite() {
        static int argc = 1;
        static char name[] = "mixer_strips_test";
        static char* argv[] = {name, nullptr};
        if (!QCoreApplication::instance()) new QCoreApplication(argc, argv);
    }

    mixer::FakeStreams streams;
    std::unique_ptr<ui::AppController> app;

    void SetUp() override {
        std::filesystem::create_directories(dir / "applications");
        for (const char* id : {"spotify", "rhythmbox", "firefox"})
            std::ofstream(dir / "applications" / (std::string(id) + ".desktop"))
                << "[Desktop Entry]\nType=Application\nName=" << char(std::toupper(id[0]))
                << (id + 1) << "\nExec=" << id << "\n";
        app = std::make_unique<ui::AppController>(launch());
        play(1, "spotify");
        play(2, "firefox");
        model->enableMixer(streams,
                           std::make_unique<mixer::AppIdentity>(std::vector{dir / "applications"}));
        settle();
        app->refresh();
    }
    void TearDown() override {
        app.reset();
        model.reset();  // its mixer holds the streams
    }

    void play(uint32_t index, const std::string& binary) {
        streams.add(index, {mixer::kFullVolume, mixer::kFullVolume});
        streams.all[index].properties["application.process.binary"] = binary;
        if (streams.handler) streams.handler();
        settle();
    }
    std::vector<std::string> keys() {
        std::vector<std::string> out;
        for (const auto& e : app->mixer()->strips()->entries()) out.push_back(e.key.toStdString());
        return out;
    }
};

TEST_F(MixerStripsTest, AppsSitUnderTheirFirstGroupAndFoldAway) {
    // Spotify is the music rule's; Firefox, a browser, is in no group.
    EXPECT_EQ(keys(), (std::vector<std::string>{"group:music", "app:spotify", "app:firefox"}));
    ui::MixerController& mixer = *app->mixer();
    const QString evening = mixer.saveGroup("", "Evening", {"spotify", "firefox"});
    EXPECT_EQ(keys(), (std::vector<std::string>{"group:music", "app:spotify",
                                                "group:" + evening.toStdString(), "app:firefox"}));
    mixer.toggleGroupFolded("music");
    EXPECT_EQ(keys(), (std::vector<std::string>{"group:music", "group:" + evening.toStdString(),
                                                "app:firefox"}));

    // A level moved in place is announced as a change, not a new list, so
    // the slider being dragged stays.
    int resets = 0, changes = 0;
    QObject::connect(mixer.strips(), &QAbstractItemModel::modelReset, [&] { ++resets; });
    QObject::connect(mixer.strips(), &QAbstractItemModel::dataChanged, [&] { ++changes; });
    mixer.setAppLevel("firefox", 0.5);
    EXPECT_EQ(resets, 0);
    EXPECT_GE(changes, 1);
    EXPECT_EQ(mixer.strips()->entries().back().arithmetic.toStdString(),
              "50% × \u2068Evening\u2069 100% = 50%");
}

TEST_F(MixerStripsTest, TheEditorKeepsRuleMembersItNeverListed) {
    ui::MixerController& mixer = *app->mixer();
    const QVariantMap music = mixer.groupForEditing("music");
    EXPECT_FALSE(music["custom"].toBool());
    ASSERT_EQ(music["apps"].toList().size(), 2);  // spotify and firefox, as seen here
    // Done with Firefox ticked and Spotify left: Rhythmbox and the rest of
    // the rule, never seen here, stay members.
    mixer.saveGroup("music", "ignored", {"firefox"});
    const mixer::MixerSettings& s = model->mixer()->settings();
    const std::set<std::string> members = s.members(*s.group("music"));
    EXPECT_TRUE(members.contains("firefox"));
    EXPECT_FALSE(members.contains("spotify"));
    EXPECT_TRUE(members.contains("rhythmbox"));
    EXPECT_EQ(s.group("music")->name, "Music");
    EXPECT_TRUE(mixer.groupForEditing("music")["corrections"].toBool());
    mixer.resetGroup("music");
    EXPECT_FALSE(s.hasCorrections("music"));
}

}  // namespace
}  // namespace vt::model::test
