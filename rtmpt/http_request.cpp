#include "rtmpt/http_request.h"

#include "net/limits.h"
#include "net/log.h"
#include "net/record.h"
#include "net/scope.h"
#include "net/socket_io.h"

#include <stdlib.h>
#include <string.h>

namespace {

// What is left of a request. Rest is never negative.
struct HttpCursor {
    const uint8_t *At;
    int64_t Rest;
};

// KEPT: the bytes counted as left are two more than there are, because the spaces behind method and target
// are not taken off. Required; decides whether a Content-Length that is a little too large is accepted.
constexpr int64_t kUncountedSpaces = 2;
constexpr int64_t kLineEnd = 2; // CR LF

uint32_t PositionOf(const HttpCursor *cursor, char wanted, char stop)
{
    if (cursor->Rest == 0) {
        return 0;
    }
    const int64_t bound = cursor->Rest < INT32_MAX ? cursor->Rest : INT32_MAX;
    return FindCharInBuffer(cursor->At, static_cast<uint8_t>(wanted), static_cast<uint8_t>(stop),
                            static_cast<int32_t>(bound));
}

void Skip(HttpCursor *cursor, int64_t bytes)
{
    const int64_t step = bytes < cursor->Rest ? bytes : cursor->Rest;
    cursor->At += step;
    cursor->Rest -= step;
}

char *CopyToken(const HttpCursor *cursor, uint32_t length)
{
    return CopyOfText(reinterpret_cast<const char *>(cursor->At), length);
}

// atoi, also where the number does not fit: the low 32 bits.
int32_t NumberIn(const char *text)
{
    return static_cast<int32_t>(static_cast<uint32_t>(strtol(text, nullptr, 10)));
}

enum ParseResult {
    PARSE_OK,
    PARSE_ENDED, // silently
    PARSE_NO_TEXT_MEMORY,
    PARSE_NO_URI_MEMORY,
    PARSE_NOT_A_METHOD
};

ParseResult ParseMethod(HttpCursor *cursor)
{
    const uint32_t length = PositionOf(cursor, ' ', '\r');
    if (length == 0) {
        return PARSE_ENDED;
    }
    FREE_AT_EXIT char *method = CopyToken(cursor, length);
    if (method == nullptr) {
        return PARSE_NO_TEXT_MEMORY;
    }
    Skip(cursor, length + 1);
    return strncmp(method, "POST", 4) == 0 ? PARSE_OK : PARSE_NOT_A_METHOD;
}

ParseResult ParseTarget(HttpReqMsg *reqMsg, HttpCursor *cursor)
{
    const uint32_t length = PositionOf(cursor, ' ', '\r');
    if (length == 0) {
        return PARSE_ENDED;
    }
    reqMsg->uri = CopyToken(cursor, length);
    if (reqMsg->uri == nullptr) {
        return PARSE_NO_URI_MEMORY;
    }
    Skip(cursor, length + 1);
    return PARSE_OK;
}

// /<command>/<session id>[/<sequence>]: the sequence number is not read.
ParseResult ParsePath(HttpReqMsg *reqMsg)
{
    const char *segment = reqMsg->uri + 1;
    const char *slash = strchr(segment, '/');
    if (slash == nullptr) {
        return PARSE_NOT_A_METHOD;
    }
    FREE_AT_EXIT char *command = CopyOfText(segment, static_cast<uint64_t>(slash - segment));
    if (command == nullptr) {
        return PARSE_NO_TEXT_MEMORY;
    }
    reqMsg->command = IdentifyMethod(command);
    if (reqMsg->command == RTMPT_INVALID) {
        return PARSE_NOT_A_METHOD;
    }
    reqMsg->sessionId = static_cast<uint32_t>(NumberIn(slash + 1)); // stops at the next slash by itself
    return PARSE_OK;
}

ParseResult ParseVersion(HttpReqMsg *reqMsg, HttpCursor *cursor)
{
    const uint32_t length = PositionOf(cursor, '\r', '\n');
    if (length == 0) {
        return PARSE_ENDED;
    }
    reqMsg->version = CopyToken(cursor, length);
    if (reqMsg->version == nullptr) {
        return PARSE_NO_URI_MEMORY;
    }
    Skip(cursor, length + kLineEnd);
    return PARSE_OK;
}

ParseResult ParseRequestLine(HttpReqMsg *reqMsg, HttpCursor *cursor)
{
    ParseResult result = ParseMethod(cursor);
    if (result == PARSE_OK) {
        result = ParseTarget(reqMsg, cursor);
    }
    if (result == PARSE_OK) {
        result = ParsePath(reqMsg);
    }
    if (result == PARSE_OK) {
        result = ParseVersion(reqMsg, cursor);
    }
    return result;
}

// One "name: value" line. A single byte between colon and value is assumed to be the space.
ParseResult ParseHeader(HttpHeader *header, HttpCursor *cursor)
{
    const uint32_t nameLength = PositionOf(cursor, ':', '\r');
    if (nameLength == 0) {
        return PARSE_ENDED;
    }
    FREE_AT_EXIT char *name = CopyToken(cursor, nameLength);
    if (name == nullptr) {
        return PARSE_NO_TEXT_MEMORY;
    }
    Skip(cursor, nameLength + 2);
    const uint32_t valueLength = PositionOf(cursor, '\r', '\n');
    if (valueLength == 0) {
        return PARSE_ENDED;
    }
    header->value = CopyToken(cursor, valueLength);
    if (header->value == nullptr) {
        return PARSE_NO_TEXT_MEMORY;
    }
    Skip(cursor, valueLength + kLineEnd);
    header->name = name;
    name = nullptr;
    return PARSE_OK;
}

// Reads header lines until the body, or whatever is no header line.
ParseResult ParseHeaders(HttpReqMsg *reqMsg, HttpCursor *cursor)
{
    int64_t contentLength = 0;
    while (contentLength + kLineEnd < cursor->Rest + kUncountedSpaces) {
        if (reqMsg->headerCount == int32_t{kHttpHeadersMost}) {
            return PARSE_ENDED;
        }
        HttpHeader *header = &reqMsg->headers[reqMsg->headerCount];
        const ParseResult result = ParseHeader(header, cursor);
        if (result != PARSE_OK) {
            return result;
        }
        if (strcmp(header->name, "Content-Length") == 0) {
            contentLength = NumberIn(header->value);
        }
        reqMsg->headerCount++;
    }
    return PARSE_OK;
}

void LogRequestLineFailure(RtmpLogger *logger, ParseResult result, const char *caller)
{
    if (result == PARSE_NO_TEXT_MEMORY) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot Allocate Memory for tempArray Pointer\n",
                     caller);
    } else if (result == PARSE_NO_URI_MEMORY) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot Allocate Memory for Message URI Pointer\n",
                     caller);
    } else if (result == PARSE_NOT_A_METHOD) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid Method received from client\n", caller);
    }
}

} // namespace

int ReadHttpMessage(RtmpClient *client, uint8_t *buf, uint32_t *len)
{
    for (uint32_t i = 0;; i++) {
        if (ReadClientBytes(client, buf + i, 1) != 0) {
            RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Rtmp read bytes failed\n",
                         __func__);
            return -1;
        }
        if (i >= 5 && memcmp(buf + i - 3, "\r\n\r\n", 4) == 0) {
            *len = i; // KEPT: the last index, one less than the count. Required
            return 0;
        }
    }
}

HttpReqMsg *ParseHttpReqMsg(RtmpClient *client, const uint8_t *buf, uint32_t len)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    HttpReqMsg *reqMsg = NewRecord<HttpReqMsg>();
    if (reqMsg == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to reqMsg\n", __func__);
        return nullptr;
    }
    HttpCursor cursor = {buf, len};
    const ParseResult line = ParseRequestLine(reqMsg, &cursor);
    if (line != PARSE_OK) {
        LogRequestLineFailure(logger, line, __func__);
        FreeHttpReqMsg(reqMsg);
        return nullptr;
    }
    if (ParseHeaders(reqMsg, &cursor) == PARSE_NO_TEXT_MEMORY) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Memory Allocation Failed\n", __func__);
    }
    return reqMsg;
}

void FreeHttpReqMsg(HttpReqMsg *reqMsg)
{
    if (reqMsg == nullptr) {
        return;
    }
    for (int32_t i = 0; i < int32_t{kHttpHeadersMost}; i++) {
        free(reqMsg->headers[i].name);
        free(reqMsg->headers[i].value);
    }
    free(reqMsg->uri);
    free(reqMsg->version);
    free(reqMsg);
}

uint32_t IdentifyMethod(const char *segment)
{
    if (strncmp(segment, "open", 4) == 0) {
        return RTMPT_OPEN;
    }
    if (strncmp(segment, "idle", 4) == 0) {
        return RTMPT_IDLE;
    }
    if (strncmp(segment, "send", 4) == 0) {
        return RTMPT_SEND;
    }
    return strncmp(segment, "close", 5) == 0 ? RTMPT_CLOSE : RTMPT_INVALID;
}

uint32_t FindCharInBuffer(const uint8_t *buf, uint8_t wanted, uint8_t stop, int32_t len)
{
    int32_t i = 0;
    do {
        if (buf[i] == wanted) {
            return static_cast<uint32_t>(i);
        }
        if (buf[i] == stop) {
            return 0;
        }
        i++;
    } while (i < len);
    return 0;
}
