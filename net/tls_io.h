// Calls of a TLS handle that several threads share: the one that reads the connection and those that send on
// it. OpenSSL wants one call at a time on a handle, and with TLS 1.3 a read may renew the keys that writes
// use.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

struct TlsLine {
    void *Handle;
    int Fd;          // the socket below the handle
    RtmpMutex *Lock; // leaf: held around each call of the handle. Null: no other thread uses the handle
    uint8_t *WriteWaits = nullptr; // guarded by Lock: an SSL_write is to be repeated. Null as Lock
    uint64_t Until = 0;            // ms of RtmpGetSystemTime: reads then fail with EAGAIN; 0: without limit
};

// TlsRead reads at most `length` bytes and TlsWrite writes up to `length`: what SSL_read and SSL_write answer
// on a socket that blocks, errno included. The peer is waited for without the lock. A read of nothing
// answers 0 at once.
int64_t TlsRead(const TlsLine *line, uint8_t *buf, uint32_t length);
int64_t TlsWrite(const TlsLine *line, const uint8_t *buf, uint32_t length);

// TlsWriteNow is one SSL_write that waits for nobody: -1 with EAGAIN in errno where TlsWrite would wait. The
// same bytes must then be written next.
int64_t TlsWriteNow(const TlsLine *line, const uint8_t *buf, uint32_t length);

// TlsReportEnd tells the host that a read or write has answered 0. A null handle: it was a plain write.
void TlsReportEnd(const TlsLine *line, RtmpLogger *logger);
}
