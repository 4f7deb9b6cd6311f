// Order, types and gaps of the public records' fields, and that C and C++ see the same.
#include <rtmpcast/rtmpcast.h>

#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <type_traits>

#include "layout_rows.h"

namespace {

#define TEXT(count) char[count]
#define BYTES(count) uint8_t[count]
#define NUMBERS(count) uint32_t[count]
#define WORDS(count) uint64_t[count]

// The types, at compile time.
#define FIRST(record, type, field) FIELD(record, type, field)
#define LAST(record, type, field) FIELD(record, type, field)
#define FIELD(record, type, field)                                                                           \
    static_assert(std::is_same_v<std::remove_reference_t<decltype((std::declval<struct record &>().field))>, \
                                 std::remove_reference_t<type>>,                                             \
                  #record "." #field);
#define OWN(record)
LAYOUT_ROWS
#undef FIRST
#undef FIELD
#undef LAST
#undef OWN

#define ROW(place, record, name)                                                                             \
    {#record,                                                                                                \
     #name,                                                                                                  \
     place,                                                                                                  \
     offsetof(struct record, name),                                                                          \
     sizeof(std::declval<struct record &>().name),                                                           \
     alignof(decltype(std::declval<struct record &>().name)),                                                \
     sizeof(struct record)},
#define FIRST(record, type, field) ROW('f', record, field)
#define FIELD(record, type, field) ROW('m', record, field)
#define LAST(record, type, field) ROW('l', record, field)
#define OWN(record) {#record, nullptr, 'o', 0, 0, 1, sizeof(struct record)},
const LayoutRow kLayout[] = {LAYOUT_ROWS};

size_t AlignedUp(size_t offset, size_t alignment)
{
    return (offset + alignment - 1) / alignment * alignment;
}

std::string NameOf(const LayoutRow &row)
{
    return std::string(row.record) + "." + (row.field != nullptr ? row.field : "(own)");
}

TEST(Layout, EveryFieldFollowsTheOneBeforeIt)
{
    size_t end = 0;
    for (const LayoutRow &row : kLayout) {
        if (row.place == 'o') {
            EXPECT_LT(end, row.recordSize) << row.record << " has no fields of the library's own";
            continue;
        }
        end = row.place == 'f' ? 0 : end;
        EXPECT_EQ(row.offset, AlignedUp(end, row.alignment)) << NameOf(row);
        end = row.offset + row.size;
        if (row.place == 'l') {
            EXPECT_LT(row.recordSize - end, alignof(std::max_align_t)) << "fields behind " << NameOf(row);
        }
    }
}

TEST(Layout, IsTheSameInC)
{
    ASSERT_EQ(kLayoutInCCount, std::size(kLayout));
    for (size_t index = 0; index < kLayoutInCCount; ++index) {
        const LayoutRow &row = kLayout[index];
        const LayoutRow &inC = kLayoutInC[index];
        EXPECT_EQ(NameOf(row), NameOf(inC));
        EXPECT_EQ(row.offset, inC.offset) << NameOf(row);
        EXPECT_EQ(row.size, inC.size) << NameOf(row);
        EXPECT_EQ(row.alignment, inC.alignment) << NameOf(row);
        EXPECT_EQ(row.recordSize, inC.recordSize) << row.record;
    }
}

// What a message yielded is eight bytes, a list of values or an event.
TEST(Layout, TheResultOfAMessageTakesEightBytes)
{
    EXPECT_EQ(sizeof(RtmpRecvPkt::Result), 8U);
    EXPECT_EQ(offsetof(RtmpRecvPkt, Result.Amf), offsetof(RtmpRecvPkt, Result.Event.EventType));
    EXPECT_EQ(offsetof(RtmpRecvPkt, Result.Event.EventValue), offsetof(RtmpRecvPkt, Result) + 4);
}

// Every form of a value begins at the same place; both names of a string's bytes mean the same field.
TEST(Layout, TheFormsOfAValueShareTheirPlace)
{
    const size_t value = offsetof(AmfObjProperty, ObjVal);
    EXPECT_EQ(offsetof(AmfObjProperty, ObjVal.number), value);
    EXPECT_EQ(offsetof(AmfObjProperty, ObjVal.boolean), value);
    EXPECT_EQ(offsetof(AmfObjProperty, ObjVal.StrObj), value);
    EXPECT_EQ(offsetof(AmfObjProperty, ObjVal.object), value);
    EXPECT_EQ(offsetof(AmfObjProperty, ObjVal.StrObj.StrData), value);
    EXPECT_EQ(offsetof(AmfString, StrData), offsetof(AmfString, data));
}

} // namespace
