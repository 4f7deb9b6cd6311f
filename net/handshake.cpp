#include "net/handshake.h"

#include "net/byte_order.h"
#include "net/byte_writer.h"
#include "net/handshake_packets.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/record.h"
#include "net/scope.h"
#include "net/socket_io.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace {

// Everything a handshake works on, in one heap record: a serve thread's stack stays small for the life of
// its connection.
struct Handshake {
    uint8_t C0;
    uint8_t S0;
    uint8_t Packet[kPacketLength]; // S1; then C1, which becomes S2; then C2
    uint8_t ServerDigest[kDigestLength];
    uint8_t Key[kDigestLength]; // made for one signature
    uint8_t Digest[kDigestLength];
};

int32_t DigestPosition(const uint8_t *packet, uint32_t sumAt, uint32_t base)
{
    const uint32_t sum = 0U + packet[sumAt] + packet[sumAt + 1] + packet[sumAt + 2] + packet[sumAt + 3];
    const uint32_t offset = sum % 728 + base;
    return offset < kSignedLength ? static_cast<int32_t>(offset) : -1;
}

// One write; whatever does not go out whole has failed.
bool SendWhole(RtmpClient *client, const uint8_t *bytes, uint32_t length)
{
    const int sent = SendClientBytes(client, bytes, length);
    return sent >= 0 && static_cast<uint32_t>(sent) == length;
}

int ReadC0(RtmpClient *client, Handshake *shake, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    if (ReadNoOfBytes(client, &shake->C0, 1) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot read C0 packet from client\n", who);
        return -1;
    }
    if (shake->C0 != kProtocolVersion) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: RTMP protocol version (%x) not supported\n", who,
                     static_cast<unsigned>(shake->C0));
        return -1;
    }
    return 0;
}

// time:32  3 5 1 1  random:1528 bytes. The digest comes later, over the random bytes.
void FillS1(const RtmpClient *client, Handshake *shake)
{
    ByteWriter out = WriterOver(shake->Packet, sizeof shake->Packet);
    PutU32Be(&out, static_cast<uint32_t>(RtmpGetSystemTime()));
    PutU8(&out, 3);
    PutU8(&out, 5);
    PutU8(&out, 1);
    PutU8(&out, 1);
    for (uint32_t i = 0; i < kRandomWords; i++) {
        const uint32_t word = static_cast<uint32_t>(rand());
        PutBytes(&out, &word, sizeof word);
    }

    // KEPT: two words more than S1 holds are drawn, and S0 is the top byte of the second, 0 to 127, instead
    // of the version number (RTMP 1.0, 5.2.2). Required: it is a byte on the wire.
    (void)rand();
    shake->S0 = static_cast<uint8_t>(static_cast<uint32_t>(rand()) >> 24);
    if (Allows(client, RULE_VERSION_IN_S0)) {
        shake->S0 = kProtocolVersion;
    }
}

int SignS1(RtmpClient *client, Handshake *shake, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const int32_t offset = GetDigestPosition1(shake->Packet);
    if (offset < 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot get digest key position\n", who);
        return -1;
    }
    if (CalculateDigest(static_cast<uint32_t>(offset), shake->Packet, BytesOf(GenuineFMSKey),
                        kServerBannerLength, shake->ServerDigest) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot calculate Genuine FMS key digest\n", who);
        return -1;
    }
    memcpy(shake->Packet + offset, shake->ServerDigest, kDigestLength);
    return 0;
}

int SendS0AndS1(RtmpClient *client, const Handshake *shake, const char *who)
{
    if (!SendWhole(client, &shake->S0, 1)) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot send S0 packet to client\n",
                     who);
        return -1;
    }
    if (!SendWhole(client, shake->Packet, kPacketLength)) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot send S1 packet to client\n",
                     who);
        return -1;
    }
    return 0;
}

// FindPlayerDigest returns the offset at which C1 is signed, or -1.
int32_t FindPlayerDigest(const uint8_t *c1)
{
    // KEPT: any non-zero answer counts as signed, also that of a digest that could not be computed. Required.
    // C2 has to be signed as well.
    const int32_t first = GetDigestPosition1(c1);
    if (CompareDigest(static_cast<uint32_t>(first), c1, BytesOf(GenuineFPKey), kPlayerBannerLength) != 0) {
        return first;
    }
    const int32_t second = GetDigestPosition2(c1);
    if (CompareDigest(static_cast<uint32_t>(second), c1, BytesOf(GenuineFPKey), kPlayerBannerLength) != 0) {
        return second;
    }
    return -1;
}

// SignPacket computes into Digest what belongs into the last 32 bytes of Packet: its first 1504 bytes signed
// with a key that is itself the signature of `seed`.
int SignPacket(RtmpClient *client, Handshake *shake, const uint8_t *seed, const uint8_t *key,
               uint32_t keyLength, const char *who)
{
    if (HMACsha256(seed, kDigestLength, key, keyLength, shake->Key) != 0 ||
        HMACsha256(shake->Packet, kSignedLength, shake->Key, kDigestLength, shake->Digest) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot generate digest\n", who);
        return -1;
    }
    return 0;
}

int SendS2(RtmpClient *client, const Handshake *shake, const char *who)
{
    if (!SendWhole(client, shake->Packet, kPacketLength)) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot send S2 packet to client\n",
                     who);
        return -1;
    }
    return 0;
}

// AnswerSignedC1: C1, signed at `offset`, becomes S2: its first 1504 bytes as they came, and a signature.
int AnswerSignedC1(RtmpClient *client, Handshake *shake, int32_t offset, const char *who)
{
    if (SignPacket(client, shake, shake->Packet + offset, BytesOf(GenuineFMSKey), kServerKeyLength, who) !=
        0) {
        return -1;
    }
    memcpy(shake->Packet + kSignedLength, shake->Digest, kDigestLength);
    return SendS2(client, shake, who);
}

// AnswerPlainC1: S2 is C1 as it came. Its second time, which RTMP 1.0, 5.2.4 leaves to the server, stays the
// player's too: some players compare the whole packet.
int AnswerPlainC1(RtmpClient *client, const Handshake *shake, const char *who)
{
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_INFO, "INFO: %s: Client handshake is not signed\n", who);
    return SendS2(client, shake, who);
}

int AnswerC1(RtmpClient *client, Handshake *shake, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    if (ReadNoOfBytes(client, shake->Packet, kPacketLength) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot read C1 packet from client\n", who);
        return -1;
    }
    const int32_t offset = FindPlayerDigest(shake->Packet);
    if (offset >= 0) {
        return AnswerSignedC1(client, shake, offset, who);
    }
    if (Allows(client, RULE_PLAIN_HANDSHAKE)) {
        return AnswerPlainC1(client, shake, who);
    }
    // KEPT: misspelt. Required; changes a log line.
    RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot varify the client digest\n", who);
    return -1;
}

int ReadC2(RtmpClient *client, Handshake *shake, const char *who)
{
    if (ReadNoOfBytes(client, shake->Packet, kPacketLength) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot read C2 packet from client\n", who);
        return -1;
    }
    return 0;
}

int VerifyC2(RtmpClient *client, Handshake *shake, const char *who)
{
    if (SignPacket(client, shake, shake->ServerDigest, BytesOf(GenuineFPKey), kPlayerKeyLength, who) != 0) {
        return -1;
    }
    if (memcmp(shake->Packet + kSignedLength, shake->Digest, kDigestLength) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Client is not a genuine Adobe\n",
                     who);
        return -1;
    }
    return 0;
}

// TakeC2: by RTMP 1.0, 5.2.4 C2 is an echo of S1. What a player puts there in truth differs too much to
// refuse anybody for it, so with the plain handshake allowed it may hold anything, behind a signed C1 too.
int TakeC2(RtmpClient *client, Handshake *shake, const char *who)
{
    if (ReadC2(client, shake, who) != 0) {
        return -1;
    }
    return Allows(client, RULE_PLAIN_HANDSHAKE) ? 0 : VerifyC2(client, shake, who);
}

} // namespace

int32_t GetDigestPosition1(const uint8_t *packet)
{
    return DigestPosition(packet, 8, 12);
}

int32_t GetDigestPosition2(const uint8_t *packet)
{
    return DigestPosition(packet, 772, 776);
}

int HMACsha256(const uint8_t *data, uint32_t length, const uint8_t *key, uint32_t keyLength, uint8_t *digest)
{
    unsigned digestLength = 0;
    const unsigned char *made =
        HMAC(EVP_sha256(), key, static_cast<int>(keyLength), data, length, digest, &digestLength);
    return made != nullptr && digestLength == kDigestLength ? 0 : -1;
}

int CalculateDigest(uint32_t offset, const uint8_t *packet, const uint8_t *key, uint32_t keyLength,
                    uint8_t *digest)
{
    if (offset >= kSignedLength) {
        return -1;
    }
    FREE_AT_EXIT uint8_t *joined = NewArray<uint8_t>(kSignedLength);
    if (joined == nullptr) {
        return -1;
    }
    ByteWriter out = WriterOver(joined, kSignedLength);
    PutBytes(&out, packet, offset);
    PutBytes(&out, packet + offset + kDigestLength, kSignedLength - offset);
    return HMACsha256(joined, kSignedLength, key, keyLength, digest);
}

uint8_t CompareDigest(uint32_t offset, const uint8_t *packet, const uint8_t *key, uint32_t keyLength)
{
    uint8_t digest[kDigestLength];
    if (CalculateDigest(offset, packet, key, keyLength, digest) != 0) {
        return 255;
    }
    return memcmp(packet + offset, digest, kDigestLength) == 0 ? 1 : 0;
}

int ReadNoOfBytes(RtmpClient *client, uint8_t *buffer, uint32_t length)
{
    if (client->ConnType == RTMP_CONN_RTMPT) {
        return 0;
    }
    return ReadClientBytes(client, buffer, length);
}

int PerformHandshake(RtmpClient *client)
{
    FREE_AT_EXIT Handshake *shake = NewRecord<Handshake>();
    if (shake == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to handshake packets\n", __func__);
        return -1;
    }
    if (ReadC0(client, shake, __func__) != 0) {
        return -1;
    }
    FillS1(client, shake);
    if (SignS1(client, shake, __func__) != 0 || SendS0AndS1(client, shake, __func__) != 0 ||
        AnswerC1(client, shake, __func__) != 0 || TakeC2(client, shake, __func__) != 0) {
        return -1;
    }
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_INFO, "INFO: %s: Handshake done\n", __func__);
    return 0;
}
