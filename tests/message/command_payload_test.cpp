#include "message/command_payload.h"
#include "message_fixture.h"

#include <cmath>
#include <limits>

namespace {

class CommandPayload : public MessageTest {
  protected:
    std::string Write(const CmdMsgPayload &payload)
    {
        free(pkt.PayloadData);
        pkt.PayloadData = nullptr;
        pkt.PayloadLength = 0;
        return WriteCmdMsgPayload(&client, &pkt, &payload) == 0 ? PayloadOf(&pkt) : "none";
    }

    ~CommandPayload() override
    {
        free(pkt.PayloadData);
    }

    static CmdMsgPayload Named(const char *command)
    {
        CmdMsgPayload payload = {};
        payload.Command = command;
        return payload;
    }

    static CmdMsgPayload Everything()
    {
        CmdMsgPayload payload = {};
        payload.Command = "_result";
        payload.TransactionId = 1;
        payload.FmsVer = "F";
        payload.Capabilities = 31;
        payload.Mode = 1;
        payload.Level = "l";
        payload.Code = "c";
        payload.Description = "d";
        return payload;
    }

    RtmpSendPkt pkt = {};
};

const char kZero[] = "00 00 00 00 00 00 00 00 00";

TEST_F(CommandPayload, ACommandAloneIsItsNameItsTransactionIdAndANull)
{
    EXPECT_EQ(Write(Named("ab")), ToHex(Hex("02 00 02") + "ab" + Hex(kZero) + Hex("05")));
}

TEST_F(CommandPayload, AStreamIdStandsBehindTheNull)
{
    CmdMsgPayload payload = Named("ab");
    payload.StreamId = 1;
    EXPECT_EQ(Write(payload),
              ToHex(Hex("02 00 02") + "ab" + Hex(kZero) + Hex("05 00 3F F0 00 00 00 00 00 00")));
    payload.StreamId = 0xFFFFFFFF; // 2^32 - 1
    EXPECT_EQ(Write(payload),
              ToHex(Hex("02 00 02") + "ab" + Hex(kZero) + Hex("05 00 41 EF FF FF FF E0 00 00")));
}

TEST_F(CommandPayload, PropertiesAreWrittenOnlyWhenGivenAndTakeThePlaceOfNullAndStreamId)
{
    const Bytes start = Hex("02 00 02") + "ab" + Hex(kZero) + Hex("03");
    const Bytes fmsVer = Hex("00 06") + "fmsVer" + Hex("02 00 01") + "F";
    const Bytes capabilities = Hex("00 0C") + "capabilities" + Hex("00 40 3F 00 00 00 00 00 00");
    const Bytes mode = Hex("00 04") + "mode" + Hex("00 3F F0 00 00 00 00 00 00");
    const Bytes end = Hex("00 00 09");
    CmdMsgPayload payload = Named("ab");
    payload.StreamId = 5;
    payload.FmsVer = "F";
    EXPECT_EQ(Write(payload), ToHex(start + fmsVer + end));
    payload.Mode = 1;
    EXPECT_EQ(Write(payload), ToHex(start + fmsVer + mode + end));
    payload.Capabilities = 31;
    EXPECT_EQ(Write(payload), ToHex(start + fmsVer + capabilities + mode + end));
    payload.FmsVer = nullptr;
    EXPECT_EQ(Write(payload), ToHex(start + capabilities + mode + end));
    payload.Mode = 0;
    EXPECT_EQ(Write(payload), ToHex(start + capabilities + end));
}

TEST_F(CommandPayload, TheInformationObjectNeedsLevelCodeAndDescription)
{
    const Bytes start = Hex("02 00 02") + "ab" + Hex(kZero) + Hex("05");
    CmdMsgPayload payload = Named("ab");
    payload.Level = "l";
    payload.Code = "c";
    EXPECT_EQ(Write(payload), ToHex(start));
    payload.Description = "d";
    EXPECT_EQ(Write(payload), ToHex(start + Hex("03 00 05") + "level" + Hex("02 00 01") + "l" + Hex("00 04") +
                                    "code" + Hex("02 00 01") + "c" + Hex("00 0B") + "description" +
                                    Hex("02 00 01") + "d" + Hex("00 00 09")));
    payload.Code = nullptr;
    EXPECT_EQ(Write(payload), ToHex(start));
    payload.Code = "c";
    payload.Level = nullptr;
    EXPECT_EQ(Write(payload), ToHex(start));
}

TEST_F(CommandPayload, AStreamNameAddsDetailsAndClientId)
{
    char stream[] = "live";
    client.StreamName = stream;
    calls::setClock(0x1000000ABCD); // the low 32 bits: abcd
    CmdMsgPayload payload = Named("ab");
    payload.Level = "l";
    payload.Code = "c";
    payload.Description = "d";
    const std::string expected =
        ToHex(Hex("02 00 02") + "ab" + Hex(kZero) + Hex("05 03 00 05") + "level" + Hex("02 00 01") + "l" +
              Hex("00 04") + "code" + Hex("02 00 01") + "c" + Hex("00 0B") + "description" + Hex("02 00 06") +
              "d live" + Hex("00 07") + "details" + Hex("02 00 04") + "live" + Hex("00 08") + "clientid" +
              Hex("02 00 04") + "abcd" + Hex("00 00 09"));
    EXPECT_EQ(Write(payload), expected);
    EXPECT_STREQ(client.ClientId, "abcd");
    calls::setClock(0x12345678);
    EXPECT_EQ(Write(payload), expected) << "the id is made once";
}

TEST_F(CommandPayload, TheLongestClientIdFits)
{
    char stream[] = "s";
    client.StreamName = stream;
    calls::setClock(0xFFFFFFFFFEDCBA98);
    CmdMsgPayload payload = Everything();
    EXPECT_NE(Write(payload), "none");
    EXPECT_STREQ(client.ClientId, "fedcba98");
}

TEST_F(CommandPayload, TheClientIdIsMadeOnlyWhenItIsNeeded)
{
    EXPECT_NE(Write(Everything()), "none");
    EXPECT_STREQ(client.ClientId, "");
}

TEST_F(CommandPayload, AnEmptyStreamNameIsAName)
{
    char stream[] = "";
    client.StreamName = stream;
    calls::setClock(15);
    CmdMsgPayload payload = Named("ab");
    payload.Level = "l";
    payload.Code = "c";
    payload.Description = "d";
    EXPECT_EQ(Write(payload),
              ToHex(Hex("02 00 02") + "ab" + Hex(kZero) + Hex("05 03 00 05") + "level" + Hex("02 00 01") +
                    "l" + Hex("00 04") + "code" + Hex("02 00 01") + "c" + Hex("00 0B") + "description" +
                    Hex("02 00 02") + "d " + Hex("00 07") + "details" + Hex("02 00 00 00 08") + "clientid" +
                    Hex("02 00 01") + "f" + Hex("00 00 09")));
}

TEST_F(CommandPayload, AStreamNameBeyond65535BytesIsSentByItsLengthModulo65536)
{
    std::string stream(70000, 'x'); // 70000 - 65536 = 4464 = 0x1170; with "d " before it 4466 = 0x1172
    client.StreamName = stream.data();
    calls::setClock(15);
    CmdMsgPayload payload = Named("ab");
    payload.Level = "l";
    payload.Code = "c";
    payload.Description = "d";
    EXPECT_EQ(Write(payload),
              ToHex(Hex("02 00 02") + "ab" + Hex(kZero) + Hex("05 03 00 05") + "level" + Hex("02 00 01") +
                    "l" + Hex("00 04") + "code" + Hex("02 00 01") + "c" + Hex("00 0B") + "description" +
                    Hex("02 11 72") + "d " + std::string(4464, 'x') + Hex("00 07") + "details" +
                    Hex("02 11 70") + std::string(4464, 'x') + Hex("00 08") + "clientid" + Hex("02 00 01") +
                    "f" + Hex("00 00 09")));
}

struct TransactionRow {
    const char *sentence;
    double id;
    const char *bytes; // null: refused
};

const TransactionRow kTransactions[] = {
    {"zero", 0.0, "00 00 00 00 00 00 00 00"},
    {"one", 1.0, "3F F0 00 00 00 00 00 00"},
    {"a fraction", 2.5, "40 04 00 00 00 00 00 00"},
    {"beyond every integer", 1e300, "7E 37 E4 3C 88 00 75 9C"},
    {"infinity", std::numeric_limits<double>::infinity(), "7F F0 00 00 00 00 00 00"},
    {"minus zero is not negative", -0.0, "80 00 00 00 00 00 00 00"},
    {"minus one", -1.0, nullptr},
    {"the smallest negative number", -std::numeric_limits<double>::denorm_min(), nullptr},
    {"minus infinity", -std::numeric_limits<double>::infinity(), nullptr},
    {"not a number", std::numeric_limits<double>::quiet_NaN(), nullptr},
};

TEST_F(CommandPayload, TheTransactionIdIsEchoedAsItCameUnlessItIsNegativeOrNotANumber)
{
    for (const TransactionRow &row : kTransactions) {
        SCOPED_TRACE(row.sentence);
        CmdMsgPayload payload = Named("ab");
        payload.TransactionId = row.id;
        log.clear();
        if (row.bytes == nullptr) {
            EXPECT_EQ(Write(payload), "none");
            EXPECT_EQ(log.lines(), Lines{"3 ERROR: WriteCmdMsgPayload: Invalid input arguments"});
        } else {
            EXPECT_EQ(Write(payload), ToHex(Hex("02 00 02") + "ab" + Hex("00") + Hex(row.bytes) + Hex("05")));
            EXPECT_EQ(log.lines(), Lines{});
        }
    }
}

TEST_F(CommandPayload, AMissingArgumentIsRefused)
{
    const CmdMsgPayload nameless = {};
    const CmdMsgPayload named = Named("ab");
    EXPECT_EQ(WriteCmdMsgPayload(&client, &pkt, &nameless), -1);
    EXPECT_EQ(WriteCmdMsgPayload(&client, nullptr, &named), -1);
    EXPECT_EQ(log.lines(), Lines(2, "3 ERROR: WriteCmdMsgPayload: Invalid input arguments"));
    testing::internal::CaptureStdout();
    EXPECT_EQ(WriteCmdMsgPayload(nullptr, &pkt, &named), -1);
    EXPECT_EQ(produced::CapturedStdout(), "RTMPWriter: ERROR: WriteCmdMsgPayload: Invalid input arguments\n");
}

// The lines of WriteCmdMsgPayload when the n-th allocation fails, for every n. Each value takes several
// allocations, so repetitions are left out. Nothing leaks, which the address sanitizer sees.
Lines FailureLines(CaptureLogger *log, const std::function<bool()> &write)
{
    Lines lines;
    for (int call = 1; call < 200; call++) {
        log->clear();
        calls::failNext(Call::Calloc, call);
        if (write()) {
            calls::failNext(Call::Calloc, 0);
            EXPECT_EQ(log->lines(), Lines{});
            return lines;
        }
        const Lines all = log->lines();
        EXPECT_FALSE(all.empty());
        const std::string last = all.empty() ? "" : all.back();
        if (lines.empty() || lines.back() != last) {
            lines.push_back(last);
        }
    }
    ADD_FAILURE() << "it never succeeds";
    return lines;
}

TEST_F(CommandPayload, EveryFieldThatCannotBeEncodedIsNamed)
{
    char stream[] = "live";
    client.StreamName = stream;
    const std::string start = "3 ERROR: WriteCmdMsgPayload: ";
    EXPECT_EQ(FailureLines(&log, [&] { return Write(Everything()) != "none"; }),
              (Lines{"3 ERROR: _result: Cannot encode Amf WriteCmdMsgPayload",
                     start + "Cannot encode Amf transactionId", start + "Cannot encode Amf fmsVer",
                     start + "Cannot encode Amf capabilities", start + "Cannot encode Amf mode",
                     start + "Cannot encode Amf sub-object1", start + "Cannot encode Amf level",
                     start + "Cannot encode Amf code", start + "Cannot allocate memory to tempBuffer",
                     start + "Cannot encode Amf description", start + "Cannot encode Amf details",
                     start + "Cannot encode Amf clientid", start + "Cannot encode Amf sub-object2",
                     start + "Error occured while generating payload data"}));
}

TEST_F(CommandPayload, ANullOrAStreamIdThatCannotBeEncodedIsNamed)
{
    CmdMsgPayload payload = Named("ab");
    payload.StreamId = 1;
    const std::string start = "3 ERROR: WriteCmdMsgPayload: ";
    EXPECT_EQ(
        FailureLines(&log, [&] { return Write(payload) != "none"; }),
        (Lines{"3 ERROR: ab: Cannot encode Amf WriteCmdMsgPayload", start + "Cannot encode Amf transactionId",
               start + "Cannot encode Amf null object marker", start + "Cannot encode Amf streamid",
               start + "Error occured while generating payload data"}));
}

} // namespace
