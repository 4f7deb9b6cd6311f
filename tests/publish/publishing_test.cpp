// A publishing connection from its handshake to its end, with everything that reaches the service.
#include "publish_fixture.h"
#include "support/test_server.h"

#include <sys/socket.h>

#include <atomic>
#include <csignal>
#include <thread>

using namespace amf0;
using namespace wire;

namespace {

constexpr size_t kPacket = 1536;

class Publishing : public PublishFixture {};

void ReturnAtOnce(int) {}

// What every host does once, so that a session can end the threads of its clients.
void InstallSignalHandler()
{
    struct sigaction action = {};
    action.sa_handler = ReturnAtOnce;
    sigaction(SIGUSR1, &action, nullptr);
}

// The host's thread for one publishing connection.
void *ServePublisher(void *argument)
{
    RtmpClient *client = static_cast<RtmpClient *>(argument);
    HandleUntilOver(client);
    EndPublisher(client);
    return nullptr;
}

Bytes Result(double transaction, double value)
{
    return Values({String("_result"), Number(transaction), Null(), Number(value)}).bytes;
}

Bytes PublishStatus()
{
    return Status("status", "NetStream.Publish.Start", "publishing");
}

} // namespace

// What a host does from its connect to its first frame, in order.
TEST_F(Publishing, AStreamReachesTheService)
{
    makeSession();
    std::thread host([this] {
        EXPECT_EQ(ConnectHandshake(socket), 0);
        EXPECT_EQ(AnnounceChunkSize(client), 0);
        EXPECT_EQ(SendConnect(client, "live", 1), 0);
        EXPECT_EQ(HandleOne(client).kind, unsigned{RTMP_MSG_RESULT});
        EXPECT_EQ(context.ResultTransactionId, 1);
        EXPECT_EQ(SendCreateStream(client, 2), 0);
        const Handled created = HandleOne(client);
        client->StreamId = StreamIdIn(server, created.message);
        EXPECT_EQ(SendPublish(client, "cam", 3), 0);
        EXPECT_EQ(HandleOne(client).kind, unsigned{RTMP_MSG_ON_STATUS});
        EXPECT_STREQ(context.StatusCode, "NetStream.Publish.Start");
        EXPECT_EQ(StartFrames(client, session), 0);
    });

    const Bytes c0c1 = service.socket.receive(1 + kPacket);
    EXPECT_EQ(c0c1[0], 3);
    const Bytes s1(kPacket, 0x5A);
    service.socket.send(Join({{3}, s1, Slice(c0c1, 1, kPacket)}));
    EXPECT_TRUE(Same(service.socket.receive(kPacket), s1)) << "C2 repeats S1";

    EXPECT_TRUE(Same(service.read().raw, Hex("02 000000 000004 01 00000000 00001000")));
    const Bytes connect = Hex("02 0007 'connect' 00 3FF0000000000000 "
                              "03 0003 'app' 02 0004 'live' 0004 'type' 02 000A 'nonprivate' 000009");
    EXPECT_TRUE(Sent(service.read(), "03 000000 000036 14 00000000", connect));
    service.command(Result(1, 0));
    const Bytes createStream = Hex("02 000C 'createStream' 00 4000000000000000 05");
    EXPECT_TRUE(Sent(service.read(), "43 000000 000019 14", createStream));
    service.command(Result(2, 1));
    const Bytes publish = Hex("02 0007 'publish' 00 4008000000000000 05 02 0003 'cam' 02 0004 'live'");
    EXPECT_TRUE(Sent(service.read(), "03 000000 000021 14 01000000", publish));
    service.command(PublishStatus());
    host.join();

    const Bytes metaData = MetaDataBody();
    EXPECT_TRUE(
        Sent(service.read(), "04 000000 " + ToHex(BigEndian(metaData.size(), 3)) + " 12 01000000", metaData));
    EXPECT_TRUE(Sent(service.read(), "44 000000 00001D 09", AvcHeaderBody()));
    EXPECT_TRUE(Sent(service.read(), "05 000000 000004 08 01000000", AacHeaderBody()));

    const Bytes key = VideoFrame(9000, 0x65);
    EXPECT_EQ(SendVideo(session, key, 70000), 0);
    EXPECT_TRUE(Sent(service.read(), "44 000000 00232D 09", Join({Hex("17 01 000000"), key})));
    const Bytes sound(300, 0x21);
    EXPECT_EQ(SendAudio(session, sound, 70010), 0);
    const Bytes inter = VideoFrame(500);
    EXPECT_EQ(SendVideo(session, inter, 70040), 0);
    EXPECT_TRUE(Sent(service.read(), "45 000000 00012E 08", Join({Hex("AF 01"), sound})));
    EXPECT_TRUE(Sent(service.read(), "44 000028 0001F9 09", Join({Hex("27 01 000000"), inter})));
    expectSilence();
}

TEST_F(Publishing, FramesOfTheThreadedSenderReachTheService)
{
    makeSession(2, RTMP_SENDER_THREADED);
    startFrames();
    std::vector<Bytes> frames;
    for (size_t i = 0; i < 20; i++) {
        frames.push_back(VideoFrame(3000 + i, i == 0 ? 0x65 : 0x41));
        EXPECT_EQ(SendVideo(session, frames.back(), 1000 + 40 * i), 0);
    }
    for (size_t i = 0; i < frames.size(); i++) {
        const Message message = service.read();
        EXPECT_EQ(message.type, 9);
        EXPECT_EQ(message.timestamp, 40 * i);
        EXPECT_TRUE(Same(Slice(message.payload, 5, frames[i].size()), frames[i])) << i;
    }
    service.command(Values({String("onFCPublish"), Number(0), Null()}).bytes);
    (void)HandleOne(client); // so that the client can be ended
}

// The same thread writes frames while the host's thread answers the service: messages stay whole.
TEST_F(Publishing, AnswersAndFramesDoNotMix)
{
    makeSession();
    startFrames();
    constexpr size_t kCount = 100;
    std::thread host([this] {
        for (size_t i = 0; i < kCount; i++) {
            EXPECT_EQ(HandleOne(client).parsed, 0);
        }
    });
    std::thread encoder([this] {
        for (size_t i = 0; i < kCount; i++) {
            EXPECT_EQ(SendVideo(session, VideoFrame(20000), 1000 + 40 * i), 0);
        }
    });
    size_t frames = 0, answers = 0;
    for (size_t i = 0; i < kCount; i++) {
        service.pingRequest(static_cast<uint32_t>(i));
    }
    while (frames + answers < 2 * kCount) {
        const Message message = service.read();
        if (message.type == 9) {
            EXPECT_TRUE(Same(message.payload, Join({Hex("27 01 000000"), VideoFrame(20000)})));
            frames++;
        } else {
            EXPECT_TRUE(Same(message.payload, Join({Hex("0007"), BigEndian(answers, 4)})));
            answers++;
        }
    }
    host.join();
    encoder.join();
    EXPECT_EQ(frames, kCount);
}

TEST_F(Publishing, AServiceThatLeavesCostsAFrameAndEndsTheLoop)
{
    makeSession();
    startFrames();
    service.command(PublishStatus());
    (void)HandleOne(client);
    service.socket.leave();
    EXPECT_EQ(SendVideo(session, VideoFrame(100), 1000), -1);
    EXPECT_TRUE(log.contains("SendMsgToConnectedClients: Sending data message to client {"));
    HandleUntilOver(client);
    endClient();
    EXPECT_EQ(session->ClientCount, 0);
    EXPECT_EQ(SendVideo(session, VideoFrame(100), 1040), RTMP_ERR_NO_CLIENT);
}

// The end of the session is told to the host, which ends its client; the session waits for that.
TEST_F(Publishing, AnEndingSessionWaitsForTheHostToLeave)
{
    InstallSignalHandler();
    makeSession();
    startFrames();
    service.command(PublishStatus());
    (void)HandleOne(client);
    RtmpClient *publisher = client;
    client = nullptr; // the thread's
    std::thread host([publisher] { ServePublisher(publisher); });
    log.clear();

    std::atomic<bool> gone = false;
    std::thread owner([&] {
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
        gone = true;
    });
    const std::pair<RtmpClient *, int32_t> told = {publisher, 8};
    ASSERT_TRUE(WaitUntil([] { return !HostFakes::get().publishStates().empty(); }));
    EXPECT_EQ(HostFakes::get().publishStates(), std::vector{told});
    ASSERT_TRUE(log.waitFor("Sending SIGUSR1 to Client Thread"));
    EXPECT_FALSE(gone);
    shutdown(socket, SHUT_RDWR); // what a host does when it is told
    owner.join();
    host.join();
    EXPECT_EQ(Transcript(log, {}),
              (Lines{"6 INFO: RtmpSessionDestroy: Sending SIGUSR1 to Client Thread",
                     "6 INFO: RtmpReadBytes: Connection was closed by peer",
                     "3 ERROR: ReadRtmpMessage: Reading bytes failed",
                     "6 INFO: DestroyRtmpClient: Freeing client ip address and session name",
                     "6 INFO: DestroyRtmpClient: Destroying Recv packet list lock",
                     "6 INFO: DestroyRtmpClient: RtmpMutexDestroy (&rtmpClient->RecvStrmListLock)",
                     "6 INFO: DestroyRtmpClient: Freeing send stream packet list",
                     "6 INFO: DestroyRtmpClient: Destroying Send packet list lock",
                     "6 INFO: DestroyRtmpClient: Removing client pointer from client list",
                     "6 INFO: DestroyRtmpClient: Only one node is present in send pkt list",
                     "6 INFO: DestroyRtmpClient: Removed client; No. of connected clients : 0",
                     "6 INFO: DestroyRtmpClient: Freeing RtmpClient pointer"}));
    EXPECT_TRUE(service.socket.ends());
}

// A thread that the host names in the record is signalled and joined by the session.
TEST_F(Publishing, AnEndingSessionEndsAThreadThatItKnows)
{
    InstallSignalHandler();
    makeSession();
    startFrames();
    service.command(PublishStatus());
    (void)HandleOne(client);
    RtmpClient *publisher = client;
    client = nullptr; // the thread's
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, ServePublisher, publisher), 0);
    __atomic_store_n(&publisher->ServeThread, thread, __ATOMIC_RELEASE);
    log.clear();
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    const Lines lines = log.lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], "6 INFO: RtmpSessionDestroy: Sending SIGUSR1 to Client Thread");
    EXPECT_TRUE(log.contains("RtmpSessionDestroy: Waiting for Thread Completion"));
    EXPECT_TRUE(log.contains("RtmpReadBytes: Unable to read buffer: 4 (Interrupted system call)"));
    EXPECT_TRUE(log.contains("DestroyRtmpClient: Freeing RtmpClient pointer"));
}
