#include "nowplaying/artwork_stager.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/test_env.h"

namespace vt::nowplaying {
namespace {

namespace fs = std::filesystem;

const std::string kPng = std::string("\x89PNG\r\n\x1A\n", 8) + "one";
const std::string kJpeg = "\xFF\xD8\xFF\xE0two";

class ArtworkStagerTest : public ::testing::Test {
  protected:
    size_t filesStaged() const {
        size_t n = 0;
        if (fs::exists(root / "staged"))
            for ([[maybe_unused]] const auto& e : fs::directory_iterator(root / "staged")) ++n;
        return n;
    }

    vt::test::TempDir tmp;  // ours alone, as staging beneath it wants
    const fs::path root = tmp.path();
    std::vector<std::string> fetched;
    ArtworkStager stager{root / "staged", [this](const std::string& url, size_t) {
                             fetched.push_back(url);
                             return url.ends_with("jpg") ? std::optional(kJpeg) : std::nullopt;
                         }};
};

TEST_F(ArtworkStagerTest, OneFileAtATimeNamedByItsBytes) {
    auto first = stager.stageBytes(kPng);
    ASSERT_TRUE(first);
    EXPECT_TRUE(first->ends_with(".png"));
    EXPECT_EQ(fs::status(root / "staged").permissions() & fs::perms::all, fs::perms::owner_all);
    const auto written = fs::last_write_time(*first);
    // The same bytes again: the same file, not written again.
    EXPECT_EQ(stager.stageBytes(kPng), first);
    EXPECT_EQ(fs::last_write_time(*first), written);
    // New bytes replace it; the old file goes.
    auto second = stager.stage("https://example.invalid/cover.jpg");
    ASSERT_TRUE(second);
    EXPECT_NE(second, first);
    EXPECT_TRUE(second->ends_with(".jpg"));
    EXPECT_EQ(filesStaged(), 1u);
    std::ifstream in(*second, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), kJpeg);
    // Not an image, or a scheme not taken: no artwork and no file.
    EXPECT_FALSE(stager.stageBytes("<html>not an image</html>"));
    EXPECT_EQ(filesStaged(), 0u);
    EXPECT_FALSE(stager.stage("ftp://example.invalid/cover.jpg"));
    EXPECT_FALSE(stager.stage("data:image/png;base64,AAAA"));
    EXPECT_EQ(fetched.size(), 1u);
    stager.stageBytes(kPng);
    stager.clear();
    EXPECT_EQ(filesStaged(), 0u);
    EXPECT_FALSE(stager.current());
}

TEST_F(ArtworkStagerTest, ThePlayersIconIsCopiedBesideTheImagesAndOnlyAPng) {
    fs::create_directories(root / "icons");
    std::ofstream(root / "icons/player.png", std::ios::binary) << kPng;
    std::ofstream(root / "icons/player.jpg", std::ios::binary) << kJpeg;
    const auto copy = stager.stageFallback((root / "icons/player.png").string());
    ASSERT_TRUE(copy);
    EXPECT_EQ(*copy, (root / "staged/artwork-fallback/vellatone-icon-artwork.png").string());
    std::ifstream in(*copy, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), kPng);
    EXPECT_FALSE(stager.stageFallback((root / "icons/player.jpg").string()));
    stager.clear();  // the staged image goes; the icon stays for the next track without one
    EXPECT_TRUE(fs::exists(*copy));
}

TEST_F(ArtworkStagerTest, FileURLsAreDecodedAndReadBounded) {
    EXPECT_EQ(fileURLPath("file:///a%20b/c.png"), "/a b/c.png");
    EXPECT_EQ(fileURLPath("file://localhost/x.png"), "/x.png");
    EXPECT_FALSE(fileURLPath("file://otherhost/x.png"));
    EXPECT_FALSE(fileURLPath("file:///x%00.png"));
    EXPECT_FALSE(fileURLPath("file:///x%2"));
    EXPECT_FALSE(fileURLPath("/plain/path.png"));
    std::ofstream(root / "big.png") << kPng << std::string(100, 'x');
    EXPECT_FALSE(readSmallFile((root / "big.png").string(), 50));
    EXPECT_TRUE(readSmallFile((root / "big.png").string(), 200));
    EXPECT_FALSE(readSmallFile(root.string(), 200));  // a folder is not an image
    EXPECT_TRUE(stager.stage("file://" + (root / "big.png").string()));
}

}  // namespace
}  // namespace vt::nowplaying
