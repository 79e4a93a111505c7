// TXT records come from any device on the network: what must hold however
// they are made.
#include "discovery/txt_record.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vt::discovery {
namespace {

TxtRecord wire(const std::vector<std::string>& strings) {
    std::string bytes;
    for (const std::string& s : strings) {
        bytes.push_back(char(s.size()));
        bytes += s;
    }
    return parseTxtWire(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

TEST(TxtRecord, KeysIgnoreCaseFirstWinsAndFlagsHaveNoValue) {
    const TxtRecord r = wire({"MD=Chromecast", "md=Other", "pw", "fn=a=b", "=x", ""});
    EXPECT_EQ(r.at("md"), "Chromecast");
    EXPECT_EQ(r.at("pw"), "");
    EXPECT_EQ(r.at("fn"), "a=b");  // only the first "=" divides
    EXPECT_EQ(r.size(), 3u);
}

TEST(TxtRecord, ValuesLoseControlsAndBrokenUtf8AndKeysWithControlsAreSkipped) {
    const TxtRecord r = wire({"fn=Living\nRoom\x01", std::string("rs=\xff\xfe"), "k\x02y=1"});
    EXPECT_EQ(r.at("fn"), "LivingRoom");
    EXPECT_EQ(r.at("rs"), "\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(r.count("k\x02y"), 0u);
}

TEST(TxtRecord, ALengthRunningPastTheEndKeepsWhatCameBefore) {
    std::string bytes = "\x04md=X\x30md2";
    const TxtRecord r = parseTxtWire(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    EXPECT_EQ(r.size(), 1u);
    EXPECT_EQ(r.at("md"), "X");
}

TEST(TxtRecord, AtMostSixtyFourKeysAndNoOverlongKey) {
    std::vector<std::string> strings;
    for (int i = 0; i < 100; ++i) strings.push_back("k" + std::to_string(i) + "=v");
    EXPECT_EQ(wire(strings).size(), maxTxtKeys);
    EXPECT_TRUE(wire({std::string(maxTxtKeyBytes + 1, 'a') + "=1"}).empty());
}

TEST(TxtRecord, CleanTextCutsOnACharacterBoundary) {
    // "é" is two bytes: a cut inside it drops the whole character.
    EXPECT_EQ(cleanRemoteText("abé", 3), "ab");
    EXPECT_EQ(cleanRemoteText("abé", 4), "abé");
}

}  // namespace
}  // namespace vt::discovery
