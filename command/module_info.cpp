#include "command/module_info.h"

#include "amf/object.h"
#include "command/received_command.h"
#include "net/atomic.h"
#include "net/host_call.h"
#include "net/limits.h"
#include "net/log.h"

#include <stdio.h>
#include <string.h>

namespace {

// The last counts reported to the host. -1 lets the first one, even 0, through.
int32_t viewers = -1;
int32_t allViewers = -1;

struct ViewerCount {
    const char *Key;
    int32_t *Last;
    const char *StatusKey;
    const char *Label;
};

constexpr ViewerCount kViewerCounts[] = {
    {"viewers", &viewers, "rtmpCurrentViewerCount", "Current viewer count"},
    {"allViewers", &allViewers, "rtmpTotalViewerCount", "Total viewer count"},
};
static_assert(sizeof kViewerCounts / sizeof kViewerCounts[0] == 2);

// Room for "%.0f" of any double: 309 digits, a sign and the terminator.
struct NumberText {
    char Text[320];
};

NumberText TextOfNumber(double number)
{
    NumberText text = {};
    if (number >= 0) { // negative numbers and NaN have no text
        snprintf(text.Text, sizeof text.Text, "%.0f", number);
    }
    return text;
}

void ReportViewerCount(PublishCtx *context, const AmfString *name, double number, const char *valueText)
{
    for (const ViewerCount &row : kViewerCounts) {
        const int32_t count = TruncateToInt32(number);
        if (TextEquals(name, row.Key) && count != LoadShared(row.Last)) {
            StoreShared(row.Last, count);
            ReportStatus(context->StatusHostContext, row.StatusKey, valueText, row.Label);
        }
    }
}

void LogStatistic(const ReceivedCommand *command, const AmfString *name, const AmfString *value)
{
    RtmpLogPrint(command->Logger, RTMP_LOG_INFO, "INFO: %s: \t%.*s -> %.*s\n", command->Caller,
                 TextLength(name, kStatisticTextMost), TextStart(name), TextLength(value, kStatisticTextMost),
                 TextStart(value));
}

AmfString TextFrom(const char *text)
{
    AmfString out = {};
    out.data = const_cast<char *>(text); // only read
    out.len = static_cast<uint16_t>(strlen(text));
    return out;
}

void HandleStatistic(const ReceivedCommand *command, AmfObjProperty *property)
{
    RtmpServer *server = command->Client->Server;
    NumberText number = {};
    AmfString name;
    AmfString value = {};
    GetAmfPropName(server, property, &name);
    switch (GetAmfPropType(server, property)) {
    case AMF_STRING:
        GetAmfPropString(server, property, &value);
        break;
    case AMF_BOOLEAN:
        // KEPT: booleans are decoded inverted, so a wire true is logged as "false". Required.
        value = TextFrom(GetAmfPropBoolean(server, property) != 0 ? "true" : "false");
        break;
    case AMF_OBJECT:
        value = TextFrom("{OBJECT}");
        break;
    case AMF_NUMBER:
        number = TextOfNumber(GetAmfPropNumber(server, property));
        value = TextFrom(number.Text);
        if (command->Client->PublishCtx != nullptr) {
            ReportViewerCount(command->Client->PublishCtx, &name, GetAmfPropNumber(server, property),
                              number.Text);
        }
        break;
    default: // no text
        break;
    }
    LogStatistic(command, &name, &value);
}

void HandleStatistics(const ReceivedCommand *command, const AmfObject *statistics)
{
    RtmpLogPrint(command->Logger, RTMP_LOG_INFO, "INFO: %s: Get object list from AMF object list\n",
                 command->Caller);
    RtmpLogPrint(command->Logger, RTMP_LOG_INFO, "INFO: %s: Number of Objects: %d\n", command->Caller,
                 statistics->count);
    for (AmfObjProperty *property = statistics->first; property != nullptr; property = property->next) {
        HandleStatistic(command, property);
    }
}

} // namespace

int HandleModuleInfo(ReceivedCommand *command)
{
    AmfObject statistics;
    AmfString text;
    if (TakeObject(command, &statistics)) {
        HandleStatistics(command, &statistics);
    } else if (TakeString(command, &text)) {
        RtmpLogPrint(command->Logger, RTMP_LOG_INFO, "INFO: %s: Got a string object\n", command->Caller);
    }
    RtmpLogPrint(command->Logger, RTMP_LOG_INFO, "INFO: %s: \tNot really sure what to do with it\n",
                 command->Caller);
    return 0;
}
