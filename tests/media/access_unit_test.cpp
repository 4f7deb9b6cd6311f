#include "media/access_unit.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

namespace {

int IsIdrUnit(const Bytes &unit)
{
    return HasIdrSlice(unit.data(), static_cast<int32_t>(unit.size()));
}

} // namespace

TEST(AccessUnit, AnyNalUnitThatIsAnIdrSliceMakesAKeyFrame)
{
    struct Row {
        const char *sentence;
        const char *unit;
        int isKey;
    };
    static const Row rows[] = {
        {"an IDR slice alone", "00000002 6588", 1},
        {"a slice of another picture", "00000002 4188", 0},
        {"behind a delimiter and an SEI", "00000002 0910 00000003 060501 00000002 6588", 1},
        {"behind parameter sets", "00000002 6742 00000002 68CE 00000002 6588", 1},
        {"parameter sets in front of another slice", "00000002 6742 00000002 68CE 00000002 4188", 0},
        {"the second slice of a picture", "00000002 6588 00000002 6588", 1},
        {"whatever nal_ref_idc is", "00000002 2588", 1},
        {"behind an empty NAL unit", "00000000 00000001 65", 1},
        {"an empty NAL unit has no header", "00000000 65", 0},
        {"a byte that is inside of another NAL unit", "00000008 41 00000002 6588 00", 0},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(IsIdrUnit(Hex(row.unit)), row.isKey) << row.sentence;
    }
}

// Each unit ends where its memory does, so that a sanitizer sees a look beyond it.
TEST(AccessUnit, LengthsThatLieLeadNowhere)
{
    struct Row {
        const char *unit;
        int isKey;
    };
    static const Row rows[] = {
        {"", 0},
        {"00", 0},
        {"00000001", 0},
        {"FFFFFFFF", 0},
        {"FFFFFFFF 65", 1}, // it is there as far as the unit goes
        {"FFFFFFFF 41 00000002 6588", 0},
        {"00000001 41 FFFFFF", 0},
        {"00000001 41 FFFFFFFF 65", 1},
        {"80000000 41", 0},
        {"00000005 41", 0},
        {"00000000 00000000 00000000 0000", 0},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(IsIdrUnit(Hex(row.unit)), row.isKey) << row.unit;
    }
    EXPECT_EQ(HasIdrSlice(nullptr, 0), 0);
    EXPECT_EQ(HasIdrSlice(nullptr, -1), 0);
}

TEST(AccessUnit, EveryCutOfAUnitIsReadWithinItsBounds)
{
    const Bytes whole = Hex("00000002 0910 00000003 060501 00000006 418880808080 00000002 6588");
    for (size_t length = 0; length <= whole.size(); ++length) {
        const Bytes cut = Slice(whole, 0, length);
        EXPECT_EQ(IsIdrUnit(cut), length >= 28 ? 1 : 0) << length;
    }
}
