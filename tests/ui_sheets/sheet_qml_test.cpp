// The sheets as QML on an offscreen window: opening one changes nothing,
// the named controls reach the model, and the words are where the
// automation hook looks for them.
#include <QtQml/qqmlextensionplugin.h>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickItem>
#include <QQuickStyle>
#include <QQuickWindow>

#include "discovery/fake_service_browser.h"
#include "equaliser/eq_preset.h"
#include "secrets/file_secret_store.h"
#include "sheet_fixture.h"

Q_IMPORT_QML_PLUGIN(Vellatone_SheetsPlugin)

namespace vt::ui::test {
namespace {

using equaliser::EQPreset;
using equaliser::EQSettings;
using equaliser::EQTarget;

class SheetQmlTest : public SheetTest {
  protected:
    static void SetUpTestSuite() {
        qputenv("QT_QUICK_BACKEND", "software");
        SheetTest::SetUpTestSuite();
        QQuickStyle::setStyle("Fusion");
    }

    void SetUp() override { controllerWithRows({"speakers", "living"}); }

    // A window with one sheet in it, opened.
    QObject* show(const QString& sheet) {
        engine = std::make_unique<QQmlApplicationEngine>();
        engine->addImportPath("qrc:/qt/qml");
        engine->rootContext()->setContextProperty("testApp", app.get());
        engine->loadData(("import QtQuick\nimport QtQuick.Controls\nimport Vellatone.Sheets\n"
                          "ApplicationWindow { width: 1000; height: 720; visible: true\n"
                          "  property var sheet: s\n  " +
                          sheet + " }")
                             .toUtf8());
        if (engine->rootObjects().isEmpty()) return nullptr;
        QObject* root = engine->rootObjects().first();
        QObject* s = root->property("sheet").value<QObject*>();
        QMetaObject::invokeMethod(s, "open");
        pump();
        return root;
    }

    void pump() {
        for (int i = 0; i < 5; ++i) {
            QCoreApplication::processEvents();
            settle();
        }
    }

    QObject* named(const char* name) {
        QObject* found = engine->rootObjects().first()->findChild<QObject*>(name);
        EXPECT_NE(found, nullptr) << name;
        return found;
    }

    std::unique_ptr<QQmlApplicationEngine> engine;
};

TEST_F(SheetQmlTest, OpeningTheEqualiserChangesNothingAndShowsTheBands) {
    EQSettings custom = EQPreset::find("small")->settings;
    custom.bands[1].gainDb = -1.5;
    model->setEQ(1, custom);
    ASSERT_TRUE(show("EqualiserSheet { id: s; app: testApp; slot: 1 }"));

    EXPECT_EQ(model->eq(EQTarget::row(1)), custom);
    EXPECT_EQ(named("eqSheet.preset")->property("displayText").toString(), "Custom");
    EXPECT_EQ(named("eqSheet.band.0.kind")->property("currentText").toString(), "High pass");
    EXPECT_FALSE(named("eqSheet.band.0.gain")->property("enabled").toBool());
    EXPECT_DOUBLE_EQ(named("eqSheet.band.1.gain")->property("value").toDouble(), -1.5);
    EXPECT_TRUE(named("eqSheet.copyToAll")->property("visible").toBool());

    // A control set as the automation hook sets it reaches the model.
    named("eqSheet.band.3.gain")->setProperty("value", 4.0);
    named("eqSheet.preset")->setProperty("currentIndex", 0);
    pump();
    EXPECT_EQ(model->eq(EQTarget::row(1)), EQPreset::all()[0].settings);
    named("eqSheet.band.3.gain")->setProperty("value", 4.0);
    QMetaObject::invokeMethod(named("eqSheet.done"), "clicked");
    pump();
    EXPECT_EQ(model->eq(EQTarget::row(1)).bands[3].gainDb, 4.0);
}

TEST_F(SheetQmlTest, TheMasterSheetHasNoCopy) {
    ASSERT_TRUE(show("EqualiserSheet { id: s; app: testApp; slot: -1 }"));
    EXPECT_FALSE(named("eqSheet.copyToAll")->property("visible").toBool());
    EXPECT_EQ(model->masterEQ(), EQSettings::flat());
}

TEST_F(SheetQmlTest, InvitationWordsAndCopy) {
    enableGuests();
    ASSERT_TRUE(show("InvitationSheet { id: s; app: testApp }"));
    if (!model->guestLink()) {
        EXPECT_EQ(named("invite.message")->property("text").toString(),
                  "This computer has no network address a phone can reach.");
        return;
    }
    EXPECT_EQ(named("invite.count")->property("text").toString(), "0 of 12 phones joined");
    EXPECT_EQ(named("invite.link")->property("text").toString().toStdString(),
              model->guestLink()->joinURL());
    QObject* copy = named("invite.copy");
    EXPECT_EQ(copy->property("text").toString(), "Copy");
    QMetaObject::invokeMethod(copy, "clicked");
    pump();
    EXPECT_EQ(copy->property("text").toString(), "Copied");
    QObject* qr = named("invite.qr");
    EXPECT_GE(qr->property("width").toDouble(), 200);
    EXPECT_FALSE(named("invite.firewallHint")->property("visible").toBool());
}

// Items a Repeater made are found among the items, as the automation hook
// looks, not among QObject children.
QQuickItem* findItem(QQuickItem* item, const QString& name) {
    if (!item) return nullptr;
    if (item->objectName() == name) return item;
    for (QQuickItem* child : item->childItems())
        if (QQuickItem* found = findItem(child, name)) return found;
    return nullptr;
}

TEST_F(SheetQmlTest, CalibrationOffersTheMethodsAndKeepsAComparison) {
    model->startStop();
    settle();
    ASSERT_TRUE(show("CalibrationSheet { id: s; app: testApp; slot: 1 }"));
    auto* content = qobject_cast<QQuickItem*>(named("calibration.title"))->parentItem();
    auto method = [&](const char* id) -> QObject* {
        QQuickItem* found = findItem(content, QString("calibration.method.") + id);
        EXPECT_TRUE(found) << id;
        return found;
    };
    EXPECT_EQ(named("calibration.title")->property("text").toString(), "How late is Living?");
    EXPECT_EQ(method("tapping")->property("text").toString(), "tapping · about 40 seconds");
    EXPECT_TRUE(method("microphone")->property("checked").toBool());
    QMetaObject::invokeMethod(method("narrowing"), "toggle");
    QMetaObject::invokeMethod(method("narrowing"), "toggled");
    QMetaObject::invokeMethod(named("calibration.begin"), "clicked");
    pump();
    ASSERT_TRUE(named("calibration.playA")->property("visible").toBool());
    EXPECT_EQ(named("calibration.playA")->property("text").toString(), "A: 75 ms");
    for (int round = 0; round < 10 && !named("calibration.result")->property("visible").toBool();
         ++round) {
        QMetaObject::invokeMethod(named("calibration.chooseA"), "clicked");
        pump();
    }
    EXPECT_EQ(named("calibration.result")->property("text").toString(), "1.2 ms");
    QMetaObject::invokeMethod(named("calibration.apply"), "clicked");
    pump();
    EXPECT_EQ(model->rows()[1].latencySource, settings::LatencySource::narrowed);
    EXPECT_FALSE(model->calibrator());
}

}  // namespace
}  // namespace vt::ui::test

namespace vt::ui::test {
namespace {

// A receiver's password asked for, typed and kept; asked again when the
// one kept was refused.
class PasswordSheetTest : public SheetQmlTest {
  protected:
    void SetUp() override {
        SheetQmlTest::SetUp();
        model->enableDiscovery(network);
        model->enableAirPlay(secrets);
        network.announce(
            "_raop._tcp",
            {{"A1B2C3D4E5F6@Kitchen", {}, discovery::ServiceAddress{"192.0.2.7", 5000}}});
        settle();
        ASSERT_TRUE(model->addAirPlayOutput("Kitchen"));
        settle();
    }
    void TearDown() override {
        engine.reset();
        app.reset();
        model.reset();
    }
    discovery::FakeServiceBrowser network{main};
    secrets::FileSecretStore secrets{dir / "data"};
};

TEST_F(PasswordSheetTest, TheWordsAskForThePasswordAndJoinKeepsIt) {
    app->beginPassword(2);
    ASSERT_TRUE(show("PasswordSheet { id: s; app: testApp }"));
    EXPECT_EQ(named("password.title")->property("text").toString(), "Kitchen requires a password");
    EXPECT_FALSE(named("password.rejected")->property("visible").toBool());
    EXPECT_FALSE(named("password.join")->property("enabled").toBool());
    named("password.field")->setProperty("text", "hunter2");
    pump();
    QMetaObject::invokeMethod(named("password.join"), "clicked");
    pump();
    EXPECT_EQ(secrets.get("Vellatone AirPlay password", "Kitchen"), "hunter2");
    EXPECT_FALSE(model->passwordReceiverID());
}

TEST_F(PasswordSheetTest, OpeningWithAPasswordKeptSaysItWasRefusedAndCancelKeepsIt) {
    secrets.set("Vellatone AirPlay password", "Kitchen", "old");
    app->beginPassword(2);
    ASSERT_TRUE(show("PasswordSheet { id: s; app: testApp }"));
    EXPECT_TRUE(named("password.rejected")->property("visible").toBool());
    QMetaObject::invokeMethod(named("password.cancel"), "clicked");
    pump();
    EXPECT_FALSE(model->passwordReceiverID());
    EXPECT_EQ(secrets.get("Vellatone AirPlay password", "Kitchen"), "old");
}

// A TV that shows a code: the sheet waits, asks for the code, and a right
// one ends the pairing with the credential kept. The tool is the stand-in
// of the AirPlay tests, which prompts and knows the code 3939.
class PairingSheetTest : public PasswordSheetTest {
  protected:
    void SetUp() override {
        setenv("VELLATONE_CLIAIRPLAY", VELLATONE_FAKE_AIRPLAY_TOOL, 1);
        setenv("FAKE_TOOL_DIR", dir.c_str(), 1);
        setenv("FAKE_PAIR_CODE", "3939", 1);
        unsetenv("FAKE_PAIR_ERR");
        unsetenv("FAKE_PAIR_EXIT");
        PasswordSheetTest::SetUp();
        network.announce("_airplay._tcp", {{"TV",
                                            {{"model", "AppleTV6,2"}, {"features", "0x0,0x1E"}},
                                            discovery::ServiceAddress{"192.0.2.8", 7000}}});
        settle();
        ASSERT_TRUE(model->addAirPlayOutput("TV"));
        settle();
    }
    // Real time passes for the tool.
    bool waitFor(const std::function<bool()>& done) {
        for (int i = 0; i < 300; ++i) {
            pump();
            if (done()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
};

TEST_F(PairingSheetTest, WaitsAsksForTheCodeAndAPairingEndsIt) {
    app->beginPairing(3);
    ASSERT_TRUE(show("PairingSheet { id: s; app: testApp }"));
    ASSERT_TRUE(waitFor([&] { return model->pairingAwaitingPIN(); }));
    EXPECT_EQ(named("pairing.title")->property("text").toString(), "Enter the code showing on TV");
    named("pairing.field")->setProperty("text", "3939");
    pump();
    QMetaObject::invokeMethod(named("pairing.pair"), "clicked");
    ASSERT_TRUE(waitFor([&] { return !model->pairingReceiverID().has_value(); }));
    ASSERT_TRUE(model->airplayCredential("TV"));
    EXPECT_EQ(model->airplayCredential("TV")->creds, "0123abcd");
}

}  // namespace
}  // namespace vt::ui::test
