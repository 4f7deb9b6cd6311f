#include "command_fixture.h"
#include "state/session_list.h"

#include <cmath>
#include <limits>

using namespace amf0;
using namespace received;

namespace {

using Lines = std::vector<std::string>;

const std::string kConnectLine = "Received Command message: CONNECT";
const std::string kPlayLine = "Received Command message: PLAY";
const std::string kPauseLine = "Received Command message: PAUSE";

class ConnectCommand : public CommandFixture {};
class PlayCommand : public CommandFixture {};
class PauseCommand : public CommandFixture {};

// ---------------------------------------------------------------------------------------------- connect

struct ConnectRow {
    const char *sentence;
    std::string key;
    Value value;
    const char *failure; // null: passes; "\\" at the end: the line has no line end
};

const double kInfinity = std::numeric_limits<double>::infinity();

const ConnectRow kConnectRows[] = {
    {"app live", "app", String("live"), nullptr},
    {"app with live inside", "app", String("mylive/stream"), nullptr},
    {"app ending in live", "app", String("relive"), nullptr},
    {"app without live", "app", String("vod"), "Unsupported app value"},
    {"app with a part of live at its end", "app", String("xliv"), "Unsupported app value"},
    {"app in capitals", "app", String("LIVE"), "Unsupported app value"},
    {"empty app", "app", String(""), "Unsupported app value"},
    {"app as a number", "app", Number(1), "Invalid app value"},
    {"app as null", "app", Null(), "Invalid app value"},
    {"key ap counts as app", "ap", String("live"), nullptr},
    {"key ap is checked as app", "ap", String("vod"), "Unsupported app value"},
    {"key a counts as app, the first that it could be", "a", Number(4095), "Invalid app value"},
    {"the empty key counts as app", "", String("vod"), "Unsupported app value"},
    {"a longer key is another", "apps", Number(1), nullptr},
    {"keys are case-sensitive", "App", Number(1), nullptr},
    {"flashVer", "flashVer", String("LNX 9,0,124,2"), nullptr},
    {"flashVer as a number", "flashVer", Number(9), "Invalid flashVer value"},
    {"key f counts as flashVer", "f", Boolean(true), "Invalid flashVer value"},
    {"swfUrl", "swfUrl", String("http://h/p.swf"), nullptr},
    {"swfUrl of another type", "swfUrl", Number(1), nullptr},
    {"tcUrl", "tcUrl", String("rtmp://h/live"), nullptr},
    {"tcUrl as null", "tcUrl", Null(), "Invalid tcUrl value"},
    {"fpad true", "fpad", Boolean(true), nullptr},
    {"fpad false", "fpad", Boolean(false), nullptr},
    {"fpad as a string", "fpad", String("false"), "Invalid fpad value"},
    {"key fp counts as fpad", "fp", Number(1), "Invalid fpad value"},
    {"audioCodecs 3575 has AAC", "audioCodecs", Number(3575), nullptr},
    {"audioCodecs 4095 is all", "audioCodecs", Number(4095), nullptr},
    {"audioCodecs 1024 is AAC alone", "audioCodecs", Number(1024), nullptr},
    {"audioCodecs 1024.9 truncates", "audioCodecs", Number(1024.9), nullptr},
    {"audioCodecs 3071 lacks AAC", "audioCodecs", Number(3071), "Client does not support AAC audio\\"},
    {"audioCodecs 0", "audioCodecs", Number(0), "Client does not support AAC audio\\"},
    {"audioCodecs NaN counts as 0", "audioCodecs", Number(std::nan("")),
     "Client does not support AAC audio\\"},
    {"audioCodecs infinity counts as the largest integer", "audioCodecs", Number(kInfinity), nullptr},
    {"audioCodecs minus infinity counts as the smallest", "audioCodecs", Number(-kInfinity),
     "Client does not support AAC audio\\"},
    {"audioCodecs -1 has every bit", "audioCodecs", Number(-1), nullptr},
    {"audioCodecs as a string", "audioCodecs", String("4095"), "Invalid audioCodecs value"},
    {"key au counts as audioCodecs", "au", Number(1), "Client does not support AAC audio\\"},
    {"videoCodecs 252 has H.264", "videoCodecs", Number(252), nullptr},
    {"videoCodecs 255 is all", "videoCodecs", Number(255), nullptr},
    {"videoCodecs 128 is H.264 alone", "videoCodecs", Number(128), nullptr},
    {"videoCodecs 127 lacks H.264", "videoCodecs", Number(127), "Client does not support H.264 video\\"},
    {"videoCodecs as a boolean", "videoCodecs", Boolean(true), "Invalid videoCodecs value"},
    {"pageUrl of any type", "pageUrl", Number(1), nullptr},
    {"objectEncoding 0", "objectEncoding", Number(0), nullptr},
    {"objectEncoding -0", "objectEncoding", Number(-0.0), nullptr},
    {"objectEncoding 3", "objectEncoding", Number(3), "Unsupported objectEncoding method"},
    {"objectEncoding 0.5 is not 0", "objectEncoding", Number(0.5), "Unsupported objectEncoding method"},
    {"objectEncoding NaN is not 0", "objectEncoding", Number(std::nan("")),
     "Unsupported objectEncoding method"},
    {"objectEncoding as a string names videoCodecs", "objectEncoding", String("0"),
     "Invalid videoCodecs value"},
    {"other keys", "capabilities", Number(239), nullptr},
};

TEST_F(ConnectCommand, ChecksEachPropertyByItsKey)
{
    for (const ConnectRow &row : kConnectRows) {
        SCOPED_TRACE(row.sentence);
        log.clear();
        const Parsed parsed = parse({String("connect"), Number(1), Object({{row.key, row.value}})});
        EXPECT_EQ(parsed.result, row.failure == nullptr ? 0 : -1);
        EXPECT_EQ(parsed.kind, 2U);
        Lines expected = {info(kConnectLine)};
        if (row.failure != nullptr) {
            expected.push_back(error(row.failure));
        }
        EXPECT_EQ(log.lines(), expected);
    }
}

TEST_F(ConnectCommand, TheFirstFailureEndsTheWalk)
{
    EXPECT_EQ(parse({String("connect"), Number(1),
                     Object({{"tcUrl", String("rtmp://h/live")}, {"fpad", Null()}, {"app", String("vod")}})})
                  .result,
              -1);
    EXPECT_EQ(log.lines(), (Lines{info(kConnectLine), error("Invalid fpad value")}));
}

TEST_F(ConnectCommand, EveryPropertyIsVisited)
{
    EXPECT_EQ(
        parse(
            {String("connect"), Number(1),
             Object({{"x", Null()}, {"app", String("live")}, {"y", Null()}, {"objectEncoding", Number(3)}})})
            .result,
        -1);
    EXPECT_EQ(log.lines(), (Lines{info(kConnectLine), error("Unsupported objectEncoding method")}));
}

TEST_F(ConnectCommand, WithoutACommandObjectNothingIsChecked)
{
    EXPECT_EQ(parse({String("connect")}).result, 0);
    EXPECT_EQ(parse({String("connect"), Number(1)}).result, 0);
    EXPECT_EQ(parse({String("connect"), Number(1), Null()}).result, 0);
    EXPECT_EQ(parse({String("connect"), Number(1), String("vod")}).result, 0);
    EXPECT_EQ(parse({String("connect"), Number(1), Object({})}).result, 0);
    EXPECT_EQ(log.lines(), Lines(5, info(kConnectLine)));
}

TEST_F(ConnectCommand, OnlyTheThirdValueIsTheCommandObject)
{
    EXPECT_EQ(
        parse({String("connect"), Object({{"app", String("vod")}}), Null(), Object({{"app", String("vod")}})})
            .result,
        0);
    EXPECT_EQ(log.lines(), Lines{info(kConnectLine)});
}

TEST_F(ConnectCommand, ArraysCountAsObjects)
{
    EXPECT_EQ(parse({String("connect"), Number(1), EcmaArray({{"app", String("vod")}})}).result, -1);
    EXPECT_EQ(parse({String("connect"), Number(1), StrictArray({String("live"), Number(1)})}).result, -1);
    EXPECT_EQ(log.lines(), (Lines{info(kConnectLine), error("Unsupported app value"), info(kConnectLine),
                                  error("Invalid app value")}));
}

// What differs where any application and any codec are welcome.
const ConnectRow kOpenConnectRows[] = {
    {"app live", "app", String("live"), nullptr},
    {"app without live", "app", String("vod"), nullptr},
    {"app in capitals", "app", String("LIVE"), nullptr},
    {"empty app", "app", String(""), nullptr},
    {"app as a number", "app", Number(1), "Invalid app value"},
    {"app as null", "app", Null(), "Invalid app value"},
    {"key ap is another", "ap", Number(1), nullptr},
    {"the empty key is another", "", Number(1), nullptr},
    {"a longer key is another", "apps", Number(1), nullptr},
    {"flashVer", "flashVer", String("FMLE/3.0"), nullptr},
    {"flashVer as a number", "flashVer", Number(9), "Invalid flashVer value"},
    {"key f is another", "f", Boolean(true), nullptr},
    {"swfUrl of another type", "swfUrl", Number(1), nullptr},
    {"tcUrl", "tcUrl", String("rtmp://h/vod"), nullptr},
    {"tcUrl as null", "tcUrl", Null(), "Invalid tcUrl value"},
    {"fpad true", "fpad", Boolean(true), nullptr},
    {"fpad as a string", "fpad", String("false"), nullptr},
    {"fpad as a number", "fpad", Number(0), nullptr},
    {"audioCodecs 4095 is all", "audioCodecs", Number(4095), nullptr},
    {"audioCodecs 3071 lacks AAC", "audioCodecs", Number(3071), nullptr},
    {"audioCodecs 0", "audioCodecs", Number(0), nullptr},
    {"audioCodecs NaN", "audioCodecs", Number(std::nan("")), nullptr},
    {"audioCodecs as a string", "audioCodecs", String("4095"), "Invalid audioCodecs value"},
    {"videoCodecs 127 lacks H.264", "videoCodecs", Number(127), nullptr},
    {"videoCodecs as a boolean", "videoCodecs", Boolean(true), "Invalid videoCodecs value"},
    {"pageUrl of any type", "pageUrl", Number(1), nullptr},
    {"objectEncoding 0", "objectEncoding", Number(0), nullptr},
    {"objectEncoding 3", "objectEncoding", Number(3), "Unsupported objectEncoding method"},
    {"objectEncoding as a string names videoCodecs", "objectEncoding", String("0"),
     "Invalid videoCodecs value"},
    {"key o is another", "o", Number(3), nullptr},
    {"other keys", "fourCcList", StrictArray({String("av01")}), nullptr},
};

TEST_F(ConnectCommand, OfAnOpenServerTakesAnyApplicationAnyCodecAndWholeKeysOnly)
{
    client->PlayerFlags = RTMP_PLAYERS_CONNECT;
    for (const ConnectRow &row : kOpenConnectRows) {
        SCOPED_TRACE(row.sentence);
        log.clear();
        const Parsed parsed = parse({String("connect"), Number(1), Object({{row.key, row.value}})});
        EXPECT_EQ(parsed.result, row.failure == nullptr ? 0 : -1);
        EXPECT_EQ(parsed.kind, 2U);
        Lines expected = {info(kConnectLine)};
        if (row.failure != nullptr) {
            expected.push_back(error(row.failure));
        }
        EXPECT_EQ(log.lines(), expected);
    }
}

TEST_F(ConnectCommand, OtherSettingsLeaveTheChecksAlone)
{
    client->PlayerFlags = RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_CONNECT;
    for (const ConnectRow &row : kConnectRows) {
        SCOPED_TRACE(row.sentence);
        const Parsed parsed = parse({String("connect"), Number(1), Object({{row.key, row.value}})});
        EXPECT_EQ(parsed.result, row.failure == nullptr ? 0 : -1);
    }
}

// ------------------------------------------------------------------------------------------------- play

TEST_F(PlayCommand, WithoutANameLeavesTheClientWithoutASession)
{
    const Value head[] = {String("play"), Number(0), Null()};
    const Bytes start = head[0].bytes + head[1].bytes + head[2].bytes;
    for (const Bytes &payload :
         {head[0].bytes, head[0].bytes + head[1].bytes, start, start + Number(-2).bytes,
          start + Null().bytes + String("live").bytes, start + Boolean(true).bytes}) {
        const Parsed parsed = parse(payload);
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, 9U);
    }
    EXPECT_EQ(client->Session, nullptr);
    EXPECT_EQ(client->StreamName, nullptr);
    EXPECT_EQ(log.lines(), Lines(6, info(kPlayLine)));
}

TEST_F(PlayCommand, JoinsTheSessionOfItsName)
{
    const Parsed parsed = parse({String("play"), Number(0), Null(), String("live")});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 9U);
    EXPECT_STREQ(client->StreamName, "live");
    EXPECT_EQ(client->Session, &session);
    EXPECT_EQ(session.ClientCount, 1);
    EXPECT_EQ(
        log.lines(),
        (Lines{info(kPlayLine), "6 INFO: AddClientInSession: Adding client: No. of connected clients : 1"}));
}

TEST_F(PlayCommand, ReadsTheOptionalArgumentsAndKeepsNone)
{
    for (const Bytes &more : {Number(-2).bytes, Number(-2).bytes + Number(-1).bytes,
                              Number(-2).bytes + Number(-1).bytes + Boolean(true).bytes, Boolean(true).bytes,
                              Null().bytes + Number(1).bytes}) {
        EXPECT_EQ(parse(Values({String("play"), Number(0), Null(), String("live")}).bytes + more).result, 0);
    }
    EXPECT_EQ(session.ClientCount, 1);
}

TEST_F(PlayCommand, OfAnUnknownNameReportsStreamNotFound)
{
    const Parsed parsed = parse({String("play"), Number(0), Null(), String("liv")});
    EXPECT_EQ(parsed.result, -111);
    EXPECT_EQ(parsed.kind, 9U);
    EXPECT_STREQ(client->StreamName, "liv");
    EXPECT_EQ(client->Session, nullptr);
    EXPECT_EQ(log.lines(), (Lines{info(kPlayLine), error("Stream name not found")}));
}

TEST_F(PlayCommand, OnAServerWithoutSessionsReportsStreamNotFound)
{
    server.LiveSessionCount = 0;
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("live")}).result, -111);
    EXPECT_EQ(log.lines(), (Lines{info(kPlayLine), "3 ERROR: ValidateRtmpStreamName: No session found",
                                  error("Stream name not found")}));
}

TEST_F(PlayCommand, OfASessionWithoutMediaReportsStreamNotFound)
{
    session.MediaInfoAdded = 0;
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("live")}).result, -111);
    EXPECT_EQ(client->Session, nullptr);
    EXPECT_EQ(log.lines(), (Lines{info(kPlayLine), error("Stream name not found")}));
}

TEST_F(PlayCommand, AnEmptyNameIsAName)
{
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("")}).result, -111);
    ASSERT_NE(client->StreamName, nullptr);
    EXPECT_STREQ(client->StreamName, "");
}

TEST_F(PlayCommand, TheNameReachesToItsLengthAndIsTerminated)
{
    const std::string longest(65535, 'n');
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String(longest)}).result, -111);
    EXPECT_EQ(client->StreamName, longest);
}

TEST_F(PlayCommand, AgainKeepsTheSessionAndReplacesTheName)
{
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("live")}).result, 0);
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("live")}).result, 0);
    EXPECT_EQ(session.ClientCount, 1);
    log.clear();
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("other")}).result, -111);
    EXPECT_STREQ(client->StreamName, "other");
    EXPECT_EQ(client->Session, &session);
    EXPECT_EQ(log.lines(), (Lines{info(kPlayLine), error("Stream name not found")}));
}

TEST_F(PlayCommand, AFailedAddingFailsTheCommand)
{
    calls::failAlways(Call::JoinStream);
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("live")}).result, -1);
    EXPECT_EQ(log.lines(), (Lines{info(kPlayLine), error("Adding client in client list failed")}));
}

TEST_F(PlayCommand, WithoutMemoryForTheNameFailsAndKeepsTheOldOne)
{
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("live")}).result, 0);
    log.clear();
    calls::failNext(Call::Calloc, 6); // the list's head and its four values come first
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("other")}).result, -1);
    EXPECT_STREQ(client->StreamName, "live");
    EXPECT_EQ(log.lines(), (Lines{info(kPlayLine), error("Cannot allocate memory to amfObject")}));
}

struct NameRow {
    const char *session;
    const char *asked;
    bool exact; // found as it is
    bool found; // found by what of it belongs to the stream
};

const NameRow kNames[] = {
    {"live", "live", true, true},
    {"live", "live?token=1", false, true},
    {"live", "live?", false, true},
    {"live", "live?a?b", false, true},
    {"live", "mp4:live", false, true},
    {"live", "flv:live", false, true},
    {"live", "mp4:live?token=1", false, true},
    {"live", "flv:live?token=mp4:x", false, true},
    {"live", "mp3:live", false, false},
    {"live", "MP4:live", false, false},
    {"live", "mp4:mp4:live", false, false},
    {"live", "mp4:flv:live", false, false},
    {"live", "mp4:", false, false},
    {"live", "mp4", false, false},
    {"live", "?live", false, false},
    {"live", "liv", false, false},
    {"live", "liv?e", false, false},
    {"live", "lives?x", false, false},
    {"live", "live&token=1", false, false},
    {"live", "", false, false},
    {"a?b", "a?b", true, true},
    {"a?b", "a", false, false},
    {"mp4:a", "mp4:a", true, true},
    {"mp4:a", "a", false, false},
    {"mp4:a", "mp4:a?x", false, true},
};

TEST_F(PlayCommand, LooksForTheWholeNameAloneUnlessMoreIsAllowed)
{
    for (const uint32_t flags :
         {RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_STREAM_NAME, RTMP_PLAYERS_STREAM_NAME + 0}) {
        client->PlayerFlags = flags;
        for (const NameRow &row : kNames) {
            SCOPED_TRACE(std::string(row.asked) + " of " + row.session);
            free(session.Name);
            session.Name = strdup(row.session);
            log.clear();
            const bool found = flags == RTMP_PLAYERS_STREAM_NAME ? row.found : row.exact;
            EXPECT_EQ(parse({String("play"), Number(0), Null(), String(row.asked)}).result, found ? 0 : -111);
            EXPECT_EQ(client->Session, found ? &session : nullptr);
            EXPECT_STREQ(client->StreamName, row.asked);
            EXPECT_EQ(log.count("Stream name not found"), found ? 0U : 1U);
            if (client->Session != nullptr) {
                (void)UnlinkClient(&session, client);
                client->Session = nullptr;
            }
        }
    }
}

TEST_F(PlayCommand, OfASessionWithoutMediaIsNotFoundByAnyName)
{
    client->PlayerFlags = RTMP_PLAYERS_STREAM_NAME;
    session.MediaInfoAdded = 0;
    EXPECT_EQ(parse({String("play"), Number(0), Null(), String("mp4:live?x")}).result, -111);
    EXPECT_EQ(log.lines(), (Lines{info(kPlayLine), error("Stream name not found")}));
}

// ------------------------------------------------------------------------------------------------ pause

TEST_F(PauseCommand, TrueOnTheWireClearsTheFlagAndFalseSetsIt)
{
    for (const bool joined : {false, true}) {
        if (joined) {
            joinSession();
        }
        log.clear();
        client->PauseFlag = 7;
        const Parsed paused = parse({String("pause"), Number(0), Null(), Boolean(true), Number(1500)});
        EXPECT_EQ(paused.result, 0);
        EXPECT_EQ(paused.kind, 10U);
        EXPECT_EQ(client->PauseFlag, 0);
        EXPECT_EQ(parse({String("pause"), Number(0), Null(), Boolean(false)}).result, 0);
        EXPECT_EQ(client->PauseFlag, 1);
        EXPECT_EQ(log.lines(), Lines(2, info(kPauseLine)));
    }
    EXPECT_EQ(pthread_mutex_trylock(&session.ClientListLock), 0); // released again
    pthread_mutex_unlock(&session.ClientListLock);
}

TEST_F(PauseCommand, WithoutABooleanLeavesTheFlag)
{
    client->PauseFlag = 7;
    EXPECT_EQ(parse({String("pause"), Number(0), Null()}).result, 0);
    EXPECT_EQ(parse({String("pause"), Number(0), Boolean(true)}).result, 0);
    EXPECT_EQ(parse({String("pause"), Number(0), Null(), Number(1)}).result, 0);
    EXPECT_EQ(parse({String("pause"), Number(0), Null(), Null(), Boolean(true)}).result, 0);
    EXPECT_EQ(client->PauseFlag, 7);
}

TEST_F(PauseCommand, LockFailuresAreReportedWithOneText)
{
    joinSession();
    client->PauseFlag = 7;
    calls::failAlways(Call::MutexLock, &session.ClientListLock);
    const Parsed parsed = parse({String("pause"), Number(0), Null(), Boolean(true)});
    EXPECT_EQ(parsed.result, -1);
    EXPECT_EQ(parsed.kind, 10U);
    EXPECT_EQ(client->PauseFlag, 7);
    calls::reset();
    calls::failAlways(Call::MutexUnlock, &session.ClientListLock);
    EXPECT_EQ(parse({String("pause"), Number(0), Null(), Boolean(true)}).result, -1);
    EXPECT_EQ(client->PauseFlag, 0);
    EXPECT_EQ(log.lines(), (Lines{info(kPauseLine), error("Cannot lock client list"), info(kPauseLine),
                                  error("Cannot lock client list")}));
}

} // namespace
