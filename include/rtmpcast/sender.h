/*
 * Sender settings: how a session's frames leave, and what watches and steers them.
 */
#ifndef RTMPCAST_SENDER_H
#define RTMPCAST_SENDER_H

#include "rtmpcast/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * RtmpSenderSettings chooses the session's sender. Call it once, after RtmpSessionCreate and before the
 * first RtmpSendData; the other settings of this header follow it. A session that has a sender keeps it: a
 * further call only stores the values that need no sender.
 *
 * @param senderMode      RTMP_SENDER_THREADED (1): a sender thread behind two rings; any other value: the
 *                        packet monitor, which sends on the thread that calls RtmpSendData
 * @param senderParam     stored, not read
 * @param senderFlag      stored, not read
 * @param encoderHandle   the host's encoder; the packet monitor warns in the log when it is 0
 * @param captionMode     0: captions as SEI in every video frame; 1: as a message to the first client;
 *                        other values: none
 * @param statsInterval   packet monitor: seconds between "rtmpBandwidth" status messages
 * @param audioQueueSize  threaded sender: audio frames the ring holds, less one
 * @param videoQueueSize  threaded sender: video frames the ring holds, less one; for both, 16 million and
 *                        more are refused
 * @return always 0, also for a null session. A sender that could not be made is logged, and RtmpSendData
 *         then returns -1; on the steady road frames flow all the same, without controller, monitor and
 * trace.
 *
 * On the steady road (RtmpServiceSettings) a session sends as well without a call. In mode 1 a thread of the
 * session writes; `videoQueueSize` is what the controller holds the slowest player's lag against, and the
 * queue itself is the session's ring (RtmpServiceLimits). No failed send ends that thread.
 *
 * The thread that calls RtmpSendData; takes no lock and does not block. A later call may change the caption
 * mode and the interval while frames are being sent: the next frame goes by them.
 */
RTMP_API int32_t RtmpSenderSettings(RtmpSession *session, uint32_t senderMode, uint32_t senderParam,
                                    uint8_t senderFlag, uint32_t encoderHandle, uint8_t captionMode,
                                    uint32_t statsInterval, uint32_t audioQueueSize, uint32_t videoQueueSize);

/**
 * RtmpBWMSettings switches on the bandwidth monitor of the threaded sender: the rate over the last
 * `windowSize` video frames, reported as "rtmpBandwidth" every two seconds and "rtmpUptime" every thirty. On
 * the steady road it is the rate at which the slowest player that makes progress takes pictures.
 *
 * @param enable      0: nothing is done
 * @param windowSize  video frames, at least 1; a million and more are refused
 * @return always 0; a monitor that could not be made is logged. In other sender modes, and for a null
 *         session, nothing is done.
 *
 * The thread that calls RtmpSendData, after RtmpSenderSettings and before the first frame. Takes no lock. A
 * later call replaces the monitor and ends the sender thread first, as RtmpThreadedQueueReset does; the
 * queued frames stay, but for the one that was being sent, and the next frame starts a new thread.
 */
RTMP_API int32_t RtmpBWMSettings(RtmpSession *session, uint32_t enable, uint32_t windowSize);

/**
 * RtmpDebugSettings switches on the CSV trace and the burn-in texts.
 *
 * @param enable        0: nothing is done
 * @param burninEnable  not 0: format the two burn-in texts
 * @param logEnable     not 0: write one CSV line every `logEvery` video frames
 * @param directory     where "debug-<time>.csv" is made with the first frame, also for burn-in alone; copied,
 *                      at most 1023 bytes, of which the first 127 bytes of the whole path count
 * @param logEvery      video frames between lines
 * @return always 0; a record that could not be made is logged. The packet monitor stores the settings and
 *         writes no trace. For a null session nothing is done.
 *
 * The thread that calls RtmpSendData, after RtmpSenderSettings and before the first frame; a later call as
 * for RtmpBWMSettings. Takes a leaf lock of the packet monitor, in mode 1 none. The directory is made, and
 * the file opened, by the first frame on the thread that brings it; the sender thread writes the lines.
 */
RTMP_API int32_t RtmpDebugSettings(RtmpSession *session, uint32_t enable, uint8_t burninEnable,
                                   uint8_t logEnable, const char *directory, uint32_t logEvery);

/**
 * RtmpAdaptiveBitrateSettings switches on the controller that retunes the host's encoder through
 * rtmpSendZandBitrate. 0 selects a default. Fullness is the video ring's, in percent, so that lowering
 * needs thresholds below 100 and a bandwidth monitor: the defaults only ever raise. On the steady road it is
 * how many pictures the slowest player is behind, against the slots of that ring, and may go above 100. A
 * player that takes nothing does not count, nor one that still catches up with its beginning.
 *
 * @param enable                0: nothing is done
 * @param reserved1             ignored
 * @param reserved2             ignored
 * @param minBitrate            floor, bit/s
 * @param startDelayMs          no decision this long after the first video frame; default 5000
 * @param increaseFullness      raise only below this; default 200
 * @param increasePercent       of the headroom, per raise; default 10
 * @param increaseMinStep       smallest raise, bit/s; default 10000
 * @param increaseIntervalSec   more than this between a change and a raise; default 10
 * @param decreaseFullness      lower only above this; default 500
 * @param decreasePercent       how far towards the measured rate; default 50
 * @param decreaseFullnessHigh  above this the next gain applies; default 1000
 * @param decreasePercentHigh   above 100 overshoots below the measured rate; default 110
 * @param decreaseIntervalSec   more than this between two lowerings; default 1
 * @param reserved3             stored, not read; default 10
 * @return always 0; a controller that could not be made is logged. The packet monitor stores the settings
 *         and never evaluates them. For a null session nothing is done.
 *
 * The thread that calls RtmpSendData, after RtmpSenderSettings and before the first frame; a later call as
 * for RtmpBWMSettings. Takes a leaf lock of the packet monitor, in mode 1 none.
 */
RTMP_API int32_t RtmpAdaptiveBitrateSettings(RtmpSession *session, uint32_t enable, uint32_t reserved1,
                                             uint32_t reserved2, uint32_t minBitrate, uint32_t startDelayMs,
                                             uint32_t increaseFullness, uint32_t increasePercent,
                                             uint32_t increaseMinStep, uint32_t increaseIntervalSec,
                                             uint32_t decreaseFullness, uint32_t decreasePercent,
                                             uint32_t decreaseFullnessHigh, uint32_t decreasePercentHigh,
                                             uint32_t decreaseIntervalSec, uint32_t reserved3);

/**
 * RtmpThreadedQueueReset ends the session's sender thread, drops what its rings hold and forgets all timing,
 * measurements and targets; the settings stay. The next frame that reaches a playing first client starts a
 * new thread, also after a failed send or RtmpThreadedQueueClose, and its timestamp is the new beginning: it
 * stands 0 ms behind what each player got last. With a controller the encoder is set to the configured
 * bitrate again.
 *
 * It is what mends, today, a sender that a failed send has ended, and the clocks after a time without viewers
 * and after many joins (docs/manual.md, section 5). On the steady road neither is needed; there the session's
 * ring is emptied, and players go on with the next key frame.
 *
 * @return always 0. Null, and sessions without a threaded sender, are left alone.
 *
 * The thread that calls RtmpSendData, not from within a host function. Takes leaf locks only. Waits for the
 * sender thread, which may be inside a log, status or caption function of the host, and never for a player:
 * the connection of one that was left with half a message is shut down.
 */
RTMP_API int32_t RtmpThreadedQueueReset(RtmpSession *session);

/**
 * RtmpThreadedQueueClose does what RtmpThreadedQueueReset does and keeps the sender closed, until the next
 * RtmpThreadedQueueReset. Each frame is dropped meanwhile; when the first client plays, it is set to
 * CLIENT_STATE_CLOSED, and its thread is woken and leaves. On the steady road players stay.
 *
 * @return always 0. Null, and sessions without a threaded sender, are left alone.
 *
 * Threads, locks and waiting as for RtmpThreadedQueueReset.
 */
RTMP_API int32_t RtmpThreadedQueueClose(RtmpSession *session);

#ifdef __cplusplus
}
#endif

#endif
