/*
 * Which players a server admits, and what they see.
 *
 * By default a server admits players of the Flash family and what behaves exactly like them, and speaks a
 * dialect of RTMP that others trip over. Each flag below puts one group of rules of RTMP 1.0, AMF0 or FLV in
 * its place. RTMP_PLAYERS_ALL is what a host wants that serves today's players: ffmpeg, mpv, VLC, GStreamer,
 * rtmpdump, OBS, and servers that pull a stream to pass it on.
 */
#ifndef RTMPCAST_PLAYER_H
#define RTMPCAST_PLAYER_H

#include "rtmpcast/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    RTMP_PLAYERS_EXACT = 0,
    /* Commands, data and events that the library does not know are ignored, "seek" is answered, and whoever
     * publishes is told that it may not. Without: any of them ends the connection. */
    RTMP_PLAYERS_COMMANDS = 1 << 0,
    /* The plain handshake of RTMP 1.0 beside the signed one. Without: only signed ones pass. */
    RTMP_PLAYERS_HANDSHAKE = 1 << 1,
    /* S0 is the protocol version, 3. Without: a random byte. */
    RTMP_PLAYERS_VERSION = 1 << 2,
    /* Well-formed onMetaData with the cropped picture size, a whole AVC decoder configuration record,
     * parameter sets behind any start code, and key frames known by any of their NAL units. */
    RTMP_PLAYERS_DESCRIPTION = 1 << 3,
    /* Media time starts at 0 with "play". Without: with the time since the connection was made. */
    RTMP_PLAYERS_TIMELINE = 1 << 4,
    /* Received chunks are read as RTMP 1.0, 5.3 has them, and so are Set Chunk Size and Abort. */
    RTMP_PLAYERS_CHUNKS_IN = 1 << 5,
    /* Sent chunks are written as RTMP 1.0, 5.3 has them. Without: a message as long as the first one of its
     * chunk stream has a header that receivers take for that of the one before. */
    RTMP_PLAYERS_CHUNKS_OUT = 1 << 6,
    /* "connect" to any application, with or without codec lists; a refusal is answered. */
    RTMP_PLAYERS_CONNECT = 1 << 7,
    /* A stream is found also behind "mp4:" or "flv:" and in front of a query: "mp4:stream?token=1". */
    RTMP_PLAYERS_STREAM_NAME = 1 << 8,
    /* After play, unpause and lost frames, pictures and sound go on at the next key frame. */
    RTMP_PLAYERS_KEY_FRAME = 1 << 9,
    /* Bytes are acknowledged as the peer's window asks (RTMP 1.0, 5.4.3 and 5.4.4). */
    RTMP_PLAYERS_ACKNOWLEDGE = 1 << 10,
    RTMP_PLAYERS_ALL = (1 << 11) - 1
};

/**
 * RtmpPlayerSettings chooses the rules for the players of a server. It acts on connections that are accepted
 * afterwards, and RTMP_PLAYERS_DESCRIPTION also on media that are registered afterwards: call it between
 * RtmpServerCreate and RtmpAddMediaInfo.
 *
 * @param flags  RTMP_PLAYERS_..., added up; bits without a name are ignored. A new server has
 * RTMP_PLAYERS_EXACT
 * @return always 0; for a null server nothing is done
 *
 * Any thread; takes no lock and does not block. Connections that a host makes itself (CreateNewRtmpClient)
 * are not touched.
 */
RTMP_API int32_t RtmpPlayerSettings(RtmpServer *server, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif
