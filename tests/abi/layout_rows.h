/*
 * The public records, field by field: their order is part of the interface, for hosts read and make some of
 * these records themselves. FIELD(record, type, field) stands for a field right behind the one above it (but
 * for the padding of its type), FIRST for the first one, LAST for the last, OWN for the library's own
 * fields behind those that hosts may rely on.
 */
#include <stddef.h>

#define LAYOUT_ROWS                                                                                          \
    FIRST(RtmpLogger, RtmpLogFunction, LogFunction)                                                          \
    LAST(RtmpLogger, void *, LogContext)                                                                     \
                                                                                                             \
    FIRST(RtmpServer, TEXT(32), IpAddress)                                                                   \
    FIELD(RtmpServer, uint32_t, PeerBandwidth)                                                               \
    FIELD(RtmpServer, uint32_t, BaseBandwidth)                                                               \
    FIELD(RtmpServer, uint32_t, ChunkSize)                                                                   \
    FIELD(RtmpServer, int32_t, ConfiguredChunkSize)                                                          \
    FIELD(RtmpServer, uint16_t, RtmpPort)                                                                    \
    FIELD(RtmpServer, int, RtmpSocket)                                                                       \
    FIELD(RtmpServer, RtmpThread, RtmpAcceptThread)                                                          \
    FIELD(RtmpServer, uint16_t, RtmptPort)                                                                   \
    FIELD(RtmpServer, int, RtmptSocket)                                                                      \
    FIELD(RtmpServer, RtmpThread, RtmptAcceptThread)                                                         \
    FIELD(RtmpServer, RtmpThread, AuxThread)                                                                 \
    FIELD(RtmpServer, uint8_t, AuxThreadRunning)                                                             \
    FIELD(RtmpServer, uint8_t, AuxThreadCancel)                                                              \
    FIELD(RtmpServer, int32_t, LiveSessionCount)                                                             \
    FIELD(RtmpServer, RtmpMutex, LiveSessionListLock)                                                        \
    FIELD(RtmpServer, RtmpSession *, LiveSessionHead)                                                        \
    FIELD(RtmpServer, RtmpSession *, LiveSessionTail)                                                        \
    FIELD(RtmpServer, RtmpLogger *, Logger)                                                                  \
    OWN(RtmpServer)                                                                                          \
                                                                                                             \
    FIRST(RtmpSession, char *, Name)                                                                         \
    FIELD(RtmpSession, uint32_t, MediaKind)                                                                  \
    FIELD(RtmpSession, uint32_t, MediaInfoAdded)                                                             \
    FIELD(RtmpSession, CodecInfo *, CodecInfo)                                                               \
    FIELD(RtmpSession, int32_t, ClientCount)                                                                 \
    FIELD(RtmpSession, RtmpClient *, ClientListHead)                                                         \
    FIELD(RtmpSession, RtmpClient *, ClientListTail)                                                         \
    FIELD(RtmpSession, RtmpMutex, ClientListLock)                                                            \
    FIELD(RtmpSession, RtmpServer *, Server)                                                                 \
    FIELD(RtmpSession, RtmpCaptionCtx *, CcGen)                                                              \
    FIELD(RtmpSession, uint32_t, SenderParam)                                                                \
    FIELD(RtmpSession, uint8_t, SenderFlag)                                                                  \
    FIELD(RtmpSession, uint32_t, EncoderHandle)                                                              \
    FIELD(RtmpSession, uint32_t, StatsInterval)                                                              \
    FIELD(RtmpSession, uint32_t, AudioQueueSize)                                                             \
    FIELD(RtmpSession, uint32_t, VideoQueueSize)                                                             \
    FIELD(RtmpSession, uint64_t, StartTime)                                                                  \
    FIELD(RtmpSession, uint32_t, SenderMode)                                                                 \
    FIELD(RtmpSession, RtmpMonitor *, Monitor)                                                               \
    FIELD(RtmpSession, RtmpThreadedQueue *, Queue)                                                           \
    FIELD(RtmpSession, RtmpSession *, NextSession)                                                           \
    FIELD(RtmpSession, RtmpSession *, PrevSession)                                                           \
    OWN(RtmpSession)                                                                                         \
                                                                                                             \
    FIRST(RtmpClient, char *, ClientIP)                                                                      \
    FIELD(RtmpClient, uint32_t, ConnType)                                                                    \
    FIELD(RtmpClient, int, Socket)                                                                           \
    FIELD(RtmpClient, void *, Tls)                                                                           \
    FIELD(RtmpClient, uint16_t, Port)                                                                        \
    FIELD(RtmpClient, uint32_t, State)                                                                       \
    FIELD(RtmpClient, RtmpThread, ServeThread)                                                               \
    FIELD(RtmpClient, uint32_t, WindowAckSize)                                                               \
    FIELD(RtmpClient, uint8_t, PauseFlag)                                                                    \
    FIELD(RtmpClient, uint64_t, CreateTime)                                                                  \
    FIELD(RtmpClient, uint32_t, InChunkSize)                                                                 \
    FIELD(RtmpClient, TEXT(12), ClientId)                                                                    \
    FIELD(RtmpClient, char *, StreamName)                                                                    \
    FIELD(RtmpClient, uint32_t, ConnStreamId)                                                                \
    FIELD(RtmpClient, uint32_t, StreamId)                                                                    \
    FIELD(RtmpClient, uint32_t, StatusChunkStreamId)                                                         \
    FIELD(RtmpClient, uint32_t, AudioChunkStreamId)                                                          \
    FIELD(RtmpClient, uint32_t, RecvPktCount)                                                                \
    FIELD(RtmpClient, RtmpRecvPkt *, RecvPktHead)                                                            \
    FIELD(RtmpClient, RtmpRecvPkt *, RecvPktTail)                                                            \
    FIELD(RtmpClient, RtmpMutex, RecvStrmListLock)                                                           \
    FIELD(RtmpClient, uint32_t, SendPktCount)                                                                \
    FIELD(RtmpClient, RtmpSendPkt *, SendPktHead)                                                            \
    FIELD(RtmpClient, RtmpSendPkt *, SendPktTail)                                                            \
    FIELD(RtmpClient, RtmpMutex, SendStrmListLock)                                                           \
    FIELD(RtmpClient, RtmpSession *, Session)                                                                \
    FIELD(RtmpClient, RtmpServer *, Server)                                                                  \
    FIELD(RtmpClient, RtmpClient *, NextClient)                                                              \
    FIELD(RtmpClient, RtmpClient *, PrevClient)                                                              \
    FIELD(RtmpClient, PublishCtx *, PublishCtx)                                                              \
    OWN(RtmpClient)                                                                                          \
                                                                                                             \
    FIRST(RtmpRecvPkt, uint32_t, ChunkStreamId)                                                              \
    FIELD(RtmpRecvPkt, uint32_t, Complete)                                                                   \
    FIELD(RtmpRecvPkt, uint32_t, ReceivedBytes)                                                              \
    FIELD(RtmpRecvPkt, uint32_t, HeaderType)                                                                 \
    FIELD(RtmpRecvPkt, uint32_t, BasicHeaderForm)                                                            \
    FIELD(RtmpRecvPkt, uint32_t, MsgTypeId)                                                                  \
    FIELD(RtmpRecvPkt, BYTES(3), Timestamp)                                                                  \
    FIELD(RtmpRecvPkt, BYTES(3), TimestampDelta)                                                             \
    FIELD(RtmpRecvPkt, BYTES(4), ExtendedTimestamp)                                                          \
    FIELD(RtmpRecvPkt, BYTES(4), MsgStreamId)                                                                \
    FIELD(RtmpRecvPkt, uint32_t, MsgLength)                                                                  \
    FIELD(RtmpRecvPkt, uint8_t *, PayloadData)                                                               \
    FIELD(RtmpRecvPkt, AmfObject *, Result.Amf)                                                              \
    FIELD(RtmpRecvPkt, RtmpRecvPkt *, Next)                                                                  \
    FIELD(RtmpRecvPkt, RtmpRecvPkt *, Prev)                                                                  \
    OWN(RtmpRecvPkt)                                                                                         \
                                                                                                             \
    FIRST(RtmpSendPkt, uint32_t, ChunkStreamId)                                                              \
    FIELD(RtmpSendPkt, uint32_t, MsgTypeId)                                                                  \
    FIELD(RtmpSendPkt, uint32_t, MsgKind)                                                                    \
    FIELD(RtmpSendPkt, uint64_t, Timestamp)                                                                  \
    FIELD(RtmpSendPkt, BYTES(3), HdrTimestamp)                                                               \
    FIELD(RtmpSendPkt, BYTES(3), HdrTimestampDelta)                                                          \
    FIELD(RtmpSendPkt, BYTES(4), ExtTimestamp)                                                               \
    FIELD(RtmpSendPkt, BYTES(4), ExtTimestampDelta)                                                          \
    FIELD(RtmpSendPkt, BYTES(4), MsgStreamId)                                                                \
    FIELD(RtmpSendPkt, uint32_t, PayloadLength)                                                              \
    FIELD(RtmpSendPkt, uint8_t *, PayloadData)                                                               \
    FIELD(RtmpSendPkt, RtmpSendPkt *, Next)                                                                  \
    FIELD(RtmpSendPkt, RtmpSendPkt *, Prev)                                                                  \
    OWN(RtmpSendPkt)                                                                                         \
                                                                                                             \
    FIRST(PublishCtx, TEXT(1024), ChallengeString)                                                           \
    FIELD(PublishCtx, TEXT(1024), SessionIdText)                                                             \
    FIELD(PublishCtx, double, ResultTransactionId)                                                           \
    FIELD(PublishCtx, TEXT(1024), ErrorCode)                                                                 \
    FIELD(PublishCtx, TEXT(1024), ErrorDescription)                                                          \
    FIELD(PublishCtx, double, ErrorTransactionId)                                                            \
    FIELD(PublishCtx, TEXT(1024), StatusLevel)                                                               \
    FIELD(PublishCtx, TEXT(1024), StatusCode)                                                                \
    FIELD(PublishCtx, TEXT(1024), StatusDescription)                                                         \
    FIELD(PublishCtx, double, StatusTransactionId)                                                           \
    LAST(PublishCtx, WORDS(32), StatusHostContext)                                                           \
                                                                                                             \
    FIRST(AmfObject, int32_t, count)                                                                         \
    FIELD(AmfObject, AmfObjProperty *, first)                                                                \
    LAST(AmfObject, AmfObjProperty *, last)                                                                  \
                                                                                                             \
    FIRST(AmfString, char *, data)                                                                           \
    LAST(AmfString, uint16_t, len)                                                                           \
                                                                                                             \
    FIRST(AmfObjProperty, AmfString, name)                                                                   \
    FIELD(AmfObjProperty, uint32_t, type)                                                                    \
    FIELD(AmfObjProperty, AmfObject, ObjVal.object)                                                          \
    FIELD(AmfObjProperty, int16_t, dateTz)                                                                   \
    FIELD(AmfObjProperty, AmfObjProperty *, next)                                                            \
    LAST(AmfObjProperty, AmfObjProperty *, prev)                                                             \
                                                                                                             \
    FIRST(VideoMediaInfo, uint32_t, codecId)                                                                 \
    FIELD(VideoMediaInfo, uint32_t, bitrate)                                                                 \
    FIELD(VideoMediaInfo, NUMBERS(3), opaque)                                                                \
    FIELD(VideoMediaInfo, int32_t, configLen)                                                                \
    LAST(VideoMediaInfo, const uint8_t *, configData)                                                        \
                                                                                                             \
    FIRST(AudioMediaInfo, uint32_t, codecId)                                                                 \
    FIELD(AudioMediaInfo, uint32_t, opaque)                                                                  \
    FIELD(AudioMediaInfo, int32_t, configLen)                                                                \
    LAST(AudioMediaInfo, const uint8_t *, configData)                                                        \
                                                                                                             \
    FIRST(CodecInfo, uint32_t, VdCodecId)                                                                    \
    FIELD(CodecInfo, uint32_t, VdConfigDataLen)                                                              \
    FIELD(CodecInfo, uint8_t *, VdConfigData)                                                                \
    FIELD(CodecInfo, VdCodecInfo *, VdCodecInfo)                                                             \
    FIELD(CodecInfo, uint32_t, AdCodecId)                                                                    \
    FIELD(CodecInfo, uint32_t, AdConfigDataLen)                                                              \
    FIELD(CodecInfo, uint8_t *, AdConfigData)                                                                \
    FIELD(CodecInfo, AdCodecInfo *, AdCodecInfo)                                                             \
    FIELD(CodecInfo, uint8_t *, MetaData)                                                                    \
    FIELD(CodecInfo, uint32_t, MetaDataLen)                                                                  \
    OWN(CodecInfo)                                                                                           \
                                                                                                             \
    FIRST(VdCodecInfo, uint32_t, height)                                                                     \
    FIELD(VdCodecInfo, uint32_t, width)                                                                      \
    FIELD(VdCodecInfo, uint32_t, bitrate)                                                                    \
    FIELD(VdCodecInfo, uint32_t, profileIdc)                                                                 \
    FIELD(VdCodecInfo, uint32_t, constraintFlags)                                                            \
    FIELD(VdCodecInfo, uint32_t, levelIdc)                                                                   \
    FIELD(VdCodecInfo, NUMBERS(3), opaque)                                                                   \
    FIELD(VdCodecInfo, uint8_t *, AvccBox)                                                                   \
    LAST(VdCodecInfo, int32_t, AvccBoxLen)                                                                   \
                                                                                                             \
    FIRST(AdCodecInfo, uint32_t, sampleRate)                                                                 \
    FIELD(AdCodecInfo, uint32_t, channels)                                                                   \
    FIELD(AdCodecInfo, uint32_t, opaque)                                                                     \
    FIELD(AdCodecInfo, BYTES(4), AacSeqHdr)                                                                  \
    LAST(AdCodecInfo, uint32_t, AacSeqHdrLen)                                                                \
                                                                                                             \
    FIRST(RtmpCaptionCtx, uint32_t, Enabled)                                                                 \
    FIELD(RtmpCaptionCtx, uint64_t, Handle)                                                                  \
    FIELD(RtmpCaptionCtx, uint8_t, Mode)                                                                     \
    LAST(RtmpCaptionCtx, BYTES(10), Payload)

/* One row as a compiler sees it. */
struct LayoutRow {
    const char *record;
    const char *field; /* null: the library's own fields follow */
    char place;        /* 'f' first, 'm' in the middle, 'l' last, 'o' see above */
    size_t offset, size, alignment, recordSize;
};

#ifdef __cplusplus
extern "C" {
#endif
extern const struct LayoutRow kLayoutInC[];
extern const size_t kLayoutInCCount;
#ifdef __cplusplus
}
#endif
