// What a streaming service says to a publisher, as chunks on the wire: what the host finds in its publish
// context, in its log and in the kinds, and what goes back.
#include "publish_fixture.h"

using namespace amf0;
using namespace wire;

namespace {

Value Command(const std::string &name, double transaction)
{
    return Values({String(name), Number(transaction), Null()});
}

Value Information(const std::string &level, const std::string &code, const std::string &description)
{
    return Object({{"level", String(level)},
                   {"code", String(code)},
                   {"description", String(description)},
                   {"clientid", Number(7)}});
}

Value operator+(const Value &left, const Value &right)
{
    return Values({left, right});
}

std::string Received(const std::string &name)
{
    return "Received Command message: " + name;
}

// The context as it must be after a command: all zero but for what the row has put in.
bool Equal(const PublishCtx &left, const PublishCtx &right)
{
    return memcmp(&left, &right, sizeof left) == 0;
}

template <size_t N> void Put(char (&field)[N], const std::string &text)
{
    text.copy(field, N - 1);
}

struct Row {
    std::string name;
    Value command;
    uint32_t kind;
    Lines lines; // behind "6 INFO: ParseCmdMsgReq: "
    void (*fill)(PublishCtx &expected) = nullptr;
    bool asksForRecording = false;
};

std::vector<Row> Rows()
{
    return {
        {"Result",
         Command("_result", 1) + String("ok"),
         RTMP_MSG_RESULT,
         {Received("RESULT"), "\tString: ok"},
         [](PublishCtx &expected) { expected.ResultTransactionId = 1; }},
        {"ResultOfCreateStream",
         Command("_result", 4) + Number(1),
         RTMP_MSG_RESULT,
         {Received("RESULT")},
         [](PublishCtx &expected) { expected.ResultTransactionId = 4; }},
        {"Error",
         Command("_error", 2) + Information("error", "NetConnection.Connect.Rejected", "no channel"),
         RTMP_MSG_ERROR,
         {Received("ERROR")},
         [](PublishCtx &expected) {
             expected.ErrorTransactionId = 2;
             Put(expected.ErrorCode, "NetConnection.Connect.Rejected");
             Put(expected.ErrorDescription, "no channel");
         }},
        {"OnStatus",
         Command("onStatus", 3) + Information("status", "NetStream.Publish.Start", "publishing"),
         RTMP_MSG_ON_STATUS,
         {Received("ONSTATUS")},
         [](PublishCtx &expected) {
             expected.StatusTransactionId = 3;
             Put(expected.StatusLevel, "status");
             Put(expected.StatusCode, "NetStream.Publish.Start");
             Put(expected.StatusDescription, "publishing");
         }},
        {"OnBWDone", Command("onBWDone", 0), RTMP_MSG_ON_BW_DONE, {Received("COMMAND_MSG_ON_BW_DONE")}},
        {"OnFCPublish",
         Command("onFCPublish", 0) + Information("status", "NetStream.Publish.Start", "cam"),
         RTMP_MSG_ON_FC_PUBLISH,
         {Received("onFCPublish")}},
        {"SetChallenge",
         Command("setChallenge", 0) + Values({Number(7654321), String("f3a9==")}),
         RTMP_MSG_SET_CHALLENGE,
         {Received("COMMAND_MSG_SET_CHALLENGE"), "Session Id : 7654321", "Challenge String : f3a9=="},
         [](PublishCtx &expected) {
             Put(expected.SessionIdText, "7654321");
             Put(expected.ChallengeString, "f3a9==");
         }},
        {"OnClientLogin",
         Command("onClientLogin", 9) + Information("status", "Login.Ok", "welcome"),
         RTMP_MSG_ON_CLIENT_LOGIN,
         {Received("ONCLIENTLOGIN")},
         [](PublishCtx &expected) {
             Put(expected.StatusLevel, "status");
             Put(expected.StatusCode, "Login.Ok");
             Put(expected.StatusDescription, "welcome");
         }},
        {"RecordStarted",
         Command("recordStarted", 0),
         RTMP_MSG_RECORD_STARTED,
         {Received("USTREAM_RECORD_STARTED")}},
        {"RecordError",
         Command("recordError", 0),
         RTMP_MSG_RECORD_ERROR,
         {Received("USTREAM_RECORD_ERROR")},
         nullptr,
         true},
        {"RecordReady", Command("recordReady", 0), RTMP_MSG_RECORD_READY, {Received("USTREAM_RECORD_READY")}},
        {"RecordSaved", Command("recordSaved", 0), RTMP_MSG_RECORD_SAVED, {Received("USTREAM_RECORD_SAVED")}},
        {"RecordTimerWarning",
         Command("recordTimerWarning", 0),
         RTMP_MSG_RECORD_TIMER_WARNING,
         {Received("USTREAM_RECORD_TIMER_WARNING")}},
        {"RecordLimitExceeded",
         Command("recordLimitExceeded", 0),
         RTMP_MSG_RECORD_LIMIT_EXCEEDED,
         {Received("USTREAM_RECORD_LIMIT_EXCEEDED")},
         nullptr,
         true},
        {"CheckBw", Command("_checkbw", 0), RTMP_MSG_CHECK_BW, {Received("CHECKBW")}},
        {"Unknown", Command("onMagic", 0), RTMP_MSG_UNSUPPORTED, {"Unsupported command message: onMagic"}},
    };
}

class ServiceCommand : public PublishFixture, public testing::WithParamInterface<Row> {};

} // namespace

TEST_P(ServiceCommand, ReachesTheHost)
{
    const Row &row = GetParam();
    const Handled handled = fromService(row.command);
    ASSERT_NE(handled.message, nullptr);
    EXPECT_EQ(handled.parsed, 0);
    EXPECT_EQ(handled.kind, row.kind);
    EXPECT_EQ(handled.answered, -1) << "nothing to answer";

    Lines lines;
    for (const std::string &line : row.lines) {
        lines.push_back(info(line));
    }
    EXPECT_EQ(log.lines(), lines);

    PublishCtx expected = {};
    if (row.fill != nullptr) {
        row.fill(expected);
    }
    EXPECT_TRUE(Equal(context, expected));

    const std::pair<RtmpClient *, std::string> start = {client, "start"};
    EXPECT_EQ(HostFakes::get().recordActions(), std::vector(row.asksForRecording ? 1 : 0, start));
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
    EXPECT_EQ(client->State, unsigned{CLIENT_STATE_INIT});
    expectSilence();
}

INSTANTIATE_TEST_SUITE_P(Service, ServiceCommand, testing::ValuesIn(Rows()),
                         [](const testing::TestParamInfo<Row> &row) { return row.param.name; });

// ------------------------------------------------------------------------------------- single commands

namespace {

class ServicePing : public PublishFixture {};
class ServiceStatistics : public PublishFixture {};
class ServiceTalk : public PublishFixture {};

const Value kPing = Command("ping", 0);

} // namespace

// timestamp:24  length:24  type:8  stream id:32. Chunk stream 0 has no basic header; the two bytes of room
// for it stay behind as zeros.
TEST_F(ServicePing, IsAnsweredWithAnEmptyCommand)
{
    calls::setClock(kStart + 0x0A0B0C);
    const Handled handled = fromService(kPing);
    EXPECT_EQ(handled.parsed, 0);
    EXPECT_EQ(handled.kind, unsigned{RTMP_MSG_USTREAM_PING});
    EXPECT_EQ(handled.answered, -1);
    EXPECT_TRUE(Same(service.socket.receive(13), Hex("0A0B0C 000000 14 00000000 0000")));
    EXPECT_EQ(log.lines(), Lines{info(Received("UstreamPing"))});
    expectSilence();
}

// Each later one is compared with the first: a delta, or the header type alone in the room that is left.
TEST_F(ServicePing, LaterAnswersAreShorter)
{
    makeSession();
    ASSERT_EQ(AddClientInSession(session, client), 0);
    (void)fromService(kPing);
    service.socket.receive(13);
    calls::setClock(kStart + 300);
    EXPECT_EQ(fromService(kPing).parsed, 0);
    EXPECT_TRUE(Same(service.socket.receive(5), Hex("00012C 0000"))) << "300 ms after the first";
    EXPECT_EQ(fromService(kPing).parsed, 0);
    EXPECT_TRUE(Same(service.socket.receive(2), Hex("03 00"))) << "at the same time as the one before";
    expectSilence();
}

TEST_F(ServicePing, ThatCannotBeAnsweredEndsTheLoop)
{
    service.command(kPing.bytes);
    service.socket.leave();
    HandleUntilOver(client);
    EXPECT_EQ(log.lines(), (Lines{info(Received("UstreamPing")),
                                  "3 ERROR: RtmpSendMsgBytes: Unable to send message: 32 (Broken pipe)",
                                  "6 INFO: RtmpSendMsgBytes: ========= Client Disconnected ========",
                                  "3 ERROR: SendMessage: SendMessage: Error occured while sending message",
                                  "3 ERROR: SendMsgToClient: Failed to send message",
                                  "3 ERROR: ParseCmdMsgReq: Cannot send USTREAM PONG message to server",
                                  "3 ERROR: ParseRequestMsg: Cannot parse command request message"}));
}

TEST_F(ServiceStatistics, ChangedViewerCountsAreReported)
{
    const auto statistics = [](double viewers, double allViewers) {
        return Command("moduleInfo", 0) + Object({{"viewers", Number(viewers)},
                                                  {"allViewers", Number(allViewers)},
                                                  {"recording", Boolean(true)},
                                                  {"title", String("cam")}});
    };
    (void)fromService(statistics(90001, 90002)); // the counts are the process's: whatever came before
    HostFakes::get().reset();
    log.clear();

    const Handled handled = fromService(statistics(41, 90002));
    EXPECT_EQ(handled.parsed, 0);
    EXPECT_EQ(handled.kind, unsigned{RTMP_MSG_UNSUPPORTED});
    const StatusReport current = {context.StatusHostContext, "rtmpCurrentViewerCount", "41",
                                  "Current viewer count"};
    EXPECT_EQ(HostFakes::get().statusReports(), std::vector{current});
    EXPECT_EQ(log.lines(), (Lines{info(Received("moduleInfo")), info("Get object list from AMF object list"),
                                  info("Number of Objects: 4"), info("\tviewers -> 41"),
                                  info("\tallViewers -> 90002"), info("\trecording -> false"),
                                  info("\ttitle -> cam"), info("\tNot really sure what to do with it")}));

    (void)fromService(statistics(41, 1234));
    const StatusReport total = {context.StatusHostContext, "rtmpTotalViewerCount", "1234",
                                "Total viewer count"};
    EXPECT_EQ(HostFakes::get().statusReports(), (std::vector{current, total}));
    (void)fromService(statistics(41, 1234));
    EXPECT_EQ(HostFakes::get().statusReports().size(), 2U) << "nothing new";

    const PublishCtx untouched = {};
    EXPECT_TRUE(Equal(context, untouched));
    expectSilence();
}

// A player that sent this would lose its connection: here the host decides, and stays.
TEST_F(ServiceStatistics, DoNotEndTheConnection)
{
    service.command((Command("moduleInfo", 0) + String("text")).bytes);
    service.command(Command("onFCPublish", 0).bytes);
    service.socket.finish();
    HandleUntilOver(client);
    EXPECT_EQ(log.lines(), (Lines{info(Received("moduleInfo")), info("Got a string object"),
                                  info("\tNot really sure what to do with it"), info(Received("onFCPublish")),
                                  "6 INFO: RtmpReadBytes: Connection was closed by peer",
                                  "3 ERROR: ReadRtmpMessage: Reading bytes failed"}));
}

// ------------------------------------------------------------------------------------------ whole talks

TEST_F(ServiceTalk, ChunksOfSeveralMessagesInterleave)
{
    const Bytes status = (Command("onStatus", 5) + Information("status", std::string(200, 'c'), "d")).bytes;
    const Bytes challenge = (Command("setChallenge", 0) + Values({Number(1), String("x")})).bytes;
    const Bytes chunks = Chunks({.payload = status, .chunkStream = 4, .stream = 1});
    ASSERT_GT(chunks.size(), 12U + 128);
    service.socket.send(Slice(chunks, 0, 12 + 128)); // the first chunk, then another message, then the rest
    service.command(challenge);
    service.socket.send(Slice(chunks, 12 + 128, chunks.size()));

    EXPECT_EQ(HandleOne(client).kind, unsigned{RTMP_MSG_SET_CHALLENGE});
    EXPECT_STREQ(context.ChallengeString, "x");
    EXPECT_STREQ(context.StatusCode, "");
    EXPECT_EQ(HandleOne(client).kind, unsigned{RTMP_MSG_ON_STATUS});
    EXPECT_EQ(context.StatusCode, std::string(200, 'c'));
    EXPECT_EQ(client->RecvPktCount, 2U);
}

TEST_F(ServiceTalk, TheServiceMayAnnounceLargerChunks)
{
    service.setChunkSize(65536);
    EXPECT_EQ(HandleOne(client).answered, 0) << "nothing to send, and nothing wrong";
    const std::string text(5000, 't');
    const Handled handled = fromService(Command("onStatus", 5) + Information("status", text, "description"));
    EXPECT_EQ(handled.parsed, 0);
    EXPECT_EQ(context.StatusCode, std::string(1023, 't')) << "cut at the end of its field";
    EXPECT_STREQ(context.StatusDescription, "description");
}

TEST_F(ServiceTalk, ACommandCutShortEndsTheLoop)
{
    Value damaged = Command("onStatus", 5) + Information("status", "code", "text");
    damaged.bytes.resize(damaged.bytes.size() - 5);
    service.command(damaged.bytes);
    service.command(Command("onFCPublish", 0).bytes);
    HandleUntilOver(client);
    EXPECT_FALSE(log.contains("onFCPublish"));
    EXPECT_EQ(log.lines().back(), "3 ERROR: ParseRequestMsg: Cannot parse command request message");
    const PublishCtx untouched = {};
    EXPECT_TRUE(Equal(context, untouched));
}

TEST_F(ServiceTalk, UserControlEventsAreReportedAndPingRequestsNeedASession)
{
    service.send({.payload = Hex("0000 00000001"), .type = 4, .chunkStream = 2});
    EXPECT_EQ(HandleOne(client).kind, unsigned{RTMP_MSG_STREAM_BEGIN});
    service.pingRequest(0x12345);
    EXPECT_EQ(HandleOne(client).kind, unsigned{RTMP_MSG_PING_REQUEST});
    expectSilence();

    makeSession();
    ASSERT_EQ(AddClientInSession(session, client), 0);
    service.pingRequest(0x12345);
    EXPECT_EQ(HandleOne(client).parsed, 0);
    EXPECT_TRUE(Same(service.read().raw, Hex("02 000000 000006 04 00000000 0007 00012345")));
}
