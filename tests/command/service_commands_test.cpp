#include "command_fixture.h"
#include "message/send_list.h"

#include <cmath>
#include <cstring>
#include <limits>

#include <sys/socket.h>

using namespace amf0;
using namespace received;

namespace {

using Lines = std::vector<std::string>;

std::string Received(const std::string &name)
{
    return "Received Command message: " + name;
}

class ResultCommand : public CommandFixture {};
class ErrorCommand : public CommandFixture {};
class StatusCommand : public CommandFixture {};
class ServicePing : public CommandFixture {};
class SetChallengeCommand : public CommandFixture {};
class RecordNotice : public CommandFixture {};

// --------------------------------------------------------------------------------------------- _result

TEST_F(ResultCommand, StoresTheTransactionIdAndLogsAString)
{
    withContext();
    const Parsed parsed = parse({String("_result"), Number(4.5), Null(), String("done")});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 0U);
    EXPECT_EQ(context->ResultTransactionId, 4.5);
    EXPECT_EQ(log.lines(), (Lines{info(Received("RESULT")), info("\tString: done")}));
    context->ResultTransactionId = 0;
    EXPECT_TRUE(IsZero(*context));
}

TEST_F(ResultCommand, WithoutAContextOnlyLogs)
{
    EXPECT_EQ(parse({String("_result"), Number(4), Null(), String("done")}).result, 0);
    EXPECT_EQ(log.lines(), (Lines{info(Received("RESULT")), info("\tString: done")}));
}

TEST_F(ResultCommand, OfAnotherTypeIsNotLogged)
{
    withContext();
    EXPECT_EQ(parse({String("_result"), Number(4), Null(), Number(1)}).result, 0);
    EXPECT_EQ(parse({String("_result"), Number(5), String("not here")}).result, 0);
    EXPECT_EQ(context->ResultTransactionId, 5);
    EXPECT_EQ(log.lines(), Lines(2, info(Received("RESULT"))));
}

TEST_F(ResultCommand, AnEmptyStringIsLogged)
{
    EXPECT_EQ(parse({String("_result"), Number(4), Null(), String("")}).result, 0);
    EXPECT_EQ(log.lines(), (Lines{info(Received("RESULT")), info("\tString: ")}));
}

TEST_F(ResultCommand, ATransactionIdThatIsNoNumberIsStoredAsZero)
{
    withContext();
    for (const Bytes &payload : {String("_result").bytes, Values({String("_result"), String("1")}).bytes,
                                 Values({String("_result"), Boolean(true)}).bytes}) {
        context->ResultTransactionId = 9;
        EXPECT_EQ(parse(payload).result, 0);
        EXPECT_EQ(context->ResultTransactionId, 0);
    }
    EXPECT_EQ(parse({String("_result"), Number(-3)}).result, 0);
    EXPECT_EQ(context->ResultTransactionId, -3);
}

// ---------------------------------------------------------------------------------------------- _error

const Value kErrorInfo = Object({{"level", String("error")},
                                 {"code", String("NetConnection.Connect.Rejected")},
                                 {"description", String("no such channel")},
                                 {"number", Number(1)}});

TEST_F(ErrorCommand, StoresCodeDescriptionAndTransactionId)
{
    withContext();
    const Parsed parsed = parse({String("_error"), Number(2), Null(), kErrorInfo});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 1U);
    EXPECT_STREQ(context->ErrorCode, "NetConnection.Connect.Rejected");
    EXPECT_STREQ(context->ErrorDescription, "no such channel");
    EXPECT_EQ(context->ErrorTransactionId, 2);
    EXPECT_STREQ(context->StatusLevel, "");
    EXPECT_EQ(log.lines(), Lines{info(Received("ERROR"))});
}

TEST_F(ErrorCommand, WithoutAContextOnlyLogs)
{
    const Parsed parsed = parse({String("_error"), Number(2), Null(), kErrorInfo});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 1U);
    EXPECT_EQ(log.lines(), Lines{info(Received("ERROR"))});
}

TEST_F(ErrorCommand, ShortenedKeysCountAndTheEmptyOneIsCode)
{
    withContext();
    EXPECT_EQ(parse({String("_error"), Number(2), Null(), Object({{"", String("C")}, {"desc", String("D")}})})
                  .result,
              0);
    EXPECT_STREQ(context->ErrorCode, "C");
    EXPECT_STREQ(context->ErrorDescription, "D");
}

TEST_F(ErrorCommand, OnlyStringsOfAnObjectAreStored)
{
    withContext();
    EXPECT_EQ(
        parse({String("_error"), Number(2), Null(), Object({{"code", Number(7)}, {"codes", String("x")}})})
            .result,
        0);
    EXPECT_EQ(parse({String("_error"), Number(2), kErrorInfo, String("code")}).result, 0);
    EXPECT_STREQ(context->ErrorCode, "");
    EXPECT_STREQ(context->ErrorDescription, "");
}

// ------------------------------------------------------------------------------ onStatus, onClientLogin

const Value kStatusInfo = Object({{"level", String("status")},
                                  {"code", String("NetStream.Publish.Start")},
                                  {"description", String("publishing")},
                                  {"clientid", Number(1)}});

TEST_F(StatusCommand, StoresThreeTextsAndTheTransactionId)
{
    withContext();
    const Parsed parsed = parse({String("onStatus"), Number(3), Null(), kStatusInfo});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 3U);
    EXPECT_STREQ(context->StatusLevel, "status");
    EXPECT_STREQ(context->StatusCode, "NetStream.Publish.Start");
    EXPECT_STREQ(context->StatusDescription, "publishing");
    EXPECT_EQ(context->StatusTransactionId, 3);
    EXPECT_STREQ(context->ErrorCode, "");
    EXPECT_EQ(log.lines(), Lines{info(Received("ONSTATUS"))});
}

TEST_F(StatusCommand, OfALoginStoresThreeTextsAndNoTransactionId)
{
    withContext();
    context->StatusTransactionId = 11;
    const Parsed parsed = parse({String("onClientLogin"), Number(3), Null(), kStatusInfo});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 20U);
    EXPECT_STREQ(context->StatusLevel, "status");
    EXPECT_STREQ(context->StatusCode, "NetStream.Publish.Start");
    EXPECT_STREQ(context->StatusDescription, "publishing");
    EXPECT_EQ(context->StatusTransactionId, 11);
    EXPECT_EQ(log.lines(), Lines{info(Received("ONCLIENTLOGIN"))});
}

TEST_F(StatusCommand, WithoutAContextOnlyLogs)
{
    EXPECT_EQ(parse({String("onStatus"), Number(3), Null(), kStatusInfo}).kind, 3U);
    EXPECT_EQ(parse({String("onClientLogin"), Number(3), Null(), kStatusInfo}).kind, 20U);
    EXPECT_EQ(log.lines(), (Lines{info(Received("ONSTATUS")), info(Received("ONCLIENTLOGIN"))}));
}

TEST_F(StatusCommand, ShortenedKeysCountAndTheEmptyOneIsLevel)
{
    withContext();
    for (const char *name : {"onStatus", "onClientLogin"}) {
        memset(context, 0, sizeof *context);
        EXPECT_EQ(
            parse({String(name), Number(2), Null(),
                   Object({{"", String("L")}, {"c", String("C")}, {"de", String("D")}, {"z", String("Z")}})})
                .result,
            0);
        EXPECT_STREQ(context->StatusLevel, "L");
        EXPECT_STREQ(context->StatusCode, "C");
        EXPECT_STREQ(context->StatusDescription, "D");
    }
}

TEST_F(StatusCommand, TheLastOfSeveralMatchesStays)
{
    withContext();
    EXPECT_EQ(parse({String("onStatus"), Number(2), Null(),
                     Object({{"code", String("a longer first")}, {"code", String("second")}})})
                  .result,
              0);
    EXPECT_STREQ(context->StatusCode, "second");
}

TEST_F(StatusCommand, TextsAreCutAtTheEndOfTheirField)
{
    withContext();
    const std::string fits(1023, 'f');
    const std::string longer(1024, 'g');
    const std::string longest(65535, 'h');
    EXPECT_EQ(parse({String("onStatus"), Number(2), Null(),
                     Object({{"level", String(fits)}, {"description", String(longest)}})})
                  .result,
              0);
    EXPECT_EQ(context->StatusLevel, fits);
    EXPECT_STREQ(context->StatusCode, "");
    EXPECT_EQ(context->StatusDescription, std::string(1023, 'h'));
    EXPECT_EQ(context->StatusTransactionId, 2);
    EXPECT_EQ(context->StatusHostContext[0], 0U);
    EXPECT_EQ(parse({String("onStatus"), Number(2), Null(), Object({{"level", String(longer)}})}).result, 0);
    EXPECT_EQ(context->StatusLevel, std::string(1023, 'g'));
    EXPECT_STREQ(context->StatusCode, "");
}

// ------------------------------------------------------------------------------------------------ ping

// timestamp:24  length:24  type:8  stream id:32. The chunk stream is 0, so there is no basic header, and the
// two bytes of room for it stay behind as zeros.
const Bytes kPong = Hex("00 12 34 00 00 00 14 00 00 00 00 00 00");

TEST_F(ServicePing, IsAnsweredByAnEmptyCommand)
{
    calls::setClock(client->CreateTime + 0x1234);
    for (const bool joined : {false, true}) {
        if (joined) {
            joinSession();
            EXPECT_EQ(RemoveSendPkt(client, nullptr), 0); // so that the header is whole again
        }
        log.clear();
        const Parsed parsed = parse({String("ping"), Number(0), Null()});
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, 22U);
        EXPECT_EQ(log.lines(), Lines{info(Received("UstreamPing"))});
        EXPECT_EQ(sent(), kPong);
    }
    EXPECT_EQ(pthread_mutex_trylock(&session.ClientListLock), 0); // released again
    pthread_mutex_unlock(&session.ClientListLock);
}

TEST_F(ServicePing, AgainAndAgainLosesNothing)
{
    withContext();
    joinSession();
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(parse({String("ping"), Number(0), Null()}).result, 0);
    }
    EXPECT_EQ(client->SendPktCount, 1U);
    EXPECT_TRUE(IsZero(*context));
}

TEST_F(ServicePing, FailsWithoutTheLock)
{
    joinSession();
    calls::failAlways(Call::MutexLock, &session.ClientListLock);
    const Parsed parsed = parse({String("ping"), Number(0), Null()});
    EXPECT_EQ(parsed.result, -1);
    EXPECT_EQ(parsed.kind, 22U);
    EXPECT_EQ(sent(), Bytes());
    EXPECT_EQ(log.lines(), (Lines{info(Received("UstreamPing")), error("Cannot lock client list")}));
}

TEST_F(ServicePing, FailsWithoutAMessage)
{
    joinSession();
    calls::failAlways(Call::GenerateMsg);
    EXPECT_EQ(parse({String("ping"), Number(0), Null()}).result, -1);
    EXPECT_EQ(log.lines(),
              (Lines{info(Received("UstreamPing")), error("Cannot generate RTMP USTREAM PONG message")}));
    EXPECT_EQ(pthread_mutex_trylock(&session.ClientListLock), 0);
    pthread_mutex_unlock(&session.ClientListLock);
}

TEST_F(ServicePing, FailsWhenTheConnectionIsGone)
{
    joinSession();
    shutdown(client->Socket, SHUT_WR);
    EXPECT_EQ(parse({String("ping"), Number(0), Null()}).result, -1);
    EXPECT_EQ(log.lines().back(), error("Cannot send USTREAM PONG message to server"));
    EXPECT_EQ(log.count("ParseCmdMsgReq"), 2U);
    EXPECT_EQ(pthread_mutex_trylock(&session.ClientListLock), 0);
    pthread_mutex_unlock(&session.ClientListLock);
}

TEST_F(ServicePing, ReportsAnUnlockThatFails)
{
    joinSession();
    calls::failAlways(Call::MutexUnlock, &session.ClientListLock);
    EXPECT_EQ(parse({String("ping"), Number(0), Null()}).result, -1);
    EXPECT_EQ(sent().size(), kPong.size());
    EXPECT_EQ(log.lines(), (Lines{info(Received("UstreamPing")), error("Cannot unlock client list")}));
}

// ---------------------------------------------------------------------------------------- setChallenge

TEST_F(SetChallengeCommand, StoresSessionIdAndChallenge)
{
    withContext();
    const Parsed parsed =
        parse({String("setChallenge"), Number(0), Null(), Number(123456.9), String("abc/def")});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 18U);
    EXPECT_STREQ(context->SessionIdText, "123456");
    EXPECT_STREQ(context->ChallengeString, "abc/def");
    EXPECT_EQ(log.lines(), (Lines{info(Received("COMMAND_MSG_SET_CHALLENGE")), info("Session Id : 123456"),
                                  info("Challenge String : abc/def")}));
}

TEST_F(SetChallengeCommand, WithoutAContextOnlyLogs)
{
    EXPECT_EQ(parse({String("setChallenge"), Number(0), Null(), Number(-8), String("abc")}).kind, 18U);
    EXPECT_EQ(log.lines(), (Lines{info(Received("COMMAND_MSG_SET_CHALLENGE")), info("Session Id : -8"),
                                  info("Challenge String : abc")}));
}

TEST_F(SetChallengeCommand, EachArgumentIsReadOnlyWhenItHasItsType)
{
    withContext();
    EXPECT_EQ(parse({String("setChallenge"), Number(0), Null(), Number(1), Null(), String("late")}).result,
              0);
    EXPECT_STREQ(context->SessionIdText, "1");
    EXPECT_STREQ(context->ChallengeString, "");
    EXPECT_EQ(parse({String("setChallenge"), Number(0), Null(), String("alone")}).result, 0);
    EXPECT_STREQ(context->SessionIdText, "1");
    EXPECT_STREQ(context->ChallengeString, "alone");
    EXPECT_EQ(parse({String("setChallenge"), Number(7)}).result, 0);
    EXPECT_STREQ(context->ChallengeString, "alone");
}

TEST_F(SetChallengeCommand, SessionIdsThatDoNotFitSaturate)
{
    withContext();
    const double infinity = std::numeric_limits<double>::infinity();
    const std::pair<double, const char *> rows[] = {
        {2147483647.5, "2147483647"},
        {2147483648.0, "2147483647"},
        {infinity, "2147483647"},
        {-2147483648.9, "-2147483648"},
        {-infinity, "-2147483648"},
        {std::nan(""), "0"},
        {-0.9, "0"},
    };
    for (const std::pair<double, const char *> &row : rows) {
        EXPECT_EQ(parse({String("setChallenge"), Number(0), Null(), Number(row.first)}).result, 0);
        EXPECT_STREQ(context->SessionIdText, row.second);
    }
}

TEST_F(SetChallengeCommand, ALongChallengeIsCutAtTheEndOfItsField)
{
    withContext();
    const std::string longer(2000, 'c');
    EXPECT_EQ(parse({String("setChallenge"), Number(0), Null(), Number(5), String(longer)}).result, 0);
    EXPECT_EQ(context->ChallengeString, std::string(1023, 'c'));
    EXPECT_STREQ(context->SessionIdText, "5");
    EXPECT_TRUE(log.contains("Challenge String : " + longer));
}

// ---------------------------------------------------------------------------------------- record notices

TEST_F(RecordNotice, OnlyErrorAndLimitAskTheHostToStartAgain)
{
    for (const bool publishing : {false, true}) {
        HostFakes::get().reset();
        if (publishing) {
            withContext();
        }
        for (const char *name : {"recordStarted", "recordReady", "recordSaved", "recordTimerWarning"}) {
            EXPECT_EQ(parse({String(name), Number(0), Null()}).result, 0);
        }
        EXPECT_TRUE(HostFakes::get().recordActions().empty());
        EXPECT_EQ(parse({String("recordError"), Number(0), Null()}).kind, 31U);
        EXPECT_EQ(parse({String("recordLimitExceeded"), Number(0), Null()}).kind, 34U);
        const std::pair<RtmpClient *, std::string> start = {client, "start"};
        EXPECT_EQ(HostFakes::get().recordActions(), std::vector(2, start));
    }
}

} // namespace
