// A service that stops reading. On the steady road no frame waits for it: what waits is bounded, and it goes
// on at a key frame, or the stall limit ends the connection. On the exact road frames wait for it.
#include "publisher_fixture.h"

#include "steady/records.h"
#include "support/wait.h"

#include <unistd.h>

using namespace amf0;
using namespace publisher;
using namespace wire;

namespace {

constexpr uint32_t kEvery = 40; // ms between two pictures
constexpr uint64_t kStart = 100000;
constexpr uint32_t kRingMs = 2000;
constexpr uint32_t kKeyEvery = 25; // pictures

RtmpServiceLimits StallLimits(uint32_t ringMs, uint32_t stallMs)
{
    RtmpServiceLimits limits = {};
    limits.RingMilliseconds = ringMs;
    limits.StallMilliseconds = stallMs;
    return limits;
}

bool IsKey(uint64_t picture)
{
    return picture % kKeyEvery == 0;
}

// The picture's number is in its body.
Bytes Picture(uint64_t number)
{
    Bytes frame = VideoFrame(20000, IsKey(number) ? 0x65 : 0x41);
    const Bytes digits = BigEndian(number, 4);
    std::copy(digits.begin(), digits.end(), frame.end() - 4);
    return frame;
}

uint64_t NumberOf(const Message &message)
{
    uint64_t number = 0;
    for (const uint8_t byte : Slice(message.payload, message.payload.size() - 4, 4)) {
        number = number << 8 | byte;
    }
    return number;
}

class StalledPublisher : public testing::TestWithParam<bool> {
  protected:
    // Returns once the frame is in the ring: the threaded sender has a thread of its own.
    void send(uint64_t number)
    {
        EXPECT_EQ(SendVideo(rig.session, Picture(number), kStart + number * kEvery), 0);
        EXPECT_TRUE(WaitUntil(
            [&] { return __atomic_load_n(&rig.session->Stream->Next, __ATOMIC_ACQUIRE) > number; }));
        RtmpSessionFigures now = {};
        EXPECT_EQ(RtmpSessionStatistics(rig.session, &now), 0);
        longest = std::max(longest, now.RingMilliseconds);
    }
    RtmpClientFigures figures()
    {
        RtmpClientFigures now = {};
        EXPECT_EQ(RtmpClientStatistics(rig.session, &now, 1), 1);
        return now;
    }

    Rig rig{{.steady = true, .threaded = GetParam(), .limits = StallLimits(kRingMs, 60000)}};
    uint32_t longest = 0; // what the ring has held, in ms
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Senders, StalledPublisher, testing::Bool(),
                         [](const testing::TestParamInfo<bool> &info) {
                             return info.param ? "Threaded" : "Monitor";
                         });

TEST_P(StalledPublisher, LosesWhatTheRingDoesNotHoldAndGoesOnAtAKeyFrame)
{
    constexpr uint64_t pictures = 600;
    rig.startAndServe();
    rig.serviceUpTo(Step::Frames);
    for (uint64_t number = 0; number < pictures; number++) {
        send(number);
        if (number == 0) { // or it begins with a later key frame
            EXPECT_TRUE(WaitUntil([this] { return figures().Frames > 0; }));
        }
    }
    EXPECT_GE(longest, kRingMs / 2);
    EXPECT_LE(longest, kRingMs + kKeyEvery * kEvery) << "what waits is bounded";
    EXPECT_GE(figures().WaitingBytes, 500000U);
    EXPECT_LE(figures().WaitingBytes, 2500000U);
    EXPECT_FALSE(rig.hasEnded());

    uint64_t expected = 0, gaps = 0;
    while (expected < pictures) { // the service reads again
        const Message message = rig.service->read();
        ASSERT_EQ(message.type, 9);
        const uint64_t number = NumberOf(message);
        EXPECT_EQ(message.timestamp, number * kEvery) << "on one timeline";
        if (number != expected) {
            gaps++;
            EXPECT_TRUE(IsKey(number)) << number;
        }
        expected = number + 1;
    }
    EXPECT_GE(gaps, 1U); // the kernel may find some more room meanwhile
    EXPECT_EQ(figures().Restarts, gaps);
    EXPECT_GT(figures().DroppedFrames, 100U);
}

TEST(StalledPublisherInTime, TheStallLimitEndsTheConnectionAndTheNextBeginsWithAKeyFrame)
{
    Rig rig({.steady = true, .limits = StallLimits(0, 300)});
    rig.startAndServe();
    rig.serviceUpTo(Step::Frames);
    uint64_t number = 0;
    while (!rig.hasEnded()) {
        EXPECT_EQ(SendVideo(rig.session, Picture(number), kStart + number * kEvery), 0);
        number++;
        (void)WaitUntil([&rig] { return rig.hasEnded(); }, 2);
    }
    EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION) << "no stop: connect again";
    rig.destroyPublisher();

    const Connection connection;
    ScriptedPeer second{Connected{connection.service}};
    const RtmpPublisherTarget target = {"live", "rtmp://other/live", "key", nullptr, nullptr, 0, 0};
    RtmpPublisher *other = RtmpPublisherCreate(rig.server, connection.host, nullptr, &target, nullptr);
    std::thread host([&] { EXPECT_EQ(RtmpPublisherStart(other, rig.session), 0); });
    TakePublisher(second);
    host.join();
    const Message first = second.read();
    EXPECT_EQ(first.payload[0], 0x17);
    EXPECT_EQ(first.timestamp, 0U);
    RtmpPublisherDestroy(other);
    close(connection.host);
}

// On the exact road the frame waits, on the host's thread with the packet monitor; a stop ends it.
TEST(StalledPublisherOnTheExactRoad, HoldsUpTheFrame)
{
    Rig rig({.answerMs = 300});
    rig.live();
    rig.serviceUpTo(Step::Frames);
    std::atomic<uint64_t> sent = 0;
    std::atomic<bool> ends = false;
    std::thread encoder([&] {
        while (!ends) {
            (void)SendVideo(rig.session, Picture(sent), kStart + sent * kEvery);
            ++sent;
        }
    });
    uint64_t before = 0;
    EXPECT_TRUE(WaitUntil([&] { // nothing moves for a while
        before = sent;
        return sent > 0 && !WaitUntil([&] { return sent != before; }, 300);
    }));
    RtmpPublisherStop(rig.publisher);
    EXPECT_TRUE(WaitUntil([&] { return sent != before; }));
    EXPECT_EQ(rig.result(), 0);
    ends = true;
    encoder.join();
}
