// Both sides of the handshake before a hostile peer. The first byte chooses the side, the rules and what is
// signed after all bytes have been invented, so that what lies behind a right digest is reached too.
//
//     side:1  sign C1 by scheme 1:1, by scheme 2:1  sign C2:1  rules:2  pieces:2
#include "net/handshake.h"
#include "net/connect_handshake.h"
#include "net/handshake_packets.h"
#include "rtmpcast/player.h"
#include "support/checked_input.h"
#include "support/fuzz_peer.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint8_t kConnects = 1;
constexpr uint8_t kSignsFirst = 2; // of the connecting side: with scheme 1
constexpr uint8_t kSignsSecond = 4;
constexpr uint8_t kSignsC2 = 8;

const uint32_t kHandshakeRules[] = {RTMP_PLAYERS_EXACT, RTMP_PLAYERS_HANDSHAKE,
                                    RTMP_PLAYERS_VERSION | RTMP_PLAYERS_HANDSHAKE, RTMP_PLAYERS_VERSION};
const size_t kPieces[] = {0, 1, 97, 1537};

// A digest at the place that the packet itself names.
void SignFirstPacket(FuzzBytes *packet, uint8_t mode, const char *key, uint32_t keyLength)
{
    if (packet->size() != kPacketLength || (mode & (kSignsFirst | kSignsSecond)) == 0) {
        return;
    }
    const int32_t offset =
        (mode & kSignsFirst) != 0 ? GetDigestPosition1(packet->data()) : GetDigestPosition2(packet->data());
    uint8_t digest[kDigestLength];
    if (offset < 0 || CalculateDigest(static_cast<uint32_t>(offset), packet->data(), BytesOf(key), keyLength,
                                      digest) != 0) {
        abort();
    }
    memcpy(packet->data() + offset, digest, kDigestLength);
}

// C2 as a player signs it: with a key that is the signature of S1's digest.
void SignC2(FuzzBytes *c2, const FuzzBytes &s0AndS1)
{
    if (c2->size() != kPacketLength || s0AndS1.size() < 1 + kPacketLength) {
        return;
    }
    const uint8_t *s1 = s0AndS1.data() + 1;
    uint8_t key[kDigestLength];
    if (HMACsha256(s1 + GetDigestPosition1(s1), kDigestLength, BytesOf(GenuineFPKey), kPlayerKeyLength,
                   key) != 0 ||
        HMACsha256(c2->data(), kSignedLength, key, kDigestLength, c2->data() + kSignedLength) != 0) {
        abort();
    }
}

void Accept(RtmpClient *client, FuzzPeer *peer, FuzzInput input, uint8_t mode)
{
    const size_t piece = kPieces[mode >> 6];
    FuzzBytes first = Take(&input, 1);
    FuzzBytes c1 = Take(&input, kPacketLength);
    SignFirstPacket(&c1, mode, GenuineFPKey, kPlayerBannerLength);
    first.insert(first.end(), c1.begin(), c1.end());
    peer->send(FuzzInput(first.data(), first.size()), piece);
    peer->whenDry = [&] {
        FuzzBytes c2 = Take(&input, kPacketLength);
        if ((mode & kSignsC2) != 0) {
            SignC2(&c2, peer->written());
        }
        peer->send(c2);
    };
    if (PerformHandshake(client) == 0 && peer->written().size() != 1 + 2 * kPacketLength) {
        abort(); // S0, S1 and S2 belong to a handshake that is done
    }
    peer->whenDry = nullptr;
}

void Connect(RtmpClient *client, FuzzPeer *peer, FuzzInput input, uint8_t mode)
{
    FuzzBytes all = Take(&input, 1);
    FuzzBytes s1 = Take(&input, kPacketLength);
    SignFirstPacket(&s1, mode, GenuineFMSKey, kServerBannerLength);
    all.insert(all.end(), s1.begin(), s1.end());
    const FuzzBytes rest = Rest(&input);
    all.insert(all.end(), rest.begin(), rest.end());
    peer->send(FuzzInput(all.data(), all.size()), kPieces[mode >> 6]);
    if (ConnectHandshake(client, (mode & kSignsC2) != 0) == 0 &&
        peer->written().size() != 1 + 2 * kPacketLength) {
        abort(); // C0, C1 and C2
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static RtmpServer server = {};
    server.Logger = QuietLogger();
    srand(1);
    FuzzInput input(data, size);
    const uint8_t mode = input.byte();
    FuzzPeer peer;
    RtmpClient client = {};
    client.Server = &server;
    client.Socket = peer.socket();
    client.PlayerFlags = kHandshakeRules[mode >> 4 & 3];
    if ((mode & kConnects) != 0) {
        Connect(&client, &peer, input, mode);
    } else {
        Accept(&client, &peer, input, mode);
    }
    return 0;
}
