// The instruments themselves: what they write, and that they refuse what is not right.
#include "support/scripted_peer.h"
#include "support/test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace amf0;
using namespace wire;

namespace {

// A listener that hands one connection the given bytes and closes it.
class Teller {
  public:
    explicit Teller(const std::string &picture)
    {
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), length), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
        peer_ = std::make_unique<ScriptedPeer>(ntohs(address.sin_port));
        const int accepted = accept(listener_, nullptr, nullptr);
        const Bytes bytes = Hex(picture);
        EXPECT_EQ(send(accepted, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        close(accepted);
    }
    ~Teller()
    {
        close(listener_);
    }
    ScriptedPeer &peer()
    {
        return *peer_;
    }

  private:
    int listener_;
    std::unique_ptr<ScriptedPeer> peer_;
};

} // namespace

TEST(WireAmf, WritesTheBytesOfTheFormat)
{
    EXPECT_TRUE(Matches(Values({String("_result"), Number(1), Null()}).bytes,
                        "02 0007 5f726573756c74 00 3ff0000000000000 05"));
    EXPECT_TRUE(Matches(Object({{"app", String("live")}, {"fpad", Boolean(true)}}).bytes,
                        "03 0003 617070 02 0004 6c697665 0004 66706164 01 01 00 00 09"));
}

TEST(ScriptedPeer, CutsMessagesIntoChunksOfEveryForm)
{
    EXPECT_TRUE(Matches(Chunks({.payload = Hex("aabbcc"), .timestamp = 16}, 2),
                        "03 000010 000003 14 00000000 aabb c3 cc"));
    EXPECT_TRUE(Matches(Chunks({.payload = Hex("aa"), .chunkStream = 64, .headerType = 1, .basicForm = 2}),
                        "40 00 000000 000001 14 aa"));
    EXPECT_TRUE(Matches(Chunks({.payload = Hex("aa"),
                                .chunkStream = 320,
                                .headerType = 2,
                                .basicForm = 3,
                                .timestamp = 0x1234567}),
                        "81 00 01 ffffff 01234567 aa"));
    EXPECT_TRUE(Matches(Chunks({.payload = Hex("aa"), .type = 4, .chunkStream = 2, .stream = 1}),
                        "02 000000 000001 04 01000000 aa"));
    EXPECT_TRUE(Matches(Chunks({.payload = Hex("aa"), .headerType = 3}), "c3 aa"));
}

TEST(ChunkParser, ReadsChunksAndObeysTheChunkSize)
{
    Teller teller("02 000010 000004 01 00000000 00000002  04 000020 000003 14 01000000 aabb c4 cc"
                  "44 ffffff 000001 14 01000000 dd");
    EXPECT_EQ(teller.peer().read().payload, Hex("00000002"));
    const Message second = teller.peer().read();
    EXPECT_EQ(second.payload, Hex("aabbcc"));
    EXPECT_EQ(second.chunks, 2U);
    EXPECT_EQ(second.stream, 1U);
    const Message third = teller.peer().read();
    EXPECT_TRUE(third.extended);
    EXPECT_EQ(third.timestamp, 0x01000020U);
    EXPECT_THROW(teller.peer().read(), PeerError); // end of stream
}

TEST(ChunkParser, RefusesWhatTheServerMustNotSend)
{
    static const char *wrong[] = {
        "00 00 000010 000001 14 00000000 aa",                              // a long basic header
        "44 000010 000001 14 aa",                                          // nothing to inherit from
        "04 000010 000001 14 00000000 aa 04 000010 000001 14 00000000 aa", // full header not due
        "04 000010 000001 14 00000000 aa 44 000010 000001 14 aa",          // length and type unchanged
        "04 000010 000001 14 00000000 aa 84 000000 aa",                    // delta unchanged
    };
    for (const char *picture : wrong) {
        Teller teller(picture);
        EXPECT_THROW(teller.peer().read(2), PeerError) << picture;
    }
    Teller teller("04 000010 000082 14 00000000" + std::string(256, '0') + "04 0000");
    EXPECT_THROW(teller.peer().read(), PeerError) << "no separator";
}

TEST(Matches, TellsBytesApart)
{
    EXPECT_TRUE(Matches(Hex("01 02 03"), "01 ?? 03"));
    EXPECT_FALSE(Matches(Hex("01 02 03"), "01 02 04"));
    EXPECT_FALSE(Matches(Hex("01 02 03"), "01 02"));
    EXPECT_FALSE(Same(Hex("01"), Hex("01 02")));
}
