#include "amf/encode.h"
#include "amf/object.h"
#include "net/record.h"

#include <limits>

namespace {

AmfObjProperty *NewNull()
{
    AmfObjProperty *prop = NewRecord<AmfObjProperty>();
    prop->type = AMF_NULL;
    return prop;
}

AmfString KeyOf(const char *text)
{
    AmfString key = {};
    key.data = const_cast<char *>(text);
    key.len = static_cast<uint16_t>(strlen(text));
    return key;
}

// A list of members "a" = 1, "b" = 2, "a" = 3; freed when it goes.
struct Members {
    Members()
    {
        EXPECT_EQ(WriteAmfNumber(nullptr, &list, "a", 1), 0);
        EXPECT_EQ(WriteAmfNumber(nullptr, &list, "b", 2), 0);
        EXPECT_EQ(WriteAmfNumber(nullptr, &list, "a", 3), 0);
    }
    ~Members()
    {
        FreeAmfObject(nullptr, &list, 1);
    }
    AmfObjProperty *named(const char *text)
    {
        const AmfString key = KeyOf(text);
        return GetAmfProp(nullptr, &list, &key, -1);
    }
    AmfObjProperty *at(int32_t index)
    {
        return GetAmfProp(nullptr, &list, nullptr, index);
    }
    AmfObject list = {};
};

} // namespace

TEST(AddAmfProp, TheFirstIsBothEndsAndHasNoNeighbours)
{
    AmfObject list = {};
    AmfObjProperty *prop = NewNull();
    prop->next = prop->prev = prop; // whatever was there before
    AddAmfProp(nullptr, &list, prop);
    EXPECT_EQ(list.first, prop);
    EXPECT_EQ(list.last, prop);
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(prop->next, nullptr);
    EXPECT_EQ(prop->prev, nullptr);
    FreeAmfObject(nullptr, &list, 0);
}

TEST(AddAmfProp, LaterOnesAreLinkedAtTheTail)
{
    AmfObject list = {};
    AmfObjProperty *props[3] = {NewNull(), NewNull(), NewNull()};
    for (AmfObjProperty *prop : props) {
        AddAmfProp(nullptr, &list, prop);
    }
    EXPECT_EQ(list.count, 3);
    EXPECT_EQ(list.first, props[0]);
    EXPECT_EQ(list.last, props[2]);
    EXPECT_EQ(props[0]->next, props[1]);
    EXPECT_EQ(props[1]->next, props[2]);
    EXPECT_EQ(props[2]->next, nullptr);
    EXPECT_EQ(props[1]->prev, props[0]);
    EXPECT_EQ(props[2]->prev, props[1]);
    FreeAmfObject(nullptr, &list, 0);
}

TEST(AddAmfProp, AFreedListTakesNewValuesAndKeepsCounting)
{
    AmfObject list = {};
    AddAmfProp(nullptr, &list, NewNull());
    FreeAmfObject(nullptr, &list, 0);
    AmfObjProperty *prop = NewNull();
    AddAmfProp(nullptr, &list, prop);
    EXPECT_EQ(list.first, prop);
    EXPECT_EQ(list.last, prop);
    EXPECT_EQ(list.count, 2);
    EXPECT_EQ(prop->prev, nullptr);
    FreeAmfObject(nullptr, &list, 0);
}

TEST(GetAmfProp, ByNameTheEarliestOfEqualNamesWins)
{
    Members members;
    EXPECT_EQ(members.named("a"), members.list.first);
    EXPECT_EQ(members.named("b"), members.list.first->next);
}

TEST(GetAmfProp, ByNameLengthAndCaseMustAgree)
{
    Members members;
    EXPECT_EQ(members.named("A"), nullptr);
    EXPECT_EQ(members.named("ab"), nullptr);
    EXPECT_EQ(members.named(""), nullptr);
    EXPECT_EQ(members.named("c"), nullptr);
}

TEST(GetAmfProp, TheEmptyNameFindsTheFirstValueWithoutAName)
{
    Members members;
    ASSERT_EQ(WriteAmfNull(nullptr, &members.list), 0);
    EXPECT_EQ(members.named(""), members.list.last);
}

TEST(GetAmfProp, ByPosition)
{
    Members members;
    EXPECT_EQ(GetAmfPropNumber(nullptr, members.at(0)), 1);
    EXPECT_EQ(GetAmfPropNumber(nullptr, members.at(1)), 2);
    EXPECT_EQ(GetAmfPropNumber(nullptr, members.at(2)), 3);
}

TEST(GetAmfProp, ThePositionOfTheCountIsNull)
{
    Members members;
    EXPECT_EQ(members.at(3), nullptr);
}

TEST(GetAmfProp, APositionBeyondTheCountIsTheFirst)
{
    Members members;
    EXPECT_EQ(members.at(4), members.list.first);
    EXPECT_EQ(members.at(std::numeric_limits<int32_t>::max()), members.list.first);
}

TEST(GetAmfProp, OfTwoValuesPositionFiveIsTheFirstAndTwoIsNull)
{
    AmfObject list = {};
    AddAmfProp(nullptr, &list, NewNull());
    AddAmfProp(nullptr, &list, NewNull());
    EXPECT_EQ(GetAmfProp(nullptr, &list, nullptr, 5), list.first);
    EXPECT_EQ(GetAmfProp(nullptr, &list, nullptr, 2), nullptr);
    FreeAmfObject(nullptr, &list, 0);
}

TEST(GetAmfProp, AnEmptyListHasNothingAnywhere)
{
    AmfObject list = {};
    const AmfString key = KeyOf("a");
    EXPECT_EQ(GetAmfProp(nullptr, &list, &key, -1), nullptr);
    EXPECT_EQ(GetAmfProp(nullptr, &list, nullptr, 0), nullptr);
    EXPECT_EQ(GetAmfProp(nullptr, &list, nullptr, 1), nullptr);
}

TEST(GetAmfProp, AFreedListHasNothingAnywhere)
{
    AmfObject list = {};
    AddAmfProp(nullptr, &list, NewNull());
    AddAmfProp(nullptr, &list, NewNull());
    FreeAmfObject(nullptr, &list, 0);
    EXPECT_EQ(GetAmfProp(nullptr, &list, nullptr, 0), nullptr);
    EXPECT_EQ(GetAmfProp(nullptr, &list, nullptr, 1), nullptr);
}

TEST(Accessors, ReadTheMemberAskedForWhateverTheTypeSays)
{
    AmfObjProperty prop = {};
    prop.type = AMF_NULL;
    prop.ObjVal.number = 2.5;
    EXPECT_EQ(GetAmfPropType(nullptr, &prop), static_cast<uint32_t>(AMF_NULL));
    EXPECT_EQ(GetAmfPropNumber(nullptr, &prop), 2.5);
    prop.ObjVal.boolean = 7;
    EXPECT_EQ(GetAmfPropBoolean(nullptr, &prop), 7);
}

TEST(Accessors, NamesAndStringsAreReferencesNotCopies)
{
    char name[] = "code";
    char text[] = "NetStream.Play.Start";
    AmfObjProperty prop = {};
    prop.name.data = name;
    prop.name.len = 4;
    prop.ObjVal.StrObj.StrData = text;
    prop.ObjVal.StrObj.len = 20;
    AmfString out = {};
    GetAmfPropName(nullptr, &prop, &out);
    EXPECT_EQ(out.data, name);
    EXPECT_EQ(out.len, 4);
    GetAmfPropString(nullptr, &prop, &out);
    EXPECT_EQ(out.StrData, text);
    EXPECT_EQ(out.len, 20);
}

TEST(Accessors, ANestedListIsShared)
{
    AmfObject nested = {};
    AddAmfProp(nullptr, &nested, NewNull());
    AmfObject list = {};
    ASSERT_EQ(WriteAmfObject(nullptr, &list, &nested), 0);
    AmfObject out = {};
    GetAmfObject(nullptr, list.first, &out);
    EXPECT_EQ(out.count, 1);
    EXPECT_EQ(out.first, nested.first);
    EXPECT_EQ(out.last, nested.last);
    FreeAmfObject(nullptr, &list, 1);
}

TEST(FreeAmfObject, LeavesCountAndLastAlone)
{
    AmfObject list = {};
    AmfObjProperty *prop = NewNull();
    AddAmfProp(nullptr, &list, prop);
    EXPECT_EQ(FreeAmfObject(nullptr, &list, 0), 0);
    EXPECT_EQ(list.first, nullptr);
    EXPECT_EQ(list.last, prop);
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(FreeAmfObject(nullptr, &list, 0), 0); // once more is no harm
}

TEST(FreeAmfObject, BorrowedTextsStay)
{
    char name[] = "name";
    char text[] = "text";
    AmfObject list = {};
    AmfObjProperty *prop = NewNull();
    prop->type = AMF_STRING;
    prop->name.data = name;
    prop->name.len = 4;
    prop->ObjVal.StrObj.StrData = text;
    prop->ObjVal.StrObj.len = 4;
    AddAmfProp(nullptr, &list, prop);
    EXPECT_EQ(FreeAmfObject(nullptr, &list, 0), 0);
    EXPECT_STREQ(name, "name");
    EXPECT_STREQ(text, "text");
}

TEST(FreeAmfObject, OwnedTextsGoInNestedObjectsToo) // the leak checker is the judge
{
    AmfObject nested = {};
    ASSERT_EQ(WriteAmfString(nullptr, &nested, "code", "x"), 0);
    ASSERT_EQ(WriteAmfNumber(nullptr, &nested, "number", 1), 0);
    AmfObject list = {};
    ASSERT_EQ(WriteAmfString(nullptr, &list, nullptr, "before"), 0);
    ASSERT_EQ(WriteAmfObject(nullptr, &list, &nested), 0);
    ASSERT_EQ(WriteAmfString(nullptr, &list, nullptr, "behind"), 0);
    EXPECT_EQ(FreeAmfObject(nullptr, &list, 1), 0);
}

TEST(FreeAmfObject, TheListOfAnArrayStaysItsOwners)
{
    AmfObject nested = {};
    ASSERT_EQ(WriteAmfNumber(nullptr, &nested, "width", 1280), 0);
    AmfObject list = {};
    ASSERT_EQ(WriteAmfArray(nullptr, &list, &nested), 0);
    FreeAmfObject(nullptr, &list, 1);
    EXPECT_EQ(GetAmfPropNumber(nullptr, nested.first), 1280);
    FreeAmfObject(nullptr, &nested, 1);
}

TEST(FreeAmfObject, AListOf65534ValuesIsFreed)
{
    AmfObject list = {};
    for (int i = 0; i < 65534; i++) {
        AddAmfProp(nullptr, &list, NewNull());
    }
    FreeAmfObject(nullptr, &list, 0);
    EXPECT_EQ(list.first, nullptr);
}

TEST(FreeAmfObject, AListOf65535ValuesIsNotFreed)
{
    AmfObject list = {};
    for (int i = 0; i < 65535; i++) {
        AddAmfProp(nullptr, &list, NewNull());
    }
    AmfObjProperty *first = list.first;
    EXPECT_EQ(FreeAmfObject(nullptr, &list, 0), 0);
    EXPECT_EQ(list.first, first);
    EXPECT_EQ(GetAmfPropType(nullptr, list.last), static_cast<uint32_t>(AMF_NULL));
    FreeAmfProps(first, 0, 0);
}

TEST(FreeAmfObject, ANestedListOf65535ValuesStaysWhileTheRestGoes)
{
    AmfObject nested = {};
    for (int i = 0; i < 65535; i++) {
        AddAmfProp(nullptr, &nested, NewNull());
    }
    AmfObject list = {};
    ASSERT_EQ(WriteAmfObject(nullptr, &list, &nested), 0);
    ASSERT_EQ(WriteAmfNull(nullptr, &list), 0);
    FreeAmfObject(nullptr, &list, 0);
    EXPECT_EQ(list.first, nullptr);
    EXPECT_EQ(GetAmfPropType(nullptr, nested.last), static_cast<uint32_t>(AMF_NULL));
    FreeAmfProps(nested.first, 0, 0);
}
