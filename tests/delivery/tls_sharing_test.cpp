// A TLS handle that one thread reads from while another sends: one call at a time, and nobody waits for the
// peer in a call. The handle is the test's, over the client's socket; tests/tls has OpenSSL's.
#include "delivery/write/fan_out.h"
#include "net/handshake.h"
#include "net/socket_io.h"
#include "support/session_rig.h"
#include "support/wait.h"

#include <atomic>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>

namespace {

std::atomic<int> handled; // signals

void InstallHandler(int flags)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { ++handled; };
    action.sa_flags = flags;
    handled = 0;
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
}

// A session with one client over a handle that hands out records of `recordSize` bytes, whole ones only.
class TlsSharing : public testing::Test {
  protected:
    TlsSharing() : rig(128), player(rig.addClient())
    {
        player.client->Tls = &handle;
        HostFakes::get().sslRead = [this](void *, void *bytes, int length) { return read(bytes, length); };
        HostFakes::get().sslWrite = [this](void *, const void *bytes, int length) {
            return write(bytes, length);
        };
        rig.log.clear();
    }

    int read(void *bytes, int length)
    {
        const Call call(*this);
        ++reads;
        while (record.size() < recordSize) {
            uint8_t byte;
            const ssize_t got = recv(player.client->Socket, &byte, 1, 0);
            if (got <= 0) {
                return static_cast<int>(got);
            }
            record.push_back(byte);
            ++taken;
        }
        EXPECT_EQ(length, static_cast<int>(recordSize));
        std::copy(record.begin(), record.end(), static_cast<uint8_t *>(bytes));
        record.clear();
        return length;
    }

    int write(const void *bytes, int length)
    {
        const Call call(*this);
        const ssize_t sent = ::send(player.client->Socket, bytes, static_cast<size_t>(length), MSG_NOSIGNAL);
        const int error = errno;
        stalls += sent < 0 ? 1 : 0;
        errno = error;
        return static_cast<int>(sent);
    }

    int sendFrame()
    {
        return SendMsgToConnectedClients(rig.session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0,
                                         0, RTMP_MSG_VIDEO);
    }

    void feed(const Bytes &bytes)
    {
        ASSERT_EQ(::send(player.peer, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    // A peer that has stopped taking bytes; returns how many it has not taken.
    size_t fillSocket()
    {
        const Bytes filler(1 << 16);
        size_t filled = 0;
        for (size_t size = filler.size(); size > 0;) {
            const ssize_t sent = ::send(player.client->Socket, filler.data(), size, MSG_DONTWAIT);
            filled += sent > 0 ? static_cast<size_t>(sent) : 0;
            size = sent > 0 ? size : size / 2;
        }
        return filled;
    }

    // Whether the socket is as the host made it, and the lock is free.
    void expectNothingIsHeld()
    {
        EXPECT_EQ(fcntl(player.client->Socket, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(pthread_mutex_trylock(&player.client->TlsLock), 0);
        pthread_mutex_unlock(&player.client->TlsLock);
    }

    void limit(int option)
    {
        const timeval time = {0, 20000};
        ASSERT_EQ(setsockopt(player.client->Socket, SOL_SOCKET, option, &time, sizeof time), 0);
    }

    struct Call { // counts the threads that are inside the handle
        explicit Call(TlsSharing &test) : in(test.inside)
        {
            const int now = ++in;
            if (now > test.mostInside) {
                test.mostInside = now;
            }
        }
        ~Call()
        {
            --in;
        }
        std::atomic<int> &in;
    };

    SessionRig rig;
    RigClient player;
    char handle = 0;
    size_t recordSize = 1;
    Bytes record;
    const Bytes frame = Counting(300, 0x40);
    std::atomic<int> inside = 0, mostInside = 0, reads = 0, stalls = 0;
    std::atomic<size_t> taken = 0; // bytes of records
};

#ifdef __SANITIZE_THREAD__
constexpr bool kUnderThreadSanitizer = true;
#else
constexpr bool kUnderThreadSanitizer = false;
#endif
constexpr size_t kFrameOnTheWire = 12 + 5 + 300 + 2;
const std::string kReadInterrupted =
    "3 ERROR: RtmpReadBytes: Unable to read buffer: 4 (Interrupted system call)";
const std::string kReadRetval = "6 INFO: RtmpReadBytes: TCP recv function error in linux: Err :4 Retval: -1";
const std::string kWriteInterrupted =
    "3 ERROR: RtmpSendBytes: Unable to send buffer: 4 (Interrupted system call)";

} // namespace

TEST_F(TlsSharing, AFrameIsSentWhileAReadWaitsAndTheHandleHasOneCallAtATime)
{
    uint8_t byte = 0;
    std::thread reader([&] { EXPECT_EQ(ReadNoOfBytes(player.client, &byte, 1), 0); });
    EXPECT_TRUE(WaitUntil([&] { return reads > 0; }));
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(sendFrame(), 0);
    }
    EXPECT_FALSE(ReadBytes(player.peer, kFrameOnTheWire).empty());
    feed(Hex("AB"));
    reader.join();
    EXPECT_EQ(byte, 0xAB);
    EXPECT_EQ(mostInside, 1);
    expectNothingIsHeld();
}

// The handle has taken the first bytes of a record from the socket and wants the rest.
TEST_F(TlsSharing, HalfARecordKeepsNobodyFromSending)
{
    recordSize = 4;
    Bytes got(4);
    std::thread reader([&] { EXPECT_EQ(ReadNoOfBytes(player.client, got.data(), 4), 0); });
    feed(Hex("0102"));
    EXPECT_TRUE(WaitUntil([&] { return taken == 2; }));
    EXPECT_EQ(sendFrame(), 0);
    EXPECT_EQ(ReadBytes(player.peer, kFrameOnTheWire).size(), kFrameOnTheWire);
    feed(Hex("0304"));
    reader.join();
    EXPECT_EQ(got, Hex("01020304"));
    EXPECT_EQ(mostInside, 1);
}

TEST_F(TlsSharing, APeerThatTakesNothingIsReadFromAllTheSame)
{
    const size_t filled = fillSocket();
    std::thread sender([&] { EXPECT_EQ(sendFrame(), 0); });
    EXPECT_TRUE(WaitUntil([&] { return stalls > 0; }));
    for (int i = 0; i < 20; i++) {
        feed(Hex("CD"));
        uint8_t byte = 0;
        EXPECT_EQ(ReadNoOfBytes(player.client, &byte, 1), 0);
        EXPECT_EQ(byte, 0xCD);
    }
    const Bytes all = ReadBytes(player.peer, filled + kFrameOnTheWire);
    sender.join();
    ASSERT_EQ(all.size(), filled + kFrameOnTheWire);
    EXPECT_EQ(Slice(all, filled + 12, 5), Hex("27 01 000000"));
    EXPECT_EQ(mostInside, 1);
    EXPECT_TRUE(rig.log.lines().empty());
    expectNothingIsHeld();
}

TEST_F(TlsSharing, ASignalEndsAReadThatWaits)
{
    InstallHandler(0);
    std::atomic<int> result = 99;
    std::thread reader([&] {
        uint8_t byte;
        result = ReadNoOfBytes(player.client, &byte, 1);
    });
    EXPECT_TRUE(WaitUntil([&] {
        pthread_kill(reader.native_handle(), SIGUSR1);
        return result != 99;
    }));
    reader.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(rig.log.lines(), (std::vector{kReadInterrupted, kReadRetval}));
    expectNothingIsHeld();
}

TEST_F(TlsSharing, ASignalEndsAWriteThatWaits)
{
    InstallHandler(0);
    fillSocket();
    std::atomic<int> result = 99;
    std::thread sender([&] { result = SendClientBytes(player.client, frame.data(), 300); });
    EXPECT_TRUE(WaitUntil([&] {
        pthread_kill(sender.native_handle(), SIGUSR1);
        return result != 99;
    }));
    sender.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(rig.log.lines(), std::vector{kWriteInterrupted});
    expectNothingIsHeld();
}

// As recv and send do: with SA_RESTART they go on behind the handler.
TEST_F(TlsSharing, ASignalWhoseHandlerRestartsCallsEndsNothing)
{
    InstallHandler(SA_RESTART);
    const size_t filled = fillSocket();
    std::atomic<int> readResult = 99, writeResult = 99;
    std::thread reader([&] {
        uint8_t byte;
        readResult = ReadNoOfBytes(player.client, &byte, 1);
    });
    std::thread sender([&] { writeResult = SendClientBytes(player.client, frame.data(), 300); });
    EXPECT_TRUE(WaitUntil([&] { return reads > 0 && stalls > 0; }));
    for (std::thread *thread : {&reader, &sender, &reader, &sender, &reader, &sender}) {
        const int before = handled;
        pthread_kill(thread->native_handle(), SIGUSR1);
        // The thread sanitizer runs a handler when the thread calls something else than it was waiting in.
        EXPECT_TRUE(kUnderThreadSanitizer || WaitUntil([&] { return handled > before; }));
    }
    feed(Hex("01"));
    reader.join();
    EXPECT_EQ(readResult, 0);
    EXPECT_EQ(writeResult, 99) << "the peer has taken nothing yet";
    EXPECT_EQ(ReadBytes(player.peer, filled + 1).size(), filled + 1);
    sender.join();
    EXPECT_GT(writeResult, 0);
    EXPECT_TRUE(rig.log.lines().empty());
}

TEST_F(TlsSharing, TheHostsTimeLimitsEndReadsAndWrites)
{
    limit(SO_RCVTIMEO);
    limit(SO_SNDTIMEO);
    uint8_t byte;
    EXPECT_EQ(ReadNoOfBytes(player.client, &byte, 1), -1);
    fillSocket();
    EXPECT_EQ(SendClientBytes(player.client, frame.data(), 300), -1);
    EXPECT_EQ(rig.log.lines(),
              (std::vector<std::string>{"3 ERROR: RtmpReadBytes: Unable to read buffer: 11 (Resource "
                                        "temporarily unavailable)",
                                        "3 ERROR: RtmpSendBytes: Unable to send buffer: 11 (Resource "
                                        "temporarily unavailable)"}));
    expectNothingIsHeld();
}

TEST_F(TlsSharing, ADescriptorThatNeverBlocksFailsAtOnce)
{
    ASSERT_EQ(fcntl(player.client->Socket, F_SETFL, O_NONBLOCK), 0);
    uint8_t byte;
    EXPECT_EQ(ReadNoOfBytes(player.client, &byte, 1), -1);
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{
                  "3 ERROR: RtmpReadBytes: Unable to read buffer: 11 (Resource temporarily unavailable)"});
    EXPECT_NE(fcntl(player.client->Socket, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(TlsSharing, AThreadThatIsCancelledWhileItWaitsForRoomHoldsNothing)
{
    const size_t filled = fillSocket();
    pthread_t sender;
    ASSERT_EQ(pthread_create(
                  &sender, nullptr,
                  [](void *client) -> void * {
                      const Bytes bytes(10);
                      (void)SendClientBytes(static_cast<RtmpClient *>(client), bytes.data(), 10);
                      return nullptr;
                  },
                  player.client),
              0);
    EXPECT_TRUE(WaitUntil([&] { return stalls > 0; }));
    pthread_cancel(sender);
    void *result = nullptr;
    pthread_join(sender, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    expectNothingIsHeld();
    EXPECT_EQ(ReadBytes(player.peer, filled).size(), filled);
    EXPECT_EQ(SendClientBytes(player.client, frame.data(), 300), 300);
}

// Functions of the host's own, over something that the library does not know: it cannot keep them from
// blocking, and they look after themselves.
TEST_F(TlsSharing, AHandleWithoutADescriptorBlocksForItselfAlone)
{
    const int socket = player.client->Socket;
    player.client->Socket = -1;
    std::atomic<bool> come = false, waiting = false;
    HostFakes::get().sslRead = [&](void *, void *, int length) {
        waiting = true;
        WaitUntil([&] { return come.load(); });
        return length;
    };
    HostFakes::get().sslWrite = [](void *, const void *, int length) { return length; };
    std::thread reader([&] {
        uint8_t byte;
        EXPECT_EQ(ReadNoOfBytes(player.client, &byte, 1), 0);
    });
    EXPECT_TRUE(WaitUntil([&] { return waiting.load(); }));
    EXPECT_EQ(sendFrame(), 0);
    come = true;
    reader.join();
    player.client->Socket = socket;
}
