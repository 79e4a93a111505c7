// A model on the scripted sound server and virtual time, with its settings in
// a fresh folder: four speakers, "speakers" the default.
#pragma once

#include <gtest/gtest.h>
#include <filesystem>
#include <memory>
#include <string>

#include "core/ring_engine.h"
#include "dispatch/test_queues.h"
#include "dispatch/virtual_main_queue.h"
#include "model/app_model.h"
#include "platform/fake/fake_audio_backend.h"
#include "settings/settings.h"
#include "support/test_env.h"

namespace vt::model::test {

class ModelTest : public ::testing::Test {
  protected:
    ModelTest() {
        fake.addSink("speakers", "Speakers");
        fake.addSink("living", "Living", 48000);
        fake.addSink("kitchen", "Kitchen", 44100);
        fake.addSink("den", "Den", 48000);
        fake.setDefaultSinkByUser("speakers");
    }
    ~ModelTest() override {
        model.reset();
        settings.reset();
    }

    // A model on the settings file as it stands; the old one goes first.
    AppModel& launch() {
        model.reset();
        settings.reset();
        settings = std::make_unique<settings::Settings>(dir / "settings.json");
        model = std::make_unique<AppModel>(fake, main, work, *settings);
        settle();
        return *model;
    }

    void settle() {
        while (main.drain() > 0) {
        }
    }

    // A model with rows for these sinks, in this order.
    AppModel& withRows(std::initializer_list<const char*> uids) {
        AppModel& m = launch();
        for (const char* uid : uids) EXPECT_TRUE(m.addOutput(uid)) << uid;
        settle();
        return m;
    }

    // Guests on a loopback server, as "Studio"; `port` 0 takes any free one.
    void enableGuests(uint16_t port = 0) {
        GuestSetup setup;
        setup.root = dir;
        setup.port = port;
        setup.options.bindAddress = "127.0.0.1";
        setup.options.allowsLoopbackHost = true;
        setup.options.computerName = "Studio";
        model->enableGuests(setup);
    }
    // A phone's hello as the guest server reports it.
    void join(const std::string& id, const std::string& name, int64_t connection) {
        model->guestParty()->handle(
            {guests::GuestServer::Event::Kind::joined, id, name, connection, {}});
        settle();
    }

    double engineDelay(int slot) { return re_engine_delay_ms(model->engine().ringEngine(), slot); }
    std::string defaultSink() { return fake.defaultSinkName().value_or(""); }
    bool hasNotice(const std::string& id) {
        for (const Notice& n : model->notices())
            if (n.id == id) return true;
        return false;
    }

    vt::test::TempDir tmp;
    std::filesystem::path dir = tmp.path();
    platform::FakeAudioBackend fake;
    dispatch::VirtualMainQueue main;
    dispatch::ImmediateWorkQueue work;
    std::unique_ptr<settings::Settings> settings;
    std::unique_ptr<AppModel> model;
};

}  // namespace vt::model::test
