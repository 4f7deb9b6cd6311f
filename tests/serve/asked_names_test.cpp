// Names that a stream may be asked for by: where nobody has them, and where a session has.
#include "net/limits.h"
#include "serve/served_peer.h"
#include "support/wire_replies.h"

namespace {

using Lines = std::vector<std::string>;
using wire::Chunks;

struct AskedName {
    const char *name;
    std::string text;

    std::string kept() const // names are texts of C
    {
        return text.c_str();
    }
    // On the steady road no more than so many bytes of answers wait; each of two is at least as long as the
    // name.
    bool isTooLongFor(const Served &way) const
    {
        return way.steady && 2 * text.size() > kReplyBytes;
    }
};

std::string Long(size_t length)
{
    return std::string(length, 'n');
}

const AskedName kAskedNames[] = {
    {"Empty", ""},
    {"OneByte", "x"},
    {"Bytes255", Long(255)},
    {"Bytes256", Long(256)},
    {"Bytes65535", Long(65535)},
    {"FormatDirectives", "%s%n%d%99999x%*.*s%%"},
    {"Nul", std::string("no\0body", 7)},
    {"Nuls", std::string(300, '\0')},
    {"Newlines", "a\r\n\r\n3 ERROR: b\n"},
    {"Control", "\x1b[2J\x07\x7f\xff\xfe"},
    {"PathAndQuery", "../../live?a=%41&b=\"'<>\\"},
};

// A text of AMF0 has a length of 16 bits: of a longer one so much is sent.
std::string Sendable(const std::string &text)
{
    return text.substr(0, text.size() % 65536);
}

Bytes StatusNaming(const std::string &level, const std::string &code, const std::string &description,
                   const std::string &name, const std::string &clientId)
{
    using namespace amf0;
    return Values({String("onStatus"), Number(0), Null(),
                   Object({{"level", String(level)},
                           {"code", String(code)},
                           {"description", String(Sendable(description + " " + name))},
                           {"details", String(name)},
                           {"clientid", String(clientId)}})})
        .bytes;
}

class AskedNames : public testing::TestWithParam<AskedName> {
  protected:
    const std::string name = GetParam().kept();

    void ask(ServedPeer &peer)
    {
        const size_t size = 0x100000; // so that the name comes in one chunk
        peer.send(Chunks({.payload = BigEndian(size, 4), .type = 1, .chunkStream = 2}));
        EXPECT_EQ(peer.round(), ROUND_AGAIN);
        peer.send(Chunks({.payload = wire::PlayCommand(GetParam().text), .chunkStream = 8}, size));
    }
    static Lines linesOf(const ServedRig &served)
    {
        Lines lines = served.rig.log.lines();
        EXPECT_EQ(lines[0].find("6 INFO: ServeRtmpClient: Serving RTMP Client: "), 0U);
        lines.erase(lines.begin());
        return lines;
    }
};

class NameThatNobodyHas : public AskedNames {
  protected:
    void expectNotFound(const Served &way)
    {
        ServedRig served(way);
        {
            ServedPeer peer(served.rig, way, CLIENT_STATE_CREATESTREAM_DONE);
            ask(peer);
            served.rig.log.clear();
            (void)peer.round();
            EXPECT_TRUE(peer.hasEnded());
            expectLines(linesOf(served), way);
            expectAnswers(peer, way);
        }
        served.expectAlone();
    }

  private:
    void expectLines(const Lines &lines, const Served &way)
    {
        Lines expected = {"6 INFO: ParseCmdMsgReq: Received Command message: PLAY",
                          "3 ERROR: ParseCmdMsgReq: Stream name not found",
                          "3 ERROR: ParseRequestMsg: Cannot parse command request message",
                          "3 ERROR: ServeRtmpClient: Error occured while parsing RTMP message"};
        if (GetParam().isTooLongFor(way)) {
            expected.push_back("3 ERROR: SendMsgToClient: Failed to send message");
            expected.push_back("3 ERROR: ServeClientForError: Error occured while sending error response");
        }
        EXPECT_EQ(lines, expected);
    }
    void expectAnswers(ServedPeer &peer, const Served &way)
    {
        const std::vector<wire::Message> answers = peer.messages();
        if (GetParam().isTooLongFor(way)) {
            EXPECT_TRUE(answers.empty());
            EXPECT_EQ(LoadShared(&peer.client->Line->End), STEADY_END_REPLIES);
            return;
        }
        ASSERT_EQ(answers.size(), 2U);
        const std::string id = wire::ClientIdOf(answers[0]);
        EXPECT_TRUE(Same(answers[0].payload, StatusNaming("error", "NetStream.Play.StreamNotFound",
                                                          "Stream not found", name, id)));
        EXPECT_TRUE(Same(answers[1].payload,
                         StatusNaming("status", "NetStream.Play.Stop", "Stopped playing", name, id)));
    }
};

class NameOfASession : public AskedNames {
  protected:
    void expectPlayed(const Served &way)
    {
        ServedRig served(way);
        RtmpSession *named = served.rig.addSession(name.c_str());
        {
            ServedPeer peer(served.rig, way, CLIENT_STATE_CREATESTREAM_DONE);
            ask(peer);
            served.rig.log.clear();
            (void)peer.round();
            EXPECT_EQ(peer.client->Session, named);
            if (GetParam().isTooLongFor(way)) {
                EXPECT_TRUE(peer.messages().empty());
                EXPECT_EQ(LoadShared(&peer.client->Line->End), STEADY_END_REPLIES);
            } else {
                EXPECT_EQ(linesOf(served),
                          (Lines{"6 INFO: ParseCmdMsgReq: Received Command message: PLAY",
                                 "6 INFO: AddClientInSession: Adding client: No. of connected clients : 1"}));
                expectStarted(peer);
                expectFrame(named, peer);
            }
        }
        served.expectAlone();
    }

  private:
    void expectStarted(ServedPeer &peer)
    {
        const std::vector<wire::Message> answers = peer.messages();
        ASSERT_EQ(answers.size(), 7U);
        const std::string id = wire::ClientIdOf(answers[0]);
        EXPECT_TRUE(Same(answers[0].payload,
                         StatusNaming("status", "NetStream.Play.Reset", "Playing and resetting", name, id)));
        EXPECT_TRUE(Same(answers[2].payload,
                         StatusNaming("status", "NetStream.Play.Start", "Started playing", name, id)));
    }
    void expectFrame(RtmpSession *session, ServedPeer &peer)
    {
        const Bytes frame = Hex("00000002 65 07");
        const int32_t size = static_cast<int32_t>(frame.size());
        EXPECT_EQ(RtmpSendData(session, frame.data(), size, 0, 0, 1000, RTMP_FRAME_VIDEO), 0);
        const std::vector<wire::Message> frames = peer.messages();
        ASSERT_EQ(frames.size(), 1U);
        EXPECT_TRUE(Same(frames[0].payload, Hex("17 01 000000") + frame));
    }
};

} // namespace

TEST_P(NameThatNobodyHas, IsInBothAnswersAndInNoLine)
{
    for (const Served &way : kEveryServed) {
        SCOPED_TRACE(way.name);
        expectNotFound(way);
    }
}

TEST_P(NameOfASession, IsFoundAndPlayed)
{
    for (const Served &way : kEveryServed) {
        SCOPED_TRACE(way.name);
        expectPlayed(way);
    }
}

static std::string NameOfAskedName(const testing::TestParamInfo<AskedName> &row)
{
    return row.param.name;
}
INSTANTIATE_TEST_SUITE_P(Of, NameThatNobodyHas, testing::ValuesIn(kAskedNames), NameOfAskedName);
INSTANTIATE_TEST_SUITE_P(Of, NameOfASession, testing::ValuesIn(kAskedNames), NameOfAskedName);
