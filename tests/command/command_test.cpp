#include "command_fixture.h"

#include <algorithm>

using namespace amf0;
using namespace received;

namespace {

using Lines = std::vector<std::string>;

class CommandDispatch : public CommandFixture {};

struct Row {
    const char *name;
    uint32_t kind;
    const char *line;
};

// By name alone: neither transaction id nor arguments.
const Row kRows[] = {
    {"connect", 2, "CONNECT"},
    {"createStream", 4, "CREATESTREAM"},
    {"play", 9, "PLAY"},
    {"pause", 10, "PAUSE"},
    {"deleteStream", 17, "DELETESTREAM"},
    {"_result", 0, "RESULT"},
    {"_error", 1, "ERROR"},
    {"onBWDone", 11, "COMMAND_MSG_ON_BW_DONE"},
    {"onStatus", 3, "ONSTATUS"},
    {"onFCPublish", 7, "onFCPublish"},
    {"ping", 22, "UstreamPing"},
    {"setChallenge", 18, "COMMAND_MSG_SET_CHALLENGE"},
    {"onClientLogin", 20, "ONCLIENTLOGIN"},
    {"recordStarted", 30, "USTREAM_RECORD_STARTED"},
    {"recordError", 31, "USTREAM_RECORD_ERROR"},
    {"recordReady", 32, "USTREAM_RECORD_READY"},
    {"recordSaved", 35, "USTREAM_RECORD_SAVED"},
    {"recordTimerWarning", 33, "USTREAM_RECORD_TIMER_WARNING"},
    {"recordLimitExceeded", 34, "USTREAM_RECORD_LIMIT_EXCEEDED"},
    {"_checkbw", 21, "CHECKBW"},
};

TEST_F(CommandDispatch, EveryNameReportsItsKindAndLogsOneLine)
{
    for (const bool publishing : {false, true}) {
        if (publishing) {
            withContext();
        }
        for (const Row &row : kRows) {
            SCOPED_TRACE(row.name);
            log.clear();
            const Parsed parsed = parse({String(row.name)});
            EXPECT_EQ(parsed.result, 0);
            EXPECT_EQ(parsed.kind, row.kind);
            EXPECT_EQ(log.lines(), Lines{info(std::string("Received Command message: ") + row.line)});
        }
    }
}

TEST_F(CommandDispatch, ModuleInfoReportsTheUnsupportedKind)
{
    const Parsed parsed = parse({String("moduleInfo")});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 53U);
    EXPECT_EQ(log.lines(), (Lines{info("Received Command message: moduleInfo"),
                                  info("\tNot really sure what to do with it")}));
}

TEST_F(CommandDispatch, AnUnknownNameReportsTheUnsupportedKind)
{
    const Parsed parsed = parse({String("releaseStream"), Number(2), Null(), String("live")});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 53U);
    EXPECT_EQ(parsed.values, 4);
    EXPECT_EQ(log.lines(), Lines{info("Unsupported command message: releaseStream")});
}

TEST_F(CommandDispatch, SeekAndPublishAreKnownWhereTheyAreAllowedOnly)
{
    client->PlayerFlags = RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_COMMANDS;
    for (const std::string name : {"seek", "publish"}) {
        log.clear();
        const Parsed parsed = parse({String(name), Number(0), Null(), Number(1000)});
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, 53U);
        EXPECT_EQ(log.lines(), Lines{info("Unsupported command message: " + name)});
    }
    client->PlayerFlags = RTMP_PLAYERS_COMMANDS;
    log.clear();
    const Parsed seek = parse({String("seek"), Number(0), Null(), Number(1000)});
    EXPECT_EQ(seek.result, 0);
    EXPECT_EQ(seek.kind, 55U);
    const Parsed publish = parse({String("publish"), Number(5), Null(), String("cam"), String("live")});
    EXPECT_EQ(publish.result, -1);
    EXPECT_EQ(publish.kind, 56U);
    EXPECT_EQ(log.lines(),
              (Lines{info("Received Command message: SEEK"), info("Received Command message: PUBLISH"),
                     error("Publishing is not served")}));
}

TEST_F(CommandDispatch, NamesCompareExactly)
{
    for (const std::string name : {"Connect", "conn", "connects", "ping ", "", "PLAY", "recordstarted"}) {
        SCOPED_TRACE(name);
        log.clear();
        EXPECT_EQ(parse({String(name)}).kind, 53U);
        EXPECT_EQ(log.lines(), Lines{info("Unsupported command message: " + name)});
    }
}

TEST_F(CommandDispatch, ANameThatIsNoStringIsEmpty)
{
    for (const Value &first : {Number(4.7), Null(), Object({{"connect", String("live")}}), Boolean(true)}) {
        log.clear();
        EXPECT_EQ(parse({first, Number(1)}).kind, 53U);
        EXPECT_EQ(log.lines(), Lines{info("Unsupported command message: ")});
    }
}

TEST_F(CommandDispatch, AnEmptyPayloadHasNoName)
{
    const Parsed parsed = parse(Bytes());
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 53U);
    EXPECT_EQ(parsed.values, 0);
    EXPECT_EQ(log.lines(), Lines{info("Unsupported command message: ")});
}

TEST_F(CommandDispatch, TheDecodedValuesAreAttachedToThePacket)
{
    EXPECT_EQ(parse({String("createStream"), Number(2), Null()}).values, 3);
}

TEST_F(CommandDispatch, APayloadThatDoesNotDecodeFailsAndAttachesNothing)
{
    const Parsed parsed = parse(Values({String("createStream"), Number(2)}).bytes + Hex("02"));
    EXPECT_EQ(parsed.result, -1);
    EXPECT_EQ(parsed.kind, kUntouched);
    EXPECT_EQ(parsed.values, -1);
    EXPECT_EQ(log.lines(),
              (Lines{"3 ERROR: DecodeAmfBuffer: Corrupted Property", error("Cannot decode AMF buffer")}));
}

TEST_F(CommandDispatch, WithoutMemoryForTheListNothingIsDecoded)
{
    calls::failNext(Call::Calloc);
    const Parsed parsed = parse({String("createStream"), Number(2)});
    EXPECT_EQ(parsed.result, -1);
    EXPECT_EQ(parsed.kind, kUntouched);
    EXPECT_EQ(parsed.values, -1);
    EXPECT_EQ(log.lines(), Lines{error("Cannot allocate memory to amfObject")});
}

TEST_F(CommandDispatch, WithoutALoggerLinesGoToStandardOutput)
{
    server.Logger = nullptr;
    testing::internal::CaptureStdout();
    EXPECT_EQ(parse({String("_checkbw")}).kind, 21U);
    EXPECT_EQ(produced::CapturedStdout(),
              "RTMPWriter: INFO: ParseCmdMsgReq: Received Command message: CHECKBW\n");
}

// One rich message for every command. "ping" is left out of the session so that it needs no lock.
const std::vector<Value> &RichMessages()
{
    static const std::vector<Value> messages = {
        Values({String("connect"), Number(1),
                Object({{"app", String("live")},
                        {"flashVer", String("LNX")},
                        {"tcUrl", String("rtmp://h/live")},
                        {"fpad", Boolean(false)},
                        {"audioCodecs", Number(3575)},
                        {"videoCodecs", Number(252)},
                        {"objectEncoding", Number(0)}})}),
        Values({String("createStream"), Number(2), Null()}),
        Values({String("play"), Number(0), Null(), String("live"), Number(-2), Number(-1), Boolean(true)}),
        Values({String("pause"), Number(0), Null(), Boolean(true), Number(1000)}),
        Values({String("deleteStream"), Number(0), Null(), Number(1)}),
        Values({String("_result"), Number(5), Null(), String("text")}),
        Values({String("_error"), Number(6), Null(),
                Object({{"code", String("c")}, {"description", String("d")}, {"level", String("error")}})}),
        Values({String("onBWDone"), Number(0), Null()}),
        Values({String("onStatus"), Number(7), Null(),
                Object({{"level", String("status")},
                        {"code", String("c")},
                        {"description", String("d")},
                        {"clientid", Number(9)}})}),
        Values({String("onFCPublish"), Number(0), Null()}),
        Values({String("moduleInfo"), Number(0), Null(),
                Object({{"viewers", Number(3)},
                        {"allViewers", Number(4)},
                        {"b", Boolean(true)},
                        {"s", String("x")},
                        {"o", Object({{"i", Number(1)}})},
                        {"n", Null()}})}),
        Values({String("ping"), Number(0), Null()}),
        Values({String("setChallenge"), Number(0), Null(), Number(77), String("abc")}),
        Values({String("onClientLogin"), Number(0), Null(), Object({{"level", String("status")}})}),
        Values({String("recordStarted"), Number(0), Null()}),
        Values({String("recordError"), Number(0), Null()}),
        Values({String("recordReady"), Number(0), Null()}),
        Values({String("recordSaved"), Number(0), Null()}),
        Values({String("recordTimerWarning"), Number(0), Null()}),
        Values({String("recordLimitExceeded"), Number(0), Null()}),
        Values({String("_checkbw"), Number(0), Null()}),
    };
    return messages;
}

TEST_F(CommandDispatch, CutAtEveryByteDecodesExactlyWhereValuesAreWhole)
{
    for (const bool publishing : {false, true}) {
        if (publishing) {
            withContext();
        }
        for (const Value &message : RichMessages()) {
            for (size_t cut = 0; cut <= message.bytes.size(); cut++) {
                SCOPED_TRACE(ToHex(Slice(message.bytes, 3, 8)) + " cut at " + std::to_string(cut));
                const bool whole =
                    std::find(message.wholeAt.begin(), message.wholeAt.end(), cut) != message.wholeAt.end();
                const Parsed parsed = parse(Slice(message.bytes, 0, cut));
                EXPECT_EQ(parsed.result, whole ? 0 : -1);
                EXPECT_EQ(parsed.values >= 0, whole);
            }
        }
    }
}

} // namespace
