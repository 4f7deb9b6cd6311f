// One AMF0 value at a time, the scalar readers, and commands: every place where a received number becomes an
// integer or a text, and the answers that repeat one.
//
//   mode:8  what the mode reads
//
// max_len: 4096
#include "amf/decode.h"
#include "amf/encode.h"
#include "amf/object.h"
#include "amf/value_writer.h"
#include "command/command.h"
#include "command/received_command.h"
#include "message/generate.h"
#include "message/recv_packet.h"
#include "message/send_list.h"
#include "rtmpcast/player.h"
#include "state/client.h"
#include "state/client_list.h"
#include "support/amf_model.h"
#include "support/host_fakes.h"

#include <sys/socket.h>

namespace {

using amf_model::Value;

// ---------------------------------------------------------------------------------------------------- one
// value

void CheckOneValue(FuzzInput *in, bool named)
{
    CountingLog log;
    RtmpServer server = {};
    server.Logger = log.get();
    const FuzzBytes bytes = Rest(in);
    const ExactCopy input(bytes);
    AmfObjProperty prop = {};
    const int32_t consumed = ReadAmfProp(&server, &prop, input.data(), input.size(), named ? 0 : 1);
    Value value;
    amf_model::Reader model(bytes);
    const bool isWhole = model.readValue(named, &value);
    FUZZ_CHECK(consumed == (isWhole ? static_cast<int32_t>(model.consumed()) : -1));
    FUZZ_CHECK(log.takeCount() == model.lines);
    if (isWhole) {
        amf_model::CheckSame(prop, value, input);
    }
    if (prop.type == AMF_OBJECT) { // also a part of one
        FUZZ_CHECK(FreeDecodedAmfObject(&server, &prop.ObjVal.object) == 0);
    }
    FUZZ_CHECK(ReadAmfProp(&server, &prop, nullptr, 10, 1) == -1);
    FUZZ_CHECK(ReadAmfProp(&server, &prop, input.data(), 0, 1) == -1);
}

void CheckStrictArray(FuzzInput *in)
{
    CountingLog log;
    RtmpServer server = {};
    server.Logger = log.get();
    const FuzzBytes bytes = Rest(in);
    const ExactCopy input(bytes);
    AmfObject list = {};
    const int32_t consumed = ReadAmfStrictArray(&server, &list, input.data(), input.size());
    std::vector<Value> values;
    amf_model::Reader model(bytes);
    const bool isWhole = model.readElements(&values);
    FUZZ_CHECK(consumed == (isWhole ? static_cast<int32_t>(model.consumed()) : -1));
    FUZZ_CHECK(log.takeCount() == model.lines);
    amf_model::CheckSame(list, values, input);
    FUZZ_CHECK(FreeDecodedAmfObject(&server, &list) == 0);
}

// -------------------------------------------------------------------------------------------------------
// numbers

double NumberOf(uint64_t bits)
{
    double number = 0;
    memcpy(&number, &bits, sizeof number);
    return number;
}

uint64_t BitsIn(const uint8_t *bytes)
{
    uint64_t bits = 0;
    for (int i = 0; i < 8; i++) {
        bits = bits << 8 | bytes[i];
    }
    return bits;
}

// Towards zero; what does not fit stays at the end of the range, and what is no number is 0. Read off the
// bits.
int32_t IntegerOf(uint64_t bits)
{
    const int exponent = static_cast<int>(bits >> 52 & 0x7FF) - 1023;
    const uint64_t fraction = bits & 0xFFFFFFFFFFFFF;
    const bool isNegative = bits >> 63 != 0;
    if (exponent < 0 || (exponent == 1024 && fraction != 0)) {
        return 0;
    }
    if (exponent >= 31) {
        return isNegative ? INT32_MIN : INT32_MAX;
    }
    const int64_t whole = static_cast<int64_t>((fraction | uint64_t{1} << 52) >> (52 - exponent));
    return static_cast<int32_t>(isNegative ? -whole : whole);
}

void CheckScalars(FuzzInput *in)
{
    const FuzzBytes bytes = Rest(in);
    if (bytes.size() < 8) {
        return;
    }
    const ExactCopy eight(FuzzBytes(bytes.begin(), bytes.begin() + 8));
    const uint64_t bits = BitsIn(bytes.data());
    const double number = ReadAmfNumber(nullptr, eight.data());
    FUZZ_CHECK(memcmp(&number, &bits, sizeof bits) == 0);
    FUZZ_CHECK(TruncateToInt32(number) == IntegerOf(bits));
    FUZZ_CHECK(ReadAmfBoolean(nullptr, eight.data()) == (bytes[0] == 0 ? 1 : 0));

    const ExactCopy written(FuzzBytes(9));
    WriteDouble(nullptr, written.data(), number);
    FUZZ_CHECK(memcmp(written.data(), eight.data(), 8) == 0);
    ByteWriter out = WriterOver(written.data(), 9);
    PutNumberValue(&out, number);
    FUZZ_CHECK(!out.Overrun && written.data()[0] == AMF_NUMBER && BitsIn(written.data() + 1) == bits);

    const size_t length = static_cast<size_t>(bytes[0]) * 256 + bytes[1];
    if (length + 2 <= bytes.size()) {
        const ExactCopy text(
            FuzzBytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length + 2)));
        AmfString read = {};
        ReadAmfString(nullptr, text.data(), &read);
        FUZZ_CHECK(read.len == length && read.data == reinterpret_cast<char *>(text.data()) + 2);
    }
}

// ------------------------------------------------------------------------------------------------------
// commands

// A client with its server and a session "live" as records, without threads; what it sends is read at the
// other end.
struct CommandTarget {
    explicit CommandTarget(uint8_t choices)
    {
        static const PublishCtx untouched = {};
        HostFakes::get().reset();
        server.Logger = log.get();
        server.ChunkSize = 4096;
        server.LiveSessionListLock = PTHREAD_MUTEX_INITIALIZER;
        session.Server = &server;
        session.Name = sessionName;
        session.MediaInfoAdded = 1;
        session.ClientListLock = PTHREAD_MUTEX_INITIALIZER;
        session.MemberLock = PTHREAD_MUTEX_INITIALIZER;
        session.MemberLeft = PTHREAD_COND_INITIALIZER;
        server.LiveSessionHead = &session;
        server.LiveSessionTail = &session;
        server.LiveSessionCount = 1;
        client = CreateNewRtmpClient(&server, RTMP_CONN_RTMP, ends()[0], "127.0.0.1", 1935, nullptr);
        FUZZ_CHECK(client != nullptr);
        client->PlayerFlags = (choices & 0x80) != 0 ? RTMP_PLAYERS_ALL : RTMP_PLAYERS_EXACT;
        context = untouched;
        client->PublishCtx = (choices & 0x40) != 0 ? nullptr : &context;
        if ((choices & 0x20) != 0) {
            (void)LinkClient(&session, client);
        }
    }
    CommandTarget(const CommandTarget &) = delete;
    ~CommandTarget()
    {
        if (client->Session != nullptr) {
            (void)UnlinkClient(&session, client);
        }
        FreeClientRecord(client);
        FUZZ_CHECK(pthread_mutex_trylock(&server.LiveSessionListLock) == 0); // given back
        FUZZ_CHECK(pthread_mutex_trylock(&session.ClientListLock) == 0);
        uint8_t drained[4096];
        while (recv(ends()[1], drained, sizeof drained, MSG_DONTWAIT) > 0) {
        }
    }

    int parse(const FuzzBytes &body)
    {
        pkt = {};
        pkt.MsgTypeId = RTMP_TYPE_AMF0_COMMAND;
        pkt.ChunkStreamId = 3;
        pkt.MsgLength = static_cast<uint32_t>(body.size());
        payload = std::make_unique<ExactCopy>(body);
        pkt.PayloadData = payload->data();
        return ParseCmdMsgReq(client, &pkt, &kind);
    }
    void freeValues()
    {
        FUZZ_CHECK(FreeDecodedCommand(&server, &pkt) == 0);
    }

    CountingLog log;
    RtmpServer server = {};
    RtmpSession session = {};
    PublishCtx context = {};
    RtmpClient *client = nullptr;
    RtmpRecvPkt pkt = {};
    uint32_t kind = 777;
    std::unique_ptr<ExactCopy> payload;

  private:
    static int *ends()
    {
        static int pair[2] = {-1, -1};
        if (pair[0] == -1) {
            FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0);
        }
        return pair;
    }
    char sessionName[5] = "live";
};

template <size_t Size> bool IsTerminated(const char (&text)[Size])
{
    return memchr(text, '\0', Size) != nullptr;
}

void CheckContext(const PublishCtx &context)
{
    FUZZ_CHECK(IsTerminated(context.ChallengeString) && IsTerminated(context.SessionIdText));
    FUZZ_CHECK(IsTerminated(context.ErrorCode) && IsTerminated(context.ErrorDescription));
    FUZZ_CHECK(IsTerminated(context.StatusLevel) && IsTerminated(context.StatusCode));
    FUZZ_CHECK(IsTerminated(context.StatusDescription));
}

// The number that an answer repeats, or none where none can be made.
void CheckAnswer(CommandTarget *target, uint32_t kind, const char *name, bool repeats, uint64_t bits)
{
    RtmpSendPkt *answer = GenerateRtmpMsg(target->client, &target->pkt, kind);
    const double number = NumberOf(bits);
    const bool isSendable = !repeats || number >= 0;
    FUZZ_CHECK((answer != nullptr) == isSendable);
    if (answer == nullptr) {
        return;
    }
    const size_t length = strlen(name);
    FUZZ_CHECK(answer->PayloadLength >= 3 + length + 9);
    FUZZ_CHECK(memcmp(answer->PayloadData + 3, name, length) == 0);
    FUZZ_CHECK(!repeats || BitsIn(answer->PayloadData + 3 + length + 1) == bits);
    FreeSendPkt(answer);
}

// Any body. What it decodes to says whether it is a command, and which number an answer repeats.
void CheckAnyCommand(FuzzInput *in, uint8_t choices)
{
    CommandTarget target(choices);
    const FuzzBytes body = Rest(in);
    std::vector<Value> values;
    amf_model::Reader model(body);
    const bool isWhole = model.readList(false, &values);
    const int status = target.parse(body);
    FUZZ_CHECK(isWhole || status == -1);
    FUZZ_CHECK((target.pkt.Result.Amf != nullptr) == isWhole);
    CheckContext(target.context);
    if (isWhole) {
        const bool hasNumber = values.size() > 1 && values[1].type == AMF_NUMBER;
        const uint64_t bits =
            hasNumber ? values[1].bits : uint64_t{0xBFF0000000000000}; // none: -1, which is refused
        CheckAnswer(&target, RTMP_MSG_CONNECT, "_result", true, bits);
        CheckAnswer(&target, RTMP_MSG_CREATE_STREAM, "_result", true, bits);
        CheckAnswer(&target, RTMP_MSG_CONNECT_REJECTED, "_error", true, bits);
        CheckAnswer(&target, RTMP_MSG_PLAY_START, "onStatus", false, 0);
        CheckAnswer(&target, RTMP_MSG_STREAM_NOT_FOUND, "onStatus", false, 0);
    }
    target.freeValues();
    FUZZ_CHECK(target.pkt.Result.Amf == nullptr);
}

void PutString(amf_model::Encoded *out, const std::string &text)
{
    amf_model::PutNumber(out, AMF_STRING, 1);
    amf_model::PutText(out, text);
}

void PutNumberBits(amf_model::Encoded *out, uint64_t bits)
{
    amf_model::PutNumber(out, AMF_NUMBER, 1);
    amf_model::PutNumber(out, bits, 8);
}

// name, transaction, {key: number} or null, number, text
FuzzBytes CommandWith(const char *name, const char *key, uint64_t bits)
{
    amf_model::Encoded out;
    PutString(&out, name);
    PutNumberBits(&out, bits);
    const bool isModuleInfo = strcmp(name, "moduleInfo") == 0;
    amf_model::PutNumber(&out, isModuleInfo || key == nullptr ? AMF_NULL : AMF_OBJECT, 1);
    if (isModuleInfo) {
        amf_model::PutNumber(&out, AMF_OBJECT, 1);
    }
    if (key != nullptr) {
        amf_model::PutText(&out, key);
        PutNumberBits(&out, bits);
        amf_model::PutNumber(&out, AMF_OBJECT_END, 3);
    }
    PutNumberBits(&out, bits);
    PutString(&out, "challenge");
    return out.bytes;
}

bool NamesCodec(uint64_t bits, int32_t all, int32_t codec)
{
    const int32_t codecs = IntegerOf(bits);
    return codecs == all || (codecs & codec) != 0;
}

// A viewer count is reported when it differs from the one before, and as a text of its digits. What came
// before is the library's, which outlives a client.
std::vector<StatusReport> ReportsOf(CommandTarget *target, const char *key, uint64_t bits)
{
    HostFakes::get().statusReports.clear();
    FUZZ_CHECK(target->parse(CommandWith("moduleInfo", key, bits)) == 0);
    target->freeValues();
    return HostFakes::get().statusReports();
}

void CheckViewers(CommandTarget *target, const char *key, uint64_t bits)
{
    constexpr uint64_t one = 0x3FF0000000000000;
    constexpr uint64_t two = 0x4000000000000000;
    (void)ReportsOf(target, key, IntegerOf(bits) == 1 ? two : one);
    const std::vector<StatusReport> reports = ReportsOf(target, key, bits);
    FUZZ_CHECK(reports.size() == 1);
    FUZZ_CHECK(ReportsOf(target, key, bits).empty());
    char text[400] = "";
    if (NumberOf(bits) >= 0) {
        snprintf(text, sizeof text, "%.0f", NumberOf(bits));
    }
    FUZZ_CHECK(reports[0].value == text);
    FUZZ_CHECK(reports[0].key == (key[0] == 'v' ? "rtmpCurrentViewerCount" : "rtmpTotalViewerCount"));
}

// One number in every place of a command where it becomes an integer.
void CheckNumberInCommands(uint64_t bits, uint8_t choices, bool isAll)
{
    const bool begins0009 = bits >> 48 == 9; // ends the list that it stands in: the command is another one
    if (begins0009) {
        return;
    }
    const bool isOpen = (choices & 0x80) != 0;
    CommandTarget target(choices & 0x80);
    const struct {
        const char *key;
        bool isTaken;
    } rows[] = {
        {"audioCodecs", isOpen || NamesCodec(bits, 0xFFF, 0x400)},
        {"videoCodecs", isOpen || NamesCodec(bits, 0xFF, 0x80)},
        {"objectEncoding", (bits << 1) == 0}, // 0 and -0
    };
    for (const auto &row : rows) {
        FUZZ_CHECK(target.parse(CommandWith("connect", row.key, bits)) == (row.isTaken ? 0 : -1));
        target.freeValues();
    }
    FUZZ_CHECK(target.parse(CommandWith("setChallenge", nullptr, bits)) == 0);
    FUZZ_CHECK(std::to_string(IntegerOf(bits)) == target.context.SessionIdText);
    FUZZ_CHECK(strcmp(target.context.ChallengeString, "challenge") == 0);
    target.freeValues();
    for (const char *name :
         {"_result", "_error", "onStatus", "createStream", "pause", "play", "deleteStream"}) {
        (void)target.parse(CommandWith(name, nullptr, bits));
        target.freeValues();
    }
    FUZZ_CHECK(memcmp(&target.context.ResultTransactionId, &bits, sizeof bits) == 0);
    FUZZ_CHECK(memcmp(&target.context.ErrorTransactionId, &bits, sizeof bits) == 0);
    FUZZ_CHECK(memcmp(&target.context.StatusTransactionId, &bits, sizeof bits) == 0);

    CheckViewers(&target, isAll ? "allViewers" : "viewers", bits);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const uint8_t mode = in.byte();
    switch (mode & 7) {
    case 0:
        CheckOneValue(&in, false);
        break;
    case 1:
        CheckOneValue(&in, true);
        break;
    case 2:
        CheckStrictArray(&in);
        break;
    case 3:
        CheckScalars(&in);
        break;
    case 4: {
        const uint64_t high = in.number(4);
        const uint64_t bits = high << 32 | in.number(4);
        CheckNumberInCommands(bits, mode, (in.byte() & 1) != 0);
        break;
    }
    default:
        CheckAnyCommand(&in, mode);
        break;
    }
    return 0;
}
