// The ways of the AMF0 functions.
#include "failing/every_call.h"
#include "support/amf_bytes.h"
#include "support/bytes.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace every_call {
namespace {

// A list with two values; what is built is freed.
struct List {
    explicit List(Trial &trial)
    {
        server.Logger = trial.logger();
        EXPECT_EQ(WriteAmfNumber(&server, &values, "number", 1), 0);
        EXPECT_EQ(WriteAmfString(&server, &values, "text", "value"), 0);
    }
    ~List()
    {
        EXPECT_EQ(FreeAmfObject(&server, &values, 1), 0);
    }
    RtmpServer server = {};
    AmfObject values = {};
};

void WriteList(Trial &trial, int (*write)(RtmpServer *, AmfObject *, AmfObject *), bool isFreedWithIt)
{
    List list(trial);
    AmfObject members = {};
    EXPECT_EQ(WriteAmfNumber(&list.server, &members, "a", 1), 0);
    trial.run([&] { return write(&list.server, &list.values, &members); });
    if (!isFreedWithIt) {
        FreeAmfObject(&list.server, &members, 1);
    }
}

void Decode(Trial &trial)
{
    using namespace amf0;
    RtmpServer server = {};
    server.Logger = trial.logger();
    const Bytes bytes = Values({String("text"), Number(1), Boolean(true), Null(), Object({{"a", Number(1)}}),
                                EcmaArray({{"b", String("c")}}), StrictArray({Number(2), Null()})})
                            .bytes;
    AmfObject values = {};
    const auto decode = [&] {
        FreeAmfObject(&server, &values, 0);
        values = {};
        return DecodeAmfBuffer(&server, &values, bytes.data(), static_cast<uint32_t>(bytes.size()), 1);
    };
    trial.run(decode, {}, static_cast<int>(bytes.size()));
    FreeAmfObject(&server, &values, 0);
}

void Encode(Trial &trial)
{
    List list(trial);
    uint8_t *bytes = nullptr;
    trial.run([&] {
        bytes = EncodeAmfBuffer(
            &list.server, static_cast<int32_t>(GetAmfEncBuffSize(&list.server, &list.values)), &list.values);
        return bytes != nullptr ? 0 : kNull;
    });
    free(bytes);
}

void Free(Trial &trial)
{
    List list(trial);
    trial.run([&] { return FreeAmfObject(&list.server, &list.values, 1); });
}

void Append(Trial &trial)
{
    List list(trial);
    AmfObjProperty *property = static_cast<AmfObjProperty *>(calloc(1, sizeof(AmfObjProperty)));
    property->type = AMF_NULL;
    trial.run([&] {
        AddAmfProp(&list.server, &list.values, property);
        return 0;
    });
}

// Looking at a list and at its first value.
void LookAt(Trial &trial, void (*look)(RtmpServer *server, AmfObject *values, AmfObjProperty *first))
{
    List list(trial);
    trial.run([&] {
        look(&list.server, &list.values, list.values.first);
        return 0;
    });
}

AmfString text;
AmfObject object;

} // namespace

std::vector<Scenario> ValueScenarios()
{
    const std::vector<int> any = {-1};
    const auto without = std::vector<int>{}; // nothing on its way can fail
    return {
        {"WriteAmfNumber", "named", any,
         [](Trial &trial) {
             List list(trial);
             trial.run([&] { return WriteAmfNumber(&list.server, &list.values, "name", 2); });
         }},
        {"WriteAmfBoolean", "named", any,
         [](Trial &trial) {
             List list(trial);
             trial.run([&] { return WriteAmfBoolean(&list.server, &list.values, "name", 1); });
         }},
        {"WriteAmfString", "named", any,
         [](Trial &trial) {
             List list(trial);
             trial.run([&] { return WriteAmfString(&list.server, &list.values, "name", "value"); });
         }},
        {"WriteAmfNull", "appended", any,
         [](Trial &trial) {
             List list(trial);
             trial.run([&] { return WriteAmfNull(&list.server, &list.values); });
         }},
        {"WriteAmfObject", "of one member", any,
         [](Trial &trial) { WriteList(trial, WriteAmfObject, true); }},
        {"WriteAmfArray", "of one member", any, [](Trial &trial) { WriteList(trial, WriteAmfArray, false); }},
        {"DecodeAmfBuffer", "a value of every shape", any, Decode},
        {"EncodeAmfBuffer", "two values", {kNull}, Encode},
        {"FreeAmfObject", "two values", without, Free},
        {"AddAmfProp", "a null", without, Append},
        {"GetAmfEncBuffSize", "two values", without,
         [](Trial &trial) {
             LookAt(trial, [](RtmpServer *server, AmfObject *values, AmfObjProperty *) {
                 EXPECT_GT(GetAmfEncBuffSize(server, values), 0U);
             });
         }},
        {"GetAmfProp", "by its place", without,
         [](Trial &trial) {
             LookAt(trial, [](RtmpServer *server, AmfObject *values, AmfObjProperty *first) {
                 EXPECT_EQ(GetAmfProp(server, values, nullptr, 0), first);
             });
         }},
        {"GetAmfPropName", "of a number", without,
         [](Trial &trial) {
             LookAt(trial, [](RtmpServer *server, AmfObject *, AmfObjProperty *first) {
                 GetAmfPropName(server, first, &text);
             });
         }},
        {"GetAmfPropString", "of a number", without,
         [](Trial &trial) {
             LookAt(trial, [](RtmpServer *server, AmfObject *, AmfObjProperty *first) {
                 GetAmfPropString(server, first, &text);
             });
         }},
        {"GetAmfPropType", "of a number", without,
         [](Trial &trial) {
             LookAt(trial, [](RtmpServer *server, AmfObject *, AmfObjProperty *first) {
                 EXPECT_EQ(GetAmfPropType(server, first), uint32_t{AMF_NUMBER});
             });
         }},
        {"GetAmfPropNumber", "of a number", without,
         [](Trial &trial) {
             LookAt(trial, [](RtmpServer *server, AmfObject *, AmfObjProperty *first) {
                 EXPECT_EQ(GetAmfPropNumber(server, first), 1);
             });
         }},
        {"GetAmfPropBoolean", "of a number", without,
         [](Trial &trial) {
             LookAt(trial, [](RtmpServer *server, AmfObject *, AmfObjProperty *first) {
                 (void)GetAmfPropBoolean(server, first); // whatever the type
             });
         }},
        {"GetAmfObject", "of a number", without,
         [](Trial &trial) {
             LookAt(trial, [](RtmpServer *server, AmfObject *, AmfObjProperty *first) {
                 GetAmfObject(server, first, &object);
             });
         }},
    };
}

} // namespace every_call
