// The automation hook's line parser: every bad line becomes an error reply
// with a reason, and good ones carry what their command needs.
#include "ui/automation/automation_commands.h"

#include <gtest/gtest.h>

namespace vt::ui {
namespace {

TEST(AutomationCommands, BadLinesAreRefusedWithAReason) {
    for (const char* line :
         {"", "not json", "[1,2]", "42", "{\"name\":\"x\"}", "{\"cmd\":7}", "{\"cmd\":\"explode\"}",
          "{\"cmd\":\"click\"}", "{\"cmd\":\"click\",\"name\":\"\"}", "{\"cmd\":\"type\"}",
          "{\"cmd\":\"key\",\"text\":5}", "{\"cmd\":\"grab\"}", "{\"cmd\":\"set\",\"name\":\"a\"}",
          "{\"cmd\":\"set\",\"name\":\"a\",\"value\":[1]}", "{\"cmd\":\"find\""}) {
        ParsedCommand parsed = parseAutomationLine(line);
        EXPECT_FALSE(parsed.command) << line;
        EXPECT_FALSE(parsed.error.empty()) << line;
    }
    EXPECT_FALSE(parseAutomationLine(std::string(maxAutomationLine + 1, ' ')).command);
    EXPECT_EQ(automationError("why")["ok"], false);
}

TEST(AutomationCommands, GoodLinesCarryTheirFields) {
    ParsedCommand set = parseAutomationLine(R"({"cmd":"set","name":"row.0.delay","value":120})");
    ASSERT_TRUE(set.command);
    EXPECT_EQ(set.command->cmd, "set");
    EXPECT_EQ(set.command->name, "row.0.delay");
    EXPECT_EQ(set.command->value, 120);

    ParsedCommand key = parseAutomationLine(R"({"cmd":"key","text":"Alt+Down"})");
    ASSERT_TRUE(key.command);
    EXPECT_EQ(key.command->text, "Alt+Down");

    ParsedCommand grab = parseAutomationLine(R"({"cmd":"grab","path":"/tmp/a.png"})");
    ASSERT_TRUE(grab.command);
    EXPECT_EQ(grab.command->path, "/tmp/a.png");

    ParsedCommand drag =
        parseAutomationLine(R"({"cmd":"drag","name":"row.1.handle","to":"row.0"})");
    ASSERT_TRUE(drag.command);
    EXPECT_EQ(drag.command->to, "row.0");
    EXPECT_FALSE(parseAutomationLine(R"({"cmd":"drag","name":"row.1.handle"})").command);

    EXPECT_TRUE(parseAutomationLine(R"({"cmd":"rows"})").command);
    EXPECT_TRUE(parseAutomationLine(R"({"cmd":"set","name":"s","value":true})").command);
}

}  // namespace
}  // namespace vt::ui
