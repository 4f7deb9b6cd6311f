#include "instruments/debug_trace.h"

#include "instruments/bandwidth_monitor.h"
#include "net/atomic.h"
#include "net/record.h"
#include "net/scope.h"

#include <stdarg.h>
#include <sys/stat.h>
#include <time.h>

namespace {

void OpenTrace(RtmpQueueDebug *debug)
{
    // An existing directory is fine, and where there is none in the end the file cannot be opened.
    (void)mkdir(debug->Directory, 0755);
    char path[QUEUE_DEBUG_PATH];
    const int length = snprintf(path, sizeof path, "%s/%s-%ld.csv", debug->Directory, "debug",
                                static_cast<long>(time(nullptr)));
    if (length < 0) {
        return;
    }
    StoreShared(&debug->File, fopen(path, "w")); // of a path that is cut, too
}

void CloseTrace(RtmpQueueDebug *debug)
{
    FILE *file = LoadShared(&debug->File);
    if (file != nullptr) {
        (void)fclose(file); // every line has been flushed
    }
    StoreShared(&debug->File, static_cast<FILE *>(nullptr));
}

int32_t TargetKbps(const RtmpQueueAdaptiveBitrate *abr)
{
    return abr == nullptr ? 0 : LoadShared(&abr->CurrentBitrate) / 1000;
}

// A text that does not fit is cut: the record's field has this length.
RTMP_PRINTF(2, 3) void PrepareText(char (&text)[QUEUE_BURNIN_TEXT], const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
}

void WriteTraceLine(const RtmpThreadedQueue *queue, FILE *file, uint64_t lastVideoTs, int32_t queued,
                    int64_t took)
{
    const RtmpQueueDebug *debug = queue->Debug;
    WITHOUT_CANCEL int restore = ForbidCancel();
    fprintf(file, "%lld,%d,%d,%d,%d,%d,%d\n",
            static_cast<long long>(lastVideoTs - LoadShared(&debug->StartTs)),
            RtmpQueueBWMKbps(queue->Bwm, 0), TargetKbps(queue->Abr), static_cast<int>(debug->Reserved),
            queued, static_cast<int>(LoadShared(&debug->Dropped)), static_cast<int>(took));
    fflush(file);
}

} // namespace

RtmpQueueDebug *RtmpQueueDebugCreate(uint8_t burninEnable, uint8_t logEnable, const char *directory,
                                     uint32_t logEvery)
{
    RtmpQueueDebug *debug = NewRecord<RtmpQueueDebug>();
    if (debug == nullptr) {
        return nullptr;
    }
    debug->BurninEnable = burninEnable;
    debug->LogEnable = logEnable;
    debug->LogEvery = logEvery;
    if (directory != nullptr) {
        memcpy(debug->Directory, directory, strnlen(directory, sizeof debug->Directory - 1));
    }
    return debug;
}

int RtmpQueueDebugReset(RtmpQueueDebug *debug)
{
    if (debug == nullptr) {
        return 1;
    }
    CloseTrace(debug);
    StoreShared(&debug->StartTs, uint64_t{0});
    StoreShared(&debug->Dropped, uint32_t{0});
    debug->FramesSinceLine = 0;
    debug->Elapsed = 0;
    return 0;
}

void RtmpQueueDebugDestroy(RtmpQueueDebug *debug)
{
    (void)RtmpQueueDebugReset(debug); // null is fine
    free(debug);
}

int RtmpQueueDebugInit(RtmpQueueDebug *debug, uint64_t timestamp)
{
    if (debug == nullptr) {
        return 1;
    }
    StoreShared(&debug->StartTs, timestamp);
    if (LoadShared(&debug->File) == nullptr) {
        OpenTrace(debug); // KEPT: also where only burn-in is enabled. Required; changes a file
    }
    return 0;
}

int RtmpQueueDebugUpdate(RtmpQueueDebug *debug, void * /*session*/, uint64_t timestamp)
{
    if (debug == nullptr) {
        return 1;
    }
    debug->Elapsed = timestamp - LoadShared(&debug->StartTs);
    return 0;
}

int RtmpQueueDebugBurnin(RtmpQueueDebug *debug, void * /*session*/, int32_t queued, int32_t rate,
                         int32_t bitrate)
{
    if (debug == nullptr) {
        return 1;
    }
    if (debug->BurninEnable == 0) {
        return 0;
    }
    if (rate > 0) {
        PrepareText(debug->RateText, "%d:%d %d", static_cast<int>((debug->Elapsed + 500) / 1000), rate,
                    bitrate / 1000);
    }
    if (queued >= 0) {
        PrepareText(debug->QueueText, "%d %d %d", queued, static_cast<int>(LoadShared(&debug->Dropped)),
                    static_cast<int>(debug->Reserved));
    }
    return 0;
}

int RtmpQueueDebugLog(RtmpThreadedQueue *queue, uint64_t lastVideoTs, int32_t queued, RtmpQueueTime start,
                      RtmpQueueTime end)
{
    RtmpQueueDebug *debug = queue->Debug;
    if (debug == nullptr) {
        return 1;
    }
    FILE *file = LoadShared(&debug->File);
    if (debug->LogEnable == 0 || file == nullptr) {
        return 0;
    }
    if (debug->FramesSinceLine >= debug->LogEvery) {
        WriteTraceLine(queue, file, lastVideoTs, queued, MillisecondsBetween(start, end));
        debug->FramesSinceLine = 0;
    }
    debug->FramesSinceLine++;
    return 0;
}
