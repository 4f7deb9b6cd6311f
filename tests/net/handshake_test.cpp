#include "net/handshake.h"
#include "rtmpcast/player.h"
#include "support/host_fakes.h"
#include "support/socket_client.h"

#include <openssl/evp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>

// The player's side is worked out here anew: its own keys, offsets and HMAC.

namespace {

using Lines = std::vector<std::string>;

constexpr size_t kPacket = 1536;

const Bytes kTail = Hex("F0EEC24A8068BEE82E00D0D1029E7E576EEC5D2D29806FAB93B8E636CFEB31AE");

const Bytes kServerBanner = Text("Genuine Adobe Flash Media Server 001");
const Bytes kPlayerBanner = Text("Genuine Adobe Flash Player 001");

Bytes Hmac(const Bytes &key, const Bytes &data)
{
    EVP_PKEY *secret = EVP_PKEY_new_raw_private_key(EVP_PKEY_HMAC, nullptr, key.data(), key.size());
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    Bytes out(32);
    size_t length = out.size();
    EXPECT_EQ(EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, secret), 1);
    EXPECT_EQ(EVP_DigestSign(context, out.data(), &length, data.data(), data.size()), 1);
    EXPECT_EQ(length, 32U);
    EVP_MD_CTX_free(context);
    EVP_PKEY_free(secret);
    return out;
}

Bytes WithoutDigest(const Bytes &packet, size_t offset)
{
    return Slice(packet, 0, offset) + Slice(packet, offset + 32, kPacket - offset - 32);
}

size_t Offset1(const Bytes &packet)
{
    return (packet[8] + packet[9] + packet[10] + packet[11]) % 728 + 12;
}

size_t Offset2(const Bytes &packet)
{
    return (packet[772] + packet[773] + packet[774] + packet[775]) % 728 + 776;
}

void Put(Bytes &packet, size_t at, const Bytes &bytes)
{
    std::copy(bytes.begin(), bytes.end(), packet.begin() + static_cast<std::ptrdiff_t>(at));
}

// A C1 without a digest: time, version of a Flash Player, noise.
Bytes Noise(uint32_t seed)
{
    std::mt19937 random(seed);
    Bytes packet(kPacket);
    for (uint8_t &byte : packet) {
        byte = static_cast<uint8_t>(random());
    }
    Put(packet, 0, Hex("00112233 80000702"));
    return packet;
}

Bytes SignedAt(Bytes packet, size_t offset)
{
    Put(packet, offset, Hmac(kPlayerBanner, WithoutDigest(packet, offset)));
    return packet;
}

Bytes C1Scheme1(uint32_t seed = 1)
{
    const Bytes packet = Noise(seed);
    return SignedAt(packet, Offset1(packet));
}

Bytes C1Scheme2(uint32_t seed = 2)
{
    const Bytes packet = Noise(seed);
    return SignedAt(packet, Offset2(packet));
}

Bytes C2For(const Bytes &s1)
{
    const Bytes noise = Slice(Noise(3), 0, 1504);
    const Bytes key = Hmac(kPlayerBanner + kTail, Slice(s1, Offset1(s1), 32));
    return noise + Hmac(key, noise);
}

// The handshake on a thread of its own; the test is the player.
class Server {
  public:
    explicit Server(SocketClient &client)
        : thread_([this, &client] { result_ = PerformHandshake(client.get()); })
    {
    }
    ~Server()
    {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    int result()
    {
        thread_.join();
        return result_;
    }

  private:
    int result_ = 99;
    std::thread thread_;
};

const char *kClosed = "6 INFO: RtmpReadBytes: Connection was closed by peer";

Lines ClosedThen(const char *line)
{
    return {kClosed, line};
}

} // namespace

// ---------------------------------------------------------------------------------------- the whole of it

TEST(Handshake, APlayerThatSignsByTheFirstSchemeIsAccepted)
{
    SocketClient client;
    Server server(client);
    const Bytes c1 = C1Scheme1();
    client.send(Hex("03") + c1);
    const Bytes s0 = client.receive(1);
    const Bytes s1 = client.receive(kPacket);
    const Bytes s2 = client.receive(kPacket);
    ASSERT_EQ(s2.size(), kPacket);
    client.send(C2For(s1));
    EXPECT_EQ(server.result(), 0);
    EXPECT_EQ(client.takeLines(), Lines{"6 INFO: PerformHandshake: Handshake done"});
}

TEST(Handshake, APlayerThatSignsByTheSecondSchemeIsAccepted)
{
    SocketClient client;
    Server server(client);
    const Bytes c1 = C1Scheme2();
    client.send(Hex("03") + c1);
    client.receive(1);
    const Bytes s1 = client.receive(kPacket);
    const Bytes s2 = client.receive(kPacket);
    ASSERT_EQ(s2.size(), kPacket);
    EXPECT_EQ(Slice(s2, 1504, 32),
              Hmac(Hmac(kServerBanner + kTail, Slice(c1, Offset2(c1), 32)), Slice(c1, 0, 1504)));
    client.send(C2For(s1));
    EXPECT_EQ(server.result(), 0);
    EXPECT_EQ(client.takeLines(), Lines{"6 INFO: PerformHandshake: Handshake done"});
}

// The digest may lie at either end of its range; in the second scheme it then reaches into the last 32 bytes,
// which S2 replaces with the server's signature.
TEST(Handshake, ADigestAtTheEndsOfItsRangeIsFound)
{
    const struct {
        const char *sentence;
        size_t sumAt;
        Bytes sum;
        size_t offset;
    } rows[] = {
        {"first scheme, lowest", 8, Hex("00000000"), 12},
        {"first scheme, highest: 255 + 255 + 217 + 0 = 727", 8, Hex("FFFFD900"), 739},
        {"first scheme, wrapped: 728 is 0 again", 8, Hex("FFFFDA00"), 12},
        {"second scheme, lowest", 772, Hex("00000000"), 776},
        {"second scheme, highest", 772, Hex("00D9FFFF"), 1503},
        {"second scheme, largest sum: 1020 - 728 = 292", 772, Hex("FFFFFFFF"), 1068},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        Server server(client);
        Bytes c1 = Noise(4);
        Put(c1, row.sumAt, row.sum);
        c1 = SignedAt(c1, row.offset);
        client.send(Hex("03") + c1);
        client.receive(1);
        const Bytes s1 = client.receive(kPacket);
        const Bytes s2 = client.receive(kPacket);
        ASSERT_EQ(s2.size(), kPacket);
        EXPECT_EQ(Slice(s2, 1504, 32),
                  Hmac(Hmac(kServerBanner + kTail, Slice(c1, row.offset, 32)), Slice(c1, 0, 1504)));
        client.send(C2For(s1));
        EXPECT_EQ(server.result(), 0);
    }
}

TEST(Handshake, S0S1AndS2AreInOrderAndNothingFollows)
{
    SocketClient client;
    {
        Server server(client);
        client.send(Hex("03") + C1Scheme1());
        const Bytes all = client.receive(1 + 2 * kPacket);
        ASSERT_EQ(all.size(), 1 + 2 * kPacket);
        client.send(C2For(Slice(all, 1, kPacket)));
        EXPECT_EQ(server.result(), 0);
    }
    client->SocketClosed = 1;
    shutdown(client->Socket, SHUT_WR);
    EXPECT_EQ(client.receive(1), Bytes{});
}

TEST(Handshake, S1CarriesTimeVersionAndAGenuineDigest)
{
    timespec before, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    SocketClient client;
    Server server(client);
    client.send(Hex("03"));
    ASSERT_EQ(client.receive(1).size(), 1U);
    const Bytes s1 = client.receive(kPacket);
    clock_gettime(CLOCK_MONOTONIC, &after);
    ASSERT_EQ(s1.size(), kPacket);
    const uint32_t time = static_cast<uint32_t>(s1[0]) << 24 | static_cast<uint32_t>(s1[1]) << 16 |
                          static_cast<uint32_t>(s1[2]) << 8 | s1[3];
    const uint32_t low = static_cast<uint32_t>(before.tv_sec * 1000 + before.tv_nsec / 1000000);
    const uint32_t high = static_cast<uint32_t>(after.tv_sec * 1000 + after.tv_nsec / 1000000);
    EXPECT_LE(time - low, high - low);
    EXPECT_EQ(Slice(s1, 4, 4), Hex("03 05 01 01"));
    const size_t offset = Offset1(s1);
    EXPECT_EQ(Slice(s1, offset, 32), Hmac(kServerBanner, WithoutDigest(s1, offset)));
    client.endOfInput();
    EXPECT_EQ(server.result(), -1);
}

TEST(Handshake, S1IsFilledWithRandomWordsAndS0IsTheTopByteOfTheLastOfTwoMore)
{
    srand(20);
    Bytes words;
    uint32_t last = 0;
    for (int i = 0; i < 384; i++) {
        last = static_cast<uint32_t>(rand());
        words = words + Bytes{static_cast<uint8_t>(last), static_cast<uint8_t>(last >> 8),
                              static_cast<uint8_t>(last >> 16), static_cast<uint8_t>(last >> 24)};
    }
    srand(20);
    SocketClient client;
    Server server(client);
    client.send(Hex("03"));
    EXPECT_EQ(client.receive(1), Bytes{static_cast<uint8_t>(last >> 24)});
    Bytes s1 = client.receive(kPacket);
    ASSERT_EQ(s1.size(), kPacket);
    const size_t offset = Offset1(s1);
    Put(s1, offset, Slice(words, offset - 8, 32)); // undo the digest
    EXPECT_EQ(Slice(s1, 8, 1528), Slice(words, 0, 1528));
    client.endOfInput();
    EXPECT_EQ(server.result(), -1);
}

TEST(Handshake, S0IsARandomByteBelow128AndNotTheVersion)
{
    bool anotherThan3 = false;
    srand(1);
    for (int i = 0; i < 20; i++) {
        SocketClient client;
        client.send(Hex("03"));
        client.endOfInput();
        EXPECT_EQ(PerformHandshake(client.get()), -1);
        const Bytes s0 = client.receive(1);
        ASSERT_EQ(s0.size(), 1U);
        EXPECT_LT(s0[0], 128);
        anotherThan3 = anotherThan3 || s0[0] != 3;
    }
    EXPECT_TRUE(anotherThan3);
}

TEST(Handshake, S2RepeatsC1WithItsTimeAndVersionAndIsSigned)
{
    SocketClient client;
    Server server(client);
    const Bytes c1 = C1Scheme1(9);
    client.send(Hex("03") + c1);
    client.receive(1 + kPacket);
    const Bytes s2 = client.receive(kPacket);
    ASSERT_EQ(s2.size(), kPacket);
    EXPECT_EQ(Slice(s2, 0, 8), Hex("00112233 80000702"));
    EXPECT_EQ(Slice(s2, 0, 1504), Slice(c1, 0, 1504));
    EXPECT_EQ(Slice(s2, 1504, 32),
              Hmac(Hmac(kServerBanner + kTail, Slice(c1, Offset1(c1), 32)), Slice(c1, 0, 1504)));
    client.endOfInput();
    EXPECT_EQ(server.result(), -1);
}

// --------------------------------------------------------------------------------------------- refusals

TEST(Handshake, AnyVersionBut3IsRefusedAndNothingIsSent)
{
    const struct {
        const char *sentence;
        Bytes c0;
        const char *line;
    } rows[] = {
        {"encrypted RTMP", Hex("06"), "3 ERROR: PerformHandshake: RTMP protocol version (6) not supported"},
        {"none", Hex("00"), "3 ERROR: PerformHandshake: RTMP protocol version (0) not supported"},
        {"the one below", Hex("02"), "3 ERROR: PerformHandshake: RTMP protocol version (2) not supported"},
        {"encrypted RTMP of another kind", Hex("08"),
         "3 ERROR: PerformHandshake: RTMP protocol version (8) not supported"},
        {"the highest", Hex("FF"), "3 ERROR: PerformHandshake: RTMP protocol version (ff) not supported"},
        {"an HTTP request", Hex("50"), "3 ERROR: PerformHandshake: RTMP protocol version (50) not supported"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        client.send(row.c0 + C1Scheme1());
        EXPECT_EQ(PerformHandshake(client.get()), -1);
        EXPECT_EQ(client.takeLines(), Lines{row.line});
        shutdown(client->Socket, SHUT_WR);
        EXPECT_EQ(client.receive(1), Bytes{});
    }
}

TEST(Handshake, AC1WithoutAGenuineDigestIsRefused)
{
    Bytes flippedInside = C1Scheme1();
    flippedInside[Offset1(flippedInside) + 31] ^= 1;
    Bytes flippedOutside = C1Scheme2();
    flippedOutside[1535] ^= 0x80;
    Bytes zero(kPacket);
    Bytes wrongBanner = Noise(5);
    Put(wrongBanner, Offset1(wrongBanner),
        Hmac(kServerBanner, WithoutDigest(wrongBanner, Offset1(wrongBanner))));
    Bytes wholeKey = Noise(6);
    Put(wholeKey, Offset1(wholeKey), Hmac(kPlayerBanner + kTail, WithoutDigest(wholeKey, Offset1(wholeKey))));
    const struct {
        const char *sentence;
        Bytes c1;
    } rows[] = {
        {"the plain handshake", zero},
        {"noise", Noise(7)},
        {"one bit of the digest is wrong", flippedInside},
        {"one bit of what is signed is wrong", flippedOutside},
        {"signed as a server", wrongBanner},
        {"signed with the whole key", wholeKey},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        client.send(Hex("03") + row.c1);
        EXPECT_EQ(PerformHandshake(client.get()), -1);
        EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: PerformHandshake: Cannot varify the client digest"});
        shutdown(client->Socket, SHUT_WR);
        EXPECT_EQ(client.receive(2 + kPacket).size(), 1 + kPacket); // no S2
    }
}

TEST(Handshake, AC2WithoutAGenuineSignatureIsRefused)
{
    const struct {
        const char *sentence;
        void (*spoil)(Bytes &c2, const Bytes &s1);
    } rows[] = {
        {"a copy of S1, as in the plain handshake", [](Bytes &c2, const Bytes &s1) { c2 = s1; }},
        {"its last bit is wrong", [](Bytes &c2, const Bytes &) { c2[1535] ^= 1; }},
        {"its first bit is wrong", [](Bytes &c2, const Bytes &) { c2[0] ^= 0x80; }},
        {"signed with the key of another S1",
         [](Bytes &c2, const Bytes &) {
             const Bytes key = Hmac(kPlayerBanner + kTail, Slice(Noise(11), 0, 32));
             Put(c2, 1504, Hmac(key, Slice(c2, 0, 1504)));
         }},
        {"signed with the server's key",
         [](Bytes &c2, const Bytes &s1) {
             const Bytes key = Hmac(kServerBanner + kTail, Slice(s1, Offset1(s1), 32));
             Put(c2, 1504, Hmac(key, Slice(c2, 0, 1504)));
         }},
        {"signed with the banner alone",
         [](Bytes &c2, const Bytes &s1) {
             Put(c2, 1504, Hmac(Hmac(kPlayerBanner, Slice(s1, Offset1(s1), 32)), Slice(c2, 0, 1504)));
         }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        Server server(client);
        client.send(Hex("03") + C1Scheme1());
        client.receive(1);
        const Bytes s1 = client.receive(kPacket);
        ASSERT_EQ(s1.size(), kPacket);
        Bytes c2 = C2For(s1);
        row.spoil(c2, s1);
        client.send(c2);
        EXPECT_EQ(server.result(), -1);
        EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: PerformHandshake: Client is not a genuine Adobe"});
    }
}

// ------------------------------------------------------------------------- players without the key, allowed

TEST(StandardHandshake, AC1WithoutADigestComesBackWholeAndC2MayHoldAnything)
{
    Bytes flipped = C1Scheme1();
    flipped[Offset1(flipped) + 31] ^= 1;
    const struct {
        const char *sentence;
        Bytes c1, c2;
    } rows[] = {
        {"zeros, and noise", Bytes(kPacket), Noise(20)},
        {"noise, and zeros", Noise(7), Bytes(kPacket)},
        {"a digest that is wrong by one bit", flipped, flipped},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        client->PlayerFlags = RTMP_PLAYERS_HANDSHAKE;
        Server server(client);
        client.send(Hex("03") + row.c1);
        client.receive(1 + kPacket);
        EXPECT_EQ(client.receive(kPacket), row.c1); // before C2: many players wait for it
        client.send(row.c2);
        EXPECT_EQ(server.result(), 0);
        EXPECT_EQ(client.takeLines(), (Lines{"6 INFO: PerformHandshake: Client handshake is not signed",
                                             "6 INFO: PerformHandshake: Handshake done"}));
    }
}

TEST(StandardHandshake, ASignedC1IsAnsweredWithASignatureAndC2IsNotVerified)
{
    for (const Bytes &c1 : {C1Scheme1(), C1Scheme2()}) {
        const size_t offset = c1 == C1Scheme1() ? Offset1(c1) : Offset2(c1);
        SocketClient client;
        client->PlayerFlags = RTMP_PLAYERS_HANDSHAKE;
        Server server(client);
        client.send(Hex("03") + c1);
        client.receive(1);
        const Bytes s1 = client.receive(kPacket);
        const Bytes s2 = client.receive(kPacket);
        ASSERT_EQ(s2.size(), kPacket);
        EXPECT_EQ(Slice(s2, 0, 1504), Slice(c1, 0, 1504));
        EXPECT_EQ(Slice(s2, 1504, 32),
                  Hmac(Hmac(kServerBanner + kTail, Slice(c1, offset, 32)), Slice(c1, 0, 1504)));
        client.send(s1);
        EXPECT_EQ(server.result(), 0);
        EXPECT_EQ(client.takeLines(), Lines{"6 INFO: PerformHandshake: Handshake done"});
    }
}

TEST(StandardHandshake, S0IsTheVersionAndEverythingElseIsAsItWas)
{
    const auto greeting = [](uint32_t flags) {
        srand(20);
        SocketClient client;
        client->PlayerFlags = flags;
        client.send(Hex("03"));
        client.endOfInput();
        EXPECT_EQ(PerformHandshake(client.get()), -1);
        Bytes bytes = client.receive(1 + kPacket);
        EXPECT_EQ(bytes.size(), 1 + kPacket);
        const size_t digest = 1 + Offset1(Slice(bytes, 1, kPacket));
        Put(bytes, 1, Bytes(4)); // the time, and with it the digest
        Put(bytes, digest, Bytes(32));
        return bytes;
    };
    const Bytes exact = greeting(RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_VERSION);
    const Bytes standard = greeting(RTMP_PLAYERS_VERSION);
    ASSERT_EQ(standard.size(), exact.size());
    EXPECT_NE(exact[0], 3);
    EXPECT_EQ(standard[0], 3);
    EXPECT_EQ(Slice(standard, 1, kPacket), Slice(exact, 1, kPacket));
}

TEST(StandardHandshake, TheVersionAloneAdmitsNobody)
{
    SocketClient client;
    client->PlayerFlags = RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_HANDSHAKE;
    client.send(Hex("03") + Noise(7));
    EXPECT_EQ(PerformHandshake(client.get()), -1);
    EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: PerformHandshake: Cannot varify the client digest"});
}

TEST(StandardHandshake, OfEncryptedRtmpIsRefusedAllTheSame)
{
    SocketClient client;
    client->PlayerFlags = RTMP_PLAYERS_ALL;
    client.send(Hex("06") + Noise(7));
    EXPECT_EQ(PerformHandshake(client.get()), -1);
    EXPECT_EQ(client.takeLines(),
              Lines{"3 ERROR: PerformHandshake: RTMP protocol version (6) not supported"});
}

TEST(StandardHandshake, APlayerThatLeavesBeforeC2IsWholeIsLogged)
{
    SocketClient client;
    client->PlayerFlags = RTMP_PLAYERS_ALL;
    client.send(Hex("03") + Noise(7) + Slice(Noise(8), 0, kPacket - 1));
    client.endOfInput();
    EXPECT_EQ(PerformHandshake(client.get()), -1);
    EXPECT_EQ(client.takeLines(), (Lines{"6 INFO: PerformHandshake: Client handshake is not signed", kClosed,
                                         "3 ERROR: PerformHandshake: Cannot read C2 packet from client"}));
}

// -------------------------------------------------------------------------------------------- cut short

TEST(Handshake, APlayerThatLeavesAtAnyStageIsLoggedByTheStage)
{
    const struct {
        const char *sentence;
        size_t sent; // of C0, C1
        const char *line;
    } rows[] = {
        {"before C0", 0, "3 ERROR: PerformHandshake: Cannot read C0 packet from client"},
        {"after C0", 1, "3 ERROR: PerformHandshake: Cannot read C1 packet from client"},
        {"one byte into C1", 2, "3 ERROR: PerformHandshake: Cannot read C1 packet from client"},
        {"one byte before the end of C1", kPacket,
         "3 ERROR: PerformHandshake: Cannot read C1 packet from client"},
        {"after C1", 1 + kPacket, "3 ERROR: PerformHandshake: Cannot read C2 packet from client"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        client.send(Slice(Hex("03") + C1Scheme1(), 0, row.sent));
        client.endOfInput();
        EXPECT_EQ(PerformHandshake(client.get()), -1);
        EXPECT_EQ(client.takeLines(), ClosedThen(row.line));
    }
}

// By the rules of the standard, too, a C1 that is signed calls for a C2, and both must be whole.
static void ExpectHalfHandshake(size_t length, uint32_t players)
{
    const Bytes sent = Hex("03") + C1Scheme1();
    SocketClient client;
    client->PlayerFlags = players;
    client.send(Slice(sent, 0, length));
    if (length > sent.size()) {
        client.send(Bytes(length - sent.size())); // whatever C2 is, it is not whole
    }
    client.endOfInput();
    EXPECT_EQ(PerformHandshake(client.get()), -1);
    const std::string stage = length == 0 ? "C0" : length < sent.size() ? "C1" : "C2";
    const std::string line = "3 ERROR: PerformHandshake: Cannot read " + stage + " packet from client";
    EXPECT_EQ(client.takeLines(), ClosedThen(line.c_str()));
}

TEST(Handshake, HalfOnesOfEveryLengthAreLoggedByTheStage)
{
    for (size_t length = 0; length < 1 + 2 * kPacket; length++) {
        SCOPED_TRACE(length);
        ExpectHalfHandshake(length, RTMP_PLAYERS_EXACT);
        ExpectHalfHandshake(length, RTMP_PLAYERS_ALL);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

// A player that sends back what it was sent: to the default it has no key; others get it back once more.
TEST(Handshake, AC1ThatRepeatsS1IsNoPlayersSignature)
{
    SocketClient client;
    Server server(client);
    client.send(Hex("03"));
    client.receive(1);
    client.send(client.receive(kPacket));
    EXPECT_EQ(server.result(), -1);
    EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: PerformHandshake: Cannot varify the client digest"});
}

TEST(StandardHandshake, AC1ThatRepeatsS1ComesBackAsS2)
{
    SocketClient client;
    client->PlayerFlags = RTMP_PLAYERS_HANDSHAKE;
    Server server(client);
    client.send(Hex("03"));
    client.receive(1);
    const Bytes s1 = client.receive(kPacket);
    client.send(s1);
    EXPECT_EQ(client.receive(kPacket), s1);
    client.send(s1);
    EXPECT_EQ(server.result(), 0);
    EXPECT_EQ(client.takeLines(), (Lines{"6 INFO: PerformHandshake: Client handshake is not signed",
                                         "6 INFO: PerformHandshake: Handshake done"}));
}

TEST(Handshake, CutAtRandomBytesItFailsAtTheStageItHadReached)
{
    std::mt19937 random(1935);
    for (int i = 0; i < 150; i++) {
        const size_t cut = random() % (1 + 2 * kPacket);
        SCOPED_TRACE(cut);
        SocketClient client;
        Server server(client);
        const Bytes sent = Hex("03") + C1Scheme1(static_cast<uint32_t>(i));
        client.send(Slice(sent, 0, std::min(cut, sent.size())));
        if (cut > sent.size()) {
            client.receive(1);
            const Bytes s1 = client.receive(kPacket);
            ASSERT_EQ(s1.size(), kPacket);
            client.send(Slice(C2For(s1), 0, cut - sent.size()));
        }
        client.endOfInput();
        EXPECT_EQ(server.result(), -1);
        const std::string stage = cut == 0 ? "C0" : cut <= kPacket ? "C1" : "C2";
        EXPECT_EQ(client.takeLines(), (Lines{kClosed, "3 ERROR: PerformHandshake: Cannot read " + stage +
                                                          " packet from client"}));
    }
}

TEST(Handshake, RandomBytesAreRefusedByTheStageTheyReach)
{
    std::mt19937 random(1936);
    for (int i = 0; i < 100; i++) {
        SCOPED_TRACE(i);
        SocketClient client;
        Bytes noise(1 + random() % 4000);
        for (uint8_t &byte : noise) {
            byte = static_cast<uint8_t>(random());
        }
        noise[0] = i % 4 == 0 ? noise[0] : 3;
        client.send(noise);
        client.endOfInput();
        EXPECT_EQ(PerformHandshake(client.get()), -1);
        const std::string last = client.log.lines().back();
        if (noise[0] != 3) {
            EXPECT_NE(last.find("not supported"), std::string::npos) << last;
        } else if (noise.size() < 1 + kPacket) {
            EXPECT_EQ(last, "3 ERROR: PerformHandshake: Cannot read C1 packet from client");
        } else {
            EXPECT_EQ(last, "3 ERROR: PerformHandshake: Cannot varify the client digest");
        }
    }
}

TEST(Handshake, APlayerThatIsGoneWhenS0IsSentIsLogged)
{
    SocketClient client;
    client.send(Hex("03"));
    client.closePeer();
    EXPECT_EQ(PerformHandshake(client.get()), -1);
    EXPECT_EQ(client.takeLines(), (Lines{"3 ERROR: RtmpSendBytes: Unable to send buffer: 32 (Broken pipe)",
                                         "3 ERROR: PerformHandshake: Cannot send S0 packet to client"}));
}

TEST(Handshake, AClosedSocketIsNeitherReadNorWritten)
{
    SocketClient client;
    client.send(Hex("03") + C1Scheme1());
    client->SocketClosed = 1;
    EXPECT_EQ(PerformHandshake(client.get()), -1);
    EXPECT_EQ(client.takeLines(),
              (Lines{"3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)",
                     "3 ERROR: PerformHandshake: Cannot read C0 packet from client"}));
}

// ---------------------------------------------------------------- writes that do not go out whole (over TLS)

namespace {

// Reads come from a script; the write of number `failing` takes `answer`, the others take all.
struct ScriptedTls {
    Bytes input;
    size_t taken = 0;
    int writes = 0;
    int failing;
    int answer;

    ScriptedTls(int failingWrite, int itsAnswer)
        : input(Hex("03") + C1Scheme1()), failing(failingWrite), answer(itsAnswer)
    {
        HostFakes::get().sslRead = [this](void *, void *buffer, int length) {
            const size_t count = std::min(static_cast<size_t>(length), input.size() - taken);
            memcpy(buffer, input.data() + taken, count);
            taken += count;
            return static_cast<int>(count);
        };
        HostFakes::get().sslWrite = [this](void *, const void *, int length) {
            errno = EPIPE;
            return ++writes == failing ? answer : length;
        };
    }
};

} // namespace

TEST(Handshake, AShortWriteIsAFailureAndIsNotRetried)
{
    const struct {
        const char *sentence;
        int write, answer;
        Lines lines;
    } rows[] = {
        {"S0, peer closed",
         1,
         0,
         {"6 INFO: RtmpSendBytes: Connection was closed by peer",
          "3 ERROR: PerformHandshake: Cannot send S0 packet to client"}},
        {"S1, one byte short", 2, 1535, {"3 ERROR: PerformHandshake: Cannot send S1 packet to client"}},
        {"S1, error",
         2,
         -1,
         {"3 ERROR: RtmpSendBytes: Unable to send buffer: 32 (Broken pipe)",
          "3 ERROR: PerformHandshake: Cannot send S1 packet to client"}},
        {"S2, one byte", 3, 1, {"3 ERROR: PerformHandshake: Cannot send S2 packet to client"}},
        {"S2, error",
         3,
         -1,
         {"3 ERROR: RtmpSendBytes: Unable to send buffer: 32 (Broken pipe)",
          "3 ERROR: PerformHandshake: Cannot send S2 packet to client"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        const ScriptedTls tls(row.write, row.answer);
        client->Tls = client.get();
        EXPECT_EQ(PerformHandshake(client.get()), -1);
        EXPECT_EQ(client.takeLines(), row.lines);
        EXPECT_EQ(tls.writes, row.write);
    }
}

// --------------------------------------------------------------------------------------------- the pieces

TEST(HmacSha256, AgreesWithRfc4231)
{
    Bytes digest(32);
    const Bytes key(20, 0x0B);
    const Bytes data = Text("Hi There");
    ASSERT_EQ(HMACsha256(data.data(), 8, key.data(), 20, digest.data()), 0);
    EXPECT_EQ(digest, Hex("b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"));
    const Bytes question = Text("what do ya want for nothing?");
    ASSERT_EQ(HMACsha256(question.data(), 28, Text("Jefe").data(), 4, digest.data()), 0);
    EXPECT_EQ(digest, Hex("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"));
}

TEST(DigestPosition, IsTheSumOfFourBytesModulo728BehindAFixedOffset)
{
    const struct {
        const char *sum;
        int32_t first, second;
    } rows[] = {
        {"00000000", 12, 776}, {"01020304", 22, 786},   {"FFFFD900", 739, 1503},
        {"FFFFDA00", 12, 776}, {"FFFFFFFF", 304, 1068}, {"FF000000", 267, 1031},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sum);
        Bytes packet(kPacket, 0x77);
        Put(packet, 8, Hex(row.sum));
        Put(packet, 772, Hex(row.sum));
        EXPECT_EQ(GetDigestPosition1(packet.data()), row.first);
        EXPECT_EQ(GetDigestPosition2(packet.data()), row.second);
    }
}

TEST(CalculateDigest, LeavesTheDigestItselfOutOfTheCalculation)
{
    const Bytes packet = Noise(11);
    for (uint32_t offset : {0U, 12U, 739U, 1503U}) {
        SCOPED_TRACE(offset);
        Bytes digest(32);
        ASSERT_EQ(CalculateDigest(offset, packet.data(), kPlayerBanner.data(), 30, digest.data()), 0);
        EXPECT_EQ(digest, Hmac(kPlayerBanner, WithoutDigest(packet, offset)));
    }
}

TEST(CalculateDigest, RefusesAnOffsetThatLeavesNoRoom)
{
    const Bytes packet = Noise(12);
    Bytes digest(32, 0xEE);
    for (uint32_t offset : {1504U, 1536U, 0xFFFFFFFFU}) {
        EXPECT_EQ(CalculateDigest(offset, packet.data(), kPlayerBanner.data(), 30, digest.data()), -1);
        EXPECT_EQ(CompareDigest(offset, packet.data(), kPlayerBanner.data(), 30), 255);
    }
    EXPECT_EQ(digest, Bytes(32, 0xEE));
}

TEST(CompareDigest, AnswersOneForEqualAndZeroForDifferent)
{
    Bytes packet = SignedAt(Noise(13), 100);
    EXPECT_EQ(CompareDigest(100, packet.data(), kPlayerBanner.data(), 30), 1);
    packet[131] ^= 1;
    EXPECT_EQ(CompareDigest(100, packet.data(), kPlayerBanner.data(), 30), 0);
}

TEST(ReadNoOfBytes, AnRtmptClientReadsNothing)
{
    SocketClient client;
    client->ConnType = RTMP_CONN_RTMPT;
    client.send(Hex("AABB"));
    Bytes buffer(2, 0x11);
    EXPECT_EQ(ReadNoOfBytes(client.get(), buffer.data(), 2), 0);
    EXPECT_EQ(buffer, Hex("1111"));
    client->ConnType = RTMP_CONN_RTMP;
    EXPECT_EQ(ReadNoOfBytes(client.get(), buffer.data(), 2), 0);
    EXPECT_EQ(buffer, Hex("AABB"));
}

TEST(ReadNoOfBytes, ReadsThroughTlsWhereTheClientHasIt)
{
    SocketClient client;
    const ScriptedTls tls(0, 0);
    client->Tls = client.get();
    Bytes buffer(1);
    EXPECT_EQ(ReadNoOfBytes(client.get(), buffer.data(), 1), 0);
    EXPECT_EQ(buffer, Hex("03"));
}

TEST(ReadNoOfBytes, CountsWhatWasRead)
{
    SocketClient client;
    client.send(Hex("AABBCC"));
    Bytes buffer(3);
    EXPECT_EQ(ReadNoOfBytes(client.get(), buffer.data(), 1), 0);
    EXPECT_EQ(client->BytesReceived, 1U);
    client->BytesReceived = 0xFFFFFFFF; // the count begins anew behind the largest
    EXPECT_EQ(ReadNoOfBytes(client.get(), buffer.data(), 2), 0);
    EXPECT_EQ(client->BytesReceived, 1U);
}
