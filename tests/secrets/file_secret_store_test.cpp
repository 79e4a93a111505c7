// The file that stands in for a Secret Service: kept only for this user,
// and read as empty rather than trusted when it is not ours alone or broken.
#include "secrets/file_secret_store.h"

#include <sys/stat.h>

#include <gtest/gtest.h>
#include <fstream>

#include "secrets/airplay_password_store.h"
#include "support/test_env.h"

namespace vt::secrets {
namespace {

class FileSecretStoreTest : public ::testing::Test {
  protected:
    static mode_t modeOf(const std::filesystem::path& p) {
        struct stat st {};
        ::stat(p.c_str(), &st);
        return st.st_mode & 0777;
    }
    vt::test::TempDir tmp_;
    const std::filesystem::path root_ = tmp_.path();
};

TEST_F(FileSecretStoreTest, KeepsPerServiceAndAccountOnlyForThisUserAndEmptyRemoves) {
    FileSecretStore store(root_ / "data" / "vellatone");
    EXPECT_FALSE(store.get("svc", "Kitchen"));
    ASSERT_TRUE(store.set("svc", "Kitchen", "hunter2"));
    ASSERT_TRUE(store.set("svc", "Den", "other"));
    ASSERT_TRUE(store.set("tokens", "Kitchen", "token"));
    EXPECT_EQ(store.get("svc", "Kitchen"), "hunter2");
    EXPECT_EQ(store.get("tokens", "Kitchen"), "token");
    EXPECT_EQ(modeOf(store.file()), 0600u);
    EXPECT_EQ(modeOf(store.file().parent_path()), 0700u);

    ASSERT_TRUE(store.set("svc", "Kitchen", ""));
    EXPECT_FALSE(store.get("svc", "Kitchen"));
    EXPECT_EQ(store.get("svc", "Den"), "other");
    // A second store on the same folder (another run) reads the same.
    EXPECT_EQ(FileSecretStore(store.file().parent_path()).get("svc", "Den"), "other");
}

TEST_F(FileSecretStoreTest, AFileOthersMayReadOrABrokenOneReadsAsEmpty) {
    FileSecretStore store(root_ / "v");
    ASSERT_TRUE(store.set("svc", "Kitchen", "hunter2"));
    ::chmod(store.file().c_str(), 0644);
    EXPECT_FALSE(store.get("svc", "Kitchen"));
    ::chmod(store.file().c_str(), 0600);
    EXPECT_EQ(store.get("svc", "Kitchen"), "hunter2");

    for (const char* broken : {"{\"svc\": ", "[1,2]", "{\"svc\": {\"Kitchen\": 7}}"}) {
        std::ofstream(store.file(), std::ios::trunc) << broken;
        EXPECT_FALSE(store.get("svc", "Kitchen")) << broken;
    }
    // Writing over a broken file starts afresh.
    ASSERT_TRUE(store.set("svc", "Den", "x"));
    EXPECT_EQ(store.get("svc", "Den"), "x");
}

TEST_F(FileSecretStoreTest, AirPlayPasswordsAreKeptByReceiverId) {
    FileSecretStore file(root_ / "v");
    AirPlayPasswordStore passwords(file);
    passwords.set("hunter2", "Kitchen");
    EXPECT_EQ(passwords.password("Kitchen"), "hunter2");
    EXPECT_EQ(file.get("Vellatone AirPlay password", "Kitchen"), "hunter2");
    EXPECT_FALSE(passwords.password("Den"));
    passwords.set("", "Kitchen");
    EXPECT_FALSE(passwords.password("Kitchen"));
}

}  // namespace
}  // namespace vt::secrets
