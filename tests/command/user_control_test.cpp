#include "command_fixture.h"

#include <sys/socket.h>

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

std::string Event(uint8_t type, const std::string &rest)
{
    return std::string(1, '\0') + static_cast<char>(type) + rest;
}

const std::string kValue("\x00\x01\x23\x45", 4);

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
    const std::string whole = Event(3, std::string("\0\0\0\x01\0\0\x0B\xB8", 8));
    for (size_t length = 2; length <= whole.size(); length++) {
        SCOPED_TRACE(length);
        log.clear();
        const Parsed parsed = parseEvent(whole.substr(0, length));
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
    for (const std::string &payload :
         {Event(5, kValue), Event(8, kValue), Event(31, kValue), Event(255, kValue),
          std::string("\x01\x00\x00\x00\x00\x01", 6), std::string("\xFF\xFF", 2)}) {
        const Parsed parsed = parseEvent(payload);
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, kUntouched);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ReceivedUserControl, AnEmptyPayloadFails)
{
    const Parsed parsed = parseEvent("");
    EXPECT_EQ(parsed.result, -1);
    EXPECT_EQ(parsed.kind, kUntouched);
    EXPECT_EQ(log.lines(), Lines{parserError("No data present in payload")});
}

TEST_F(ReceivedUserControl, BytesThatAreNotThereReadAsZero)
{
    const std::string whole = std::string("\x00\x00", 2) + "\xAA\xBB\xCC\xDD";
    const uint32_t values[] = {0, 0, 0xAA000000, 0xAABB0000, 0xAABBCC00, 0xAABBCCDD};
    for (size_t length = 1; length <= whole.size(); length++) {
        SCOPED_TRACE(length);
        const Parsed parsed = parseEvent(whole.substr(0, length));
        EXPECT_EQ(parsed.kind, 36U);
        EXPECT_EQ(parsed.eventValue, values[length - 1]);
    }
}

// basic header 02 (type 0, chunk stream 2)  timestamp 0  length 6  type 4  stream id 0, then the event
const std::string kPong("\x02\x00\x00\x00\x00\x00\x06\x04\x00\x00\x00\x00\x00\x07\x00\x01\x23\x45", 18);

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
}

TEST_F(ReceivedUserControl, AShortPingIsAnsweredWithZeros)
{
    joinSession();
    EXPECT_EQ(parseEvent(std::string("\0\x06\x7F", 3)).result, 0);
    EXPECT_EQ(sent().substr(12), std::string("\x00\x07\x7F\x00\x00\x00", 6));
}

TEST_F(ReceivedUserControl, APingWithoutASessionIsNotAnswered)
{
    const Parsed parsed = parseEvent(Event(6, kValue));
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 41U);
    EXPECT_EQ(sent(), "");
}

TEST_F(ReceivedUserControl, APingFailsWithoutTheLock)
{
    joinSession();
    log.clear();
    wrapped::brokenLock = &session.ClientListLock;
    const Parsed parsed = parseEvent(Event(6, kValue));
    EXPECT_EQ(parsed.result, -1);
    EXPECT_EQ(parsed.kind, 41U);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(log.lines(), Lines{parserError("Cannot lock client list")});
}

TEST_F(ReceivedUserControl, APingFailsWithoutAMessage)
{
    joinSession();
    log.clear();
    wrapped::failGenerate = true;
    EXPECT_EQ(parseEvent(Event(6, kValue)).result, -1);
    EXPECT_EQ(log.lines(), Lines{parserError("Cannot generate RTMP PING RESPONSE message")});
    EXPECT_EQ(pthread_mutex_trylock(&session.ClientListLock), 0);
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
}

TEST_F(ReceivedUserControl, APingReportsAnUnlockThatFails)
{
    joinSession();
    log.clear();
    wrapped::brokenUnlock = &session.ClientListLock;
    EXPECT_EQ(parseEvent(Event(6, kValue)).result, -1);
    EXPECT_EQ(sent(), kPong);
    EXPECT_EQ(log.lines(), Lines{parserError("Cannot unlock client list")});
}

} // namespace
