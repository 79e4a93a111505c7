#include "settings/debug_log_writer.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/test_env.h"

namespace vt::settings {
namespace {

namespace fs = std::filesystem;
using vt::test::readFile;
using vt::test::TempDir;

TEST(DebugLogWriter, AppendsLinesFromAnyThreadAndMakesItsFolder) {
    TempDir dir;
    DebugLogWriter log(dir / "state" / "vellatone" / "drift.csv");
    log.append("a,1");
    std::thread other([&] { log.append("b,2\n"); });
    other.join();
    log.flush();
    EXPECT_EQ(readFile(log.file()), "a,1\nb,2\n");
}

TEST(DebugLogWriter, ADeletedFileIsWrittenUntilClosedThenMadeAgain) {
    TempDir dir;
    DebugLogWriter log(dir / "drift.csv");
    log.append("one");
    log.flush();
    fs::remove(log.file());
    log.append("two");
    log.flush();
    EXPECT_FALSE(fs::exists(log.file())) << "the open handle keeps writing to the unlinked file";

    log.close();
    log.append("three");
    log.flush();
    EXPECT_EQ(readFile(log.file()), "three\n");
}

TEST(DebugLogWriter, GivesUpForGoodWhenTheFileCannotBeOpened) {
    TempDir dir;
    vt::test::writeFile(dir / "blocker", "");
    DebugLogWriter log(dir / "blocker" / "drift.csv");
    log.append("x");
    log.flush();
    EXPECT_TRUE(log.givenUp());
    log.close();
    log.append("y");
    log.flush();
    EXPECT_TRUE(log.givenUp());
}

TEST(DebugLogWriter, DriftLineHasTheTimeThenWholeNumbersPerRow) {
    DriftSample rows[] = {{12.4, -3.6}, {-0.4, 250.5}};
    EXPECT_EQ(driftLine(1700000000.25, rows), "1700000000.250,12,-4,-0,250\n");
    EXPECT_EQ(driftLine(5, {}), "5.000\n");
}

}  // namespace
}  // namespace vt::settings
