// Operations on AMF0 lists, and on what needs no handle.
#include "support/host_world.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace host {
namespace {

constexpr int32_t kMostValues = 200;

const char *TextOf(uint8_t which)
{
    static const std::string longest(65535, 't'), tooLong(70000, 't');
    const char *texts[] = {"name", "", nullptr, longest.c_str(), tooLong.c_str(), "%s%n"};
    return texts[which % std::size(texts)];
}

double NumberOf(uint8_t which)
{
    const double numbers[] = {0, 1, -0.0, 1e300, 2147483648.0, 9007199254740992.0, -1e-300, 0.0 / 0.0};
    return numbers[which % std::size(numbers)];
}

AmfObjProperty *NewNumber()
{
    AmfObjProperty *prop = static_cast<AmfObjProperty *>(calloc(1, sizeof *prop));
    prop->type = AMF_NUMBER;
    prop->ObjVal.number = 1;
    return prop;
}

// A list of two values, which an object or array takes over.
AmfObject NewNested(RtmpServer *server)
{
    AmfObject nested = {};
    Expect("WriteAmfNumber", WriteAmfNumber(server, &nested, "n", 1), {0});
    Expect("WriteAmfString", WriteAmfString(server, &nested, nullptr, "text"), {0});
    return nested;
}

void Look(RtmpServer *server, AmfObjProperty *prop)
{
    AmfString text;
    AmfObject object;
    GetAmfPropName(server, prop, &text);
    GetAmfPropString(server, prop, &text);
    GetAmfObject(server, prop, &object);
    (void)GetAmfPropType(server, prop);
    (void)GetAmfPropNumber(server, prop);
    (void)GetAmfPropBoolean(server, prop);
}

} // namespace

// what:3  then name and value
void AmfWrite(World &world, FuzzInput &input)
{
    const Server *any = world.server(input.byte());
    RtmpServer *server = any != nullptr ? any->server : nullptr;
    const uint8_t what = input.byte() % 7;
    const char *name = TextOf(input.byte());
    const uint8_t value = input.byte();
    AmfObject *into = &world.built;
    if (into->count >= kMostValues) {
        return;
    }
    AmfObject nested = {};
    switch (what) {
    case 0:
        return Expect("WriteAmfNumber", WriteAmfNumber(server, into, name, NumberOf(value)), {0});
    case 1:
        return Expect("WriteAmfBoolean", WriteAmfBoolean(server, into, name, value), {0});
    case 2:
        return Expect("WriteAmfString", WriteAmfString(server, into, name, TextOf(value)),
                      {TextOf(value) == nullptr ? -1 : 0});
    case 3:
        return Expect("WriteAmfNull", WriteAmfNull(server, into), {0});
    case 4:
        nested = NewNested(server);
        Expect("WriteAmfObject of null", WriteAmfObject(server, into, nullptr), {-1});
        return Expect("WriteAmfObject", WriteAmfObject(server, into, &nested), {0});
    case 5:
        nested = NewNested(server);
        Expect("WriteAmfArray of null", WriteAmfArray(server, into, nullptr), {-1});
        world.arrays.push_back(nested);
        return Expect("WriteAmfArray", WriteAmfArray(server, into, &nested), {0});
    default:
        return AddAmfProp(server, into, NewNumber());
    }
}

// decoded or built; then a name, and a position
void AmfRead(World &world, FuzzInput &input)
{
    AmfObject *list = (input.byte() & 1) != 0 ? &world.decoded : &world.built;
    const char *text = TextOf(input.byte() % 2);
    const int32_t index = static_cast<int8_t>(input.byte());
    AmfString name = {};
    name.data = const_cast<char *>(text);
    name.len = static_cast<uint16_t>(strlen(text));
    AmfObjProperty *found = GetAmfProp(nullptr, list, &name, index);
    if (found != nullptr) {
        Look(nullptr, found);
    }
    const uint32_t size = GetAmfEncBuffSize(nullptr, list);
    free(EncodeAmfBuffer(nullptr, static_cast<int32_t>(size), list));
}

// with names or without; then bytes
void AmfDecode(World &world, FuzzInput &input)
{
    const uint8_t noNames = input.byte() & 1;
    world.amfBytes.push_back(std::make_unique<Bytes>(Blob(input))); // the values borrow them
    Bytes &bytes = *world.amfBytes.back();
    bytes.shrink_to_fit();
    const int64_t used =
        DecodeAmfBuffer(nullptr, &world.decoded, bytes.data(), static_cast<uint32_t>(bytes.size()), noNames);
    if (used < -1 || used > static_cast<int64_t>(bytes.size())) {
        Break("DecodeAmfBuffer");
    }
}

void AmfFree(World &world, FuzzInput &input)
{
    if ((input.byte() & 1) != 0) {
        Expect("FreeAmfObject", FreeAmfObject(nullptr, &world.decoded, 0), {0});
        world.decoded = {};
    } else {
        Expect("FreeAmfObject", FreeAmfObject(nullptr, &world.built, 1), {0});
        world.built = {};
    }
}

void LogAndSignal(World &world, FuzzInput &input)
{
    const uint8_t which = input.byte();
    RtmpLogger nowhere[] = {{nullptr, nullptr}, {nullptr, &nowhere}};
    const Server *server = world.server(which);
    RtmpLogPrint(server != nullptr && server->log != nullptr ? &server->log->logger : nullptr, RTMP_LOG_ERROR,
                 "%s, %d\n", "a line", which);
    RtmpLogPrint(&nowhere[which % 2], RTMP_LOG_INFO, "%s\n", "nowhere");
    (void)HandleSignal();
    if (HandleSignal() != SIG_IGN) {
        Break("HandleSignal");
    }
}

} // namespace host
