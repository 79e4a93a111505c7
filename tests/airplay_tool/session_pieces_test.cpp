// What the RAOP session sends besides audio: the SDP, metadata, artwork,
// volume, the wrapped key and the per-packet cipher; and the command line
// and status lines it is driven by.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include "airplay_tool/artwork.h"
#include "airplay_tool/base64.h"
#include "airplay_tool/dmap.h"
#include "airplay_tool/raop_crypto.h"
#include "airplay_tool/raop_route.h"
#include "airplay_tool/sdp.h"
#include "airplay_tool/status_writer.h"
#include "airplay_tool/tool_options.h"

using namespace vt::airplay_tool;

namespace {

TEST(Sdp, DescribesAlacAndCarriesTheKeyOnlyWhenEncrypted) {
    AnnounceDescription d;
    d.sessionID = "1234";
    d.senderIP = "10.0.0.1";
    d.receiverIP = "10.0.0.2";
    auto plain = parseSdp(buildAnnounceSdp(d));
    ASSERT_TRUE(plain);
    EXPECT_EQ((*plain)["o"], "iTunes 1234 0 IN IP4 10.0.0.1");
    EXPECT_EQ((*plain)["c"], "IN IP4 10.0.0.2");
    EXPECT_EQ((*plain)["a=rtpmap"], "96 AppleLossless");
    EXPECT_EQ((*plain)["a=fmtp"], "96 352 0 16 40 10 14 2 255 0 0 44100");
    EXPECT_FALSE(plain->count("a=rsaaeskey"));
    EXPECT_FALSE(plain->count("a=aesiv"));

    d.rsaAesKey = "S0VZ";
    d.aesIV = "SVY";
    auto encrypted = parseSdp(buildAnnounceSdp(d));
    ASSERT_TRUE(encrypted);
    EXPECT_EQ((*encrypted)["a=rsaaeskey"], "S0VZ");
    EXPECT_EQ((*encrypted)["a=aesiv"], "SVY");
    d.aesIV.clear();  // half a key is no key
    EXPECT_FALSE(parseSdp(buildAnnounceSdp(d))->count("a=rsaaeskey"));

    EXPECT_FALSE(parseSdp("v=0\r\nnonsense\r\n"));
    EXPECT_FALSE(parseSdp(std::string(kMaxSdpBytes + 1, 'a')));
}

TEST(Dmap, TrackInfoAsOneListingItem) {
    const std::string item = buildDmapItem({"Title é", "Artist", "", "42"});
    auto outer = parseDmapEntries(item);
    ASSERT_TRUE(outer);
    ASSERT_EQ(outer->size(), 1u);
    EXPECT_EQ((*outer)[0].code, "mlit");
    auto inner = parseDmapEntries((*outer)[0].data);
    ASSERT_TRUE(inner);
    ASSERT_EQ(inner->size(), 4u);
    EXPECT_EQ((*inner)[0].code, "minm");
    EXPECT_EQ((*inner)[0].data, "Title é");
    EXPECT_EQ((*inner)[1].code, "asar");
    EXPECT_EQ((*inner)[2].code, "asal");
    EXPECT_EQ((*inner)[2].data, "");
    EXPECT_EQ((*inner)[3].code, "mper");
    EXPECT_EQ((*inner)[3].data, std::string("\0\0\0\0\0\0\0\x2a", 8));
    EXPECT_EQ(
        parseDmapEntries((*outer)[0].data)->size(),
        parseDmapEntries(parseDmapEntries(buildDmapItem({"a", "b", "c", ""}))->at(0).data)->size() +
            1);
    EXPECT_NE(itemIDNumber("spotify:track:1"), itemIDNumber("spotify:track:2"));

    EXPECT_FALSE(parseDmapEntries(std::string("minm\0\0\0\x09short", 13)));  // runs past the end
    EXPECT_FALSE(parseDmapEntries("mli"));
    EXPECT_FALSE(parseDmapEntries(std::string("ab\0\0\0\0", 6)));
    std::string many;
    for (int i = 0; i < 3; ++i) many += std::string("abcd\0\0\0\0", 8);
    EXPECT_FALSE(parseDmapEntries(many, 2));
}

TEST(Artwork, KnownByItsFirstBytes) {
    auto jpeg = artworkFromBytes("\xFF\xD8\xFF\xE0rest");
    ASSERT_TRUE(jpeg);
    EXPECT_EQ(jpeg->mimeType, "image/jpeg");
    auto png = artworkFromBase64(
        base64Unpadded(std::vector<uint8_t>{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n', 1}));
    ASSERT_TRUE(png);
    EXPECT_EQ(png->mimeType, "image/png");
    EXPECT_FALSE(artworkFromBytes("GIF89a"));
    EXPECT_FALSE(artworkFromBytes(""));
    EXPECT_FALSE(artworkFromBytes("\xFF\xD8\xFF" + std::string(kMaxArtworkBytes, 'x')));
    EXPECT_FALSE(artworkFromBase64("not base64!"));
    EXPECT_FALSE(loadArtworkFile("/nonexistent/cover.jpg"));
}

TEST(Base64, RoundTripsPaddedOrNot) {
    for (size_t n : {0, 1, 2, 3, 16, 256}) {
        std::vector<uint8_t> bytes(n);
        for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i * 37 + 1);
        const std::string text = base64Unpadded(bytes);
        EXPECT_EQ(text.find('='), std::string::npos);
        EXPECT_EQ(base64Decode(text), bytes);
        EXPECT_EQ(base64Decode(text + std::string((4 - text.size() % 4) % 4, '=')), bytes);
    }
    EXPECT_FALSE(base64Decode("a"));
    EXPECT_FALSE(base64Decode("ab$d"));
}

TEST(RaopCrypto, EncryptsWholeBlocksFromTheIVEveryPacketAndLeavesTheTail) {
    auto keys = makeSessionKeys();
    ASSERT_TRUE(keys);
    std::vector<uint8_t> payload(1412);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i);
    const std::vector<uint8_t> original = payload;
    PacketEncryptor encryptor(keys->key, keys->iv);
    std::vector<uint8_t> again = payload;
    ASSERT_TRUE(encryptor.encrypt(payload));
    ASSERT_TRUE(encryptor.encrypt(again));
    EXPECT_EQ(payload, again);  // no chaining from one packet to the next
    EXPECT_NE(std::vector<uint8_t>(payload.begin(), payload.begin() + 1408),
              std::vector<uint8_t>(original.begin(), original.begin() + 1408));
    EXPECT_TRUE(std::equal(payload.begin() + 1408, payload.end(), original.begin() + 1408));

    // What a receiver does: AES-128-CBC from the IV over the whole blocks.
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_DecryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, keys->key.data(), keys->iv.data());
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    std::vector<uint8_t> plain(1408);
    int n = 0;
    EVP_DecryptUpdate(ctx, plain.data(), &n, payload.data(), 1408);
    EVP_CIPHER_CTX_free(ctx);
    EXPECT_EQ(n, 1408);
    EXPECT_TRUE(std::equal(plain.begin(), plain.end(), original.begin()));

    auto wrapped = wrapKeyForReceiver(keys->key);
    ASSERT_TRUE(wrapped);
    EXPECT_EQ(wrapped->size(), 256u);                   // RSA-2048
    EXPECT_NE(wrapKeyForReceiver(keys->key), wrapped);  // OAEP is randomised
}

TEST(ToolOptions, TakesTheAppsArgumentsInItsOrder) {
    auto parsed = parseToolOptions({"--protocol",   "raop",     "--name",       "Desk (Vellatone)",
                                    "--port",       "5000",     "--samplerate", "44100",
                                    "--bitdepth",   "16",       "--channels",   "2",
                                    "--latency",    "350",      "--cmdpipe",    "/tmp/x.fifo",
                                    "--timing",     "ntp",      "--dacp",       "0011223344556677",
                                    "--password",   "pw",       "--if",         "10.0.0.1",
                                    "--publish-ip", "10.0.0.1", "10.0.0.2"});
    ASSERT_TRUE(parsed.options) << parsed.error;
    const ToolOptions& o = *parsed.options;
    EXPECT_EQ(o.protocol, Protocol::raop);
    EXPECT_EQ(o.name, "Desk (Vellatone)");
    EXPECT_EQ(o.effectivePort(), 5000);
    EXPECT_EQ(o.cmdPipe, "/tmp/x.fifo");
    EXPECT_EQ(o.timing, "ntp");
    EXPECT_EQ(o.password, "pw");
    EXPECT_EQ(o.host, "10.0.0.2");
    EXPECT_FALSE(o.volume);

    auto defaults = parseToolOptions({"--protocol", "airplay2", "--volume", "0", "h"});
    ASSERT_TRUE(defaults.options);
    EXPECT_EQ(defaults.options->effectivePort(), 7000);
    EXPECT_EQ(defaults.options->volume, 0);

    const std::vector<std::vector<std::string>> bad = {
        {},                    // no host
        {"a", "b"},            // two hosts
        {"--port"},            // no value
        {"--port", "0", "h"},  // out of range
        {"--port", "50x", "h"},
        {"--bitdepth", "8", "h"},
        {"--protocol", "airplay3", "h"},
        {"--timing", "gps", "h"},
        {"--volume", "101", "h"},
        {"--frobnicate", "h"},
        {"--encrypt", "--raw", "h"},
    };
    for (const auto& args : bad) {
        auto result = parseToolOptions(args);
        EXPECT_FALSE(result.options);
        EXPECT_FALSE(result.error.empty());
    }
}

TEST(RaopChoices, EncryptionMetadataAndVolumeFollowTheReceiver) {
    ToolOptions o;
    EXPECT_TRUE(wantsEncryption(o));  // unknown receiver: what AirPort Express needs
    o.txtEt = "0,1";
    EXPECT_TRUE(wantsEncryption(o));
    o.txtEt = "0,4";
    EXPECT_FALSE(wantsEncryption(o));
    o.txtEt = "10";
    EXPECT_FALSE(wantsEncryption(o));  // a list of numbers, not of digits
    o.forceEncrypt = true;
    EXPECT_TRUE(wantsEncryption(o));
    o.forceEncrypt = false;
    o.txtEt = "1";
    o.forceRaw = true;
    EXPECT_FALSE(wantsEncryption(o));
    // Apple-Challenge: to an AirPort, and only with an encrypted stream.
    o.txtAm = "AirPort10,115";
    EXPECT_FALSE(sendsAppleChallenge(o));
    o.forceRaw = false;
    EXPECT_TRUE(sendsAppleChallenge(o));
    o.txtAm = "ShairportSync";
    EXPECT_FALSE(sendsAppleChallenge(o));

    auto all = metadataSupportFrom("");
    EXPECT_TRUE(all.text && all.artwork && all.progress);
    auto some = metadataSupportFrom("0,2");
    EXPECT_TRUE(some.text);
    EXPECT_FALSE(some.artwork);
    EXPECT_TRUE(some.progress);

    EXPECT_DOUBLE_EQ(volumeToDb(100), 0.0);
    EXPECT_DOUBLE_EQ(volumeToDb(50), -15.0);
    EXPECT_DOUBLE_EQ(volumeToDb(1), -29.7);
    EXPECT_DOUBLE_EQ(volumeToDb(0), -144.0);
}

TEST(StatusWriter, LinesGoToTheirStreamsWhole) {
    int out[2], err[2];
    ASSERT_EQ(pipe(out), 0);
    ASSERT_EQ(pipe(err), 0);
    {
        StatusWriter status(out[1], err[1]);
        status.route("raop", "realtime", "ntp", false);
        status.latency(1500, 11025, 250000, 0, 1500);
        status.connected();
        status.started(0, 1795568177808);
        status.error(error_code::authFailed, 401, "the \"password\"\nis wrong");
    }
    close(out[1]);
    close(err[1]);
    auto readAll = [](int fd) {
        std::string text;
        char buf[512];
        ssize_t n;
        while ((n = read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
        close(fd);
        return text;
    };
    EXPECT_EQ(readAll(out[0]),
              "[STATUS] route protocol=raop flow=realtime timing=ntp buffered=0\n"
              "[STATUS] latency lead_ms=1500 device_min_frames=11025 device_max_frames=250000 "
              "device_render_ms=0 warm_lead_ms=1500\n");
    EXPECT_EQ(readAll(err[0]),
              "[STATUS] connected\n"
              "[STATUS] started requested_unix_ms=0 at_unix_ms=1795568177808\n"
              "[STATUS] error code=auth_failed http=401 detail=\"the 'password' is wrong\"\n"
              "[ERROR] the 'password' is wrong\n");
}

}  // namespace
