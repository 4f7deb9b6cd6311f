// A whole session of a well-behaved player, damaged in every place: cut, a bit turned, chunks doubled, left
// out and swapped. Each time what is in front of the damage is served and answered, the connection ends, and
// whoever watches beside it gets the next frame.
#include "serve/served_peer.h"

#include <cstring>
#include <fstream>
#include <iterator>

namespace {

using wire::Chunks;
using wire::Outgoing;

// What tells that a message of the session has been answered, and how often it has come by then; nothing
// where a message is only heard.
constexpr struct {
    const char *text;
    size_t times;
} kAnswers[] = {{"NetConnection.Connect.Success", 1},
                {"", 0},
                {"_result", 2},
                {"", 0},
                {"", 0},
                {"NetStream.Play.Start", 1},
                {"", 0},
                {"NetStream.Pause.Notify", 1},
                {"", 0},
                {"NetStream.Play.Start", 2},
                {"", 0}};

// What a player sends behind its handshake, message by message, each in its chunks.
std::vector<std::vector<Bytes>> WholeSession()
{
    const Outgoing messages[] = {
        {.payload = wire::ConnectCommand()},
        {.payload = Hex("002625A0"), .type = 5, .chunkStream = 2},
        {.payload = wire::CreateStreamCommand()},
        {.payload = Hex("0003 00000001 00000BB8"), .type = 4, .chunkStream = 2},
        {.payload = Hex("00000100"), .type = 1, .chunkStream = 2},
        {.payload = wire::PlayCommand("live"), .chunkStream = 8, .stream = 1},
        {.payload = Hex("00001000"), .type = 3, .chunkStream = 2, .headerType = 1},
        {.payload = wire::PauseCommand(true), .chunkStream = 8, .stream = 1, .headerType = 1},
        {.payload = Hex("0006 00000001"), .type = 4, .chunkStream = 2, .headerType = 1},
        {.payload = wire::PauseCommand(false), .chunkStream = 8, .stream = 1, .headerType = 1},
        {.payload = wire::DeleteStreamCommand()},
    };
    static_assert(std::size(messages) == std::size(kAnswers));
    std::vector<std::vector<Bytes>> out;
    for (const Outgoing &message : messages) {
        Bytes chunks = Chunks(message);
        const size_t header = chunks.size() - message.payload.size() - (message.payload.size() - 1) / 128;
        std::vector<Bytes> pieces;
        for (size_t at = 0; at < chunks.size();) {
            const size_t length = (at == 0 ? header : 1) + 128;
            pieces.push_back(Slice(chunks, at, length));
            at += length;
        }
        out.push_back(pieces);
    }
    return out;
}

std::vector<Bytes> ChunksOf(const std::vector<std::vector<Bytes>> &session)
{
    std::vector<Bytes> out;
    for (const std::vector<Bytes> &message : session) {
        out.insert(out.end(), message.begin(), message.end());
    }
    return out;
}

Bytes Joined(const std::vector<Bytes> &chunks)
{
    Bytes out;
    for (const Bytes &chunk : chunks) {
        Append(out, chunk);
    }
    return out;
}

// What a real player sent behind its handshake. In front of it stand three bytes for the fuzzer's target.
Bytes RecordedBytes(const std::string &name)
{
    std::ifstream file(std::string(RTMPCAST_SESSIONS) + "/" + name, std::ios::binary);
    const Bytes bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_GT(bytes.size(), 300U) << name;
    return Slice(bytes, 3, bytes.size());
}

class DamagedSession : public testing::TestWithParam<Served> {
  protected:
    // Serves these bytes to the end.
    Round serve(const Bytes &bytes)
    {
        served.rig.log.clear();
        quietRounds = 0;
        ServedPeer peer(served.rig, GetParam());
        peer.send(bytes);
        const Round was = peer.serve();
        replies = peer.replies();
        return was;
    }
    // Lines are not kept, and rounds are counted all the same.
    void beQuiet()
    {
        served.rig.log.get()->LogFunction = [](void *, uint8_t, const char *format, va_list) {
            quietRounds += strstr(format, "Serving RTMP Client") != nullptr ? 1 : 0;
        };
    }
    // All messages that end in front of this byte have been served, and answered if they are.
    void expectServedUpTo(size_t damage)
    {
        size_t end = 0;
        for (size_t i = 0; i < session.size(); i++) {
            end += Joined(session[i]).size();
            if (end > damage) {
                break;
            }
            EXPECT_GT(quietRounds, i + 1); // and the next message was waited for
            EXPECT_GE(TimesIn(replies, kAnswers[i].text), kAnswers[i].times) << kAnswers[i].text;
        }
    }
    // It ended by itself, and the server is ready for the next: nobody closed the client.
    static bool isOver(Round was)
    {
        return was == ROUND_ERROR || was == ROUND_DELETED;
    }
    size_t rounds()
    {
        return served.rig.log.count("INFO: ServeRtmpClient: Serving RTMP Client: ");
    }
    ServedRig served{GetParam()};
    const std::vector<std::vector<Bytes>> session = WholeSession();
    const std::vector<Bytes> chunks = ChunksOf(session);
    Bytes replies;
    static inline size_t quietRounds = 0;
};

} // namespace

TEST_P(DamagedSession, UndamagedIsServedToItsEnd)
{
    EXPECT_EQ(serve(Joined(chunks)), ROUND_DELETED);
    EXPECT_EQ(rounds(), session.size() + 1);
    EXPECT_EQ(served.rig.log.count("3 ERROR"), 1U); // a ping response: nothing is said to it
    EXPECT_GT(replies.size(), 1000U);
    served.expectAlone();
}

TEST_P(DamagedSession, CutAtEveryByteIsServedUpToItsLastWholeMessage)
{
    const Bytes whole = Joined(chunks);
    std::vector<size_t> ends;
    size_t end = 0;
    for (const std::vector<Bytes> &message : session) {
        end += Joined(message).size();
        ends.push_back(end);
    }
    for (size_t cut = 0; cut < whole.size(); cut++) {
        SCOPED_TRACE(cut);
        const size_t messages =
            static_cast<size_t>(std::upper_bound(ends.begin(), ends.end(), cut) - ends.begin());
        EXPECT_EQ(serve(Slice(whole, 0, cut)), ROUND_ERROR);
        EXPECT_EQ(rounds(), messages + 1);
        EXPECT_EQ(served.rig.log.count("3 ERROR: ReadRtmpMessage: Reading bytes failed"), 1U);
        EXPECT_EQ(served.rig.session->ClientCount, 1);
        ASSERT_FALSE(HasFailure());
    }
    served.expectAlone();
}

TEST_P(DamagedSession, EveryBitTurnedEndsWithItsConnectionAlone)
{
    beQuiet();
    const Bytes whole = Joined(chunks);
    for (size_t bit = 0; bit < 8 * whole.size(); bit++) {
        SCOPED_TRACE(bit);
        Bytes damaged = whole;
        damaged[bit / 8] ^= static_cast<uint8_t>(0x80 >> bit % 8);
        EXPECT_TRUE(isOver(serve(damaged)));
        expectServedUpTo(bit / 8);
        EXPECT_EQ(served.rig.session->ClientCount, 1);
        ASSERT_FALSE(HasFailure());
    }
    served.expectAlone();
}

TEST_P(DamagedSession, EveryChunkDoubledDroppedOrSwappedEndsWithItsConnectionAlone)
{
    beQuiet();
    size_t before = 0; // bytes in front of this chunk
    for (size_t at = 0; at < chunks.size(); before += chunks[at++].size()) {
        std::vector<Bytes> doubled = chunks, dropped = chunks, swapped = chunks;
        doubled.insert(doubled.begin() + static_cast<long>(at), chunks[at]);
        dropped.erase(dropped.begin() + static_cast<long>(at));
        std::swap(swapped[at], swapped[(at + 1) % chunks.size()]);
        for (const std::vector<Bytes> &damaged : {doubled, dropped, swapped}) {
            SCOPED_TRACE(at);
            EXPECT_TRUE(isOver(serve(Joined(damaged))));
            expectServedUpTo(damaged[0] == chunks[0] ? before : 0); // the last is swapped with the first
            EXPECT_EQ(served.rig.session->ClientCount, 1);
            ASSERT_FALSE(HasFailure());
        }
    }
    served.expectAlone();
}

// More of it is never served or answered less.
TEST_P(DamagedSession, OfARealPlayerCutAtEveryByteIsServedAndAnsweredAsFarAsItGoes)
{
    served.rig.addSession("stream");
    beQuiet();
    for (const char *name : {"recorded_rtmpdump_exact", "recorded_ffmpeg_steady"}) {
        SCOPED_TRACE(name);
        const Bytes whole = RecordedBytes(name);
        size_t rounds = 0, answers = 0;
        for (size_t cut = 0; cut <= whole.size(); cut++) {
            const Round was = serve(Slice(whole, 0, cut));
            const size_t answered = TimesIn(replies, "_result") + TimesIn(replies, "NetStream.Play.");
            EXPECT_TRUE(was == ROUND_ERROR || (was == ROUND_DELETED && cut == whole.size())) << cut;
            EXPECT_GE(quietRounds, rounds) << cut;
            EXPECT_GE(answered, answers) << cut;
            EXPECT_LE(quietRounds, rounds + 1) << cut; // a byte completes a message at most
            EXPECT_EQ(served.rig.session->ClientCount, 1) << cut;
            ASSERT_FALSE(HasFailure());
            rounds = std::max<size_t>(quietRounds, 1);
            answers = answered;
        }
        // connect, createStream, reset and start of the play; by default ffmpeg asks for too much before.
        const bool isRefused = !GetParam().standard() && strstr(name, "ffmpeg") != nullptr;
        EXPECT_EQ(answers, isRefused ? 2U : 4U);
    }
    served.expectAlone();
}

INSTANTIATE_TEST_SUITE_P(Of, DamagedSession, testing::ValuesIn(kEveryServed), NameOfServed);
