#include "publish/good_bye.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "publish/command_writer.h"
#include "steady/farewell.h"

#include <sys/socket.h>

namespace {

// On the default road a frame may wait for the service for ever. 0: nobody writes now.
int AwaitWriter(RtmpPublisher *publisher)
{
    RtmpClient *client = publisher->Client;
    const uint64_t deadline = RtmpGetSystemTime() + publisher->Target.AnswerMilliseconds;
    while (RtmpMutexLockSlice(&client->WriteLock) != 0) {
        if (RtmpGetSystemTime() >= deadline) {
            return -1;
        }
    }
    return RtmpMutexUnlock(&client->WriteLock);
}

// A service that takes nothing hears no good-bye, and the frame that waits for it ends.
void SayGoodBye(RtmpPublisher *publisher)
{
    RtmpClient *client = publisher->Client;
    SetClientState(client, CLIENT_STATE_DELETESTREAM); // no frame goes out behind the good-bye
    (void)LimitWrites(client, AnswerTime(publisher));
    if (AwaitWriter(publisher) != 0) {
        (void)shutdown(client->Socket, SHUT_RDWR);
        return;
    }
    // Failures are logged, and the connection ends anyway.
    (void)RtmpPublisherSend(publisher, RTMP_PUBLISHER_FC_UNPUBLISH, nullptr);
    (void)RtmpPublisherSend(publisher, RTMP_PUBLISHER_DELETE_STREAM, nullptr);
}

} // namespace

void AwaitStop(RtmpPublisher *publisher)
{
    (void)RtmpMutexLock(&publisher->StopLock); // made with the record: cannot fail
    (void)RtmpMutexUnlock(&publisher->StopLock);
}

void BeginGoodBye(RtmpPublisher *publisher)
{
    const SteadyLine *line = publisher->Client->Line;
    if (line != nullptr && HasFramesWaiting(line)) {
        StoreShared(&publisher->OwesGoodBye, uint8_t{1});
        return;
    }
    SayGoodBye(publisher);
}

void EndGoodBye(RtmpPublisher *publisher)
{
    SteadyLine *line = publisher->Client->Line;
    if (line == nullptr || LoadShared(&publisher->StopAsked) == 0) {
        return;
    }
    AwaitStop(publisher);
    const uint64_t end = RtmpGetSystemTime() + publisher->Target.AnswerMilliseconds;
    if (LoadShared(&publisher->OwesGoodBye) != 0) {
        SeeFramesOut(line, end);
        SayGoodBye(publisher);
    }
    SeeRepliesOut(line, end);
}
