// The end of a publishing connection that the host asks for: FCUnpublish and deleteStream behind the last
// frame. The connection itself is the host's to end.
#pragma once

#include "publish/publisher.h"

extern "C" {

// BeginGoodBye says it, unless frames still wait for the service on the steady road: then it is left to
// EndGoodBye. From RtmpPublisherStop.
void BeginGoodBye(RtmpPublisher *publisher);

// AwaitStop waits for RtmpPublisherStop, which is under way on another thread or not at all.
void AwaitStop(RtmpPublisher *publisher);

// EndGoodBye sees out, on the steady road, what waits for the service: AnswerMilliseconds at most. On the
// default road, and where no good-bye was begun, there is nothing to do. On the thread that serves the
// publisher.
void EndGoodBye(RtmpPublisher *publisher);
}
