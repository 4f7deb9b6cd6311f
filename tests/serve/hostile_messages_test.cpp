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

// A control message that is cut, or longer than it need be.
struct ShortControl {
    uint8_t type;
    size_t length;

    Bytes payload() const
    {
        return Slice(Hex("00 06 01 02 03 04 05 06 07"), 0, length);
    }
    uint32_t value() const // the first four bytes
    {
        return length < 2 ? 0 : length == 2 ? 0x00060000 : length == 3 ? 0x00060100 : 0x00060102;
    }
    // Without a byte there is nothing to read by default; of no event there is nothing to hear ever.
    bool endsTheConnection(const Served &way) const
    {
        return length == 0 && (!way.standard() || type == 4);
    }
};

// A size of 0 changes nothing where the standard holds.
uint32_t ChunkSizeAfter(const ShortControl &control, const Served &way)
{
    return way.standard() && control.value() == 0 ? 128 : control.value();
}

std::vector<std::string> LinesOf(const ShortControl &control, const Served &way)
{
    using Lines = std::vector<std::string>;
    const std::string received = "6 INFO: ParseRequestMsg: Received Protocol control message: ";
    const std::string inVain = "3 ERROR: ServeRtmpClient: Error occured while validating RTMP message";
    const std::string value = std::to_string(control.value());
    if (control.length == 0 && !way.standard()) {
        return {"6 INFO: RtmpReadBytes: Connection was closed by peer", // a read of nothing looks so
                "3 ERROR: ReadRtmpMessage: Reading bytes failed",
                "3 ERROR: ServeRtmpClient: Error occured while reading RTMP message"};
    }
    switch (control.type) {
    case 1:
        return {received + "SET CHUNK SIZE", "6 INFO: ParseRequestMsg: Client to Server Chunk Size : " +
                                                 std::to_string(ChunkSizeAfter(control, way))};
    case 2:
        return {received + "ABORT"};
    case 3:
        return {received + "ACKNOWLEDGEMENT"};
    case 5:
        return {received + "WIN ACKNOWLEDGEMENT SIZE",
                "6 INFO: ParseRequestMsg: Client window acknowledge size : " + value};
    case 6:
        return {received + "SET PEER BANDWIDTH", "6 INFO: ParseRequestMsg: Client peer bandwidth : " + value,
                inVain};
    default:
        break;
    }
    if (control.length == 0) {
        return {"3 ERROR: ParseUsrCtrlMsgReq: No data present in payload",
                "3 ERROR: ParseRequestMsg: Cannot parse user control message",
                "3 ERROR: ServeRtmpClient: Error occured while parsing RTMP message"};
    }
    // One byte of 0 is the beginning of a stream; the others are a ping.
    return control.length == 1
               ? Lines{"6 INFO: ParseUsrCtrlMsgReq: Received User control message: STREAM BEGIN", inVain}
               : Lines{inVain};
}

class HostileMessages : public testing::TestWithParam<Served> {
  protected:
    std::unique_ptr<ServedPeer> peerIn(uint32_t state)
    {
        served.rig.log.clear();
        auto peer = std::make_unique<ServedPeer>(served.rig, GetParam());
        peer->advanceTo(state);
        return peer;
    }
    void expectRead(const ShortControl &control, uint32_t state)
    {
        const std::unique_ptr<ServedPeer> peer = peerIn(state);
        served.rig.log.clear();
        peer->send(Chunks({.payload = control.payload(), .type = control.type, .chunkStream = 2}));
        const Round was = peer->round();
        EXPECT_EQ(was != ROUND_AGAIN || peer->hasEnded(), control.endsTheConnection(GetParam()));
        std::vector<std::string> lines = served.rig.log.lines();
        lines.erase(lines.begin()); // the round's
        EXPECT_EQ(lines, LinesOf(control, GetParam()));
        EXPECT_EQ(peer->state(), state);
        if (control.endsTheConnection(GetParam())) {
            return;
        }
        EXPECT_EQ(peer->client->InChunkSize, control.type == 1 ? ChunkSizeAfter(control, GetParam()) : 128U);
        EXPECT_EQ(peer->client->WindowAckSize, control.type == 5 ? control.value() : 0U);
        expectAnswer(*peer, control.type == 4 && control.length >= 2 && state == CLIENT_STATE_PLAY_DONE,
                     control.payload());
    }
    // A pong with the time of the ping, or nothing.
    void expectAnswer(ServedPeer &peer, bool isPing, const Bytes &ping)
    {
        const Bytes came = peer.replies();
        if (!isPing) {
            EXPECT_TRUE(came.empty()) << ToHex(came);
            return;
        }
        const Bytes time = Slice(Slice(ping, 2, 4) + Bytes(4), 0, 4);
        ASSERT_GE(came.size(), 6U);
        EXPECT_TRUE(Same(Slice(came, came.size() - 6, 6), Hex("0007") + time));
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
                expectRead({row.type, length}, state);
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

TEST_P(HostileMessages, ADeleteStreamEndsWhoeverHasAStreamAndNobodyElse)
{
    for (const uint32_t state : kStates) {
        SCOPED_TRACE(state);
        const std::unique_ptr<ServedPeer> peer = peerIn(state);
        peer->command(wire::DeleteStreamCommand());
        EXPECT_EQ(peer->round(), ROUND_AGAIN);
        EXPECT_EQ(peer->state(),
                  state >= CLIENT_STATE_CREATESTREAM_DONE ? uint32_t{CLIENT_STATE_DELETESTREAM} : state);
    }
    served.expectAlone();
}

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
