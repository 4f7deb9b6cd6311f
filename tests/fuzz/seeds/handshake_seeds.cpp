// Handshakes in all modes, cut where a packet ends, and with digests at both ends of both schemes.
#include "seed_folder.h"

namespace {

constexpr size_t kShakePacket = 1536;

// A packet whose digest lies `at` bytes behind the first place that the scheme knows; `sumAt`: its four
// bytes.
Bytes PacketWithOffset(size_t sumAt, uint32_t at)
{
    Bytes packet(kShakePacket, 0x2A);
    for (size_t i = 0; i < 4; i++) {
        packet[sumAt + i] = static_cast<uint8_t>(std::min(at, 255U));
        at -= packet[sumAt + i];
    }
    return packet;
}

} // namespace

void Seeds_handshake(SeedFolder &folder)
{
    const Bytes version = {3};
    const Bytes plain(kShakePacket, 0);
    for (int mode = 0; mode < 256; mode += 17) { // each bit, set and not
        folder.write("mode_" + std::to_string(mode),
                     Bytes{static_cast<uint8_t>(mode)} + version + plain + plain);
    }
    for (const uint8_t side : {uint8_t(0x0A), uint8_t(0x0B)}) { // signed by scheme 1, C2 too
        const std::string name = side & 1 ? "connect_" : "accept_";
        for (const uint32_t at : {0U, 727U}) {
            folder.write(name + "first_" + std::to_string(at),
                         Bytes{side} + version + PacketWithOffset(8, at) + plain);
            const uint8_t second = static_cast<uint8_t>(side ^ 6);
            folder.write(name + "second_" + std::to_string(at),
                         Bytes{second} + version + PacketWithOffset(772, at) + plain);
        }
        for (const uint8_t wrong : {0, 2, 6, 8, 255}) {
            folder.write(name + "version_" + std::to_string(wrong), Bytes{side, wrong} + plain + plain);
        }
        folder.write(name + "nothing", Bytes{side});
        folder.write(name + "one_packet", Bytes{side} + version + plain);
        folder.write(name + "half_a_packet", Bytes{side} + version + Slice(plain, 0, 700));
    }
}
