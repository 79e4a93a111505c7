// Passwords in a real Secret Service (GNOME Keyring on a private session
// bus), and the file when no Secret Service runs on the bus.
#include <stdio.h>
#include <stdlib.h>

#include <gio/gio.h>

#include <gtest/gtest.h>
#include <array>
#include <filesystem>
#include <string>

#include "secrets/airplay_password_store.h"
#include "secrets/libsecret_store.h"
#include "secrets/secret_store.h"

namespace vt::secrets {
namespace {

// Starts the private bus (with or without the keyring) and takes its
// environment into this process.
class PrivateBus {
  public:
    explicit PrivateBus(bool keyring) {
        char tmpl[] = "/tmp/vt-keyring-XXXXXX";
        dir_ = mkdtemp(tmpl);
        std::string cmd = std::string(VELLATONE_PRIVATE_KEYRING_SCRIPT) + " start " + dir_ +
                          (keyring ? "" : " --no-keyring");
        FILE* out = popen(cmd.c_str(), "r");
        std::array<char, 512> line{};
        while (out && fgets(line.data(), line.size(), out)) {
            std::string text = line.data();
            if (text.rfind("export ", 0) != 0) continue;
            text = text.substr(7);
            if (!text.empty() && text.back() == '\n') text.pop_back();
            size_t at = 0;
            while (at < text.size()) {
                size_t end = text.find(' ', at);
                if (end == std::string::npos) end = text.size();
                const std::string pair = text.substr(at, end - at);
                const size_t eq = pair.find('=');
                if (eq != std::string::npos)
                    setenv(pair.substr(0, eq).c_str(), pair.substr(eq + 1).c_str(), 1);
                at = end + 1;
            }
            started_ = true;
        }
        status_ = out ? pclose(out) : -1;
    }
    ~PrivateBus() {
        // This process's shared bus connection would end the process when its
        // bus goes away.
        if (GDBusConnection* c = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr)) {
            g_dbus_connection_set_exit_on_close(c, FALSE);
            g_object_unref(c);
        }
        std::string cmd = std::string(VELLATONE_PRIVATE_KEYRING_SCRIPT) + " stop " + dir_;
        if (system(cmd.c_str()) != 0) {
        }
        std::string rm = "rm -rf " + dir_;
        if (system(rm.c_str()) != 0) {
        }
    }
    bool started() const { return started_ && status_ == 0; }
    bool unavailable() const { return WIFEXITED(status_) && WEXITSTATUS(status_) == 77; }
    std::string dir() const { return dir_; }

  private:
    std::string dir_;
    bool started_ = false;
    int status_ = -1;
};

TEST(SecretService, PasswordsGoToTheKeyringWhenOneRuns) {
    PrivateBus bus(true);
    if (bus.unavailable()) GTEST_SKIP() << "gnome-keyring is not installed";
    ASSERT_TRUE(bus.started());
    ASSERT_TRUE(LibsecretStore::serviceRunning());
    auto store = openSecretStore(bus.dir() + "/fallback");
    AirPlayPasswordStore passwords(*store);
    passwords.set("hunter2", "Kitchen");
    EXPECT_EQ(passwords.password("Kitchen"), "hunter2");
    // Kept by the keyring under the names other tools look for, not in the file.
    EXPECT_EQ(LibsecretStore().get("Vellatone AirPlay password", "Kitchen"), "hunter2");
    EXPECT_FALSE(std::filesystem::exists(bus.dir() + "/fallback/secrets.json"));
    passwords.set("new one", "Kitchen");
    EXPECT_EQ(passwords.password("Kitchen"), "new one");
    passwords.set("", "Kitchen");
    EXPECT_FALSE(passwords.password("Kitchen"));
}

TEST(SecretService, WithoutOneTheFileKeepsThem) {
    PrivateBus bus(false);
    ASSERT_TRUE(bus.started());
    EXPECT_FALSE(LibsecretStore::serviceRunning());
    auto store = openSecretStore(bus.dir() + "/fallback");
    AirPlayPasswordStore(*store).set("hunter2", "Kitchen");
    EXPECT_EQ(AirPlayPasswordStore(*store).password("Kitchen"), "hunter2");
    EXPECT_TRUE(std::filesystem::exists(bus.dir() + "/fallback/secrets.json"));
}

}  // namespace
}  // namespace vt::secrets
