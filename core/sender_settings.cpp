// The settings that a host makes between RtmpSessionCreate and the first frame.
#include "rtmpcast/sender.h"

#include "delivery/senders/monitor.h"
#include "delivery/senders/threaded_queue.h"
#include "net/atomic.h"

namespace {

bool IsThreaded(const RtmpSession *session)
{
    return session->SenderMode == RTMP_SENDER_THREADED;
}

// Threads of the library may be using the sender that there is.
bool HasAnySender(const RtmpSession *session)
{
    return session->Queue != nullptr || session->Monitor != nullptr;
}

} // namespace

int32_t RtmpSenderSettings(RtmpSession *session, uint32_t senderMode, uint32_t senderParam,
                           uint8_t senderFlag, uint32_t encoderHandle, uint8_t captionMode,
                           uint32_t statsInterval, uint32_t audioQueueSize, uint32_t videoQueueSize)
{
    if (session == nullptr) {
        return 0;
    }
    session->SenderParam = senderParam;
    session->SenderFlag = senderFlag;
    session->EncoderHandle = encoderHandle;
    StoreShared(&session->StatsInterval, statsInterval); // frames may be on their way, here and below
    session->AudioQueueSize = audioQueueSize;
    session->VideoQueueSize = videoQueueSize;
    if (session->CcGen != nullptr) {
        StoreShared(&session->CcGen->Mode, captionMode);
    }
    if (HasAnySender(session)) {
        return 0;
    }
    StoreShared(&session->SenderMode, senderMode);
    if (senderMode == RTMP_SENDER_THREADED) {
        (void)RtmpThreadedQueueInit(session, audioQueueSize, videoQueueSize); // logged
    } else {
        (void)RtmpMonitorInit(session, encoderHandle, 1); // logged
    }
    return 0;
}

int32_t RtmpBWMSettings(RtmpSession *session, uint32_t enable, uint32_t windowSize)
{
    if (session != nullptr && IsThreaded(session)) {
        (void)RtmpThreadedQueueBWMInit(session, enable, windowSize); // logged
    }
    return 0; // the packet monitor has statistics of its own
}

int32_t RtmpDebugSettings(RtmpSession *session, uint32_t enable, uint8_t burninEnable, uint8_t logEnable,
                          const char *directory, uint32_t logEvery)
{
    if (session == nullptr) {
        return 0;
    }
    if (IsThreaded(session)) {
        (void)RtmpThreadedQueueDebugInit(session, enable, burninEnable, logEnable, directory,
                                         logEvery); // logged
    } else {
        (void)RtmpMonitorDebugInit(session, enable, burninEnable, logEnable, directory, logEvery); // logged
    }
    return 0;
}

int32_t RtmpAdaptiveBitrateSettings(RtmpSession *session, uint32_t enable, uint32_t reserved1,
                                    uint32_t reserved2, uint32_t minBitrate, uint32_t startDelayMs,
                                    uint32_t increaseFullness, uint32_t increasePercent,
                                    uint32_t increaseMinStep, uint32_t increaseIntervalSec,
                                    uint32_t decreaseFullness, uint32_t decreasePercent,
                                    uint32_t decreaseFullnessHigh, uint32_t decreasePercentHigh,
                                    uint32_t decreaseIntervalSec, uint32_t reserved3)
{
    if (session == nullptr) {
        return 0;
    }
    if (IsThreaded(session)) {
        (void)RtmpThreadedQueueAdaptiveBitrateInit(
            session, enable, minBitrate, startDelayMs, increaseFullness, increasePercent, increaseMinStep,
            increaseIntervalSec, decreaseFullness, decreasePercent, decreaseFullnessHigh, decreasePercentHigh,
            decreaseIntervalSec, reserved3); // logged
    } else {
        (void)RtmpMonitorAdaptiveBitrateInit(session, enable, reserved1, reserved2, minBitrate,
                                             increaseFullness, increasePercent, increaseMinStep,
                                             increaseIntervalSec, decreaseFullness, decreasePercent,
                                             decreaseFullnessHigh, decreasePercentHigh, decreaseIntervalSec,
                                             reserved3); // logged
    }
    return 0;
}
