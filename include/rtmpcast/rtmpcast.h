/*
 * rtmpcast: live streams over RTMP from a video encoder to every player that connects.
 *
 * Conventions of every header:
 *   - A status is 0 or negative (RTMP_ERR_..., RTMP_FAILED); every failure has been logged when the code
 *     comes back, unless its comment says otherwise. Functions that make a record return its pointer, or
 *     null and a code in `err`.
 *   - Pointers are borrowed for the length of the call unless said otherwise.
 *   - Times are milliseconds.
 *   - Nothing throws.
 *   - Locks are taken in this order: the server's session list lock (LiveSessionListLock), a session's client
 *     list lock (ClientListLock), leaf locks. "Takes" means that the call may wait for the lock. The first
 *     two are held while players are written to: waiting for one may last as long as a player takes nothing.
 *     Leaf locks are held for moments, but for two of a client: its write lock (WriteLock) while one message
 *     is written, and its receive list lock (RecvStrmListLock) while the next chunk of a message is read. The
 *     lock of a TLS connection (TlsLock) is below them all, and held for one call of the handle.
 *   - SIGPIPE is never raised by a plain connection's writes, frames from files included. A host that brings
 *     TLS ignores the signal (see HandleSignal): the TLS library writes by itself.
 *   - A host must install a SIGUSR1 handler that returns, without SA_RESTART, before it destroys a session
 *     or a server.
 */
#ifndef RTMPCAST_RTMPCAST_H
#define RTMPCAST_RTMPCAST_H

#include "rtmpcast/host.h"
#include "rtmpcast/media.h"
#include "rtmpcast/player.h"
#include "rtmpcast/publish.h"
#include "rtmpcast/publish_client.h"
#include "rtmpcast/sender.h"
#include "rtmpcast/server.h"
#include "rtmpcast/service.h"
#include "rtmpcast/types.h"

#endif
