// Values within values, as deep as a peer likes: reading holds a bounded stack, freeing holds none. These
// tests run twice, on the library as the preset compiles it (amf.*) and on amf/ compiled with -O2
// (optimised.amf.*), where the thread they run on has the stack of a small device.
#include "amf/decode.h"
#include "amf/object.h"
#include "net/limits.h"
#include "support/amf_rows.h"
#include "support/capture_logger.h"

#include <gtest/gtest.h>
#include <pthread.h>

// The build of which the names say that it is optimised is.
#if defined(RTMPCAST_OPTIMISED_DEPTH) && !defined(__OPTIMIZE__)
#error "compiled without optimisation"
#endif

namespace {

using Lines = std::vector<std::string>;

const std::string kCorrupted = "3 ERROR: DecodeAmfBuffer: Corrupted Property";

struct AmfDepth : testing::Test {
    AmfDepth()
    {
        server.Logger = log.get();
    }
    CaptureLogger log;
    RtmpServer server = {};
};

// `depth` objects within one another: the first without a name, the others named "n".
Bytes NestedObjects(size_t depth)
{
    Bytes all = Hex("03");
    const Bytes inner = Repeated(Hex("0001 'n' 03"), depth - 1);
    const Bytes ends = Repeated(Hex("000009"), depth);
    all.insert(all.end(), inner.begin(), inner.end());
    all.insert(all.end(), ends.begin(), ends.end());
    return all;
}

Bytes NestedEcmaArrays(size_t depth)
{
    Bytes all = Hex("08 00000001");
    const Bytes inner = Repeated(Hex("0001 'n' 08 00000001"), depth - 1);
    all.insert(all.end(), inner.begin(), inner.end());
    return all;
}

Bytes NestedStrictArrays(size_t depth)
{
    Bytes all = Repeated(Hex("0A 00000001"), depth);
    all.push_back(AMF_NULL);
    return all;
}

int DepthOf(const AmfObject &list)
{
    int depth = 0;
    const AmfObjProperty *prop = list.first;
    while (prop != nullptr && prop->type == AMF_OBJECT) {
        depth++;
        prop = prop->ObjVal.object.first;
    }
    return depth;
}

// Where the compiler optimises and adds nothing to the frames: what a host on a small device may give its
// threads.
#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr size_t kThreadStack = 256 * 1024;
#else
constexpr size_t kThreadStack = 8 * 1024 * 1024;
#endif

struct DepthRun {
    RtmpServer *server;
    Bytes bytes;
    int32_t consumed;
    int depth;
};

void *DecodeAndFree(void *argument)
{
    DepthRun *run = static_cast<DepthRun *>(argument);
    const DecodedAmf decoded(run->server, run->bytes, run->bytes.size());
    run->consumed = decoded.consumed;
    run->depth = DepthOf(decoded.list);
    return nullptr;
}

DepthRun RunOnThreadStack(RtmpServer *server, const Bytes &bytes)
{
    DepthRun run = {server, bytes, 0, 0};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    EXPECT_EQ(pthread_attr_setstacksize(&attributes, kThreadStack), 0);
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, &attributes, DecodeAndFree, &run), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    return run;
}

} // namespace

TEST_F(AmfDepth, TheDeepestLevelIsReadAndFreedOnASmallStack)
{
    for (Bytes (*make)(size_t) : {NestedObjects, NestedEcmaArrays, NestedStrictArrays}) {
        const Bytes bytes = make(kDeepestAmf);
        const DepthRun run = RunOnThreadStack(&server, bytes);
        EXPECT_EQ(run.consumed, static_cast<int32_t>(bytes.size()));
        EXPECT_EQ(run.depth, kDeepestAmf);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(AmfDepth, OneMoreLevelIsACorruptedPropertyOnEveryLevelAroundIt)
{
    const DepthRun run = RunOnThreadStack(&server, NestedObjects(kDeepestAmf + 1));
    EXPECT_EQ(run.consumed, -1);
    EXPECT_EQ(run.depth, 0);
    EXPECT_EQ(log.lines(), Lines(kDeepestAmf + 1, kCorrupted));
}

TEST_F(AmfDepth, OneMoreArrayIsRefusedAlike)
{
    EXPECT_EQ(RunOnThreadStack(&server, NestedEcmaArrays(kDeepestAmf + 1)).consumed, -1);
    EXPECT_EQ(log.lines(), Lines(kDeepestAmf + 1, kCorrupted));
    log.clear();
    EXPECT_EQ(RunOnThreadStack(&server, NestedStrictArrays(kDeepestAmf + 1)).consumed, -1);
    Lines lines(kDeepestAmf, "3 ERROR: ReadAmfStrictArray: Corrupted Property");
    lines.push_back(kCorrupted);
    EXPECT_EQ(log.lines(), lines);
}

TEST_F(AmfDepth, AWholeMessageOfOpeningsIsRefusedOnASmallStack)
{
    const Bytes bytes = Repeated(Hex("0A 00000001"), 3 << 20);
    EXPECT_EQ(RunOnThreadStack(&server, bytes).consumed, -1);
}

TEST_F(AmfDepth, ObjectsSideBySideAreNotDeep)
{
    const Bytes bytes = Repeated(Hex("03 0001 'o' 03 000009 000009"), 5000);
    const DecodedAmf decoded(&server, bytes, bytes.size());
    EXPECT_EQ(decoded.consumed, static_cast<int32_t>(bytes.size()));
    EXPECT_EQ(decoded.list.count, 5000);
}

TEST_F(AmfDepth, AThousandLevelsAreNotTooMany)
{
    static_assert(kDeepestAmf >= 1000);
    const Bytes bytes = NestedStrictArrays(1000);
    EXPECT_EQ(RunOnThreadStack(&server, bytes).depth, 1000);
}

TEST(FreeAmfObject, AMillionObjectsWithinOneAnotherTakeNoStack)
{
    AmfObject list = {};
    ASSERT_EQ(WriteAmfNull(nullptr, &list), 0);
    for (int i = 0; i < 1000000; i++) {
        AmfObject around = {};
        ASSERT_EQ(WriteAmfObject(nullptr, &around, &list), 0);
        list = around;
    }
    FreeAmfObject(nullptr, &list, 1);
    EXPECT_EQ(list.first, nullptr);
}
