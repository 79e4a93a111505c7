#include "remote/line_codec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vt::remote {
namespace {

using Lines = std::vector<std::string>;

void expectTooLong(LineCodec& codec, std::string_view bytes) {
    try {
        codec.feed(bytes);
        FAIL() << "expected lineTooLong";
    } catch (const LineCodec::Error& e) {
        EXPECT_EQ(e.failure(), LineCodec::Failure::lineTooLong);
    }
    EXPECT_TRUE(codec.pending().empty());
}

TEST(LineCodec, LinesAreSplitHoweverTheBytesArrive) {
    LineCodec codec(64);
    EXPECT_EQ(codec.feed("{\"a\":1}\n{\"b\":2}\n{\"c\""), (Lines{"{\"a\":1}", "{\"b\":2}"}));
    EXPECT_EQ(codec.pending(), "{\"c\"");
    EXPECT_EQ(codec.feed(":3}\n"), (Lines{"{\"c\":3}"}));
    EXPECT_TRUE(codec.pending().empty());

    const std::string line = "{\"ping\":{\"id\":3,\"phoneSent\":1.5}}";
    for (char c : line) EXPECT_TRUE(codec.feed(std::string_view(&c, 1)).empty());
    EXPECT_EQ(codec.feed("\n"), (Lines{line}));

    EXPECT_EQ(codec.feed("\n\nx\n\n"), (Lines{"", "", "x", ""}));
    EXPECT_TRUE(codec.feed("").empty());

    std::string many;
    for (int i = 0; i < 1000; ++i) many += std::to_string(i) + "\n";
    const Lines lines = codec.feed(many);
    ASSERT_EQ(lines.size(), 1000u);
    EXPECT_EQ(lines.front(), "0");
    EXPECT_EQ(lines.back(), "999");
}

TEST(LineCodec, AtTheLimitIsKeptOneByteMoreIsRefused) {
    LineCodec codec(8);
    EXPECT_TRUE(codec.feed("12345678").empty());
    EXPECT_EQ(codec.pending().size(), 8u);
    expectTooLong(codec, "9");
    // The codec is usable again after a refusal.
    EXPECT_EQ(codec.feed("ok\n"), (Lines{"ok"}));

    // A whole line over the limit is refused too, however the reads split it.
    expectTooLong(codec, "ok\n123456789\n");
    EXPECT_EQ(codec.feed("12345678\n"), (Lines{"12345678"}));
}

TEST(LineCodec, TheLimitCountsOnlyTheUnfinishedLine) {
    LineCodec codec(8);
    EXPECT_EQ(codec.feed("1234567\n1234567\n1234"), (Lines{"1234567", "1234567"}));
    EXPECT_TRUE(codec.feed("5678").empty());
    EXPECT_EQ(codec.feed("\n"), (Lines{"12345678"}));
}

}  // namespace
}  // namespace vt::remote
