#include "media/access_unit.h"

#include "media/h264.h"
#include "net/byte_order.h"

namespace {

constexpr uint8_t kNalTypeMask = 0x1F;
constexpr uint8_t kIdrSlice = 5;

} // namespace

int HasIdrSlice(const uint8_t *data, int32_t length)
{
    const uint64_t end = length > 0 ? static_cast<uint64_t>(length) : 0;
    uint64_t at = 0;
    while (at + kNalLengthSize < end) {
        const uint64_t nalLength = GetU32Be(data + at);
        at += kNalLengthSize;
        if (nalLength > 0 && (data[at] & kNalTypeMask) == kIdrSlice) {
            return 1;
        }
        at += nalLength; // at most 2^32 beyond the end of 2^31: no overflow
    }
    return 0;
}
