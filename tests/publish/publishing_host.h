// A publishing host in small: what a program does that sends its stream to a streaming service through the
// library. It uses nothing but the public interface, and is meant to be read.
#pragma once

#include "rtmpcast/rtmpcast.h"

// What became of one message.
struct Handled {
    RtmpRecvPkt
        *message;  // null: the connection is over. Stays the client's, until the next on its chunk stream
    int parsed;    // ParseRequestMsg
    uint32_t kind; // RtmpMsgKind
    int answered;  // ProcessSend; -1 for everything that a service says
};

// HandleOne reads one whole message and handles it; blocks until it has come. One thread a client.
Handled HandleOne(RtmpClient *client);

// HandleUntilOver handles messages until the connection is over or a message was not to be understood.
void HandleUntilOver(RtmpClient *client);

// EndPublisher ends the client record; the socket stays the caller's. Called by the thread that handles the
// messages, when it is done with them.
void EndPublisher(RtmpClient *client);

// ConnectHandshake is the connecting side's handshake (RTMP 1.0, 5.2), which the library leaves to the host.
// It goes through the host's socket before there is a client record. 0 or -1.
int ConnectHandshake(int socket);

// AnnounceChunkSize sends Set Chunk Size; from then on messages are cut by it. 0 or -1.
int AnnounceChunkSize(RtmpClient *client);

// Commands of a publisher. 0 or -1.
int SendConnect(RtmpClient *client, const char *app, double transaction);
int SendCreateStream(RtmpClient *client, double transaction);
int SendPublish(RtmpClient *client, const char *stream, double transaction);

// StreamIdIn finds the new stream's id in the answer to createStream. 0: there is none.
uint32_t StreamIdIn(RtmpServer *server, const RtmpRecvPkt *result);

// StartFrames lets the session's frames go to the service: metadata and sequence headers first. 0 or -1.
int StartFrames(RtmpClient *client, RtmpSession *session);
