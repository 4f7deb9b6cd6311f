#include "delivery/senders/monitor.h"

#include "delivery/senders/frame_order.h"
#include "delivery/write/fan_out.h"
#include "delivery/write/key_frame.h"
#include "instruments/monitor_stats.h"
#include "instruments/parked_audio.h"
#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/log_line.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "rtmpcast/media.h"

namespace {

// MoveTimeline notes the time of a frame and returns the milliseconds since the one before: 0 for the first.
uint64_t MoveTimeline(RtmpMonitor *monitor, uint64_t *lastTimestamp, uint64_t timestamp, uint64_t *previous)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&monitor->RingLock);
    *previous = *lastTimestamp;
    *lastTimestamp = timestamp;
    return *previous == 0 ? 0 : timestamp - *previous;
}

int ParkAudio(RtmpMonitor *monitor, const RtmpPacket *frame, uint64_t timestamp)
{
    uint64_t previous = 0;
    const uint64_t delta = MoveTimeline(monitor, &monitor->LastAudioTs, timestamp, &previous);
    if (previous == 0) {
        previous = timestamp; // so that previous time and delta add up to the time of the first frame, too
    }
    (void)addRtmpPacketToBuffer(monitor, frame->Session, frame->Data, frame->Length, frame->Fd,
                                frame->MapBase, previous, delta, RTMP_MSG_AUDIO,
                                RTMP_FRAME_AUDIO); // a lost frame is logged
    return 0;
}

// The caller holds the session list lock. A failed audio send is not reported: its frame is gone all the
// same.
void SendDueAudio(RtmpMonitor *monitor, uint64_t videoDelta, uint64_t videoTime)
{
    const bool isHostsOrder = IsHostsOrder(monitor->Session);
    RtmpPacket packet;
    while ((isHostsOrder ? TakeParkedAudioBefore(monitor, videoTime, &packet)
                         : TakeParkedAudio(monitor, videoDelta, &packet)) != 0) {
        FREE_AT_EXIT uint8_t *copy = packet.Fd < 1 ? packet.Data : nullptr;
        packet.Session->FrameTime = TimeOfParked(&packet);
        (void)SendMsgToConnectedClients(packet.Session, packet.Data, packet.Length, packet.Fd, packet.MapBase,
                                        packet.Delta, packet.Kind);
    }
}

void FreeStats(RtmpMonitorStats *stats)
{
    if (stats != nullptr) {
        free(stats->Samples);
        free(stats);
    }
}

// A fresh window, or null with the text of what failed.
RtmpMonitorStats *NewStats(LogText *failure)
{
    RtmpMonitorStats *stats = NewRecord<RtmpMonitorStats>();
    if (stats == nullptr) {
        *failure = LOG_TEXT("ERROR: %s: Not enough memory for bandwidth monitor\n");
        return nullptr;
    }
    stats->HeadIndex = -1;
    stats->Samples = NewArray<RtmpMonitorSample>(kMonitorStatsSamples);
    if (stats->Samples == nullptr) {
        *failure = LOG_TEXT("ERROR: %s: Not enough memory for bandwidth monitor queue\n");
        free(stats);
        return nullptr;
    }
    return stats;
}

// Null with the text of what failed.
RtmpMonitor *NewMonitor(RtmpSession *session, uint32_t withStats, LogText *failure)
{
    RtmpMonitor *monitor = NewRecord<RtmpMonitor>();
    if (monitor == nullptr) {
        *failure = LOG_TEXT("ERROR: %s: Not enough memory for rtmpQueue\n");
        return nullptr;
    }
    monitor->Session = session;
    monitor->AudioHead = -1;
    monitor->RingLock = kFreshMutex;
    monitor->AudioRing = NewArray<RtmpPacket>(kMonitorAudioSlots);
    if (monitor->AudioRing == nullptr) {
        *failure = LOG_TEXT("ERROR: %s: Not enough memory for AudioBuffer\n");
        free(monitor);
        return nullptr;
    }
    monitor->Stats = withStats != 0 ? NewStats(failure) : nullptr;
    if (withStats != 0 && monitor->Stats == nullptr) {
        free(monitor->AudioRing);
        free(monitor);
        return nullptr;
    }
    return monitor;
}

} // namespace

RtmpMonitor *RtmpQueueInit(RtmpSession *session, uint32_t withStats)
{
    LogText failure = {};
    RtmpMonitor *monitor = NewMonitor(session, withStats, &failure);
    if (monitor == nullptr) {
        LogLine(LoggerOf(session->Server), RTMP_LOG_ERROR, failure, __func__);
    }
    return monitor;
}

int RtmpMonitorInit(RtmpSession *session, uint32_t encoderHandle, uint32_t withStats)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    RtmpMonitor *monitor = RtmpQueueInit(session, withStats);
    if (monitor == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error: Failed to init queue\n", __func__);
        return -1;
    }
    StoreShared(&session->Monitor, monitor); // serve threads stamp it, and clear it
    if (encoderHandle == 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "WARNING: %s: Invalid AVCENC handle\n", __func__);
        return -1; // the monitor works all the same
    }
    monitor->EncoderHandle = encoderHandle;
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Initialized\n", __func__);
    return 0;
}

int RtmpMonitorSendData(RtmpSession *session, const uint8_t *data, int32_t length, int32_t fd,
                        uint64_t mapBase, uint64_t timestamp, int64_t mediaType)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    RtmpMutex *listLock = &session->Server->LiveSessionListLock;
    RtmpMonitor *monitor = session->Monitor;
    if (static_cast<uint32_t>(mediaType) == RTMP_FRAME_AUDIO) {
        RtmpPacket frame = {};
        frame.Session = session;
        frame.Data = const_cast<uint8_t *>(data);
        frame.Length = length;
        frame.Fd = fd;
        frame.MapBase = mapBase;
        return ParkAudio(monitor, &frame, timestamp); // KEPT: sound leaves in front of video only. Required
    }
    if (RtmpMutexLock(listLock) != 0) {
        NoteStreamBreak(session);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock Rtmp session list\n", __func__);
        return RTMP_ERR_LOCK;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = listLock;
    uint64_t previous = 0;
    const uint64_t videoDelta = MoveTimeline(monitor, &monitor->LastVideoTs, timestamp, &previous);
    SendDueAudio(monitor, videoDelta, timestamp);
    session->FrameTime = timestamp;
    const int result =
        SendMsgToConnectedClients(session, data, length, fd, mapBase, videoDelta, RTMP_MSG_VIDEO);
    CountFrame(monitor, static_cast<uint32_t>(length));
    held = nullptr;
    if (RtmpMutexUnlock(listLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock Rtmp session list\n", __func__);
        return RTMP_ERR_LOCK; // KEPT: not RTMP_ERR_UNLOCK. Required
    }
    if (result != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Sending message to connected clients failed\n",
                     __func__);
    }
    return result;
}

int RtmpMonitorDestroy(RtmpSession *session)
{
    RtmpMonitor *monitor = session->Monitor;
    if (monitor == nullptr) {
        return 0;
    }
    (void)RtmpMonitorClear(session); // always 0; frees the parked frames
    free(monitor->AudioRing);
    FreeStats(monitor->Stats);
    free(monitor->AbrSettings);
    free(monitor->DebugSettings);
    free(monitor);
    session->Monitor = nullptr;
    return 0;
}
