#include "amf/encode.h"
#include "amf/object.h"
#include "net/record.h"
#include "support/amf_rows.h"
#include "support/capture_logger.h"

namespace {

using Lines = std::vector<std::string>;

struct Writer : testing::Test {
    Writer()
    {
        server.Logger = log.get();
    }
    ~Writer() override
    {
        FreeAmfObject(&server, &list, 1);
    }
    // The encoding at its counted size.
    Bytes Encoded()
    {
        const uint32_t size = GetAmfEncBuffSize(&server, &list);
        uint8_t *payload = EncodeAmfBuffer(&server, static_cast<int32_t>(size), &list);
        EXPECT_NE(payload, nullptr);
        const Bytes bytes(payload, payload + size);
        free(payload);
        return bytes;
    }
    CaptureLogger log;
    RtmpServer server = {};
    AmfObject list = {};
};

using AmfWriterTest = Writer;
using AmfBuilders = Writer;
using AmfMembers = Writer;
using EncodeAmfBufferTest = Writer;

// A member of any type, its value all zero.
AmfObjProperty *NewMember(uint32_t type, const char *name)
{
    AmfObjProperty *prop = NewRecord<AmfObjProperty>();
    prop->type = type;
    prop->name.data = CopyOfText(name, strlen(name));
    prop->name.len = static_cast<uint16_t>(strlen(name));
    return prop;
}

} // namespace

TEST_F(AmfWriterTest, EveryRowThatCanBeBuiltIsWrittenAsItsBytes)
{
    size_t built = 0;
    for (const AmfRow &row : AmfRows()) {
        if (row.build == nullptr) {
            continue;
        }
        SCOPED_TRACE(row.sentence);
        row.build(&list);
        EXPECT_EQ(Encoded(), Hex(row.picture));
        FreeAmfObject(&server, &list, 1);
        list = {};
        built++;
    }
    EXPECT_EQ(built, 11U);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(EncodeAmfBufferTest, AnEmptyListHasSizeZero)
{
    EXPECT_EQ(GetAmfEncBuffSize(&server, &list), 0U);
    uint8_t *payload = EncodeAmfBuffer(&server, 0, &list);
    EXPECT_NE(payload, nullptr);
    free(payload);
}

TEST_F(EncodeAmfBufferTest, AReplyOfStringNumberAndNullHasItsSize)
{
    ASSERT_EQ(WriteAmfString(&server, &list, nullptr, "_result"), 0);
    ASSERT_EQ(WriteAmfNumber(&server, &list, nullptr, 1), 0);
    ASSERT_EQ(WriteAmfNull(&server, &list), 0);
    EXPECT_EQ(GetAmfEncBuffSize(&server, &list), 20U);
    EXPECT_EQ(Encoded(), Hex("02 0007 '_result' 00 3FF0000000000000 05"));
}

TEST_F(EncodeAmfBufferTest, AnArrayCountsItsMembers)
{
    AmfObject members = {};
    ASSERT_EQ(WriteAmfNumber(&server, &members, "width", 1280), 0);
    ASSERT_EQ(WriteAmfNumber(&server, &members, "height", 720), 0);
    ASSERT_EQ(WriteAmfArray(&server, &list, &members), 0);
    EXPECT_EQ(Encoded(), Hex("08 00000002 0005 'width' 00 4094000000000000"
                             "0006 'height' 00 4086800000000000 000009"));
    FreeAmfObject(&server, &members, 1);
}

TEST_F(EncodeAmfBufferTest, TopLevelNamesAreNotWritten)
{
    ASSERT_EQ(WriteAmfNumber(&server, &list, "number", 1), 0);
    ASSERT_EQ(WriteAmfBoolean(&server, &list, "boolean", 1), 0);
    ASSERT_EQ(WriteAmfString(&server, &list, "string", "x"), 0);
    EXPECT_EQ(Encoded(), Hex("00 3FF0000000000000 01 01 02 0001 'x'"));
}

TEST_F(EncodeAmfBufferTest, ABooleanIsWrittenAsItIsStored)
{
    ASSERT_EQ(WriteAmfBoolean(&server, &list, nullptr, 0), 0);
    ASSERT_EQ(WriteAmfBoolean(&server, &list, nullptr, 1), 0);
    ASSERT_EQ(WriteAmfBoolean(&server, &list, nullptr, 7), 0);
    EXPECT_EQ(Encoded(), Hex("01 00 01 01 01 07"));
}

TEST_F(EncodeAmfBufferTest, AReceivedBooleanGoesBackInverted)
{
    const Bytes wire = Hex("01 01 01 00");
    AmfObject received = {};
    ASSERT_EQ(DecodeAmfBuffer(&server, &received, wire.data(), 4, 1), 4);
    uint8_t *payload = EncodeAmfBuffer(&server, 4, &received);
    EXPECT_EQ(Bytes(payload, payload + 4), Hex("01 00 01 01"));
    free(payload);
    FreeAmfObject(&server, &received, 0);
}

TEST_F(EncodeAmfBufferTest, OtherTypesAtTheTopAreAnEndSequenceWithoutAMarker)
{
    for (const uint32_t type : {6, 7, 9, 13, 40}) {
        AddAmfProp(&server, &list, NewMember(type, ""));
    }
    EXPECT_EQ(Encoded(), Hex("000009 000009 000009 000009 000009"));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(EncodeAmfBufferTest, OtherTypesAtTheTopWriteTheMembersOfTheListTheyHold)
{
    AmfObject members = {};
    ASSERT_EQ(WriteAmfNumber(&server, &members, "n", 1), 0);
    AmfObjProperty *prop = NewMember(AMF_UNSUPPORTED, "");
    prop->ObjVal.object = members;
    AddAmfProp(&server, &list, prop);
    EXPECT_EQ(Encoded(), Hex("0001 'n' 00 3FF0000000000000 000009"));
    FreeAmfObject(&server, &members, 1);
}

TEST_F(EncodeAmfBufferTest, AReceivedDateIsAnEndSequence)
{
    const Bytes wire = Hex("0B 40FE3F04 12345678 FFC4");
    AmfObject received = {};
    ASSERT_EQ(DecodeAmfBuffer(&server, &received, wire.data(), 11, 1), 11);
    ASSERT_EQ(GetAmfEncBuffSize(&server, &received), 3U);
    uint8_t *payload = EncodeAmfBuffer(&server, 3, &received);
    EXPECT_EQ(Bytes(payload, payload + 3), Hex("000009"));
    free(payload);
    FreeAmfObject(&server, &received, 0);
}

TEST_F(EncodeAmfBufferTest, TheRestOfALargerBufferIsZero)
{
    ASSERT_EQ(WriteAmfNull(&server, &list), 0);
    uint8_t *payload = EncodeAmfBuffer(&server, 4, &list);
    EXPECT_EQ(Bytes(payload, payload + 4), Hex("05 00 00 00"));
    free(payload);
}

TEST_F(EncodeAmfBufferTest, ASmallerBufferIsNotOverrun) // the address sanitizer is the judge
{
    ASSERT_EQ(WriteAmfNull(&server, &list), 0);
    ASSERT_EQ(WriteAmfString(&server, &list, nullptr, "a text that is longer"), 0);
    uint8_t *payload = EncodeAmfBuffer(&server, 3, &list);
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload[0], 5);
    free(payload);
}

TEST_F(EncodeAmfBufferTest, ANegativeSizeIsMemoryThatIsNotToBeHad)
{
    EXPECT_EQ(EncodeAmfBuffer(&server, -1, &list), nullptr);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: EncodeAmfBuffer: Cannot allocate memory to payloadData"});
}

TEST_F(AmfMembers, ABooleanIsReducedToItsNameAndTwoZeroBytesAtTheEnd)
{
    AmfObject members = {};
    ASSERT_EQ(WriteAmfBoolean(&server, &members, "stereo", 1), 0);
    ASSERT_EQ(WriteAmfObject(&server, &list, &members), 0);
    EXPECT_EQ(Encoded(), Hex("03 0006 'stereo' 000009 0000"));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(AmfMembers, NullUndefinedReferenceAndArrayAreReducedToTheirNamesSilently)
{
    AmfObject members = {};
    for (const uint32_t type : {AMF_NULL, AMF_UNDEFINED, AMF_REFERENCE, AMF_ECMA_ARRAY}) {
        AddAmfProp(&server, &members, NewMember(type, "m"));
    }
    ASSERT_EQ(WriteAmfObject(&server, &list, &members), 0);
    EXPECT_EQ(Encoded(), Hex("03 0001 'm' 0001 'm' 0001 'm' 0001 'm' 000009 00000000"));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(AmfMembers, AnObjectIsReducedToItsNameAndBothPassesSaySo)
{
    AmfObject inner = {};
    ASSERT_EQ(WriteAmfNumber(&server, &inner, "n", 1), 0);
    AmfObjProperty *member = NewMember(AMF_OBJECT, "info");
    member->ObjVal.object = inner;
    AmfObject members = {};
    AddAmfProp(&server, &members, member);
    ASSERT_EQ(WriteAmfArray(&server, &list, &members), 0);
    EXPECT_EQ(Encoded(), Hex("08 00000001 0004 'info' 000009 00"));
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: GetAmfEncBuffSize: Unsupported AMF data type",
                                  "3 ERROR: EncodeAmfBuffer: Unsupported AMF data type"}));
    FreeAmfObject(&server, &members, 1);
}

TEST_F(AmfMembers, EveryOtherTypeIsUnsupported)
{
    for (const uint32_t type : {3, 4, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 255}) {
        SCOPED_TRACE(type);
        log.clear();
        AmfObject members = {};
        AddAmfProp(&server, &members, NewMember(type, "m"));
        AmfObject top = {};
        ASSERT_EQ(WriteAmfObject(&server, &top, &members), 0);
        EXPECT_EQ(GetAmfEncBuffSize(&server, &top), 8U);
        EXPECT_EQ(log.lines(), Lines{"3 ERROR: GetAmfEncBuffSize: Unsupported AMF data type"});
        FreeAmfObject(&server, &top, 1);
    }
}

TEST_F(AmfMembers, WritingGoesOnBehindAMemberThatIsReduced)
{
    AmfObject members = {};
    ASSERT_EQ(WriteAmfBoolean(&server, &members, "b", 1), 0);
    AddAmfProp(&server, &members, NewMember(AMF_DATE, "d"));
    ASSERT_EQ(WriteAmfString(&server, &members, "s", "x"), 0);
    ASSERT_EQ(WriteAmfObject(&server, &list, &members), 0);
    ASSERT_EQ(WriteAmfNull(&server, &list), 0);
    EXPECT_EQ(Encoded(), Hex("03 0001 'b' 0001 'd' 0001 's' 02 0001 'x' 000009 05 000000"));
}

TEST_F(AmfMembers, AMemberWithoutANameHasAnEmptyOne)
{
    AmfObject members = {};
    ASSERT_EQ(WriteAmfString(&server, &members, nullptr, "x"), 0);
    ASSERT_EQ(WriteAmfObject(&server, &list, &members), 0);
    EXPECT_EQ(Encoded(), Hex("03 0000 02 0001 'x' 000009"));
}

TEST_F(AmfMembers, MembersAddedBehindTheBackOfAnObjectAreNotWritten)
{
    AmfObject members = {};
    ASSERT_EQ(WriteAmfNumber(&server, &members, "a", 1), 0);
    ASSERT_EQ(WriteAmfObject(&server, &list, &members), 0);
    ASSERT_EQ(WriteAmfNumber(&server, &members, "b", 2), 0);
    EXPECT_EQ(Encoded(), Hex("03 0001 'a' 00 3FF0000000000000 000009"));
}

TEST_F(AmfBuilders, PropertiesOwnTerminatedCopies)
{
    char name[] = "code";
    char value[] = "value";
    ASSERT_EQ(WriteAmfString(&server, &list, name, value), 0);
    name[0] = value[0] = '!';
    EXPECT_STREQ(list.first->name.data, "code");
    EXPECT_EQ(list.first->name.len, 4);
    EXPECT_STREQ(list.first->ObjVal.StrObj.StrData, "value");
    EXPECT_EQ(list.first->ObjVal.StrObj.len, 5);
    EXPECT_EQ(list.first->type, static_cast<uint32_t>(AMF_STRING));
}

TEST_F(AmfBuilders, FillTypeNameAndValue)
{
    ASSERT_EQ(WriteAmfNumber(&server, &list, "n", 2.5), 0);
    ASSERT_EQ(WriteAmfBoolean(&server, &list, "b", 1), 0);
    ASSERT_EQ(WriteAmfNull(&server, &list), 0);
    ASSERT_EQ(list.count, 3);
    EXPECT_EQ(Describe(list), "n=2.5 b=stored 1 null");
    EXPECT_EQ(list.last->name.data, nullptr);
}

TEST_F(AmfBuilders, ObjectsAndArraysTakeTheHeadOver)
{
    AmfObject members = {};
    ASSERT_EQ(WriteAmfNumber(&server, &members, "n", 1), 0);
    ASSERT_EQ(WriteAmfObject(&server, &list, &members), 0);
    ASSERT_EQ(WriteAmfArray(&server, &list, &members), 0);
    EXPECT_EQ(list.first->type, static_cast<uint32_t>(AMF_OBJECT));
    EXPECT_EQ(list.last->type, static_cast<uint32_t>(AMF_ECMA_ARRAY));
    for (const AmfObjProperty *prop : {list.first, list.last}) {
        EXPECT_EQ(prop->ObjVal.object.count, 1);
        EXPECT_EQ(prop->ObjVal.object.first, members.first);
        EXPECT_EQ(prop->ObjVal.object.last, members.last);
        EXPECT_EQ(prop->name.len, 0);
    }
}

TEST_F(AmfBuilders, AStringWithoutAValueIsRefusedSilently)
{
    ASSERT_EQ(WriteAmfNull(&server, &list), 0);
    EXPECT_EQ(WriteAmfString(&server, &list, "code", nullptr), -1);
    EXPECT_EQ(Describe(list), "null");
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(AmfBuilders, AnObjectWithoutAListIsRefusedSilently)
{
    EXPECT_EQ(WriteAmfObject(&server, &list, nullptr), -1);
    EXPECT_EQ(WriteAmfArray(&server, &list, nullptr), -1);
    EXPECT_EQ(list.count, 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(AmfBuilders, ATextOf65535BytesIsWrittenWhole)
{
    const std::string text(65535, 'x');
    ASSERT_EQ(WriteAmfString(&server, &list, nullptr, text.c_str()), 0);
    Bytes expected = Hex("02 FFFF");
    expected.resize(3 + 65535, 'x');
    EXPECT_EQ(Encoded(), expected);
}

TEST_F(AmfBuilders, ALongerTextKeepsItsCopyAndWrapsItsLength)
{
    const std::string text = "abc" + std::string(65536, 'x');
    ASSERT_EQ(WriteAmfString(&server, &list, nullptr, text.c_str()), 0);
    EXPECT_EQ(std::string(list.first->ObjVal.StrObj.StrData), text);
    EXPECT_EQ(Encoded(), Hex("02 0003 'abc'"));
}

TEST_F(AmfBuilders, ALongerNameWrapsItsLengthToo)
{
    const std::string name = "n" + std::string(65536, 'x');
    AmfObject members = {};
    ASSERT_EQ(WriteAmfNumber(&server, &members, name.c_str(), 1), 0);
    ASSERT_EQ(WriteAmfObject(&server, &list, &members), 0);
    EXPECT_EQ(Encoded(), Hex("03 0001 'n' 00 3FF0000000000000 000009"));
}

TEST(WriteDouble, StoresTheMostSignificantByteFirst)
{
    uint8_t out[8];
    WriteDouble(nullptr, out, 1.0);
    EXPECT_EQ(Bytes(out, out + 8), Hex("3FF0000000000000"));
    WriteDouble(nullptr, out, -2.5);
    EXPECT_EQ(Bytes(out, out + 8), Hex("C004000000000000"));
    WriteDouble(nullptr, out, 4.9406564584124654e-324);
    EXPECT_EQ(Bytes(out, out + 8), Hex("0000000000000001"));
}
