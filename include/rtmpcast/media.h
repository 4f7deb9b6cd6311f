/*
 * Media: describing a session's streams once, and handing over every encoded frame.
 */
#ifndef RTMPCAST_MEDIA_H
#define RTMPCAST_MEDIA_H

#include "rtmpcast/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { RTMP_FRAME_VIDEO = 0, RTMP_FRAME_AUDIO = 1 };

/**
 * RtmpAddMediaInfo registers what the session carries and prepares what every new player receives first:
 * onMetaData, the AVC sequence header and the AAC sequence header.
 *
 * @param video  null: no video. Only AVC (codecId 7). configData holds one SPS and one PPS in Annex B
 *               form behind 4-byte start codes; the SPS must be followed by another start code, and so
 *               must a PPS of more than four bytes
 * @param audio  null: no audio. Only AAC (codecId 10). Not both may be null
 * @return 0; RTMP_ERR_INVALID_ARGUMENT (null session, no media, no configuration); RTMP_ERR_LOCK;
 *         RTMP_ERR_MEMORY; RTMP_ERR_VIDEO_INFO; RTMP_ERR_AUDIO_INFO; RTMP_ERR_META_DATA; RTMP_ERR_UNLOCK.
 *         After a bad argument or a lock that could not be taken nothing has changed. After any other
 *         failure the session has no codec information, an earlier one included: playing clients get
 *         their frames, new ones are refused what needs it.
 *
 * Any host thread, one at a time per session; takes the server's session list lock. Calling it again
 * replaces the description: players that play already keep the headers they have. A video bitrate above the
 * server's bandwidth of 6000000 raises it, and what later players are told of it, also when the registration
 * fails.
 */
RTMP_API int32_t RtmpAddMediaInfo(RtmpSession *session, const VideoMediaInfo *video,
                                  const AudioMediaInfo *audio);

/**
 * RtmpSendData offers one encoded frame to every player of the session.
 *
 * @param data       video: one access unit, each NAL unit behind a 4-byte big-endian length (ISO/IEC
 *                   14496-15), the first NAL unit decides whether players see a key frame;
 *                   audio: one raw AAC frame, no ADTS
 * @param length     bytes at `data`, at least 1
 * @param fd         file that also holds the frame; 1 or more: nothing is copied and the frame goes out
 *                   with sendfile; 0 or less: no file
 * @param mapBase    address at which offset 0 of `fd` is mapped
 * @param timestamp  milliseconds on the host's clock, the same clock for audio and video
 * @param mediaType  RTMP_FRAME_VIDEO or RTMP_FRAME_AUDIO; the low 32 bits count
 * @return 0 taken; RTMP_ERR_INVALID_ARGUMENT; RTMP_ERR_NO_MEDIA_INFO (register the media first) and
 *         RTMP_ERR_NO_CLIENT (go on encoding): neither is logged; RTMP_ERR_LOCK; -1 some player missed
 *         this frame and the others got it, or the session has no sender (see RtmpSenderSettings)
 *
 * Packet monitor (any sender mode but 1): a video frame is written to every player before the call
 * returns, which may block on a slow one; audio is parked until the next video frame, so a session whose
 * host sends no video sends no audio.
 * Threaded sender (mode 1): frames are copied into a ring, or referenced when they have a file; a full
 * ring is flushed.
 * Without a file `data` may be reused as soon as the call has returned. With one, leave the bytes as they
 * are: the senders reference parked and queued frames, and the kernel sends from the file's pages until the
 * players have acknowledged them. Nobody tells when.
 *
 * One call at a time per session.
 */
RTMP_API int32_t RtmpSendData(RtmpSession *session, const uint8_t *data, int32_t length, int32_t fd,
                              uint64_t mapBase, uint64_t timestamp, int64_t mediaType);

#ifdef __cplusplus
}
#endif

#endif
