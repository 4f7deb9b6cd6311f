// Byte I/O on sockets, plain or through the host's TLS.
#pragma once

#include "rtmpcast/types.h"

#include <sys/socket.h>

extern "C" {

// RtmpCloseSocket shuts a socket down and closes it; the variable keeps its number. -1: close failed.
int RtmpCloseSocket(RtmpLogger *logger, int *fd);

// Its two halves, which log as RtmpCloseSocket. A thread that is blocked on the socket leaves after the
// first; only once it has may the number be given back with the second.
int ShutDownSocket(RtmpLogger *logger, int fd);
int CloseShutSocket(RtmpLogger *logger, int fd);

// RtmpGetIP writes the dotted IPv4 address of an interface to `out` (16 bytes at least).
RTMP_STATUS int RtmpGetIP(RtmpLogger *logger, const char *name, char *out);

// RtmpReadBytes reads exactly `length` bytes. -1: an error, an interruption, or the peer closed.
RTMP_STATUS int RtmpReadBytes(RtmpLogger *logger, int fd, uint8_t *buf, uint32_t length, void *tls);

// RtmpSendBytes makes one write and returns the bytes written, 0 when the peer closed, -1 on an error.
RTMP_STATUS int RtmpSendBytes(RtmpLogger *logger, int fd, const uint8_t *buf, uint32_t length, void *tls);

// The same on a client's socket and TLS handle, and what they log is the same. The calls of the handle are
// made under the client's TlsLock; RtmpReadBytes and RtmpSendBytes make them without it, for a handle that no
// other thread uses. A client that is told to leave (net/client_state.h) reads nothing more: its read fails
// as an interrupted one does. What was read is counted in BytesReceived.
RTMP_STATUS int ReadClientBytes(RtmpClient *client, uint8_t *buf, uint32_t length);
RTMP_STATUS int SendClientBytes(RtmpClient *client, const uint8_t *buf, uint32_t length);

// RtmpSendMsgBytes makes one sendmsg and returns the bytes sent or -1. Never TLS.
RTMP_STATUS int RtmpSendMsgBytes(RtmpLogger *logger, int fd, struct msghdr *msg, int flags);

// SendCountedBytes does the same, and what it logs is the same. The bytes sent are in `msg->msg_len` too,
// also for a thread that is cancelled in the call: the kernel stores them there.
RTMP_STATUS int SendCountedBytes(RtmpLogger *logger, int fd, struct mmsghdr *msg, int flags);
}
