// A steady player over a handle that does what SSL_write does on a full socket: part of a record is out, and
// the call must come again with the same bytes at the same place.
#include "steady_server.h"

#include "rtmpcast/media.h"
#include "support/host_fakes.h"

#include <cerrno>

using namespace steady;
using namespace wire;

namespace {

// Bytes pass in the clear. What SSL_write may not be asked is counted.
class Handle {
  public:
    explicit Handle(int socket) : socket_(socket)
    {
        HostFakes::get().sslWrite = [this](void *, const void *bytes, int count) {
            return write(static_cast<const uint8_t *>(bytes), count);
        };
    }
    ~Handle()
    {
        HostFakes::get().sslWrite = nullptr;
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    std::atomic<int> wrongRetries = 0, waits = 0, longest = 0;
    std::atomic<bool> breaks = false;

  private:
    int write(const uint8_t *bytes, int count)
    {
        if (breaks) {
            errno = 0; // an error of the protocol
            return -1;
        }
        if (pending_.empty()) {
            pending_.assign(bytes, bytes + count);
            place_ = bytes;
        } else if (bytes != place_ || count != static_cast<int>(pending_.size()) ||
                   memcmp(bytes, pending_.data(), pending_.size()) != 0) {
            wrongRetries++;
        }
        longest = std::max(longest.load(), count);
        while (out_ < pending_.size()) {
            const ssize_t gone =
                ::send(socket_, pending_.data() + out_, pending_.size() - out_, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (gone < 0) {
                waits += errno == EAGAIN;
                return -1;
            }
            out_ += static_cast<size_t>(gone);
        }
        pending_.clear();
        out_ = 0;
        return count;
    }
    int socket_;
    Bytes pending_;
    const uint8_t *place_ = nullptr;
    size_t out_ = 0;
};

} // namespace

TEST(SteadyTls, ACallThatWouldWaitIsRepeatedWithTheSameBytes)
{
    Server server;
    RtmpSession *session = server.session();
    int tls = 0;
    HandMade mine(server.server, &tls);
    Narrow(mine.client, 4096);
    Handle handle(mine.ends[0]);
    mine.join(session);
    constexpr uint64_t kFrames = 60;
    for (uint64_t i = 0; i < kFrames; i++) {
        ASSERT_EQ(SendVideo(session, VideoFrame(1000 + 997 * i, i % 20 == 0 ? kKey : kInter), 40 * i), 0);
    }
    for (uint64_t i = 0; i < kFrames; i++) {
        const Message message = mine.chunks->next();
        ASSERT_EQ(message.timestamp, 40 * i);
        const Bytes frame = VideoFrame(1000 + 997 * i, i % 20 == 0 ? kKey : kInter);
        ASSERT_EQ(Slice(message.payload, 5, message.payload.size()), frame);
    }
    EXPECT_TRUE(WaitForLine(mine.client, [](const SteadyLine &line) {
        return line.WantsRoom == 0 && line.Half.Message == nullptr;
    }));
    EXPECT_EQ(handle.wrongRetries, 0);
    EXPECT_GT(handle.waits, 10);
}

// Else a slow peer would count as one that takes nothing until a whole frame is out.
TEST(SteadyTls, ACallTakesOneRecordAtMost)
{
    Server server;
    RtmpSession *session = server.session();
    int tls = 0;
    HandMade mine(server.server, &tls);
    Narrow(mine.client, 4096);
    Handle handle(mine.ends[0]);
    mine.join(session);
    ASSERT_EQ(SendVideo(session, VideoFrame(500000, kKey), 0), 0);
    ASSERT_TRUE(LineIs(mine.client, IsFull));
    const auto out = [&] {
        uint64_t bytes = 0;
        LineIs(mine.client, [&](const SteadyLine &line) { return bytes = line.BytesOut, true; });
        return bytes;
    };
    const uint64_t before = out();
    (void)mine.socket->receive(100000);
    EXPECT_TRUE(WaitUntil([&] { return out() >= before + 16384; })); // progress, in the midst of the frame
    EXPECT_LT(out(), 500000u);
    EXPECT_EQ(handle.longest, 16384);
    mine.socket->leave(); // nobody is to call the handle any more when it goes
    EXPECT_TRUE(WaitForLine(mine.client,
                            [](const SteadyLine &line) { return LoadShared(&line.End) != STEADY_GOES_ON; }));
}

TEST(SteadyTls, AHandleThatFailsEndsItsConnectionAlone)
{
    Server server;
    RtmpSession *session = server.session();
    int tls = 0;
    HandMade mine(server.server, &tls), other(server.server);
    Handle handle(mine.ends[0]);
    mine.join(session);
    other.join(session);
    ASSERT_EQ(SendVideo(session, VideoFrame(100, kKey), 0), 0);
    EXPECT_EQ(mine.chunks->next().payload.size(), 105u);
    handle.breaks = true;
    ASSERT_EQ(SendVideo(session, VideoFrame(101, kInter), 40), 0);
    EXPECT_TRUE(mine.socket->ends());
    EXPECT_TRUE(LineIs(mine.client, [](const SteadyLine &line) { return line.End == STEADY_END_BROKEN; }));
    EXPECT_EQ(other.chunks->next().payload.size(), 105u);
    EXPECT_EQ(other.chunks->next().payload.size(), 106u);
}
