// The packet monitor's audio ring: frames parked until the video frame that follows them.
#pragma once

#include "instruments/monitor_records.h"

extern "C" {

// addRtmpPacketToBuffer parks a frame. A full ring is emptied and the frame dropped (logged). 0; -1 dropped.
int addRtmpPacketToBuffer(RtmpMonitor *monitor, RtmpSession *session, const uint8_t *data, int32_t length,
                          int32_t fd, uint64_t mapBase, uint64_t prevTimestamp, uint64_t delta, uint32_t kind,
                          uint32_t mediaType);

// copyRtmpPacketToBuffer fills a slot. 0; -1 no memory (logged).
int copyRtmpPacketToBuffer(RtmpPacket *slot, RtmpSession *session, const uint8_t *data, int32_t length,
                           int32_t fd, uint64_t mapBase, uint64_t prevTimestamp, uint64_t delta,
                           uint32_t kind, uint32_t mediaType);

// removeRtmpPacketFromBuffer frees the oldest frame's copy and takes it out. An empty ring is left alone.
void removeRtmpPacketFromBuffer(RtmpMonitor *monitor);

// TakeParkedAudio moves the oldest frame out of the ring into `taken` when it would be stamped earlier than a
// picture `videoDelta` behind the last one; its copy is then the caller's to free. 1 taken, 0 not.
int TakeParkedAudio(RtmpMonitor *monitor, uint64_t videoDelta, RtmpPacket *taken);

// TakeParkedAudioBefore does the same by the host's clock: a frame is due that is not later than the picture
// at `videoTime`, and one so much later that its clock must be another.
int TakeParkedAudioBefore(RtmpMonitor *monitor, uint64_t videoTime, RtmpPacket *taken);

// TimeOfParked returns a frame's time on the host's clock.
uint64_t TimeOfParked(const RtmpPacket *packet);

// RtmpMonitorClear starts a fresh timeline when the last client has left: the ring is emptied, statistics
// and timestamps go to zero. Any thread. 0.
int RtmpMonitorClear(RtmpSession *session);
}
