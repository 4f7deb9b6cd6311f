// AMF0 without memory: every allocation fails in its turn; codes, lines and lists as they should be, and
// nothing lost (the leak checker is the judge).
#include "amf/object.h"
#include "support/amf_rows.h"
#include "support/calls.h"
#include "support/capture_logger.h"

#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>

namespace {

using Lines = std::vector<std::string>;

struct AmfWithoutMemory : testing::Test {
    AmfWithoutMemory()
    {
        server.Logger = log.get();
        EXPECT_EQ(WriteAmfNull(&server, &list), 0);
    }
    ~AmfWithoutMemory() override
    {
        FreeAmfObject(&server, &list, 1);
    }
    // Every allocation of `build` fails in its turn: -1, the line of its place, the list unchanged.
    void expectLines(const std::function<int()> &build, const Lines &lineOfEach)
    {
        for (size_t i = 0; i < lineOfEach.size(); i++) {
            SCOPED_TRACE(i);
            log.clear();
            int status = 0;
            {
                const FailingAllocation failing(static_cast<int>(i) + 1);
                status = build();
            }
            EXPECT_EQ(status, -1);
            EXPECT_EQ(log.lines(), Lines{lineOfEach[i]});
            EXPECT_EQ(Describe(list), "null");
            EXPECT_EQ(list.count, 1);
        }
        const FailingAllocation counted(0);
        EXPECT_EQ(build(), 0);
        EXPECT_EQ(counted.seen(), static_cast<int>(lineOfEach.size()));
    }
    CaptureLogger log;
    RtmpServer server = {};
    AmfObject list = {};
};

std::string NoProperty(const std::string &who)
{
    return "3 ERROR: " + who + ": Cannot allocate memory to amfObjProperty";
}

std::string NoText(const std::string &who)
{
    return NoProperty(who) + "->ObjVal.StrObj.StrData";
}

int DecodeWithFailure(RtmpServer *server, const Bytes &bytes, int number, std::string *found)
{
    AmfObject list = {};
    int32_t consumed = 0;
    {
        const FailingAllocation failing(number);
        consumed = DecodeAmfBuffer(server, &list, bytes.data(), static_cast<uint32_t>(bytes.size()), 1);
    }
    *found = Describe(list);
    FreeAmfObject(server, &list, 0);
    return consumed;
}

} // namespace

TEST_F(AmfWithoutMemory, WriteAmfNumber)
{
    expectLines([&] { return WriteAmfNumber(&server, &list, "name", 1); },
                {NoProperty("WriteAmfNumber"), NoText("WriteAmfNumber")});
}

TEST_F(AmfWithoutMemory, WriteAmfBoolean)
{
    expectLines([&] { return WriteAmfBoolean(&server, &list, "name", 1); },
                {NoProperty("WriteAmfBoolean"), NoText("WriteAmfBoolean")});
}

TEST_F(AmfWithoutMemory, WriteAmfString)
{
    expectLines([&] { return WriteAmfString(&server, &list, "name", "value"); },
                {NoProperty("WriteAmfString"), NoText("WriteAmfString"), NoText("WriteAmfString")});
}

TEST_F(AmfWithoutMemory, WriteAmfStringWithoutAName)
{
    expectLines([&] { return WriteAmfString(&server, &list, nullptr, "value"); },
                {NoProperty("WriteAmfString"), NoText("WriteAmfString")});
}

TEST_F(AmfWithoutMemory, WriteAmfNull)
{
    expectLines([&] { return WriteAmfNull(&server, &list); }, {NoProperty("WriteAmfNull")});
}

TEST_F(AmfWithoutMemory, WriteAmfObjectLeavesTheListToItsOwner)
{
    AmfObject members = {};
    ASSERT_EQ(WriteAmfString(&server, &members, "level", "status"), 0);
    expectLines([&] { return WriteAmfObject(&server, &list, &members); }, {NoProperty("WriteAmfObject")});
}

TEST_F(AmfWithoutMemory, WriteAmfArrayLeavesTheListToItsOwner)
{
    AmfObject members = {};
    ASSERT_EQ(WriteAmfString(&server, &members, "level", "status"), 0);
    expectLines([&] { return WriteAmfArray(&server, &list, &members); }, {NoProperty("WriteAmfArray")});
    FreeAmfObject(&server, &members, 1);
}

TEST_F(AmfWithoutMemory, EncodeAmfBuffer)
{
    const FailingAllocation failing(1);
    EXPECT_EQ(EncodeAmfBuffer(&server, 1, &list), nullptr);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: EncodeAmfBuffer: Cannot allocate memory to payloadData"});
}

TEST_F(AmfWithoutMemory, AMemberThatCannotBeStoredRefusesTheValuesAroundIt)
{
    const Bytes bytes = Hex("05 03 0001 'a' 05 0001 'b' 05 000009");
    std::string found;
    EXPECT_EQ(DecodeWithFailure(&server, bytes, 4, &found), -1);
    EXPECT_EQ(found, "null");
    EXPECT_EQ(log.lines(),
              (Lines{NoProperty("DecodeAmfBuffer"), "3 ERROR: DecodeAmfBuffer: Corrupted Property"}));
}

TEST_F(AmfWithoutMemory, AnElementThatCannotBeStoredRefusesTheArray)
{
    const Bytes bytes = Hex("0A 00000002 05 06");
    std::string found;
    EXPECT_EQ(DecodeWithFailure(&server, bytes, 3, &found), -1);
    EXPECT_EQ(found, "");
    EXPECT_EQ(log.lines(),
              (Lines{NoProperty("ReadAmfStrictArray"), "3 ERROR: DecodeAmfBuffer: Corrupted Property"}));
}

TEST_F(AmfWithoutMemory, EveryAllocationOfEveryRowThatIsReadMayFail)
{
    for (const AmfRow &row : AmfRows()) {
        SCOPED_TRACE(row.sentence);
        const Bytes bytes = Hex(row.picture);
        std::string found;
        int number = 1;
        while (DecodeWithFailure(&server, bytes, number, &found) == -1) {
            EXPECT_EQ(std::string(row.values).find(found), 0U); // what was read before stays
            EXPECT_NE(log.lines().at(0).find("Cannot allocate memory to amfObjProperty"), std::string::npos);
            log.clear();
            number++;
        }
        EXPECT_EQ(found, row.values);
        EXPECT_EQ(log.lines(), Lines{});
    }
}
