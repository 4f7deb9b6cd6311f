// The AMF0 value list: lookups and ownership. Its functions are in publish.h.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API void AddAmfProp(RtmpServer *server, AmfObject *obj, AmfObjProperty *prop);
RTMP_API AmfObjProperty *GetAmfProp(RtmpServer *server, AmfObject *obj, const AmfString *name, int32_t index);
RTMP_API void GetAmfPropName(RtmpServer *server, AmfObjProperty *prop, AmfString *out);
RTMP_API void GetAmfPropString(RtmpServer *server, AmfObjProperty *prop, AmfString *out);
RTMP_API uint32_t GetAmfPropType(RtmpServer *server, AmfObjProperty *prop);
RTMP_API double GetAmfPropNumber(RtmpServer *server, AmfObjProperty *prop);
RTMP_API uint8_t GetAmfPropBoolean(RtmpServer *server, AmfObjProperty *prop);
RTMP_API void GetAmfObject(RtmpServer *server, AmfObjProperty *prop, AmfObject *out);
RTMP_API int32_t FreeAmfObject(RtmpServer *server, AmfObject *obj, uint8_t freeStrings);

// FreeAmfProps frees a chain of properties and the objects nested in it, without recursion. Nested lists of
// more than `longest` values are left alone.
void FreeAmfProps(AmfObjProperty *first, uint8_t freeStrings, int32_t longest);

// FreeDecodedAmfObject frees all properties of a decoded list of the library's own, however many they are: a
// peer decides how long it is. Always 0, as FreeAmfObject.
int32_t FreeDecodedAmfObject(RtmpServer *server, AmfObject *obj);
}
