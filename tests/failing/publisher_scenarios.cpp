// The ways of a publisher. What the service says lies in the socket from the start.
#include "failing/every_call_rig.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "support/amf_bytes.h"
#include "support/scripted_peer.h"
#include "support/wait.h"

#include <deque>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace every_call {
namespace {

using namespace amf0;

constexpr size_t kPacket = 1536;

Bytes Said(const Bytes &values)
{
    return wire::Chunks({.payload = values});
}

Bytes Status(const std::string &level)
{
    return Said(Values({String("onStatus"), Number(0), Null(),
                        Object({{"level", String(level)}, {"code", String("a.code")}})})
                    .bytes);
}

Bytes Result(double transaction)
{
    return Said(Values({String("_result"), Number(transaction), Null(), Number(1)}).bytes);
}

// S0, S1, S2.
Bytes Handshake()
{
    return Hex("03") + Counting(kPacket) + Counting(kPacket);
}

// S1 signed as a server signs it.
Bytes SignedHandshake()
{
    Bytes s1 = Counting(kPacket);
    const size_t at = wire::DigestOffset(s1, 1);
    const Bytes digest = wire::PacketDigest(s1, at, wire::ServerKey().substr(0, 36));
    std::copy(digest.begin(), digest.end(), s1.begin() + static_cast<std::ptrdiff_t>(at));
    return Hex("03") + s1 + Counting(kPacket);
}

Bytes WholeStart()
{
    return Handshake() + Result(1) + Result(4) + Status("status");
}

struct PublisherSetup {
    Road road = Road::Exact;
    bool isSigned = false;
    bool isStarted = false;
    bool overTls = false;
    Bytes says = {}; // behind the start, where it is started
};

// Publishers of one session, each on a socket pair of its own.
class Publishing {
  public:
    Publishing(Trial &trial, const PublisherSetup &setup) : host(trial, {.road = setup.road}), setup_(setup)
    {
    }
    ~Publishing()
    {
        for (const Connected &each : all_) {
            close(each.ends[1]);
            RtmpPublisherDestroy(each.publisher);
            close(each.ends[0]);
        }
    }
    Publishing(const Publishing &) = delete;
    Publishing &operator=(const Publishing &) = delete;

    void begin()
    {
        connect();
        publisher = create();
        all_.back().publisher = publisher;
        if (setup_.isStarted) {
            hear(WholeStart());
            EXPECT_EQ(RtmpPublisherStart(publisher, host.session), 0);
        }
        hear(setup_.says);
    }
    void connect()
    {
        all_.push_back({});
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, all_.back().ends), 0);
    }
    RtmpPublisher *create()
    {
        const RtmpPublisherTarget target = {
            "live", "rtmp://service.example/live",        "key", nullptr, nullptr,
            2000,   static_cast<uint8_t>(setup_.isSigned)};
        return RtmpPublisherCreate(host.server, all_.back().ends[0],
                                   setup_.overTls ? &all_.back().ends[0] : nullptr, &target, nullptr);
    }
    void hear(const Bytes &bytes)
    {
        EXPECT_EQ(send(all_.back().ends[1], bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }
    void forget() // the newest is destroyed
    {
        all_.back().publisher = nullptr;
    }

    Host host;
    RtmpPublisher *publisher = nullptr; // the newest

  private:
    struct Connected {
        int ends[2];
        RtmpPublisher *publisher = nullptr;
    };
    const PublisherSetup setup_;
    std::deque<Connected> all_; // a handle is the place of its socket
};

typedef int32_t (*Step)(const Publishing &publishing);

void Go(Trial &trial, const PublisherSetup &setup, Step step, int good)
{
    Publishing publishing(trial, setup);
    publishing.begin();
    trial.run([&] { return step(publishing); },
              [&] {
                  publishing.begin();
                  return step(publishing);
              },
              good);
}

void Create(Trial &trial)
{
    Publishing publishing(trial, {});
    publishing.connect();
    RtmpPublisher *publisher = nullptr;
    trial.run([&] {
        publisher = publishing.create();
        return publisher != nullptr ? 0 : RTMP_ERR_MEMORY;
    });
    RtmpPublisherDestroy(publisher);
}

void Destroy(Trial &trial, const PublisherSetup &setup)
{
    Publishing publishing(trial, setup);
    publishing.begin();
    trial.run([&] {
        RtmpPublisherDestroy(publishing.publisher);
        return 0;
    });
    publishing.forget();
    EXPECT_EQ(publishing.host.session->ClientCount, 0);
}

template <enum RtmpPublisherCommand COMMAND> int32_t SendCommand(const Publishing &publishing)
{
    return RtmpPublisherSend(publishing.publisher, COMMAND, nullptr);
}

const PublisherSetup kStarted = {.isStarted = true};
const PublisherSetup kStartedSteadily = {.road = Road::Steady, .isStarted = true};
const PublisherSetup kOverTls = {.isStarted = true, .overTls = true};
const PublisherSetup kOverTlsSteadily = {.road = Road::Steady, .isStarted = true, .overTls = true};

// The publisher's own thread hears that its session ends, and leaves it.
void LeaveOnceTold(RtmpPublisher *publisher)
{
    EXPECT_TRUE(WaitUntil([&] { return LoadShared(&RtmpPublisherClient(publisher)->Awaited) != 0; }));
    RtmpPublisherDestroy(publisher);
}

void EndPublishedSession(Trial &trial, Road road)
{
    Publishing publishing(trial, {.road = road, .isStarted = true});
    publishing.begin();
    std::thread host(LeaveOnceTold, publishing.publisher);
    publishing.forget();
    trial.run([&] { return RtmpSessionDestroy(publishing.host.session); },
              [&] { return DestroySessionAgain(publishing.host); });
    host.join();
}

void AddSessionEnds(std::vector<Scenario> *to)
{
    const std::vector<int> codes = {RTMP_ERR_LOCK, RTMP_ERR_UNLOCK, RTMP_ERR_LOCK_DESTROY};
    for (const Road road : {Road::Exact, Road::Steady}) {
        to->push_back(
            {.function = "RtmpSessionDestroy",
             .way = road == Road::Exact ? "exact road, one publishes" : "steady road, one publishes",
             .codes = codes,
             .go = [road](Trial &trial) { EndPublishedSession(trial, road); },
             .cannotFail = {Call::Shutdown},
             .isCompared = false});
    }
}

void AddSteps(std::vector<Scenario> *to)
{
    const std::vector<int> ofSending = {RTMP_ERR_CONNECTION, -1};
    const std::vector<int> ofStart = {RTMP_ERR_CONNECTION, RTMP_ERR_NO_ANSWER, RTMP_ERR_INVALID_ARGUMENT, -1};
    const auto add = [&](const char *function, const char *way, const std::vector<int> &codes,
                         const PublisherSetup &setup, Step step, int good = 0) {
        const bool isComposed =
            std::string(function) == "RtmpPublisherStart" || std::string(function) == "RtmpPublisherServe";
        to->push_back(
            {function, way, codes, [=](Trial &trial) { Go(trial, setup, step, good); }, {}, isComposed});
    };
    const Step start = [](const Publishing &each) {
        return RtmpPublisherStart(each.publisher, each.host.session);
    };
    add("RtmpPublisherStart", "exact road", ofStart, {.says = WholeStart()}, start);
    add("RtmpPublisherStart", "steady road", ofStart, {.road = Road::Steady, .says = WholeStart()}, start);
    add("RtmpPublisherStart", "exact road, over TLS", ofStart, {.overTls = true, .says = WholeStart()},
        start);
    add("RtmpPublisherStart", "steady road, over TLS", ofStart,
        {.road = Road::Steady, .overTls = true, .says = WholeStart()}, start);
    const Step shake = [](const Publishing &each) { return RtmpPublisherHandshake(each.publisher); };
    add("RtmpPublisherHandshake", "plain", ofStart, {.says = Handshake()}, shake);
    add("RtmpPublisherHandshake", "signed", ofStart, {.isSigned = true, .says = Handshake()}, shake);
    add("RtmpPublisherHandshake", "signed on both sides", ofStart,
        {.isSigned = true, .says = SignedHandshake()}, shake);
    const Step serve = [](const Publishing &each) { return RtmpPublisherServe(each.publisher); };
    const Bytes last =
        wire::Chunks({.payload = Hex("0006 00000001"), .type = 4, .chunkStream = 2}) + Status("error");
    add("RtmpPublisherServe", "until the service ends it, exact road", ofStart,
        {.isStarted = true, .says = last}, serve, RTMP_ERR_REFUSED);
    add("RtmpPublisherServe", "until the service ends it, steady road", ofStart,
        {.road = Road::Steady, .isStarted = true, .says = last}, serve, RTMP_ERR_REFUSED);
    add("RtmpPublisherServe", "until the service ends it, exact road, over TLS", ofStart,
        {.isStarted = true, .overTls = true, .says = last}, serve, RTMP_ERR_REFUSED);
    add("RtmpPublisherServe", "until the service ends it, steady road, over TLS", ofStart,
        {.road = Road::Steady, .isStarted = true, .overTls = true, .says = last}, serve, RTMP_ERR_REFUSED);
    const Step await = [](const Publishing &each) { return RtmpPublisherAwait(each.publisher, 1); };
    add("RtmpPublisherAwait", "a result", ofStart, {.says = Result(1)}, await);
    add("RtmpPublisherSend", "connect", ofSending, {}, SendCommand<RTMP_PUBLISHER_CONNECT>);
    add("RtmpPublisherSend", "releaseStream", ofSending, {}, SendCommand<RTMP_PUBLISHER_RELEASE_STREAM>);
    add("RtmpPublisherSend", "FCPublish", ofSending, {}, SendCommand<RTMP_PUBLISHER_FC_PUBLISH>);
    add("RtmpPublisherSend", "createStream", ofSending, {}, SendCommand<RTMP_PUBLISHER_CREATE_STREAM>);
    add("RtmpPublisherSend", "publish", ofSending, {}, SendCommand<RTMP_PUBLISHER_PUBLISH>);
    add("RtmpPublisherSend", "FCUnpublish", ofSending, kStarted, SendCommand<RTMP_PUBLISHER_FC_UNPUBLISH>);
    add("RtmpPublisherSend", "closeStream", ofSending, kStarted, SendCommand<RTMP_PUBLISHER_CLOSE_STREAM>);
    add("RtmpPublisherSend", "deleteStream, steady road", ofSending, kStartedSteadily,
        SendCommand<RTMP_PUBLISHER_DELETE_STREAM>);
    const Step data = [](const Publishing &each) {
        return RtmpPublisherSendData(each.publisher, reinterpret_cast<const uint8_t *>("\5"), 1);
    };
    add("RtmpPublisherSendData", "exact road", ofSending, kStarted, data);
    add("RtmpPublisherSendData", "steady road", ofSending, kStartedSteadily, data);
    add("RtmpPublisherSendData", "exact road, over TLS", ofSending, kOverTls, data);
    add("RtmpPublisherSendData", "steady road, over TLS", ofSending, kOverTlsSteadily, data);
    const Step metaData = [](const Publishing &each) { return RtmpPublisherSendMetaData(each.publisher); };
    add("RtmpPublisherSendMetaData", "exact road", ofSending, kStarted, metaData);
    add("RtmpPublisherSendMetaData", "steady road", ofSending, kStartedSteadily, metaData);
    const Step stop = [](const Publishing &each) {
        RtmpPublisherStop(each.publisher);
        return 0;
    };
    add("RtmpPublisherStop", "exact road", {}, kStarted, stop);
    add("RtmpPublisherStop", "steady road", {}, kStartedSteadily, stop);
    add("RtmpPublisherStop", "exact road, over TLS", {}, kOverTls, stop);
    add("RtmpPublisherStop", "steady road, over TLS", {}, kOverTlsSteadily, stop);
    add("RtmpPublisherStop", "not started", {}, {}, stop);
    add("RtmpPublisherAnswers", "none yet", {}, {},
        [](const Publishing &each) { return RtmpPublisherAnswers(each.publisher) != nullptr ? 0 : kNull; });
    add("RtmpPublisherClient", "plain", {}, {},
        [](const Publishing &each) { return RtmpPublisherClient(each.publisher) != nullptr ? 0 : kNull; });
}

} // namespace

std::vector<Scenario> PublisherScenarios()
{
    std::vector<Scenario> all = {
        {"RtmpPublisherCreate", "plain", {RTMP_ERR_MEMORY}, Create},
    };
    const std::pair<const char *, PublisherSetup> destroyed[] = {
        {"exact road", kStarted},
        {"steady road", kStartedSteadily},
        {"exact road, over TLS", kOverTls},
        {"steady road, over TLS", kOverTlsSteadily},
        {"not started", {}},
    };
    for (const auto &[way, setup] : destroyed) {
        all.push_back({"RtmpPublisherDestroy", way, {}, [setup](Trial &trial) { Destroy(trial, setup); }});
    }
    AddSessionEnds(&all);
    AddSteps(&all);
    return all;
}

} // namespace every_call
