#include "amf/value_writer.h"
#include "support/amf_bytes.h"

namespace {

Bytes Written(uint8_t *buffer, const ByteWriter &out)
{
    return Bytes(buffer, out.Next);
}

void PutThree(ByteWriter *out)
{
    MemberWriter array = BeginEcmaArray(out);
    PutNumberMember(&array, "width", 1280);
    PutBooleanMember(&array, "stereo", true);
    PutBooleanMember(&array, "", false);
    EndMembers(&array);
}

} // namespace

TEST(AmfEcmaArray, MembersAreWholeAndCounted)
{
    uint8_t buffer[64];
    ByteWriter out = WriterOver(buffer, sizeof buffer);
    PutThree(&out);
    EXPECT_FALSE(out.Overrun);
    EXPECT_TRUE(Same(Written(buffer, out), Hex("08 00000003  0005 'width' 00 4094000000000000"
                                               "0006 'stereo' 01 01  0000 01 00  0000 09")));
    EXPECT_TRUE(Same(Written(buffer, out), amf0::EcmaArray({{"width", amf0::Number(1280)},
                                                            {"stereo", amf0::Boolean(true)},
                                                            {"", amf0::Boolean(false)}})
                                               .bytes));
}

TEST(AmfEcmaArray, OneWithoutMembers)
{
    uint8_t buffer[64];
    ByteWriter out = WriterOver(buffer, sizeof buffer);
    MemberWriter array = BeginEcmaArray(&out);
    EndMembers(&array);
    EXPECT_TRUE(Same(Written(buffer, out), Hex("08 00000000 0000 09")));
}

TEST(AmfEcmaArray, WithoutRoomNothingIsWrittenOutside)
{
    const size_t whole = 5 + 16 + 10 + 4 + 3;
    for (size_t room = 0; room <= whole; room++) {
        const std::unique_ptr<uint8_t[]> buffer(new uint8_t[room]);
        ByteWriter out = WriterOver(buffer.get(), room);
        PutThree(&out);
        EXPECT_EQ(out.Overrun, room < whole) << room;
    }
}

TEST(AmfEcmaArray, ATextThatItsLengthCannotCountOverruns)
{
    std::vector<uint8_t> buffer(70000);
    for (const size_t length : {65535, 65536, 65600}) {
        ByteWriter out = WriterOver(buffer.data(), buffer.size());
        PutTextValue(&out, std::string(length, 'x').c_str());
        EXPECT_EQ(out.Overrun, length > 65535) << length;
        EXPECT_EQ(out.Next - buffer.data(), length > 65535 ? 1 : 3 + 65535) << length;
    }
}
