// RtmpServiceSettings when memory, threads or sockets fail: its codes, and a server that is as it was.
#include "support/calls.h"
#include "support/test_server.h"

using namespace wire;

namespace {

struct Row {
    const char *sentence;
    Call call;
    int number;
    int code;
    const char *line;
};

constexpr Row kRows[] = {
    {"no memory", Call::Calloc, 1, RTMP_ERR_MEMORY, "Cannot allocate memory to the service"},
    {"no keeper", Call::ThreadCreate, 1, RTMP_ERR_THREAD_CREATE,
     "Cannot create the keeper's thread, or open its descriptors"},
    {"no socket", Call::Socket, 1, RTMP_ERR_SOCKET, "Cannot create the socket of TLS"},
    {"no port", Call::Bind, 1, RTMP_ERR_BIND, "Cannot bind the socket of TLS to port 4433"},
    {"no queue", Call::Listen, 1, RTMP_ERR_LISTEN, "Cannot listen on port 4433"},
    {"no thread of TLS", Call::ThreadCreate, 2, RTMP_ERR_THREAD_CREATE, "Cannot create the thread of TLS"},
};

} // namespace

TEST(ServiceSettingsFailing, EachFailureHasItsCodeAndLeavesTheServerAsItWas)
{
    RtmpServiceLimits limits = {};
    limits.TlsPort = 4433; // the kit binds to a port of the system's choice
    for (const Row &row : kRows) {
        TestServer server;
        const size_t descriptors = wire::OpenDescriptors();
        const size_t threads = RunningThreads();
        {
            const FailingCall failing(row.call, row.number);
            EXPECT_EQ(RtmpServiceSettings(server.server, &limits), row.code) << row.sentence;
        }
        EXPECT_TRUE(server.log.contains(std::string("3 ERROR: RtmpServiceSettings: ") + row.line))
            << row.sentence;
        EXPECT_EQ(server.log.count("RtmpServiceSettings"), 1u) << row.sentence;
        EXPECT_EQ(wire::OpenDescriptors(), descriptors) << row.sentence;
        EXPECT_TRUE(WaitUntil([&] { return RunningThreads() <= threads; })) << row.sentence;
        EXPECT_EQ(RtmpServiceSettings(server.server, &limits), 0) << row.sentence;
    }
}
