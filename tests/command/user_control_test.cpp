#include "command_fixture.h"

#include <sys/socket.h>

using namespace amf0;
using namespace received;

namespace {

using Lines = std::vector<std::string>;

class ReceivedUserControl : public CommandFixture {
  protected:
    static std::string parserError(const std::string &text)
    {
        return "3 ERROR: ParseUsrCtrlMsgReq: " + text;
    }
};

Bytes Event(uint8_t type, const Bytes &rest)
{
    return BigEndian(type, 2) + rest;
}

const Bytes kValue = Hex("00 01 23 45");

struct EventRow {
    uint8_t type;
    uint32_t kind;
    const char *line; // null: none
};

const EventRow kEventRows[] = {
    {0, 36, "STREAM BEGIN"},       {1, 53, "STREAM EOF"}, {2, 53, "STREAM DRY"},
    {4, 53, "STREAM IS RECORDED"}, {6, 41, nullptr},      {7, 42, "PING RESPONSE"},
};

TEST_F(ReceivedUserControl, EveryEventIsRecordedLoggedAndReported)
{
    for (const EventRow &row : kEventRows) {
        SCOPED_TRACE(static_cast<int>(row.type));
        log.clear();
        const Parsed parsed = parseEvent(Event(row.type, kValue));
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, row.kind);
        EXPECT_EQ(parsed.event, row.type);
        EXPECT_EQ(parsed.eventValue, 0x00012345U);
        Lines expected;
        if (row.line != nullptr) {
            expected.push_back(std::string("6 INFO: ParseUsrCtrlMsgReq: Received User control message: ") +
                               row.line);
        }
        EXPECT_EQ(log.lines(), expected);
    }
}

TEST_F(ReceivedUserControl, SetBufferLengthIsReadOnlyWhenItIsLongerThanEightBytes)
{
    const Bytes whole = Event(3, Hex("00 00 00 01 00 00 0B B8"));
    for (size_t length = 2; length <= whole.size(); length++) {
        SCOPED_TRACE(length);
        log.clear();
        const Parsed parsed = parseEvent(Slice(whole, 0, length));
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, 39U);
        EXPECT_EQ(parsed.event, 3U);
        EXPECT_EQ(parsed.eventValue, length > 8 ? 1U : 0U);
        EXPECT_EQ(log.lines(),
                  Lines{"6 INFO: ParseUsrCtrlMsgReq: Received User control message: SET BUFFER LEN"});
    }
}

TEST_F(ReceivedUserControl, IgnoredEventsLeaveTheKindAndLogNothing)
{
    for (const Bytes &payload : {Event(5, kValue), Event(8, kValue), Event(31, kValue), Event(255, kValue),
                                 Hex("01 00 00 00 00 01"), Hex("FF FF")}) {
        const Parsed parsed = parseEvent(payload);
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, kUntouched);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ReceivedUserControl, AnEmptyPayloadFails)
{
    const Parsed parsed = parseEvent({});
    EXPECT_EQ(parsed.result, -1);
    EXPECT_EQ(parsed.kind, kUntouched);
    EXPECT_EQ(log.lines(), Lines{parserError("No data present in payload")});
}

TEST_F(ReceivedUserControl, BytesThatAreNotThereReadAsZero)
{
    const Bytes whole = Hex("00 00 AA BB CC DD");
    const uint32_t values[] = {0, 0, 0xAA000000, 0xAABB0000, 0xAABBCC00, 0xAABBCCDD};
    for (size_t length = 1; length <= whole.size(); length++) {
        SCOPED_TRACE(length);
        const Parsed parsed = parseEvent(Slice(whole, 0, length));
        EXPECT_EQ(parsed.kind, 36U);
        EXPECT_EQ(parsed.eventValue, values[length - 1]);
    }
}

// basic header 02 (type 0, chunk stream 2)  timestamp 0  length 6  type 4  stream id 0, then the event
const Bytes kPong = Hex("02 00 00 00 00 00 06 04 00 00 00 00 00 07 00 01 23 45");

TEST_F(ReceivedUserControl, APingIsAnsweredWithItsTimestampBehindAFullHeader)
{
    joinSession();
    log.clear();
    for (int i = 0; i < 3; i++) {
        const Parsed parsed = parseEvent(Event(6, kValue));
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, 41U);
        EXPECT_EQ(sent(), kPong);
    }
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(pthread_mutex_trylock(&session.ClientListLock), 0); // released again
    pthread_mutex_unlock(&session.ClientListLock);
}

TEST_F(ReceivedUserControl, AShortPingIsAnsweredWithZeros)
{
    joinSession();
    EXPECT_EQ(parseEvent(Hex("00 06 7F")).result, 0);
    EXPECT_EQ(Slice(sent(), 12, 100), Hex("00 07 7F 00 00 00"));
}

TEST_F(ReceivedUserControl, APingWithoutASessionIsNotAnswered)
{
    const Parsed parsed = parseEvent(Event(6, kValue));
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 41U);
    EXPECT_EQ(sent(), Bytes());
}

TEST_F(ReceivedUserControl, APingFailsWithoutTheLock)
{
    joinSession();
    log.clear();
    calls::failAlways(Call::MutexLock, &session.ClientListLock);
    const Parsed parsed = parseEvent(Event(6, kValue));
    EXPECT_EQ(parsed.result, -1);
    EXPECT_EQ(parsed.kind, 41U);
    EXPECT_EQ(sent(), Bytes());
    EXPECT_EQ(log.lines(), Lines{parserError("Cannot lock client list")});
}

TEST_F(ReceivedUserControl, APingFailsWithoutAMessage)
{
    joinSession();
    log.clear();
    calls::failAlways(Call::GenerateMsg);
    EXPECT_EQ(parseEvent(Event(6, kValue)).result, -1);
    EXPECT_EQ(log.lines(), Lines{parserError("Cannot generate RTMP PING RESPONSE message")});
    EXPECT_EQ(pthread_mutex_trylock(&session.ClientListLock), 0);
    pthread_mutex_unlock(&session.ClientListLock);
}

TEST_F(ReceivedUserControl, APingFailsWhenTheConnectionIsGone)
{
    joinSession();
    log.clear();
    shutdown(client->Socket, SHUT_WR);
    EXPECT_EQ(parseEvent(Event(6, kValue)).result, -1);
    EXPECT_EQ(log.lines().back(), parserError("Cannot send RTMP PING RESPONSE message to server"));
    EXPECT_EQ(log.count("ParseUsrCtrlMsgReq"), 1U);
    EXPECT_EQ(pthread_mutex_trylock(&session.ClientListLock), 0);
    pthread_mutex_unlock(&session.ClientListLock);
}

TEST_F(ReceivedUserControl, APingReportsAnUnlockThatFails)
{
    joinSession();
    log.clear();
    calls::failAlways(Call::MutexUnlock, &session.ClientListLock);
    EXPECT_EQ(parseEvent(Event(6, kValue)).result, -1);
    EXPECT_EQ(sent(), kPong);
    EXPECT_EQ(log.lines(), Lines{parserError("Cannot unlock client list")});
}

} // namespace
