/*
 * What the host provides: functions that the library calls and does not define. A host defines the ones
 * it has a use for and links librtmpcast_host_defaults.a behind the library for the rest.
 *
 * None of them may throw, call pthread_exit, or call back into the library beyond what its comment allows.
 */
#ifndef RTMPCAST_HOST_H
#define RTMPCAST_HOST_H

#include "rtmpcast/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * KelvoraSyslog writes a line to the host's system log.
 *
 * Called with the tag "RTMP" when a session was created (on the creating thread) and before every accept
 * (on the accept thread). No locks are held. Default: syslog(3) at LOG_INFO, behind "<tag>: ".
 */
RTMP_HOST void KelvoraSyslog(const char *tag, const char *format, ...) RTMP_PRINTF(2, 3);

/**
 * cc_gen_init makes the closed-caption generator of a new session; its result is that session's handle.
 * Called by RtmpSessionCreate on its thread; the result is not checked. Default: 0.
 */
RTMP_HOST uint64_t cc_gen_init(void);

/**
 * cc_gen_close ends a session's caption generator. Called by RtmpSessionDestroy on its thread, with the
 * server's session list locked. Default: nothing.
 */
RTMP_HOST void cc_gen_close(uint64_t handle);

/**
 * find_cc_insertion_place_in_h264_of_qbox finds where a caption SEI goes in a length-prefixed H.264 access
 * unit. Called for every video frame of a session with captions enabled, on the sending thread, with the
 * server's session list locked.
 *
 * @param nalSizePos  receives the offset of the length field of the NAL unit that will hold the SEI
 * @return the offset in `data` at which the SEI goes; negative: no captions for this frame.
 *         Default: -1.
 */
RTMP_HOST int32_t find_cc_insertion_place_in_h264_of_qbox(const uint8_t *data, int32_t length,
                                                          int32_t *nalSizePos);

/**
 * get_sei_packet yields the next caption SEI of a generator. Called as above, after a place was found.
 *
 * @param sei             receives the bytes, which stay the host's and valid until the next call with this
 *                        handle. A caption pair is read from bytes 11 to 14
 * @param seiLen          receives their count; 0: none
 * @param timestampDelta  milliseconds since the previous video frame
 *
 * Default: no bytes.
 */
RTMP_HOST void get_sei_packet(uint64_t handle, uint8_t **sei, int32_t *seiLen, uint32_t timestampDelta);

/**
 * increase_nal_size adds `bytes` to the 4-byte big-endian NAL length at `frame` + `nalSizePos`. `frame` is
 * the library's copy of the frame's beginning, up to and including the SEI. Called as above.
 * Default: nothing.
 */
RTMP_HOST void increase_nal_size(uint8_t *frame, int32_t nalSizePos, int32_t bytes);

/**
 * PublishGeneratePeriodicRTMPMsg builds the caption message of a publishing connection.
 *
 * Called on the sending thread with the server's session list and the session's client list locked, for
 * the first client of a session in caption mode 1. It may use GenerateRtmpMsg and the AMF builders.
 *
 * @param kind            RTMP_MSG_CAPTION
 * @param timeStampDelta  milliseconds of video since the last caption message
 * @return a message allocated with calloc, payload included; the library frees both. Null: nothing is
 *         sent, and an error is logged. Default: null.
 */
RTMP_HOST RtmpSendPkt *PublishGeneratePeriodicRTMPMsg(RtmpClient *client, uint32_t kind,
                                                      uint64_t timeStampDelta);

/**
 * publishChangeState tells a publishing connection that its session is going away. Called by
 * RtmpSessionDestroy with `state` 8 for each client that carries a publish context, with the server's
 * session list and the session's client list locked. Default: nothing.
 */
RTMP_HOST void publishChangeState(RtmpClient *client, int32_t state);

/**
 * PublishUstreamRecord asks the host to restart recording on the streaming service: `action` is "start".
 * Called on the thread that handles the client's messages, no locks held, whoever sent the notice: check
 * `client->PublishCtx`, which is null for a player. Default: nothing.
 */
RTMP_HOST void PublishUstreamRecord(RtmpClient *client, const char *action);

/**
 * rtmpStatusMessage reports a status: a key such as "rtmpBandwidth" (kbit/s), "rtmpUptime" (seconds),
 * "rtmpLowBitrate" ("0" or "1"), "rtmpCurrentViewerCount", "rtmpTotalViewerCount"; its value as decimal
 * text; and a description for people. The texts are valid for the call.
 *
 * @param hostContext  delivery reports: the RtmpSession; viewer counts: PublishCtx.StatusHostContext
 *
 * Called on the thread that sends (locks held as for RtmpSendData), on the thread that calls RtmpSendData,
 * or on the thread that handles a service's messages. Must not block for long. Default: nothing.
 */
RTMP_HOST void rtmpStatusMessage(void *hostContext, const char *key, const char *value,
                                 const char *description);

/**
 * rtmpSendZandBitrate sets the encoder's target bitrate in bit/s. `hostContext` is the RtmpSession. Called
 * on the thread that calls RtmpSendData, no locks held. Default: nothing.
 */
RTMP_HOST void rtmpSendZandBitrate(void *hostContext, int32_t bitrate);

/*
 * Byte I/O of a client that carries a TLS handle. SSL_read and SSL_write are OpenSSL's own: link libssl in
 * front of the defaults, which fail every call.
 */
struct ssl_st;
RTMP_HOST int SSL_read(struct ssl_st *ssl, void *buf, int num);
RTMP_HOST int SSL_write(struct ssl_st *ssl, const void *buf, int num);

/**
 * TLS_print_error reports the TLS error state after a read or write returned 0. `tls` is the client's TLS
 * handle; null when a plain connection's write returned 0. Called on the reading or writing thread.
 * Default: nothing.
 */
RTMP_HOST void TLS_print_error(RtmpLogger *logger, void *tls, int result);

#ifdef __cplusplus
}
#endif

#endif
