// Messages that a player does not send, in states in which it does not send them: whether the connection goes
// on, and that nobody else is harmed.
#include "serve/served_peer.h"
#include "support/test_server.h"

#include <algorithm>
#include <set>

namespace {

using wire::Chunks;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint32_t kThousand = 100; // each costs ten times as much
#else
constexpr uint32_t kThousand = 1000;
#endif

constexpr uint32_t kStates[] = {CLIENT_STATE_HANDSHAKE_DONE, CLIENT_STATE_CONNECT_DONE,
                                CLIENT_STATE_CREATESTREAM_DONE, CLIENT_STATE_PLAY_DONE,
                                CLIENT_STATE_PAUSE_DONE};

class HostileMessages : public testing::TestWithParam<Served> {
  protected:
    std::unique_ptr<ServedPeer> peerIn(uint32_t state)
    {
        served.rig.log.clear();
        auto peer = std::make_unique<ServedPeer>(served.rig, GetParam());
        peer->advanceTo(state);
        return peer;
    }
    ServedRig served{GetParam()};
};

// A message whose bytes mean something to every type that is read: a chunk size, a stream begin, no command.
const Bytes kPayload = Hex("00 00 01 00 00 00 00 00 00 00");

struct NamedCommand {
    const char *name;
    Bytes payload;
    bool refusedExactly; // the connection ends
    bool refusedToday;
};

Bytes CommandOf(const std::string &name, const char *rest = "05")
{
    return amf0::Values({amf0::String(name), amf0::Number(7)}).bytes + Hex(rest);
}

std::vector<NamedCommand> EveryCommand()
{
    return {
        {"connect", wire::ConnectCommand(), false, false},
        {"createStream", wire::CreateStreamCommand(), false, false},
        {"play", wire::PlayCommand("live"), false, false},
        {"pause", wire::PauseCommand(true), false, false},
        {"unpause", wire::PauseCommand(false), false, false},
        {"seek", CommandOf("seek", "05 00 0000000000000000"), true, false},
        {"publish", CommandOf("publish", "05 02 0003 'cam'"), true, true},
        {"an unknown one", CommandOf("getStreamLength"), true, false},
        {"moduleInfo", CommandOf("moduleInfo"), true, false},
        {"_result", CommandOf("_result"), false, false},
        {"_error", CommandOf("_error"), false, false},
        {"onStatus", CommandOf("onStatus"), false, false},
        {"onBWDone", CommandOf("onBWDone"), false, false},
        {"onFCPublish", CommandOf("onFCPublish"), false, false},
        {"ping", CommandOf("ping"), false, false},
        {"setChallenge", CommandOf("setChallenge"), false, false},
        {"onClientLogin", CommandOf("onClientLogin"), false, false},
        {"recordError", CommandOf("recordError"), false, false},
        {"recordSaved", CommandOf("recordSaved"), false, false},
        {"_checkbw", CommandOf("_checkbw"), false, false},
        {"of the highest transaction", wire::CreateStreamCommand(1e300), false, false},
    };
}

bool IsRefused(const NamedCommand &command, const Served &served)
{
    return served.standard() ? command.refusedToday : command.refusedExactly;
}

} // namespace

// RTMP 1.0, 5.4, 6.2 and 7.1: control messages are heard, commands must begin with a string. Of the rest,
// data and shared objects in both forms are passed over where that is allowed; all others end the connection.
TEST_P(HostileMessages, OfEveryTypeInEveryStateAreHeardPassedOverOrRefused)
{
    std::set<uint32_t> goesOn = {1, 2, 3, 4, 5, 6};
    if (GetParam().standard()) {
        goesOn.insert({15, 16, 17, 18, 19});
    }
    served.beQuiet();
    for (const uint32_t state : kStates) {
        for (uint32_t type = 0; type < 256; type++) {
            SCOPED_TRACE("type " + std::to_string(type) + " in state " + std::to_string(state));
            const std::unique_ptr<ServedPeer> peer = peerIn(state);
            peer->send(Chunks({.payload = kPayload, .type = static_cast<uint8_t>(type)}));
            (void)peer->round();
            EXPECT_EQ(peer->hasEnded(), goesOn.count(type) == 0);
            EXPECT_EQ(peer->state(), state);
            ASSERT_FALSE(HasFailure());
        }
    }
    served.expectAlone();
}

TEST_P(HostileMessages, ControlMessagesOfEveryShortLengthAreReadAsIfZerosFollowed)
{
    const struct {
        uint8_t type;
        size_t longest;
    } rows[] = {{1, 5}, {2, 5}, {3, 5}, {5, 5}, {6, 5}, {4, 9}};
    for (const uint32_t state : {CLIENT_STATE_HANDSHAKE_DONE, CLIENT_STATE_PLAY_DONE}) {
        for (const auto &row : rows) {
            for (size_t length = 0; length <= row.longest; length++) {
                SCOPED_TRACE("type " + std::to_string(row.type) + " of " + std::to_string(length));
                const std::unique_ptr<ServedPeer> peer = peerIn(state);
                const Bytes payload = Slice(Hex("00 06 01 02 03 04 05 06 07"), 0, length);
                peer->send(Chunks({.payload = payload, .type = row.type, .chunkStream = 2}));
                const Round was = peer->round();
                // Without a byte there is nothing to read by default; of no event there is nothing to hear
                // ever.
                const bool isOver = length == 0 && (!GetParam().standard() || row.type == 4);
                EXPECT_EQ(was != ROUND_AGAIN || peer->hasEnded(), isOver);
                if (row.type == 4 && length >= 2 && state == CLIENT_STATE_PLAY_DONE) {
                    const Bytes pong = peer->replies();
                    const Bytes time = Slice(Slice(payload, 2, 4) + Bytes(4), 0, 4);
                    EXPECT_TRUE(Same(Slice(pong, pong.size() - 6, 6), Hex("0007") + time));
                }
                ASSERT_FALSE(HasFailure());
            }
        }
    }
    served.expectAlone();
}

TEST_P(HostileMessages, OfEveryEventAreHeardOrForgottenButForThreeThatOnlyServersSend)
{
    std::set<uint32_t> refused = {1, 2, 4}; // stream EOF, stream dry, stream is recorded
    if (GetParam().standard()) {
        refused.clear(); // passed over
    }
    std::unique_ptr<ServedPeer> peer = peerIn(CLIENT_STATE_PLAY_DONE);
    for (uint32_t event = 0; event < 0x10000; event += event < 300 || event > 0xFFF0 ? 1 : 251) {
        SCOPED_TRACE(event);
        peer->send(
            Chunks({.payload = BigEndian(event, 2) + Hex("00000001 00000002"), .type = 4, .chunkStream = 2}));
        (void)peer->round();
        (void)peer->replies();
        EXPECT_EQ(peer->hasEnded(), refused.count(event) == 1);
        if (peer->hasEnded()) {
            peer = peerIn(CLIENT_STATE_PLAY_DONE);
        }
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_EQ(peer->state(), uint32_t{CLIENT_STATE_PLAY_DONE});
    peer.reset();
    served.expectAlone();
}

TEST_P(HostileMessages, PingsByTheThousandAreAllAnsweredAndLeaveNothingBehind)
{
    const std::unique_ptr<ServedPeer> peer = peerIn(CLIENT_STATE_PLAY_DONE);
    served.beQuiet();
    const uint32_t stored = peer->client->SendPktCount;
    for (uint32_t i = 1; i <= 5 * kThousand; i++) {
        peer->send(Chunks({.payload = Hex("0006") + BigEndian(i, 4), .type = 4, .chunkStream = 2}));
        ASSERT_EQ(peer->round(), ROUND_AGAIN);
        const Bytes pong = peer->replies();
        ASSERT_GE(pong.size(), 6U);
        ASSERT_TRUE(Same(Slice(pong, pong.size() - 6, 6), Hex("0007") + BigEndian(i, 4)));
    }
    EXPECT_LE(peer->client->SendPktCount, stored + 1);
    EXPECT_LE(peer->client->RecvPktCount, 2U);
}

// ---------------------------------------------------------------------------------------------- commands

TEST_P(HostileMessages, EveryCommandAThousandTimesCostsWhatItCostsOnce)
{
    served.beQuiet();
    for (const NamedCommand &command : EveryCommand()) {
        SCOPED_TRACE(command.name);
        const std::unique_ptr<ServedPeer> peer = peerIn(CLIENT_STATE_PLAY_DONE);
        size_t times = 0;
        for (; times < kThousand && !peer->hasEnded(); times++) {
            peer->command(command.payload);
            EXPECT_EQ(peer->round(),
                      IsRefused(command, GetParam()) && GetParam().steady ? ROUND_ERROR : ROUND_AGAIN);
            (void)peer->replies();
        }
        EXPECT_EQ(times, IsRefused(command, GetParam()) ? 1U : kThousand);
        EXPECT_LE(peer->client->RecvPktCount, 2U);
        EXPECT_LE(peer->client->SendPktCount, 6U);
        EXPECT_EQ(served.rig.session->ClientCount, 2);
        ASSERT_FALSE(HasFailure());
    }
    served.expectAlone();
}

TEST_P(HostileMessages, APlayOfAnotherSessionLeavesThePlayerWhereItIs)
{
    RtmpSession *other = served.rig.addSession("other");
    {
        const std::unique_ptr<ServedPeer> peer = peerIn(CLIENT_STATE_PLAY_DONE);
        peer->command(wire::PlayCommand("other"));
        EXPECT_EQ(peer->round(), ROUND_AGAIN);
        EXPECT_EQ(peer->client->Session, served.rig.session);
        EXPECT_EQ(other->ClientCount, 0);
        EXPECT_EQ(served.rig.session->ClientCount, 2);
    }
    served.expectAlone();
}

TEST_P(HostileMessages, ThousandsOfPlaysOfAMissingStreamLeaveNothingBehind)
{
    served.beQuiet();
    const size_t descriptors = wire::OpenDescriptors();
    for (uint32_t i = 0; i < 2 * kThousand; i++) {
        ServedPeer peer(served.rig, GetParam(), CLIENT_STATE_CREATESTREAM_DONE);
        peer.command(wire::PlayCommand("nobody"));
        ASSERT_EQ(peer.serve(), ROUND_ERROR);
        const Bytes replies = peer.replies();
        ASSERT_EQ(TimesIn(replies, "NetStream.Play.StreamNotFound"), 1U);
    }
    EXPECT_EQ(wire::OpenDescriptors(), descriptors);
    served.expectAlone();
}

INSTANTIATE_TEST_SUITE_P(Of, HostileMessages, testing::ValuesIn(kEveryServed), NameOfServed);
