#include "amf/object.h"

#include "net/limits.h"

#include <stdlib.h>
#include <string.h>

namespace {

bool HasName(const AmfObjProperty *prop, const AmfString *name)
{
    return prop->name.len == name->len &&
           (name->len == 0 || memcmp(prop->name.data, name->data, name->len) == 0);
}

AmfObjProperty *FindByName(const AmfObject *obj, const AmfString *name)
{
    AmfObjProperty *prop = obj->first;
    while (prop != nullptr && !HasName(prop, name)) {
        prop = prop->next;
    }
    return prop;
}

void FreeOneProp(AmfObjProperty *prop, uint8_t freeStrings)
{
    if (freeStrings == 1) {
        if (prop->type == AMF_STRING) {
            free(prop->ObjVal.StrObj.StrData);
        }
        free(prop->name.data);
    }
    free(prop);
}

// TakeNestedList takes the list out of an object, so that the object is met empty the next time.
AmfObjProperty *TakeNestedList(AmfObjProperty *prop, int32_t longest)
{
    if (prop->type != AMF_OBJECT || prop->ObjVal.object.count > longest) {
        return nullptr;
    }
    AmfObjProperty *first = prop->ObjVal.object.first;
    prop->ObjVal.object.first = nullptr;
    return first;
}

} // namespace

void AddAmfProp(RtmpServer *, AmfObject *obj, AmfObjProperty *prop)
{
    // A list that was freed keeps its count and a `last` that is gone.
    AmfObjProperty *last = obj->first != nullptr ? obj->last : nullptr;
    prop->prev = last;
    prop->next = nullptr;
    if (last != nullptr) {
        last->next = prop;
    } else {
        obj->first = prop;
    }
    obj->last = prop;
    obj->count++;
}

AmfObjProperty *GetAmfProp(RtmpServer *, AmfObject *obj, const AmfString *name, int32_t index)
{
    if (index < 0) {
        return FindByName(obj, name);
    }
    if (obj->count < index) {
        // KEPT: past the end lies the first value again. Required; hosts call this.
        return obj->first;
    }
    AmfObjProperty *prop = obj->first;
    for (int32_t i = 0; i < index && prop != nullptr; i++) {
        prop = prop->next;
    }
    return prop;
}

void GetAmfPropName(RtmpServer *, AmfObjProperty *prop, AmfString *out)
{
    *out = prop->name;
}

void GetAmfPropString(RtmpServer *, AmfObjProperty *prop, AmfString *out)
{
    *out = prop->ObjVal.StrObj;
}

uint32_t GetAmfPropType(RtmpServer *, AmfObjProperty *prop)
{
    return prop->type;
}

double GetAmfPropNumber(RtmpServer *, AmfObjProperty *prop)
{
    return prop->ObjVal.number;
}

uint8_t GetAmfPropBoolean(RtmpServer *, AmfObjProperty *prop)
{
    return prop->ObjVal.boolean;
}

void GetAmfObject(RtmpServer *, AmfObjProperty *prop, AmfObject *out)
{
    *out = prop->ObjVal.object;
}

void FreeAmfProps(AmfObjProperty *first, uint8_t freeStrings, int32_t longest)
{
    // While a chain is being freed, the `prev` of its front is the object around it.
    AmfObjProperty *prop = first;
    if (prop != nullptr) {
        prop->prev = nullptr;
    }
    while (prop != nullptr) {
        AmfObjProperty *nested = TakeNestedList(prop, longest);
        if (nested != nullptr) {
            nested->prev = prop;
            prop = nested;
            continue;
        }
        AmfObjProperty *around = prop->prev;
        AmfObjProperty *following = prop->next;
        FreeOneProp(prop, freeStrings);
        if (following != nullptr) {
            following->prev = around;
        }
        prop = following != nullptr ? following : around;
    }
}

int32_t FreeAmfObject(RtmpServer *, AmfObject *obj, uint8_t freeStrings)
{
    if (obj->count > kLongestFreedList) {
        return 0;
    }
    FreeAmfProps(obj->first, freeStrings, kLongestFreedList);
    obj->first = nullptr;
    return 0;
}

int32_t FreeDecodedAmfObject(RtmpServer *, AmfObject *obj)
{
    FreeAmfProps(obj->first, 0, INT32_MAX);
    obj->first = nullptr;
    return 0;
}
