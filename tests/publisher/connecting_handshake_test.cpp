// The handshake of a publisher, plain and signed, seen from the service.
#include "publisher_fixture.h"

using namespace publisher;
using namespace wire;

namespace {

constexpr size_t kDigest = 32;
constexpr size_t kSigned = 1536 - kDigest;

Bytes DigestIn(const Bytes &packet, size_t at)
{
    return Slice(packet, at, kDigest);
}

} // namespace

// RTMP 1.0, 5.2.3 and 5.2.4.
TEST(PublisherHandshake, IsPlainUnlessItIsToBeSigned)
{
    Rig rig;
    rig.start();
    const HandshakeRecord record = rig.handshake();
    EXPECT_EQ(Slice(record.c1, 4, 4), Bytes(4, 0)) << "a version of 0: nothing is signed";
    EXPECT_TRUE(Same(record.c2, record.s1));
}

TEST(PublisherHandshake, RandomBytesAreOtherOnesEachTime)
{
    Rig first, second;
    first.start();
    second.start();
    EXPECT_NE(Slice(first.handshake().c1, 8, 1528), Slice(second.handshake().c1, 8, 1528));
}

class PublisherSigns : public testing::TestWithParam<int> {};

TEST_P(PublisherSigns, C1AndC2)
{
    for (int round = 0; round < 20; round++) { // the places of the digests are random
        Rig rig({.isSigned = true});
        rig.start();
        const HandshakeRecord record = rig.handshake(GetParam());
        EXPECT_NE(Slice(record.c1, 4, 4), Bytes(4, 0));
        const size_t at = DigestOffset(record.c1, 1);
        EXPECT_TRUE(Same(DigestIn(record.c1, at), PacketDigest(record.c1, at, PlayerKey().substr(0, 30))));

        const Bytes digest = DigestIn(record.s1, DigestOffset(record.s1, GetParam()));
        const Bytes key = HmacSha256(digest, PlayerKey());
        const std::string keyText(key.begin(), key.end());
        EXPECT_TRUE(
            Same(Slice(record.c2, kSigned, kDigest), HmacSha256(Slice(record.c2, 0, kSigned), keyText)));
        EXPECT_EQ(rig.service->read().type, 1);
    }
}

INSTANTIATE_TEST_SUITE_P(PlacesInS1, PublisherSigns, testing::Values(1, 2));

TEST(PublisherHandshake, ASignedOneIsFollowedByAPlainC2WhereTheServiceSignsNothing)
{
    Rig rig({.isSigned = true});
    rig.start();
    const HandshakeRecord record = rig.handshake();
    EXPECT_TRUE(Same(record.c2, record.s1));
    EXPECT_EQ(rig.service->read().type, 1);
}

TEST(PublisherHandshake, MayComeByteByByteFromTheService)
{
    Rig rig;
    rig.start();
    rig.service->socket.receive(1537);
    rig.service->socket.sendInPieces(Bytes(1 + 1536 + 1536, 3), 1);
    EXPECT_EQ(rig.service->socket.receive(1536), Bytes(1536, 3));
    EXPECT_EQ(rig.service->read().type, 1);
}

TEST(PublisherHandshake, FailsBeforeAServerThatSpeaksOtherwise)
{
    Rig rig;
    rig.start();
    rig.service->socket.receive(1537);
    rig.service->socket.send(Text("HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n"));
    rig.service->socket.leave();
    EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
}

// The steps alone: whoever makes them has the chunk size announced by the handshake.
TEST(PublisherHandshake, AnnouncesTheChunkSize)
{
    Rig rig({.app = std::string(500, 'a')});
    std::thread service([&rig] {
        rig.handshake();
        EXPECT_TRUE(Same(rig.service->read().raw, Hex("02 000000 000004 01 00000000 00001000")));
        EXPECT_EQ(rig.command().chunks, 1U);
        rig.answer(1);
    });
    double transaction = 0;
    EXPECT_EQ(RtmpPublisherHandshake(rig.publisher), 0);
    EXPECT_EQ(RtmpPublisherSend(rig.publisher, RTMP_PUBLISHER_CONNECT, &transaction), 0);
    EXPECT_EQ(RtmpPublisherAwait(rig.publisher, transaction), 0);
    service.join();
}
