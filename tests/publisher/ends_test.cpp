// The end of a publisher: stopped by another thread, or with its session or server, at every step and on both
// roads. The host's thread destroys the publisher as soon as it is back.
#include "publisher_fixture.h"

#include "steady/keeper.h"
#include "support/wait.h"

#include <sys/socket.h>
#include <unistd.h>

using namespace amf0;
using namespace publisher;
using namespace wire;

namespace {

struct Moment {
    Step step;
    bool steady;
};

std::string NameOfMoment(const testing::TestParamInfo<Moment> &info)
{
    static constexpr const char *kNames[] = {"Connected",    "Handshake", "Connect",
                                             "CreateStream", "Publish",   "Frames"};
    return std::string(kNames[static_cast<int>(info.param.step)]) + (info.param.steady ? "Steady" : "Exact");
}

std::vector<Moment> Moments()
{
    std::vector<Moment> moments;
    for (const Step step : kSteps) {
        moments.push_back({step, false});
        moments.push_back({step, true});
    }
    return moments;
}

class PublisherEnds : public testing::TestWithParam<Moment> {
  protected:
    PublisherEnds()
    {
        rig.live();
        rig.serviceUpTo(GetParam().step);
        if (GetParam().step == Step::Connected) {
            EXPECT_EQ(rig.service->socket.receive(1).size(), 1U) << "its thread has begun";
        }
    }
    bool isPublishing() const
    {
        return GetParam().step == Step::Frames;
    }
    Rig rig{{.steady = GetParam().steady}};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Moments, PublisherEnds, testing::ValuesIn(Moments()), NameOfMoment);

TEST_P(PublisherEnds, WhenItIsStopped)
{
    RtmpPublisherStop(rig.publisher);
    const int32_t result = rig.result();
    if (isPublishing()) {
        EXPECT_EQ(result, 0);
        EXPECT_EQ(NameOf(rig.command()), "FCUnpublish");
        EXPECT_EQ(NameOf(rig.command()), "deleteStream");
    } else if (GetParam().step != Step::Publish) { // there it may just have begun to publish
        EXPECT_EQ(result, RTMP_ERR_CONNECTION);
        EXPECT_THROW(rig.service->read(5), PeerError) << "the service sees an end";
    }
}

TEST_P(PublisherEnds, WithItsSession)
{
    std::thread destroyer([this] { rig.destroySession(); });
    if (GetParam().step < Step::Publish) {
        destroyer.join(); // nobody has joined it
        EXPECT_FALSE(rig.hasEnded());
        if (GetParam().step == Step::CreateStream) {
            rig.status("status", "NetStream.Publish.Start");
            EXPECT_EQ(rig.result(), RTMP_ERR_INVALID_ARGUMENT) << "there is nothing to publish any more";
        }
        return;
    }
    const int32_t result = rig.result();
    destroyer.join();
    EXPECT_EQ(result, 0);
}

TEST_P(PublisherEnds, WithTheServer)
{
    std::thread destroyer([this] { rig.destroyServer(); });
    if (GetParam().step >= Step::Publish) {
        EXPECT_EQ(rig.result(), 0);
    }
    destroyer.join();
    if (GetParam().step == Step::CreateStream) {
        rig.status("status", "NetStream.Publish.Start");
        EXPECT_EQ(rig.result(), RTMP_ERR_INVALID_ARGUMENT);
    }
}

// Its connections end first, and its sessions are found for a moment longer.
TEST(PublisherEndsSteadily, AServerThatIsGoingHasNothingToPublishAnyMore)
{
    Rig rig({.steady = true});
    rig.start();
    rig.serviceUpTo(Step::CreateStream);
    EndLines(rig.server->Service);
    rig.status("status", "NetStream.Publish.Start");
    EXPECT_EQ(rig.result(), RTMP_ERR_INVALID_ARGUMENT);
}

// A player of another session may hold up the list of sessions for as long as it likes.
TEST(PublisherStop, EndsAStartThatWaitsForTheListOfSessions)
{
    for (const bool steady : {false, true}) {
        Rig rig({.steady = steady});
        rig.start();
        rig.serviceUpTo(Step::CreateStream);
        RtmpMutex *list = &rig.server->LiveSessionListLock;
        ASSERT_EQ(pthread_mutex_lock(list), 0);
        rig.status("status", "NetStream.Publish.Start");
        // 2: glibc's word of a lock that somebody waits for.
        EXPECT_TRUE(WaitUntil([&] { return __atomic_load_n(&list->__data.__lock, __ATOMIC_SEQ_CST) == 2; }));
        RtmpPublisherStop(rig.publisher);
        EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
        EXPECT_EQ(pthread_mutex_unlock(list), 0);
    }
}

TEST_P(PublisherEnds, WhileFramesAreSent)
{
    std::atomic<bool> ends = false;
    std::thread encoder([this, &ends, session = rig.session] {
        for (uint64_t time = 1000; !ends; time += 40) {
            (void)SendVideo(session, VideoFrame(3000, 0x65), time);
            (void)SendAudio(session, Bytes(100, 1), time + 5);
        }
    });
    std::thread reader([this] {
        try {
            rig.service->socket.keepRecord(false);
            while (true) {
                rig.service->socket.receive(100);
            }
        } catch (const PeerError &) { // its end
        }
    });
    RtmpPublisherStop(rig.publisher);
    (void)rig.result();
    shutdown(rig.socket, SHUT_RDWR);
    reader.join();
    ends = true;
    encoder.join();
}

// Each of them comes back, whoever came first.
TEST(PublisherStop, MayBeAskedForByManyThreadsAtOnce)
{
    for (int round = 0; round < 20; round++) {
        Rig rig({.steady = round % 2 == 0});
        rig.startAndServe();
        rig.serviceUpTo(Step::Frames);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; i++) {
            threads.emplace_back([&rig] { RtmpPublisherStop(rig.publisher); });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        EXPECT_EQ(rig.result(), 0);
        EXPECT_EQ(NameOf(rig.command()), "FCUnpublish") << "once";
        EXPECT_EQ(NameOf(rig.command()), "deleteStream");
    }
}

// The thread is woken by a message of the service's while the good-bye is under way, and destroys the
// publisher.
TEST(PublisherStop, IsWaitedForByDestroy)
{
    for (int round = 0; round < 200; round++) {
        Rig rig({.steady = round % 2 == 0});
        rig.live();
        rig.serviceUpTo(Step::Frames);
        std::thread talker([&rig] {
            for (int i = 0; i < 50 && !rig.hasEnded(); i++) {
                rig.service->command(Values({String("onBWDone"), Number(0), Null()}).bytes);
            }
        });
        RtmpPublisherStop(rig.publisher);
        EXPECT_EQ(rig.result(), 0);
        talker.join();
    }
}

TEST(PublisherStop, BeforeTheStartLeavesNothingToStart)
{
    Rig rig;
    RtmpPublisherStop(rig.publisher);
    EXPECT_EQ(RtmpPublisherStart(rig.publisher, rig.session), RTMP_ERR_CONNECTION);
    EXPECT_EQ(RtmpPublisherServe(rig.publisher), 0);
}

// The service takes nothing, and the encoder's thread is in the middle of a frame: on the default road it is
// waited for, not for ever; on the steady road nobody is.
TEST(PublisherStop, DoesNotWaitForEverForAServiceThatTakesNothing)
{
    for (const bool steady : {false, true}) {
        Rig rig({.steady = steady, .answerMs = 300});
        rig.live();
        rig.serviceUpTo(Step::Frames);
        std::atomic<bool> ends = false;
        std::thread encoder([&] {
            for (uint64_t time = 1000; !ends; time += 40) {
                (void)SendVideo(rig.session, VideoFrame(200000, 0x65), time);
            }
        });
        EXPECT_TRUE(WaitUntil([&rig] { // nothing more gets in
            pollfd entry = {rig.socket, POLLOUT, 0};
            return poll(&entry, 1, 0) == 0;
        }));
        const uint64_t since = MonotonicMs();
        RtmpPublisherStop(rig.publisher);
        EXPECT_LT(MonotonicMs() - since, steady ? 250U : 5000U);
        EXPECT_EQ(rig.result(), 0);
        ends = true;
        encoder.join();
    }
}

// A thread that is back in the host may have ended, and is not signalled any more.
TEST(PublisherEndsWith, ASessionThatGoesBetweenServeAndDestroy)
{
    for (const bool steady : {false, true}) {
        Rig rig({.steady = steady});
        rig.startAndServe();
        rig.serviceUpTo(Step::Frames);
        rig.service->socket.leave();
        EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
        std::thread destroyer([&rig] { rig.destroySession(); });
        EXPECT_TRUE(rig.log.waitFor("Sending SIGUSR1 to Client Thread"));
        rig.destroyPublisher();
        destroyer.join();
    }
}

TEST(PublisherEndsWith, ASessionThatGoesBetweenStartAndServe)
{
    Rig rig;
    rig.start();
    rig.serviceUpTo(Step::Frames);
    EXPECT_EQ(rig.result(), 0);
    std::thread destroyer([&rig] { rig.destroySession(); });
    EXPECT_TRUE(rig.log.waitFor("Sending SIGUSR1 to Client Thread"));
    EXPECT_EQ(RtmpPublisherServe(rig.publisher), 0);
    rig.destroyPublisher();
    destroyer.join();
}

// One of two services goes; the other has every frame.
TEST(PublisherEndsWith, NobodyElse)
{
    for (const bool steady : {false, true}) {
        Rig rig({.steady = steady});
        rig.live();
        rig.serviceUpTo(Step::Frames);
        const Connection connection;
        ScriptedPeer second{Connected{connection.service}};
        const RtmpPublisherTarget target = {"live", "rtmp://other/live", "key", nullptr, nullptr, 0, 0};
        RtmpPublisher *other = RtmpPublisherCreate(rig.server, connection.host, nullptr, &target, nullptr);
        std::thread host([&] { EXPECT_EQ(RtmpPublisherStart(other, rig.session), 0); });
        TakePublisher(second);
        host.join();
        EXPECT_EQ(SendVideo(rig.session, VideoFrame(1000, 0x65), 1000), 0);
        rig.service->socket.reset();
        EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
        for (uint64_t i = 1; i < 10; i++) {
            EXPECT_EQ(SendVideo(rig.session, VideoFrame(1000, 0x41), 1000 + 40 * i), 0);
        }
        for (uint32_t i = 0; i < 10; i++) {
            EXPECT_EQ(second.read().timestamp, 40 * i);
        }
        RtmpPublisherDestroy(other);
        close(connection.host);
    }
}
