// Burn-in counter and "Buffer full" latch are the process's: every case runs in one of its own, as ctest runs
// them.
#include "delivery/senders/threaded_queue.h"

#include "instruments/adaptive_bitrate.h"
#include "instruments/ring.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "rtmpcast/media.h"
#include "rtmpcast/sender.h"
#include "sender/scripted_fan_out.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <thread>

namespace {

using Texts = std::vector<std::string>;

const std::string kStarted = "6 INFO: RtmpSenderThread :Sender Thread Started: SCHED_OTHER:0";
const Texts kFailed = {"6 INFO: RtmpSenderThread: ====>Threaded",
                       "6 INFO: RtmpSenderThread: ====>Sending message to connected clients failed"};
const std::string kExited = "6 INFO: RtmpThreadedQueueSendData: The Sender thread exited";
const std::string kFlushingVideo = "6 INFO: RtmpThreadedQueueSendData: Flushing Video Buffer";
const std::string kFlushingAudio = "6 INFO: RtmpThreadedQueueSendData: Flushing Audio Buffer";

FanOut &fanOut()
{
    return FanOut::get();
}

Texts StatusOf(const std::vector<StatusReport> &reports)
{
    Texts all;
    for (const StatusReport &report : reports) {
        all.push_back(report.key + " " + report.value + " " + report.description);
    }
    return all;
}

} // namespace

// ------------------------------------------------------------------------------------------------- init

TEST(ThreadedQueueInit, HangsAnEmptyQueueOnTheSession)
{
    SenderRig rig(3, 5);
    ASSERT_NE(rig.queue(), nullptr);
    EXPECT_EQ(rig.queue()->Session, &rig.session);
    EXPECT_EQ(rig.queue()->EncoderHandle, 77U);
    EXPECT_EQ(rig.queue()->AudioBuffer->Size, 4);
    EXPECT_EQ(rig.queue()->VideoBuffer->Size, 6);
    EXPECT_EQ(rig.queue()->Closed, 0);
    EXPECT_EQ(rig.queue()->ThreadRunning, 0);
    EXPECT_EQ(rig.queue()->Bwm, nullptr);
    EXPECT_EQ(rig.queue()->Debug, nullptr);
    EXPECT_EQ(rig.queue()->Abr, nullptr);
    EXPECT_TRUE(rig.log.lines().empty());
}

TEST(ThreadedQueueInit, ASessionKeepsTheQueueItHas)
{
    SenderRig rig(3, 5);
    RtmpThreadedQueue *queue = rig.queue();
    EXPECT_EQ(RtmpThreadedQueueInit(&rig.session, 30, 50), 0);
    EXPECT_EQ(rig.queue(), queue);
    EXPECT_EQ(queue->VideoBuffer->Size, 6);
}

TEST(ThreadedQueueInit, EveryFailureIsLoggedAndLeavesNothing)
{
    SenderRig rig;
    RtmpThreadedQueueDestroy(&rig.session);
    EXPECT_EQ(RtmpThreadedQueueInit(&rig.session, 0xFFFFFFFF, 10), -1);
    EXPECT_EQ(RtmpThreadedQueueInit(&rig.session, 10, 0x7FFFFFFF), -1);
    calls::failNext(Call::Calloc); // the queue, then ring and slots of each
    EXPECT_EQ(RtmpThreadedQueueInit(&rig.session, 10, 10), -1);
    calls::failNext(Call::Calloc, 3);
    EXPECT_EQ(RtmpThreadedQueueInit(&rig.session, 10, 10), -1);
    calls::failNext(Call::Calloc, 4);
    EXPECT_EQ(RtmpThreadedQueueInit(&rig.session, 10, 10), -1);
    calls::failNext(Call::Calloc, 0);
    EXPECT_EQ(rig.queue(), nullptr);
    EXPECT_EQ(rig.log.lines(),
              (Texts{"3 ERROR: RtmpThreadedQueueInit: Not enough memory for Audio rtmpQueueBuffer",
                     "3 ERROR: RtmpThreadedQueueInit: Not enough memory for Video rtmpQueueBuffer",
                     "3 ERROR: RtmpThreadedQueueInit: Not enough memory for rtmpQueue",
                     "3 ERROR: RtmpThreadedQueueInit: Not enough memory for Audio rtmpQueueBuffer",
                     "3 ERROR: RtmpThreadedQueueInit: Not enough memory for Video rtmpQueueBuffer"}));
    EXPECT_EQ(RtmpThreadedQueueInit(&rig.session, 10, 10), 0);
}

// ------------------------------------------------------------------------------- the gate, and the thread

TEST(ThreadedQueue, WithoutASessionNothingIsDoneAndWithoutAQueueItFails)
{
    const uint8_t byte = 0;
    EXPECT_EQ(RtmpThreadedQueueSendData(nullptr, &byte, 1, 0, 0, 1, 0), 0);
    SenderRig rig;
    RtmpThreadedQueueDestroy(&rig.session);
    EXPECT_EQ(rig.video("one", 1000), -1);
    EXPECT_EQ(RtmpThreadedQueueReset(&rig.session), 0);
    EXPECT_EQ(RtmpThreadedQueueClose(&rig.session), 0);
    EXPECT_EQ(RtmpThreadedQueueDestroy(&rig.session), 0);
    EXPECT_EQ(RtmpThreadedQueueReset(nullptr), 0);
    EXPECT_EQ(RtmpThreadedQueueClose(nullptr), 0);
    EXPECT_EQ(RtmpThreadedQueueDestroy(nullptr), 0);
}

TEST(ThreadedQueue, WithoutAPlayingFirstClientNothingIsQueuedWhateverTheOthersDo)
{
    SenderRig rig;
    rig.first.NextClient = &rig.second;
    rig.second.State = CLIENT_STATE_PLAY_DONE;
    for (const uint32_t state : {0U, 2U, 4U, 6U, 10U, 11U, 12U, 13U, 14U}) {
        rig.first.State = state;
        EXPECT_EQ(rig.video("video", 1000), 0);
        EXPECT_EQ(rig.audio("audio", 1000), 0);
        EXPECT_EQ(rig.first.State, state);
    }
    rig.session.ClientListHead = nullptr;
    EXPECT_EQ(rig.video("video", 1000), 0);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->VideoBuffer), 0);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 0);
    EXPECT_EQ(rig.queue()->ThreadRunning, 0);
    EXPECT_TRUE(rig.log.lines().empty());
}

TEST(ThreadedQueue, TheFirstFrameStartsTheSenderWhichLogsItsScheduling)
{
    SenderRig rig;
    EXPECT_EQ(rig.video("one", 1000), 0);
    EXPECT_EQ(LoadShared(&rig.queue()->ThreadRunning), 1);
    ASSERT_TRUE(fanOut().waitForSent(1));
    EXPECT_EQ(rig.video("two", 1033), 0);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(rig.log.lines(), Texts{kStarted});
    EXPECT_EQ(fanOut().texts(), (Texts{"V one 0", "V two 33"}));
}

TEST(ThreadedQueue, AnAudioFrameStartsTheSenderToo)
{
    SenderRig rig;
    EXPECT_EQ(rig.audio("one", 1000), 0);
    ASSERT_TRUE(rig.log.waitFor("Sender Thread Started"));
    EXPECT_EQ(fanOut().count(), 0U);
}

TEST(ThreadedQueue, TheSenderInheritsItsCreatorsScheduling)
{
    SenderRig rig;
    std::thread producer([&] {
        const struct sched_param parameters = {};
        ASSERT_EQ(pthread_setschedparam(pthread_self(), SCHED_BATCH, &parameters), 0);
        EXPECT_EQ(rig.video("one", 1000), 0);
    });
    producer.join();
    ASSERT_TRUE(fanOut().waitForSent(1));
    EXPECT_EQ(rig.log.lines(), Texts{"6 INFO: RtmpSenderThread :Sender Thread Started: ???:0"});
}

TEST(ThreadedQueue, AThreadThatCannotBeStartedFailsTheFrameAndTheNextTriesAgain)
{
    SenderRig rig;
    calls::failAlways(Call::ThreadCreate);
    EXPECT_EQ(rig.video("one", 1000), -1);
    EXPECT_EQ(rig.queue()->ThreadRunning, 0);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->VideoBuffer), 0);
    calls::failNever(Call::ThreadCreate);
    EXPECT_EQ(rig.video("two", 1033), 0);
    ASSERT_TRUE(fanOut().waitForSent(1));
    EXPECT_EQ(rig.log.lines(),
              (Texts{"3 ERROR: RtmpThreadedQueueSendData: Error: Failed to create thread", kStarted}));
    EXPECT_EQ(fanOut().texts(), Texts{"V two 0"});
}

TEST(ThreadedQueue, AFrameWithoutMemoryFailsAndHarmsNoOther)
{
    SenderRig rig;
    fanOut().hold();
    EXPECT_EQ(rig.video("one", 1000), 0);
    ASSERT_TRUE(fanOut().waitForCallInside());
    calls::failNext(Call::Realloc);
    EXPECT_EQ(rig.video("two", 1033), -1);
    calls::failNext(Call::Realloc, 0);
    EXPECT_EQ(rig.video("three", 1066), 0);
    fanOut().release();
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (Texts{"V one 0", "V three 66"}));
    EXPECT_EQ(rig.log.count("3 ERROR: RtmpThreadedQueueSendData: Error: Failed to add buffer to queue"), 1U);
}

TEST(ThreadedQueue, OtherMediaTypesAreNotQueuedAndOnlyTheLowBitsCount)
{
    SenderRig rig;
    EXPECT_EQ(rig.send("two", 1000, 2), 0);
    EXPECT_EQ(rig.send("minus one", 1000, -1), 0);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->VideoBuffer), 0);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 0);
    EXPECT_EQ(rig.send("audio", 1000, 0x500000001LL), 0);
    EXPECT_EQ(rig.send("video", 1000, 0x500000000LL), 0);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (Texts{"A audio 0", "V video 0"}));
}

TEST(ThreadedQueue, AFrameWithAFileIsPassedOnByReference)
{
    SenderRig rig;
    const uint8_t mapped[] = "mapped";
    EXPECT_EQ(RtmpThreadedQueueSendData(&rig.session, mapped, 6, 9, 4096, 1000, RTMP_FRAME_VIDEO), 0);
    ASSERT_TRUE(fanOut().waitForSent(1));
    EXPECT_EQ(fanOut().sent()[0].fd, 9);
    EXPECT_EQ(fanOut().sent()[0].mapBase, 4096U);
    EXPECT_EQ(fanOut().sent()[0].data, "mapped");
}

// ------------------------------------------------------------------------------------------- interleaving

TEST(ThreadedQueue, AnAnnouncementWhoseFrameHasBeenFlushedIsPassedOver)
{
    SenderRig rig;
    rig.video("one", 1000);
    ASSERT_TRUE(fanOut().waitForSent(1));
    ASSERT_EQ(sem_post(&rig.queue()->VideoBuffer->Sem), 0); // what a flush that came too late leaves behind
    ASSERT_TRUE(WaitUntil([&] {
        int posts = -1;
        sem_getvalue(&rig.queue()->VideoBuffer->Sem, &posts);
        return posts == 0;
    }));
    rig.video("two", 1033);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (Texts{"V one 0", "V two 33"}));
    EXPECT_EQ(rig.log.lines(), Texts{kStarted});
}

TEST(ThreadedQueue, AudioAloneIsNeverSent)
{
    SenderRig rig(200, 10);
    for (uint64_t i = 0; i < 100; i++) {
        EXPECT_EQ(rig.audio("audio", 1000 + i * 23), 0);
    }
    ASSERT_TRUE(rig.log.waitFor("Sender Thread Started"));
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 100);
    EXPECT_EQ(fanOut().count(), 0U);
}

TEST(ThreadedQueue, AudioThatIsDueGoesBeforeTheVideoAndWhatIsNotDueWaits)
{
    SenderRig rig;
    rig.audio("a0", 1000);  // stamped 0
    rig.audio("a21", 1021); // 21
    rig.audio("a42", 1042); // 42
    rig.video("v0", 1000);  // stamped 0: a0 is due with it
    ASSERT_TRUE(fanOut().waitForSent(2));
    rig.video("v33", 1033); // 33
    ASSERT_TRUE(fanOut().waitForSent(4));
    rig.audio("a66", 1066); // 66
    rig.audio("a67", 1067); // 67
    rig.video("v66", 1066); // 66: equality is due
    ASSERT_TRUE(fanOut().waitForSent(7));
    EXPECT_EQ(fanOut().texts(),
              (Texts{"A a0 0", "V v0 0", "A a21 21", "V v33 33", "A a42 21", "A a66 24", "V v66 33"}));
    ASSERT_TRUE(WaitUntil([&] { return RtmpQueueBufferCount(rig.queue()->VideoBuffer) == 0; }));
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 1);
    int posts = -1;
    sem_getvalue(&rig.queue()->AudioBuffer->Sem, &posts);
    EXPECT_EQ(posts, 1); // nobody waits for them, and still they do not pile up
}

// ------------------------------------------------------------------------------------------ failed sends

TEST(ThreadedQueue, AFailedSendClosesTheQueueAndTheFirstClientUntilAReset)
{
    SenderRig rig;
    fanOut().failOn("bad");
    rig.video("good", 1000);
    rig.video("bad", 1033);
    ASSERT_TRUE(rig.waitForEnd());
    EXPECT_EQ(LoadShared(&rig.queue()->Closed), 1);
    EXPECT_TRUE(rig.locksAreFree());
    EXPECT_EQ(rig.first.State, 9U);

    EXPECT_EQ(rig.video("next", 1066), 0);
    EXPECT_EQ(rig.first.State, 13U);
    EXPECT_EQ(rig.video("next", 1099), 0); // no longer playing: not even a line
    rig.first.State = CLIENT_STATE_PLAY_DONE;
    EXPECT_EQ(rig.video("next", 1132), 0); // another first client
    EXPECT_EQ(rig.first.State, 13U);
    EXPECT_EQ(rig.log.lines(), (Texts{kStarted, kFailed[0], kFailed[1], kExited, kExited}));
    EXPECT_EQ(fanOut().texts(), Texts{"V good 0"});

    rig.first.State = CLIENT_STATE_PLAY_DONE;
    EXPECT_EQ(RtmpThreadedQueueReset(&rig.session), 0);
    EXPECT_EQ(rig.queue()->Closed, 0);
    EXPECT_EQ(rig.video("again", 2000), 0);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (Texts{"V good 0", "V again 0"}));
    EXPECT_EQ(rig.log.count(kStarted), 2U);
}

TEST(ThreadedQueue, AFailedAudioSendKeepsTheFrameAndSendsNoVideo)
{
    SenderRig rig;
    fanOut().failOn("bad audio");
    rig.audio("bad audio", 1000);
    rig.audio("more audio", 1000);
    rig.video("video", 1000);
    ASSERT_TRUE(rig.waitForEnd());
    EXPECT_EQ(fanOut().count(), 0U);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 2);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->VideoBuffer), 1);
    EXPECT_EQ(rig.queue()->LastVideoTs, 0U);
    EXPECT_TRUE(rig.locksAreFree());
    EXPECT_EQ(rig.log.lines(), (Texts{kStarted, kFailed[0], kFailed[1]}));
}

TEST(ThreadedQueue, ASenderThatWasCancelledFromOutsideIsReplaced)
{
    SenderRig rig;
    rig.video("one", 1000);
    ASSERT_TRUE(fanOut().waitForSent(1));
    pthread_cancel(rig.queue()->ThreadId);
    ASSERT_TRUE(rig.waitForEnd());
    EXPECT_EQ(LoadShared(&rig.queue()->Closed), 0);
    EXPECT_EQ(rig.video("two", 1033), 0);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (Texts{"V one 0", "V two 33"}));
    EXPECT_EQ(rig.log.lines(), (Texts{kStarted, kStarted}));
}

// By then some players have got it.
TEST(ThreadedQueue, AFrameInTheMiddleOfWhichSettingsEndTheSenderIsNotSentAgainAndDelaysNoOther)
{
    SenderRig rig;
    rig.video("zero", 1000);
    ASSERT_TRUE(fanOut().waitForSent(1));
    fanOut().hold();
    rig.video("one", 1033);
    ASSERT_TRUE(fanOut().waitForCallInside());
    ASSERT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 30), 0);
    EXPECT_EQ(rig.queue()->ThreadRunning, 0);
    fanOut().reset();
    rig.video("two", 1066);
    ASSERT_TRUE(WaitUntil([&] { return RtmpQueueBufferCount(rig.queue()->VideoBuffer) == 0; }));
    EXPECT_EQ(fanOut().texts(), Texts{"V two 33"});
    rig.video("three", 1100);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (Texts{"V two 33", "V three 34"}));
}

TEST(ThreadedQueue, AnAudioFrameInTheMiddleOfWhichSettingsEndTheSenderIsNotSentAgain)
{
    SenderRig rig;
    fanOut().hold();
    rig.audio("one", 1000);
    rig.audio("later", 5000);
    rig.video("video", 1000);
    ASSERT_TRUE(fanOut().waitForCallInside());
    ASSERT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 30), 0);
    fanOut().reset();
    rig.video("next", 1033);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (Texts{"V video 0", "V next 33"})); // of the video nothing had left
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 1);
}

TEST(ThreadedQueue, AFrameThatHadNotBegunToLeaveWaitsForTheNextSender)
{
    SenderRig rig;
    ASSERT_EQ(RtmpMutexLock(&rig.server.LiveSessionListLock), 0);
    rig.video("one", 1000);
    ASSERT_TRUE(WaitUntil([&] {
        int posts = 1;
        sem_getvalue(&rig.queue()->VideoBuffer->Sem, &posts);
        return posts == 0;
    }));
    ASSERT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 30), 0);
    ASSERT_EQ(RtmpMutexUnlock(&rig.server.LiveSessionListLock), 0);
    rig.video("two", 1033);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (Texts{"V one 0", "V two 33"}));
}

TEST(ThreadedQueue, CloseKeepsTheSenderAway)
{
    SenderRig rig;
    rig.video("one", 1000);
    ASSERT_TRUE(fanOut().waitForSent(1));
    EXPECT_EQ(RtmpThreadedQueueClose(&rig.session), 0);
    EXPECT_EQ(rig.queue()->Closed, 1);
    EXPECT_EQ(rig.queue()->ThreadRunning, 0);
    EXPECT_EQ(rig.video("two", 1033), 0);
    EXPECT_EQ(rig.first.State, 13U);
    EXPECT_EQ(rig.log.lines(), (Texts{kStarted, kExited}));
    EXPECT_EQ(fanOut().count(), 1U);
}

TEST(ThreadedQueue, AResetForgetsEverythingButTheSettings)
{
    SenderRig rig;
    ASSERT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 30), 0);
    ASSERT_EQ(RtmpThreadedQueueAdaptiveBitrateInit(&rig.session, 1, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
    rig.videoInfo.bitrate = 4000000;
    rig.session.CodecInfo = &rig.codecInfo;
    rig.audio("audio", 1100);
    rig.video("one", 1000);
    rig.video("two", 1033);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(rig.queue()->Abr->CurrentBitrate, 4000000);
    EXPECT_EQ(RtmpThreadedQueueReset(&rig.session), 0);
    EXPECT_EQ(rig.queue()->ThreadId, 0U);
    EXPECT_EQ(rig.queue()->ThreadRunning, 0);
    EXPECT_EQ(rig.queue()->LastAudioTs, 0U);
    EXPECT_EQ(rig.queue()->LastVideoTs, 0U);
    EXPECT_EQ(rig.queue()->LastVideoRtmpTs, 0U);
    EXPECT_EQ(rig.queue()->LastAudioRtmpTs, 0U);
    EXPECT_EQ(rig.queue()->Closed, 0);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 0);
    EXPECT_EQ(rig.queue()->Bwm->Count, 0U);
    EXPECT_EQ(rig.queue()->Bwm->Size, 31);
    EXPECT_EQ(rig.queue()->Abr->CurrentBitrate, -1);
    EXPECT_EQ(rig.queue()->Abr->MinBitrate, 5);
}

// -------------------------------------------------------------------------------------------- congestion

TEST(ThreadedQueue, AFullVideoRingIsFlushedWithTheFrameThatDidNotFit)
{
    SenderRig rig(10, 3); // four frames
    fanOut().hold();
    rig.video("sending", 1000);
    ASSERT_TRUE(fanOut().waitForCallInside());
    for (const char *text : {"a", "b", "c", "too much"}) {
        EXPECT_EQ(rig.video(text, 1033), 0);
    }
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->VideoBuffer), 0);
    EXPECT_EQ(rig.video("next", 1066), 0);
    fanOut().release();
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (Texts{"V sending 0", "V next 66"}));
    ASSERT_TRUE(WaitUntil([&] { return RtmpQueueBufferCount(rig.queue()->VideoBuffer) == 0; }));
    EXPECT_EQ(rig.log.lines(), (Texts{kStarted, kFlushingVideo}));
}

TEST(ThreadedQueue, AFullAudioRingIsFlushedSilentlyTowardsTheHost)
{
    SenderRig rig(1, 10); // two frames
    for (const char *text : {"a", "b", "too much"}) {
        EXPECT_EQ(rig.audio(text, 1000), 0);
    }
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 0);
    EXPECT_EQ(rig.audio("next", 1000), 0);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 1);
    EXPECT_EQ(rig.log.count(kFlushingAudio), 1U);
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
}

TEST(ThreadedQueue, AFlushWhileAudioIsBeingSentDropsNoNewerAudio)
{
    SenderRig rig(1, 10);
    fanOut().hold();
    rig.audio("sending", 1000);
    rig.video("video", 1000);
    ASSERT_TRUE(fanOut().waitForCallInside());
    rig.audio("lost", 1000);
    rig.audio("too much", 1000);
    rig.audio("newer", 1000);
    rig.audio("newest", 1000);
    fanOut().let(1);
    ASSERT_TRUE(fanOut().waitForSent(1));
    fanOut().let(3);
    ASSERT_TRUE(fanOut().waitForSent(4));
    EXPECT_EQ(fanOut().texts(), (Texts{"A sending 0", "A newer 0", "A newest 0", "V video 0"}));
}

TEST(ThreadedQueue, TheHostIsToldOnceThatTheBufferIsFullAndOnceThatItIsEmpty)
{
    SenderRig rig(10, 7); // eight frames
    fanOut().hold();
    rig.video("sending", 1000);
    ASSERT_TRUE(fanOut().waitForCallInside());
    for (int i = 0; i < 8; i++) {
        rig.video("queued", 1001); // the eighth does not fit
    }
    const Texts full = {"rtmpLowBitrate 1 Buffer full"};
    const Texts both = {"rtmpLowBitrate 1 Buffer full", "rtmpLowBitrate 0 Buffer is empty"};
    EXPECT_EQ(StatusOf(HostFakes::get().statusReports()), full);
    EXPECT_EQ(HostFakes::get().statusReports()[0].context, &rig.session);

    rig.video("one", 1002);
    EXPECT_EQ(StatusOf(HostFakes::get().statusReports()), both); // the flush left fewer than five
    for (int i = 0; i < 7; i++) {
        rig.video("queued", 1003);
    }
    EXPECT_EQ(StatusOf(HostFakes::get().statusReports()), both);
    rig.video("too much", 1004);
    rig.audio("audio does not count", 1004);
    EXPECT_EQ(HostFakes::get().statusReports().size(), 3U);
}

TEST(ThreadedQueue, TheBufferIsEmptyBelowFiveItemsAfterASuccessfulAdd)
{
    SenderRig rig(10, 3);
    fanOut().hold();
    rig.video("sending", 1000);
    ASSERT_TRUE(fanOut().waitForCallInside());
    for (int i = 0; i < 4; i++) {
        rig.video("queued", 1001);
    }
    ASSERT_EQ(HostFakes::get().statusReports().size(), 1U); // "Buffer full" is outstanding

    // The latch is the process's: another queue answers it.
    ASSERT_EQ(RtmpThreadedQueueDestroy(&rig.session), 0);
    ASSERT_EQ(RtmpThreadedQueueInit(&rig.session, 10, 20), 0);
    for (int i = 0; i < 6; i++) {
        RtmpQueueBufferAdd(rig.queue()->VideoBuffer, RTMP_MSG_VIDEO, reinterpret_cast<const uint8_t *>("x"),
                           1, 0, 0, 1000);
    }
    rig.video("seventh", 1002);
    EXPECT_EQ(HostFakes::get().statusReports().size(), 1U);
    fanOut().let(3); // three leave: four remain
    ASSERT_TRUE(WaitUntil([&] { return RtmpQueueBufferCount(rig.queue()->VideoBuffer) == 4; }));
    rig.video("fifth", 1003);
    EXPECT_EQ(HostFakes::get().statusReports().size(), 1U); // five are not fewer than five
    fanOut().let(2);
    ASSERT_TRUE(WaitUntil([&] { return RtmpQueueBufferCount(rig.queue()->VideoBuffer) == 3; }));
    rig.video("fourth", 1004);
    EXPECT_EQ(HostFakes::get().statusReports().size(), 2U);
}

// ------------------------------------------------------------------------------------------ companions

TEST(ThreadedQueue, SentVideoFeedsTheBandwidthMonitor)
{
    SenderRig rig;
    ASSERT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 30), 0);
    rig.audio("audio", 1000);
    rig.video("12345", 1000);
    rig.video("1234567", 1033);
    ASSERT_TRUE(fanOut().waitForSent(3));
    ASSERT_TRUE(WaitUntil([&] { return RtmpQueueBufferCount(rig.queue()->VideoBuffer) == 0; }));
    RtmpThreadedQueueClose(&rig.session);
    const std::vector<StatusReport> reports = HostFakes::get().statusReports();
    EXPECT_EQ(StatusOf(reports),
              (Texts{"rtmpBandwidth 0 Current RTMP Bitrate", "rtmpUptime 0 Broadcast Duration"}));
    EXPECT_EQ(reports[0].context, &rig.session);
}

TEST(ThreadedQueue, TheTraceGetsItsLinesFromTheSender)
{
    char name[] = "/tmp/rtmpcast-queue-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    {
        SenderRig rig(10, 3);
        ASSERT_EQ(RtmpThreadedQueueDebugInit(&rig.session, 1, 0, 1, name, 0), 0);
        fanOut().hold();
        rig.video("one", 1000);
        ASSERT_TRUE(fanOut().waitForCallInside());
        rig.video("lost", 1033);
        rig.video("lost", 1066);
        rig.video("lost", 1099);
        rig.video("too much", 1132); // four are dropped, the one being sent included
        rig.video("two", 1165);
        EXPECT_EQ(rig.queue()->Debug->Elapsed, 165U);
        EXPECT_EQ(rig.queue()->Debug->Dropped, 4U);
        fanOut().release();
        ASSERT_TRUE(fanOut().waitForSent(2));
        ASSERT_TRUE(WaitUntil([&] { return RtmpQueueBufferCount(rig.queue()->VideoBuffer) == 0; }));
        ASSERT_TRUE(
            WaitUntil([&] { return rig.locksAreFree(); })); // the line is written under the ring's lock
    }
    std::vector<std::string> lines;
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(name)) {
        files++;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line.substr(0, line.rfind(','))); // the time it took is the machine's
        }
    }
    std::filesystem::remove_all(name);
    EXPECT_EQ(files, 1);
    EXPECT_EQ(lines, (Texts{"0,0,0,0,1,4", "165,0,0,0,0,4"}));
}

TEST(ThreadedQueue, TheControllerStartsOnceTheConfiguredBitrateIsKnown)
{
    SenderRig rig;
    ASSERT_EQ(RtmpThreadedQueueDebugInit(&rig.session, 1, 1, 0, "/dev/null", 0), 0);
    ASSERT_EQ(RtmpThreadedQueueAdaptiveBitrateInit(&rig.session, 1, 500000, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0),
              0);
    const std::string line = "6 INFO: RtmpQueueAdaptiveBitrateInit: Initial video bitrate: 4000 Kbps";
    rig.video("no codec information", 1000);
    rig.session.CodecInfo = &rig.codecInfo;
    rig.codecInfo.VdCodecInfo = nullptr;
    rig.video("no video information", 1033);
    rig.codecInfo.VdCodecInfo = &rig.videoInfo;
    rig.video("no bitrate", 1066);
    EXPECT_EQ(rig.log.count(line), 0U);
    EXPECT_TRUE(HostFakes::get().bitrates().empty());

    rig.videoInfo.bitrate = 4000000;
    rig.audio("audio starts nothing", 1099);
    EXPECT_EQ(rig.log.count(line), 0U);
    rig.video("bitrate", 1099);
    EXPECT_EQ(rig.log.count(line), 1U);
    EXPECT_EQ(HostFakes::get().bitrates(),
              (std::vector<std::pair<void *, int32_t>>{{&rig.session, 4000000}}));
    EXPECT_STREQ(rig.queue()->Debug->RateText, "0:4000 4000");
    EXPECT_STREQ(rig.queue()->Debug->QueueText, "");
    rig.video("from now on it is evaluated", 1132);
    EXPECT_EQ(rig.queue()->Abr->StartTime, 1132U);
    EXPECT_EQ(HostFakes::get().bitrates().size(), 1U);
}

TEST(ThreadedQueue, ABitrateBeyondTheTypeIsTheLargest)
{
    SenderRig rig;
    ASSERT_EQ(RtmpThreadedQueueAdaptiveBitrateInit(&rig.session, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
    rig.session.CodecInfo = &rig.codecInfo;
    rig.videoInfo.bitrate = 0xFFFFFFFF;
    rig.video("one", 1000);
    EXPECT_EQ(rig.queue()->Abr->CurrentBitrate, INT32_MAX);
    rig.video("two", 1033);
    EXPECT_EQ(HostFakes::get().bitrates().size(), 1U);
}

TEST(ThreadedQueue, WithAControllerTheRingIsFullAtOneHundredPercentAndNoBufferMessageIsSent)
{
    SenderRig rig(10, 3);
    ASSERT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 30), 0);
    ASSERT_EQ(
        RtmpThreadedQueueAdaptiveBitrateInit(&rig.session, 1, 500000, 1, 20, 0, 0, 0, 90, 50, 200, 0, 0, 0),
        0);
    rig.session.CodecInfo = &rig.codecInfo;
    rig.videoInfo.bitrate = 4000000;
    fanOut().hold();
    rig.video("sending", 1000); // starts the controller
    ASSERT_TRUE(fanOut().waitForCallInside());
    StoreShared(&rig.queue()->Bwm->Kbps, 1000U);
    rig.video("b", 1033); // 2 of 4: the first evaluation
    rig.video("c", 1066); // 75 %
    rig.video("d", 1099); // 100 %: (1000000 - 4000000) / 2
    EXPECT_EQ(rig.queue()->Abr->CurrentBitrate, 2500000);
    rig.video("too much", 4132); // 100 % as well, measured before the flush
    EXPECT_EQ(rig.queue()->Abr->CurrentBitrate, 1750000);
    Texts lines = rig.log.lines();
    lines.erase(std::remove(lines.begin(), lines.end(), kStarted), lines.end()); // the sender's own
    EXPECT_EQ(lines,
              (Texts{"6 INFO: RtmpQueueAdaptiveBitrateInit: Initial video bitrate: 4000 Kbps",
                     "6 INFO: RtmpQueueAdaptiveBitrateUpdate: Decreasing Bitrate to 2500 Kbps",
                     "6 INFO: RtmpQueueAdaptiveBitrateUpdate:   Fullness: 100% (4/4)",
                     "6 INFO: RtmpQueueAdaptiveBitrateUpdate: Decreasing Bitrate to 1750 Kbps",
                     "6 INFO: RtmpQueueAdaptiveBitrateUpdate:   Fullness: 100% (4/4)", kFlushingVideo}));
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
}

TEST(ThreadedQueue, TheBurnInIsRefreshedEveryThirtySecondVideoFrame)
{
    SenderRig rig(10, 100);
    ASSERT_EQ(RtmpThreadedQueueDebugInit(&rig.session, 1, 1, 0, "/dev/null", 0), 0);
    ASSERT_EQ(RtmpThreadedQueueAdaptiveBitrateInit(&rig.session, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
    rig.session.CodecInfo = &rig.codecInfo;
    rig.videoInfo.bitrate = 4000000;
    fanOut().hold();
    rig.video("initial", 1000);
    std::vector<int> refreshed;
    for (int frame = 1; frame <= 96; frame++) {
        rig.queue()->Debug->QueueText[0] = '\0';
        rig.video("evaluated", 1000);
        if (rig.queue()->Debug->QueueText[0] != '\0') {
            refreshed.push_back(frame);
            EXPECT_EQ(std::string(rig.queue()->Debug->QueueText), std::to_string(frame + 1) + " 0 0");
        }
    }
    EXPECT_EQ(refreshed, (std::vector<int>{32, 64, 96}));
}

TEST(ThreadedQueue, CompanionsThatFindNoMemoryAreLogged)
{
    SenderRig rig;
    EXPECT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 0x7FFFFFFF), -1);
    calls::failNext(Call::Calloc, 2);
    EXPECT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 30), -1);
    calls::failNext(Call::Calloc);
    EXPECT_EQ(RtmpThreadedQueueDebugInit(&rig.session, 1, 1, 1, "d", 1), -1);
    calls::failNext(Call::Calloc);
    EXPECT_EQ(RtmpThreadedQueueAdaptiveBitrateInit(&rig.session, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), -1);
    calls::failNext(Call::Calloc, 0);
    EXPECT_EQ(
        rig.log.lines(),
        (Texts{"3 ERROR: RtmpThreadedQueueBWMInit: Not enough memory for Bandwidth Monitor",
               "3 ERROR: RtmpThreadedQueueBWMInit: Not enough memory for Bandwidth Monitor",
               "3 ERROR: RtmpThreadedQueueDebugInit: Not enough memory for Debug",
               "3 ERROR: RtmpThreadedQueueAdaptiveBitrateInit: Not enough memory for Adaptive Bitrate"}));
    EXPECT_EQ(rig.queue()->Bwm, nullptr);
    EXPECT_EQ(rig.queue()->Debug, nullptr);
    EXPECT_EQ(rig.queue()->Abr, nullptr);
}

TEST(ThreadedQueue, CompanionsAreReplacedAlsoWhileTheSenderRuns)
{
    SenderRig rig;
    rig.video("one", 1000);
    ASSERT_TRUE(fanOut().waitForSent(1));
    for (uint32_t window = 1; window < 5; window++) {
        ASSERT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, window), 0);
        ASSERT_EQ(RtmpThreadedQueueDebugInit(&rig.session, 1, 0, 1, "/dev/null", 0), 0);
        ASSERT_EQ(RtmpThreadedQueueAdaptiveBitrateInit(&rig.session, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0),
                  0);
        rig.video("next", 1000 + window);
        ASSERT_TRUE(fanOut().waitForSent(1 + window));
        EXPECT_EQ(rig.queue()->Bwm->Size, static_cast<int32_t>(window + 1));
    }
    EXPECT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 0, 50), 0); // not enabled: nothing is done
    EXPECT_EQ(rig.queue()->Bwm->Size, 5);
}
