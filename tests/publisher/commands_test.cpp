// What a publisher sends before its first frame, to the byte, and what it makes of every answer.
#include "publisher_fixture.h"

#include "support/wait.h"

#include <cmath>
#include <sys/socket.h>
#include <unistd.h>

using namespace amf0;
using namespace publisher;
using namespace wire;

namespace {

Bytes Error(double transaction, const std::string &code, const std::string &description)
{
    return Values({String("_error"), Number(transaction), Null(),
                   Object({{"level", String("error")},
                           {"code", String(code)},
                           {"description", String(description)}})})
        .bytes;
}

const PublishCtx &AnswersOf(const Rig &rig)
{
    return *RtmpPublisherAnswers(rig.publisher);
}

} // namespace

TEST(PublisherCommands, GoOutToTheByte)
{
    Rig rig;
    rig.start();
    rig.handshake();
    EXPECT_TRUE(Same(rig.service->read().raw, Hex("02 000000 000004 01 00000000 00001000")));
    const Bytes connect = Hex("02 0007 'connect' 00 3FF0000000000000 03"
                              "0003 'app' 02 0004 'live' 0004 'type' 02 000A 'nonprivate'"
                              "0008 'flashVer' 02 001F 'FMLE/3.0 (compatible; rtmpcast)'"
                              "0006 'swfUrl' 02 001B 'rtmp://service.example/live'"
                              "0005 'tcUrl' 02 001B 'rtmp://service.example/live' 000009");
    const Message first = rig.command();
    EXPECT_TRUE(Sent(first, "03 000000 " + ToHex(BigEndian(connect.size(), 3)) + " 14 00000000", connect));
    rig.answer(1);
    EXPECT_TRUE(Same(rig.command().payload, Hex("02 000D 'releaseStream' 00 4000000000000000 05"
                                                "02 000B 'key?token=1'")));
    EXPECT_TRUE(
        Same(rig.command().payload, Hex("02 0009 'FCPublish' 00 4008000000000000 05 02 000B 'key?token=1'")));
    EXPECT_TRUE(Same(rig.command().payload, Hex("02 000C 'createStream' 00 4010000000000000 05")));
    rig.createdStream(4, 7);
    const Bytes publish =
        Hex("02 0007 'publish' 00 0000000000000000 05 02 000B 'key?token=1' 02 0004 'live'");
    const Message message = rig.command();
    EXPECT_TRUE(Sent(message, "03 000000 " + ToHex(BigEndian(publish.size(), 3)) + " 14 07000000", publish));
    rig.status("status", "NetStream.Publish.Start");
    rig.service->read(3);
    EXPECT_EQ(rig.result(), 0);
    EXPECT_EQ(RtmpPublisherSend(rig.publisher, RTMP_PUBLISHER_CLOSE_STREAM, nullptr), 0);
    const Message close = rig.command();
    EXPECT_EQ(close.stream, 7U);
    EXPECT_TRUE(Same(close.payload, Hex("02 000B 'closeStream' 00 0000000000000000 05")));
    RtmpPublisherStop(rig.publisher);
    EXPECT_TRUE(Same(rig.command().payload, Hex("02 000B 'FCUnpublish' 00 4014000000000000 05"
                                                "02 000B 'key?token=1'")));
    EXPECT_TRUE(Same(rig.command().payload,
                     Hex("02 000C 'deleteStream' 00 4018000000000000 05 00 401C000000000000")));
    EXPECT_EQ(close.chunkStream, 3U);
}

// stereo has its value, which receivers ask for; no two bytes too many stand behind the members.
TEST(PublisherCommands, MetadataIsWhole)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Frames);
    ASSERT_EQ(rig.headers.size(), 3U);
    EXPECT_EQ(rig.headers[0].type, 18);
    EXPECT_EQ(rig.headers[0].chunkStream, 8U);
    EXPECT_EQ(rig.headers[0].stream, 1U);
    EXPECT_EQ(rig.headers[0].timestamp, 0U);
    EXPECT_TRUE(Same(rig.headers[0].payload, Hex("02 000D '@setDataFrame' 02 000A 'onMetaData' 08 0000000A"
                                                 "0005 'width' 00 4094000000000000"
                                                 "0006 'height' 00 4086800000000000"
                                                 "000C 'videocodecid' 00 401C000000000000"
                                                 "0008 'avclevel' 00 403F000000000000"
                                                 "000A 'avcprofile' 00 4050800000000000"
                                                 "000D 'videodatarate' 00 40A3880000000000"
                                                 "000F 'audiosamplerate' 00 40E5888000000000"
                                                 "000D 'audiochannels' 00 4000000000000000"
                                                 "0006 'stereo' 01 01"
                                                 "000C 'audiocodecid' 00 4024000000000000 000009")));
    EXPECT_TRUE(Same(rig.headers[1].payload, AvcHeaderBody()));
    EXPECT_TRUE(Same(rig.headers[2].payload, AacHeaderBody()));
    EXPECT_EQ(RtmpPublisherSendMetaData(rig.publisher), 0);
    const Message again = rig.service->read();
    EXPECT_EQ(again.payload, rig.headers[0].payload);
}

// ------------------------------------------------------------------------------------------- who answers
// what

TEST(PublisherAnswers, AreKnownByTheirTransaction)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Handshake);
    rig.answer(17); // nobody asked
    rig.answer(0);
    rig.service->command(Error(18, "NetConnection.Call.Failed", "nobody asked"));
    rig.status("status", "NetStream.Some.Thing");
    rig.answer(1);
    EXPECT_EQ(NameOf(rig.command()), "releaseStream");
    rig.service->read(2);
    rig.service->command(Error(2, "NetConnection.Call.Failed", "releaseStream is not known here"));
    rig.service->command(Error(3, "NetConnection.Call.Failed", "FCPublish is not known here"));
    rig.answer(2);
    rig.createdStream(3, 5); // of FCPublish
    rig.status("warning", "NetStream.Some.Other");
    rig.createdStream(4, 9);
    const Message publish = rig.command();
    EXPECT_EQ(publish.stream, 9U);
    rig.createdStream(4, 11); // once is enough
    rig.answer(5);
    rig.status("status", "NetStream.Publish.Start");
    rig.service->read(3);
    EXPECT_EQ(rig.result(), 0);
    EXPECT_EQ(RtmpPublisherClient(rig.publisher)->StreamId, 9U);
    EXPECT_STREQ(AnswersOf(rig).StatusCode, "NetStream.Publish.Start");
}

TEST(PublisherAnswers, ArriveInPiecesOfAByte)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Handshake);
    rig.service->socket.sendInPieces(
        Chunks({.payload = Values({String("_result"), Number(1), Null(), Null()}).bytes}), 1);
    EXPECT_EQ(NameOf(rig.command()), "releaseStream");
}

struct Refusal {
    const char *name;
    Step before;
    Bytes answer;
    const char *code;
    const char *description;
    bool isStatus;
};

class PublisherRefused : public testing::TestWithParam<Refusal> {};

TEST_P(PublisherRefused, SaysWhatTheServiceSaid)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(GetParam().before);
    rig.service->command(GetParam().answer);
    EXPECT_EQ(rig.result(), RTMP_ERR_REFUSED);
    const PublishCtx &answers = AnswersOf(rig);
    EXPECT_STREQ(GetParam().isStatus ? answers.StatusCode : answers.ErrorCode, GetParam().code);
    EXPECT_STREQ(GetParam().isStatus ? answers.StatusDescription : answers.ErrorDescription,
                 GetParam().description);
}

// The end of the connection comes behind the answer, and may come before anything else is sent.
TEST_P(PublisherRefused, IsHeardInFrontOfTheEndOfTheConnection)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(GetParam().before);
    rig.service->command(GetParam().answer);
    rig.service->socket.leave();
    EXPECT_EQ(rig.result(), RTMP_ERR_REFUSED);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, PublisherRefused,
    testing::Values(Refusal{"Connect", Step::Handshake, Error(1, "NetConnection.Connect.Rejected", "no app"),
                            "NetConnection.Connect.Rejected", "no app", false},
                    Refusal{"CreateStream", Step::Connect, Error(4, "NetConnection.Call.Failed", "full"),
                            "NetConnection.Call.Failed", "full", false},
                    Refusal{"Publish", Step::CreateStream,
                            Status("error", "NetStream.Publish.BadName", "key is taken"),
                            "NetStream.Publish.BadName", "key is taken", true},
                    Refusal{"PublishWithoutId", Step::CreateStream,
                            Error(0, "NetStream.Publish.BadName", "unknown key"), "NetStream.Publish.BadName",
                            "unknown key", false},
                    Refusal{"StatusInPlaceOfAnAnswer", Step::Handshake,
                            Status("error", "NetConnection.Connect.Closed", "not today"),
                            "NetConnection.Connect.Closed", "not today", true}),
    [](const testing::TestParamInfo<Refusal> &info) { return info.param.name; });

// The service refuses, and resets the connection while commands are on their way to it.
TEST(PublisherAnswers, ARefusalIsHeardAlthoughWhatFollowsCannotBeSent)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Handshake);
    Bytes both;
    Append(both, Chunks({.payload = Values({String("_result"), Number(1), Null(), Null()}).bytes}));
    Append(both, Chunks({.payload = Status("error", "NetStream.Publish.BadName", "gone")}));
    rig.service->socket.send(both);
    rig.service->socket.leave();
    EXPECT_EQ(rig.result(), RTMP_ERR_REFUSED);
    EXPECT_STREQ(AnswersOf(rig).StatusDescription, "gone");
}

TEST(PublisherAnswers, HaveTheirOwnTextsOnly)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Connect);
    rig.service->command(Error(2, "NetConnection.Call.Failed", "releaseStream"));
    rig.service->command(Values({String("_error"), Number(4), Null(), Null()}).bytes);
    EXPECT_EQ(rig.result(), RTMP_ERR_REFUSED);
    EXPECT_STREQ(AnswersOf(rig).ErrorCode, "");
    EXPECT_STREQ(AnswersOf(rig).ErrorDescription, "");
}

TEST(PublisherAnswers, AStatusWithoutALevelIsNoError)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::CreateStream);
    rig.service->command(Values({String("onClientLogin"), Number(0), Null(),
                                 Object({{"level", String("error")}, {"code", String("Login.Later")}})})
                             .bytes);
    rig.service->command(
        Values({String("onStatus"), Number(0), Null(), Object({{"code", String("NetStream.Publish.Start")}})})
            .bytes);
    rig.service->read(3);
    EXPECT_EQ(rig.result(), 0);
    EXPECT_STREQ(AnswersOf(rig).StatusLevel, "");
}

TEST(PublisherAnswers, LongTextsAreCut)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Handshake);
    rig.service->setChunkSize(100000);
    rig.service->command(Error(1, std::string(60000, 'c'), std::string(1023, 'd')));
    EXPECT_EQ(rig.result(), RTMP_ERR_REFUSED);
    EXPECT_EQ(AnswersOf(rig).ErrorCode, std::string(1023, 'c'));
    EXPECT_EQ(AnswersOf(rig).ErrorDescription, std::string(1023, 'd'));
}

// The eight bytes of a number.
static Value NumberOf(const char *bytes)
{
    return {Hex("00") + Hex(bytes), {9}};
}

// An answer to createStream that says no id, or one that 32 bits do not hold, is none that frames could be
// sent with.
TEST(PublisherAnswers, AStreamNeedsAnId)
{
    const double infinity = std::numeric_limits<double>::infinity();
    const std::vector<Value> ids = {Null(),
                                    String("1"),
                                    Object({}),
                                    Number(-1),
                                    Number(-5e-324),
                                    Number(4294967295.5),
                                    Number(4294967296.0), // 2^32
                                    Number(1e10),
                                    Number(9007199254740992.0), // 2^53
                                    Number(1e300),
                                    Number(infinity),
                                    Number(-infinity),
                                    Number(std::nan("")),
                                    NumberOf("FFF0000000000001"),
                                    NumberOf("0009000000000000"), // it ends the values in front of it
                                    Value{}};
    for (const Value &id : ids) {
        Rig rig;
        rig.start();
        rig.serviceUpTo(Step::Connect);
        rig.service->command(Values({String("_result"), Number(4), Null(), id}).bytes);
        EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION) << ToHex(id.bytes);
    }
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Connect);
    rig.service->command(Values({String("_result"), Number(4)}).bytes);
    EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
}

// A fraction is cut off.
TEST(PublisherAnswers, TheLastStreamIdIsAsGoodAsTheFirst)
{
    const struct {
        Value id;
        uint32_t stream;
    } rows[] = {{Number(0), 0},
                {Number(-0.0), 0},
                {NumberOf("0000090000000000"), 0}, // the smallest of numbers, nearly
                {Number(0.5), 0},
                {Number(1.75), 1},
                {Number(2147483647.0), 0x7FFFFFFF},
                {Number(2147483648.0), 0x80000000},
                {Number(4294967294.5), 0xFFFFFFFE},
                {Number(4294967295.0), 0xFFFFFFFF}};
    for (const auto &row : rows) {
        Rig rig;
        rig.start();
        rig.serviceUpTo(Step::Connect);
        rig.service->command(Values({String("_result"), Number(4), Null(), row.id}).bytes);
        EXPECT_EQ(rig.command().stream, row.stream) << ToHex(row.id.bytes);
    }
}

// ------------------------------------------------------------------------------------------- nobody answers

class PublisherWithoutAnswer : public testing::TestWithParam<Step> {};

TEST_P(PublisherWithoutAnswer, GivesUpInTime)
{
    Rig rig({.answerMs = 150});
    rig.start();
    rig.serviceUpTo(GetParam());
    const uint64_t since = MonotonicMs();
    EXPECT_EQ(rig.result(), RTMP_ERR_NO_ANSWER);
    EXPECT_LT(MonotonicMs() - since, 5000U);
    rig.answer(1); // too late: nobody listens, nobody minds
}

// Each byte comes well in time, and the answer never.
TEST_P(PublisherWithoutAnswer, IsNotKeptByBytesThatDribble)
{
    Rig rig({.answerMs = 200});
    rig.start();
    rig.serviceUpTo(GetParam());
    const Bytes slow = GetParam() == Step::Connected
                           ? Bytes(3000, 3)
                           : Join({Hex("03 000000 00FFFF 14 00000000"), Bytes(3000, 0)});
    const uint64_t since = MonotonicMs();
    for (size_t i = 0; i < slow.size() && !rig.hasEnded(); i++) {
        rig.service->socket.send({slow[i]});
        WaitUntil([&rig] { return rig.hasEnded(); }, 4);
    }
    EXPECT_EQ(rig.result(), RTMP_ERR_NO_ANSWER);
    EXPECT_LT(MonotonicMs() - since, 2000U) << "ten times its limit";
}

// Whole messages, none of them the answer.
TEST_P(PublisherWithoutAnswer, IsNotKeptByMessagesThatAreNone)
{
    if (GetParam() == Step::Connected) {
        return; // messages come behind the handshake
    }
    Rig rig({.answerMs = 200});
    rig.start();
    rig.serviceUpTo(GetParam());
    const uint64_t since = MonotonicMs();
    while (!rig.hasEnded() && MonotonicMs() - since < 5000) {
        rig.service->command(Values({String("onBWDone"), Number(0), Null()}).bytes);
        WaitUntil([&rig] { return rig.hasEnded(); }, 5);
    }
    EXPECT_EQ(rig.result(), RTMP_ERR_NO_ANSWER);
    EXPECT_LT(MonotonicMs() - since, 2000U);
}

TEST_P(PublisherWithoutAnswer, EndsWithTheConnection)
{
    for (const bool reset : {false, true}) {
        Rig rig;
        rig.start();
        rig.serviceUpTo(GetParam());
        reset ? rig.service->socket.reset() : rig.service->socket.leave();
        EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
    }
}

TEST_P(PublisherWithoutAnswer, EndsWithTheConnectionInTheMiddleOfAnAnswer)
{
    const Bytes answer = GetParam() == Step::Connected
                             ? Bytes(1 + 1536 + 700, 3)
                             : Chunks({.payload = Status("status", "NetStream.Publish.Start", "start")});
    for (const size_t length : {size_t{1}, size_t{5}, size_t{12}, size_t{60}}) {
        Rig rig;
        rig.start();
        rig.serviceUpTo(GetParam());
        rig.service->socket.send(Slice(answer, 0, GetParam() == Step::Connected ? length * 30 : length));
        rig.service->socket.leave();
        EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
    }
}

// A command that cannot be decoded is no RTMP.
TEST_P(PublisherWithoutAnswer, EndsWithWhatIsNoCommand)
{
    if (GetParam() == Step::Connected) {
        return; // the handshake's bytes may be any
    }
    Rig rig;
    rig.start();
    rig.serviceUpTo(GetParam());
    rig.service->command(Hex("02 00FF 'cut'"));
    EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
}

std::string NameOfStep(const testing::TestParamInfo<Step> &info)
{
    static constexpr const char *kNames[] = {"Handshake", "Connect", "CreateStream", "Publish"};
    return kNames[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Steps, PublisherWithoutAnswer,
                         testing::Values(Step::Connected, Step::Handshake, Step::Connect, Step::CreateStream),
                         NameOfStep);

// A service that answers the handshake and then takes nothing, and a connect that no buffer holds.
TEST(PublisherWithoutReader, GivesUpInTime)
{
    const std::string text(65535, 'x');
    Rig rig({.app = text, .tcUrl = text, .key = text, .answerMs = 300});
    const int small = 4096;
    setsockopt(rig.socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    rig.service->socket.setReceiveBuffer(4096);
    rig.start();
    rig.handshake();
    const int32_t result = rig.result();
    EXPECT_TRUE(result == RTMP_ERR_CONNECTION || result == RTMP_ERR_NO_ANSWER) << result;
}

// --------------------------------------------------------------------------------------------- arguments

TEST(PublisherArguments, TextsMayBeAsLongAsAmfHasThem)
{
    const std::string text(65535, 'x');
    Rig rig({.app = text, .tcUrl = text, .key = text});
    rig.start();
    rig.handshake();
    rig.service->read();
    const Message connect = rig.command();
    EXPECT_GT(connect.payload.size(), 3 * text.size());
    EXPECT_GT(connect.chunks, 40U) << "cut by the size that was announced";
    rig.answer(1);
    EXPECT_EQ(rig.command().payload.size(), 13 + 3 + 9 + 1 + 3 + text.size());
}

TEST(PublisherArguments, WhatNoServiceCouldBeToldIsRefused)
{
    Rig rig;
    const std::string tooLong(65536, 'x');
    const RtmpPublisherTarget good = {"live", "rtmp://s/live", "key", nullptr, nullptr, 0, 0};
    RtmpPublisherTarget bad[] = {good, good, good, good, good, good, good};
    bad[0].App = nullptr;
    bad[1].TcUrl = nullptr;
    bad[2].Key = nullptr;
    bad[3].App = tooLong.c_str();
    bad[4].TcUrl = tooLong.c_str();
    bad[5].Key = tooLong.c_str();
    bad[6].FlashVer = tooLong.c_str();
    for (const RtmpPublisherTarget &target : bad) {
        int error = 0;
        EXPECT_EQ(RtmpPublisherCreate(rig.server, rig.socket, nullptr, &target, &error), nullptr);
        EXPECT_EQ(error, RTMP_ERR_INVALID_ARGUMENT);
    }
    int error = 0;
    EXPECT_EQ(RtmpPublisherCreate(nullptr, rig.socket, nullptr, &good, &error), nullptr);
    EXPECT_EQ(error, RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpPublisherCreate(rig.server, -1, nullptr, &good, nullptr), nullptr);
    EXPECT_EQ(RtmpPublisherCreate(rig.server, rig.socket, nullptr, nullptr, nullptr), nullptr);
    RtmpPublisherDestroy(nullptr);
}

TEST(PublisherArguments, AnUnknownCommandIsNotSent)
{
    Rig rig;
    EXPECT_EQ(RtmpPublisherSend(rig.publisher, static_cast<RtmpPublisherCommand>(99), nullptr),
              RTMP_ERR_INVALID_ARGUMENT);
}

TEST(PublisherArguments, DataHasALength)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Frames);
    const uint8_t byte = 5;
    EXPECT_EQ(RtmpPublisherSendData(rig.publisher, nullptr, 1), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpPublisherSendData(rig.publisher, &byte, 0), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpPublisherSendData(rig.publisher, &byte, 0x1000000), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpPublisherSendData(rig.publisher, &byte, 1), 0);
    EXPECT_EQ(rig.service->read().payload, Bytes{5});
}

TEST(PublisherArguments, WithoutASessionThereIsNoMetadataToSend)
{
    Rig rig;
    EXPECT_EQ(RtmpPublisherSendMetaData(rig.publisher), RTMP_FAILED);
    EXPECT_TRUE(rig.log.contains("3 ERROR: RtmpPublisherSendMetaData: Cannot send metadata to the service"));
}

// A registration that fails leaves the session without media at once, also under whoever is about to write
// them down.
TEST(PublisherArguments, MetadataIsOfOneRegistrationWhateverTheHostRegistersMeanwhile)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Frames);
    rig.awaitFrames();
    const Bytes sets = ParameterSets();
    const VideoMediaInfo video = {7, 2500000, {1, 2, 3}, static_cast<int32_t>(sets.size()), sets.data()};
    const Bytes &both = rig.headers[0].payload;
    ASSERT_EQ(RtmpAddMediaInfo(rig.session, &video, nullptr), 0);
    ASSERT_EQ(RtmpPublisherSendMetaData(rig.publisher), 0);
    const Bytes pictures = rig.service->read().payload;
    std::atomic<bool> done = false;
    std::thread host([&] {
        const VideoMediaInfo broken = {7, 2500000, {1, 2, 3}, 3, sets.data()};
        const Bytes config = Hex("1210");
        const AudioMediaInfo audio = {10, 4, static_cast<int32_t>(config.size()), config.data()};
        while (!done) {
            EXPECT_EQ(RtmpAddMediaInfo(rig.session, &broken, nullptr), RTMP_ERR_VIDEO_INFO);
            EXPECT_EQ(RtmpAddMediaInfo(rig.session, &video, &audio), 0);
            EXPECT_EQ(RtmpAddMediaInfo(rig.session, &video, nullptr), 0);
        }
    });
    constexpr int often = 3000;
    for (int i = 0; i < often; i++) {
        const int32_t status = RtmpPublisherSendMetaData(rig.publisher);
        EXPECT_TRUE(status == 0 || status == RTMP_FAILED) << status;
        if (status == 0) {
            const Bytes payload = rig.service->read().payload;
            EXPECT_TRUE(payload == both || payload == pictures);
        }
    }
    done = true;
    host.join();
}

TEST(PublisherArguments, ASessionWithoutMediaIsNotPublished)
{
    Rig rig({.media = false});
    rig.start();
    EXPECT_EQ(rig.result(), RTMP_ERR_NO_MEDIA_INFO);
    rig.destroyPublisher();
    close(rig.socket);
    rig.socket = -1;
    EXPECT_TRUE(rig.service->socket.ends()) << "not a byte has been sent";
}

TEST(PublisherArguments, ASessionOfAnotherServerIsNotPublished)
{
    Rig rig;
    Rig other;
    EXPECT_EQ(RtmpPublisherStart(rig.publisher, other.session), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpPublisherStart(rig.publisher, nullptr), RTMP_ERR_INVALID_ARGUMENT);
}

// ------------------------------------------------------------------------------------------------ memory

TEST(PublisherMemory, WithoutItNothingIsCreated)
{
    Rig rig;
    const RtmpPublisherTarget target = {"live", "rtmp://s/live", "key", nullptr, nullptr, 0, 0};
    int number = 0;
    int error = RTMP_ERR_MEMORY;
    while (error != 0) {
        error = 0;
        RtmpPublisher *made = nullptr;
        {
            const FailingAllocation failing(++number);
            made = RtmpPublisherCreate(rig.server, rig.socket, nullptr, &target, &error);
        }
        EXPECT_EQ(made == nullptr, error != 0);
        EXPECT_TRUE(error == 0 || error == RTMP_ERR_MEMORY);
        RtmpPublisherDestroy(made);
    }
    EXPECT_GT(number, 6);
}

// Each allocation on the way to the first frame fails in its turn: a code comes back, and nothing is left
// behind.
TEST(PublisherMemory, EveryAllocationOfTheStartMayFail)
{
    int32_t result = -1;
    int failures = 0;
    for (int number = 1; result != 0; number++) {
        Rig rig({.steady = number % 2 == 0});
        std::thread service([&rig] {
            try {
                rig.handshake();
                rig.service->read();
                rig.command();
                rig.answer(1);
                rig.service->read(3);
                rig.createdStream(4, 1);
                rig.command();
                rig.status("status", "NetStream.Publish.Start");
                rig.service->read(3);
            } catch (const PeerError &) { // the publisher has given up
            }
        });
        {
            const FailingAllocation failing(number);
            result = RtmpPublisherStart(rig.publisher, rig.session);
        }
        shutdown(rig.socket, SHUT_RDWR);
        service.join();
        failures += result != 0;
        ASSERT_LT(number, 500);
    }
    EXPECT_GT(failures, 10);
}
