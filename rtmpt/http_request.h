// The HTTP requests that carry RTMPT: POST /open/1, /idle/<session>/<sequence>, /send/..., /close/...
// Nothing calls these yet: the tunnel itself is not served.
#pragma once

#include "net/limits.h"
#include "rtmpcast/types.h"

extern "C" {

enum RtmptCommand { RTMPT_OPEN = 0, RTMPT_IDLE = 1, RTMPT_SEND = 2, RTMPT_CLOSE = 3, RTMPT_INVALID = 4 };

typedef struct HttpHeader {
    char *name;
    char *value;
} HttpHeader;

// A parsed request. Its owner frees it with FreeHttpReqMsg.
typedef struct HttpReqMsg {
    uint32_t sessionId; // second path segment as atoi reads it
    int32_t headerCount;
    char *uri;
    char *version;    // such as "HTTP/1.1"
    uint32_t command; // RtmptCommand
    HttpHeader headers[kHttpHeadersMost];
} HttpReqMsg;

// ReadHttpMessage reads a request's header block, up to and including its empty line, byte by byte.
//
// `buf`: must hold whatever the peer may send; nothing bounds it here.
// `len`: receives the index of the last byte, one less than the bytes read.
// 0; -1 the connection failed (logged).
RTMP_STATUS int ReadHttpMessage(RtmpClient *client, uint8_t *buf, uint32_t *len);

// ParseHttpReqMsg parses a request of `len` bytes, header block and body. Nothing behind them is read.
// Null: no POST request of a tunnel command (logged, except where the request line is cut short), or no
// memory (logged). A header line that cannot be read, the 17th included, ends the reading; the record then
// holds what came before it.
HttpReqMsg *ParseHttpReqMsg(RtmpClient *client, const uint8_t *buf, uint32_t len);

void FreeHttpReqMsg(HttpReqMsg *reqMsg); // null is fine

// IdentifyMethod compares prefixes: "opened" is RTMPT_OPEN.
uint32_t IdentifyMethod(const char *segment);

// FindCharInBuffer returns the position of `wanted`; 0 when `stop` or the end comes first, and for a match
// at position 0. The first byte is looked at even when `len` is 0.
uint32_t FindCharInBuffer(const uint8_t *buf, uint8_t wanted, uint8_t stop, int32_t len);
}
