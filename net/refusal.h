// Why a message is refused. The reason stays with the packet for whoever answers the refusal; the log has had
// its line, and the peer gets the same answer whatever the reason.
#pragma once

#include "rtmpcast/types.h"

enum RtmpRefusalReason {
    REFUSED_NOT = 0,
    REFUSED_UNKNOWN_COMMAND,  // What: its name
    REFUSED_COMMAND,          // a known command that is not served. What: its name
    REFUSED_CONNECT_PROPERTY, // "connect" with a value that is not accepted. What: the property's name
    REFUSED_STREAM,           // "play" of a stream that is not there. What: its name
    REFUSED_EVENT,            // a user control event, see Result.Event
    REFUSED_MEDIA,            // audio, video or an aggregate from a player
    REFUSED_DATA,             // AMF0 data
    REFUSED_SHARED_OBJECT,    // AMF0 shared object
    REFUSED_MESSAGE_TYPE,     // AMF3 forms, and every other type
    REFUSED_PUBLISH,          // "publish", where the connection's rules know it. What: its name
    REFUSED_BY_HOST           // "connect" or "play" of a viewer that the host does not admit
};

inline void NoteRefusal(RtmpRecvPkt *pkt, enum RtmpRefusalReason reason, const AmfString *what)
{
    pkt->Refusal.Reason = reason;
    pkt->Refusal.What = what != nullptr ? *what : AmfString{};
}
