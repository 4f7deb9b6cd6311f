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
 * @param video  null: no video. Only AVC (codecId 7). configData: see below
 * @param audio  null: no audio. Only AAC (codecId 10), configData an AudioSpecificConfig of two bytes or
 *               more. Not both may be null
 * @return 0; RTMP_ERR_INVALID_ARGUMENT (null session, no media, no configuration); RTMP_ERR_LOCK;
 *         RTMP_ERR_MEMORY; RTMP_ERR_VIDEO_INFO (not AVC; no SPS or PPS, or one without an end; no memory);
 *         RTMP_ERR_AUDIO_INFO (not AAC; no memory); RTMP_ERR_META_DATA (no memory); RTMP_ERR_UNLOCK.
 *         After a bad argument or a lock that could not be taken nothing has changed. After any other
 *         failure the session has no codec information, an earlier one included: playing clients get
 *         their frames, new ones are refused what needs it.
 *
 * Any host thread that is not inside a host function, one call at a time per session. Holds the server's
 * session list lock throughout, and may wait for it as long as a player that is written to takes nothing.
 * Everything is copied. Calling it again replaces the description: players that play already keep the headers
 * they have. A video bitrate above the server's bandwidth of 6000000 raises it, and what later players are
 * told of it, also when the registration fails.
 *
 * What `video->configData` has to be by default: 00 00 00 01 SPS 00 00 00 01 PPS 00 00 00 01, and nothing
 * more.
 *   - Only 00 00 00 01 is a start code here. The first SPS (type 7) and the first PPS (type 8) behind
 *     one, with a nal_ref_idc other than 0, are taken. Each ends at the next 00 00 00 01, wherever that
 *     is: a 3-byte start code and the NAL units behind it become part of it, without an error. Encoders
 *     write 00 00 01 behind the PPS of a key frame, so do not hand over the beginning of a stream: its
 *     PPS would hold SEI and picture (and from 65,536 bytes on even its length is wrong), and players
 *     cannot decode. Cut the two NAL units out, put 00 00 00 01 in front of each and one at the end.
 *   - A zero byte in front of a start code is taken for the last byte of the NAL unit. Leave it out.
 *   - A PPS of five bytes or more that ends the data is refused; one of four bytes or less may end it.
 *   - The width and height of onMetaData are read from the SPS, cropping not applied, and are wrong for
 *     profiles 44, 83 and 86; for 4:4:4 with scaling matrices in the SPS; and where emulation
 *     prevention bytes (00 00 03) stand in front of the size, which takes picture order count type 1
 *     with offsets of millions. Nothing is refused. The sequence header is right, and players that
 *     believe it show the right picture. Compare session->CodecInfo->VdCodecInfo with your encoder's
 *     size, rounded up to 16, after the call; where it differs, set the encoder to Baseline, Main or
 *     High. Emulation prevention bytes behind the size, as in the VUI, do no harm; leave all of them
 *     in.
 *
 * On a server with RTMP_PLAYERS_DESCRIPTION (RtmpPlayerSettings, before this call) it may be more:
 *   - Start codes of three and four bytes begin and end NAL units, the end of the data does too, and zero
 *     bytes in front of either are left out. The beginning of a stream will do: the first SPS and the
 *     first PPS are taken, and nothing else. CodecInfo->VdConfigData then holds these two. Where one is
 *     missing, or longer than 65,535 bytes, the data is taken as above, and refused as above.
 *   - Connections that were accepted with the flag get an onMetaData and an AVC sequence header of their
 *     own: the picture size as the SPS says it, cropping applied, for every profile; the rate in fractions
 *     of kbit/s; "audiochannels", and "stereo" true for two of them; the record of a High profile with
 *     chroma format and bit depths. No frame rate is announced, and no sample rate that the configuration's
 *     first two bytes do not tell. An SPS that is cut short, or holds what ITU-T H.264 rules out, is
 *     registered all the same, with the size above and no addition to the record.
 *   - session->CodecInfo->VdCodecInfo has the size above, in whole macroblocks, as ever.
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
 * @return 0 taken (or dropped by a threaded sender that is closed or whose first client does not play; also
 *         sound that could not be parked, or not be sent with its picture, which is logged; and over TLS as
 *         for SendMsgToClient);
 *         RTMP_ERR_INVALID_ARGUMENT; RTMP_ERR_NO_MEDIA_INFO (register the media first) and
 *         RTMP_ERR_NO_CLIENT (go on encoding; also while the session is destroyed): neither is logged;
 *         RTMP_ERR_LOCK (packet monitor: the session list lock could not be taken, and the frame is lost, or
 *         not be given back); -1 packet monitor: some player missed this frame and the others got it, or, if
 *         it is the client list's lock or memory that failed, nobody did; threaded sender: no memory for the
 *         copy, or no thread; either: the session has no sender; steady road: no memory, a frame that is too
 *         long, or no thread (the frame then leaves with the next one). All are logged
 *
 * Packet monitor (any sender mode but 1): a video frame is written to every player before the call
 * returns, which blocks for as long as one of them takes nothing; audio is parked until the next video frame,
 * so a session whose host sends no video sends no audio. A video frame holds the server's session list lock,
 * then the client list lock and each player's write lock in turn; an audio frame takes a leaf lock only.
 * Threaded sender (mode 1): frames are copied into a ring, or referenced when they have a file; a full
 * ring is flushed. Takes leaf locks only and never waits for a player. The sender thread writes, holding the
 * same locks.
 * Steady road (RtmpServiceSettings), in either mode: the frame is copied once for all players, and no write
 * waits for any. Sound goes in front of the first picture that is not earlier, or by itself when it has
 * waited for long or the session has no pictures. A timestamp that steps back, or forward by more than ten
 * seconds, moves both kinds on by one frame. With RTMP_ERR_NO_CLIENT the frame is kept for who joins. Takes
 * leaf locks only; the host functions named below are called under none. Without a file `data` may be reused
 * as soon as the call has returned. With one, leave the bytes as they are: the senders reference parked and
 * queued frames, and the kernel sends from the file's pages until the players have acknowledged them. There
 * is no notice when.
 *
 * Any thread of the host that is not inside a host function of this session; one call at a time per session,
 * settings and RtmpThreadedQueueReset included. Calls rtmpStatusMessage, in mode 1 also rtmpSendZandBitrate,
 * in the packet monitor also the caption functions; on the steady road all of these and rtmpKeyFrameWanted.
 */
RTMP_API int32_t RtmpSendData(RtmpSession *session, const uint8_t *data, int32_t length, int32_t fd,
                              uint64_t mapBase, uint64_t timestamp, int64_t mediaType);

#ifdef __cplusplus
}
#endif

#endif
