// Commands of very many values: what they cost while they are handled goes with them.
#include "serve/served_peer.h"
#include "support/large.h"

#include <malloc.h>
#include <thread>

namespace {

class ManyValues : public testing::TestWithParam<size_t> {};

// 0 under the sanitizers, whose leak checker looks instead.
size_t AllocatedByAll()
{
    return mallinfo2().uordblks + mallinfo2().hblkhd;
}

void ExpectServed(const Served &way, size_t values)
{
    ServedRig served(way);
    const Bytes payload = Hex("02 0001 'x'") + Bytes(values - 1, AMF_NULL); // the name is one of them
    const Bytes bytes = wire::Chunks({.payload = payload}, payload.size());
    const size_t before = AllocatedByAll();
    {
        ServedPeer peer(served.rig, way);
        peer.client->InChunkSize = 0x7FFFFFFF;
        std::thread sending([&] {
            peer.sendUntilRefused(bytes);
            peer.finish();
        });
        const bool isTooLong =
            way.steady && payload.size() > peer.client->Line->Service->Limits.AssemblyBytes;
        EXPECT_EQ(peer.round(), isTooLong ? ROUND_ERROR : ROUND_AGAIN);
        EXPECT_EQ(served.rig.log.count("Unsupported command message: x"), isTooLong ? 0U : 1U);
        EXPECT_EQ(peer.hasEnded(), isTooLong || !way.standard());
        peer.stopReading();
        sending.join();
    }
    EXPECT_LE(AllocatedByAll(), before + (1 << 20));
    served.expectAlone();
}

} // namespace

TEST_P(ManyValues, AreHandledAndGoWithTheirMessage)
{
    for (const Served &way : kEveryServed) {
        SCOPED_TRACE(way.name);
        ExpectServed(way, GetParam());
    }
}

// Sixteen million take more than a gigabyte for as long as they are handled.
INSTANTIATE_TEST_SUITE_P(Of, ManyValues, testing::Values(65534, 65535, 65536, UnlessLarge(400000, 16000000)),
                         [](const testing::TestParamInfo<size_t> &row) {
                             return row.param < 400000 ? std::to_string(row.param) : std::string("Many");
                         });
