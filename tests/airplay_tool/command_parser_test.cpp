// The command pipe as the app writes it, and as a broken writer might.
#include <gtest/gtest.h>

#include "airplay_tool/command_parser.h"

using namespace vt::airplay_tool;

namespace {

TEST(CommandParser, GathersKeysUntilTheActionInAnyPieces) {
    const std::string text =
        "TITLE=Vellatone\nSTART_UNIX_MS=0\nACTION=START\n"
        "TITLE=Song\r\nARTIST=Band = Name\nalbum=Record\nITEMID=42\nARTWORKFILE=\nACTION=sendmeta\n"
        "ACTION=STOP\n";
    for (size_t step : {size_t{1}, size_t{5}, text.size()}) {
        CommandParser parser;
        std::vector<Command> commands;
        for (size_t at = 0; at < text.size(); at += step)
            for (auto& c : parser.feed(std::string_view(text).substr(at, step)))
                commands.push_back(c);
        ASSERT_EQ(commands.size(), 3u) << "step " << step;
        EXPECT_EQ(commands[0].action, "START");
        EXPECT_EQ(commands[0].field("START_UNIX_MS"), "0");
        EXPECT_EQ(commands[1].action, "SENDMETA");
        EXPECT_EQ(commands[1].field("TITLE"), "Song");          // carriage return dropped
        EXPECT_EQ(commands[1].field("ARTIST"), "Band = Name");  // only the first '=' splits
        EXPECT_EQ(commands[1].field("ALBUM"), "Record");        // keys in any case
        EXPECT_EQ(commands[1].field("ARTWORKFILE"), "");
        EXPECT_TRUE(commands[1].fields.count("ARTWORKFILE"));
        EXPECT_EQ(commands[2].action, "STOP");
        EXPECT_TRUE(commands[2].fields.empty());  // a batch starts afresh after each action
    }
}

TEST(CommandParser, DropsJunkAndOverlongLinesAndCarriesOn) {
    CommandParser parser;
    EXPECT_TRUE(parser.feed("no equals sign\n=value\nVOLUME=30\n").empty());
    // A line past the bound is dropped whole, even when it arrives in pieces.
    const std::string chunk(1024 * 1024, 'x');
    EXPECT_TRUE(parser.feed("ARTWORK=").empty());
    for (size_t sent = 0; sent <= kMaxCommandLineBytes; sent += chunk.size())
        EXPECT_TRUE(parser.feed(chunk).empty());
    auto commands = parser.feed("\nACTION=VOLUME\n");
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].field("VOLUME"), "30");
    EXPECT_FALSE(commands[0].fields.count("ARTWORK"));

    // A batch with more keys than allowed is not acted on at all.
    std::string flood;
    for (size_t i = 0; i <= kMaxFieldsPerCommand; ++i) flood += "K" + std::to_string(i) + "=v\n";
    EXPECT_TRUE(parser.feed(flood + "ACTION=START\n").empty());
    auto next = parser.feed("ACTION=STOP\n");
    ASSERT_EQ(next.size(), 1u);
    EXPECT_EQ(next[0].action, "STOP");
}

}  // namespace
