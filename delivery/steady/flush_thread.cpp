#include "delivery/steady/flush_thread.h"

#include "instruments/bandwidth_monitor.h"
#include "net/atomic.h"
#include "net/platform.h"
#include "steady/flush_players.h"

#include <errno.h>
#include <pthread.h>

namespace {

void WaitForWake(SteadySender *sender)
{
    while (sem_wait(&sender->Wake) != 0 && errno == EINTR) {
    }
    // An exchange, so that what was appended in front of a wake that did not count is seen.
    (void)__atomic_exchange_n(&sender->IsAwake, uint8_t{0}, __ATOMIC_ACQ_REL);
}

uint32_t MicrosSince(RtmpQueueTime start)
{
    const RtmpQueueTime now = WallClock();
    const int64_t micros = (now.Seconds - start.Seconds) * 1000000 + (now.Microseconds - start.Microseconds);
    return micros > 0 && micros < UINT32_MAX ? static_cast<uint32_t>(micros) : 0;
}

// FlushAndMeasure writes what is due, and notes what the host's thread steers the encoder by.
void FlushAndMeasure(SteadyStream *stream)
{
    SteadySender *sender = stream->Sender;
    const RtmpQueueTime start = WallClock();
    SteadySlowest slowest;
    FlushPlayers(stream, &slowest);
    StoreShared(&sender->FlushMicros, MicrosSince(start));
    StoreShared(&sender->PicturesBehind, slowest.Pictures);
    (void)AddShared(&sender->BytesTaken, slowest.Bytes);
    StoreShared(&sender->IsAnyCounted, static_cast<uint8_t>(slowest.Counted > 0 ? 1 : 0));
}

void *FlushWhenWoken(void *argument)
{
    SteadyStream *stream = static_cast<SteadyStream *>(argument);
    SteadySender *sender = stream->Sender;
    WaitForWake(sender);
    while (LoadShared(&sender->Ends) == 0) {
        FlushAndMeasure(stream);
        WaitForWake(sender);
    }
    return nullptr;
}

} // namespace

int EnsureFlushThread(SteadyStream *stream)
{
    SteadySender *sender = stream->Sender;
    if (sender->HasThread != 0) {
        return 0;
    }
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return -1;
    }
    pthread_attr_setinheritsched(&attributes, PTHREAD_INHERIT_SCHED);
    StoreShared(&sender->Ends, uint8_t{0});
    const int result = pthread_create(&sender->Thread, &attributes, FlushWhenWoken, stream);
    pthread_attr_destroy(&attributes);
    sender->HasThread = result == 0 ? 1 : 0;
    return result == 0 ? 0 : -1;
}

void WakeFlushThread(SteadySender *sender)
{
    if (__atomic_exchange_n(&sender->IsAwake, uint8_t{1}, __ATOMIC_ACQ_REL) == 0) {
        sem_post(&sender->Wake);
    }
}

void EndFlushThread(SteadySender *sender)
{
    if (sender->HasThread == 0) {
        return;
    }
    StoreShared(&sender->Ends, uint8_t{1});
    sem_post(&sender->Wake);
    (void)RtmpWaitForThreadCompletion(sender->Thread); // started, and joined once
    sender->HasThread = 0;
    while (sem_trywait(&sender->Wake) == 0) { // for the next thread
    }
    StoreShared(&sender->IsAwake, uint8_t{0});
}
