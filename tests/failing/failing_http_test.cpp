// A request of the tunnel without memory: every allocation fails in its turn, with the line of its place.
#include "rtmpt/http_request.h"
#include "support/calls.h"
#include "support/capture_logger.h"

#include <gtest/gtest.h>

namespace {

struct HttpRow {
    const char *what;
    const char *line;
    bool isThere; // a request whose headers could not be kept is a request
};

} // namespace

TEST(HttpRequestFailing, EveryAllocationIsNamed)
{
    const HttpRow rows[] = {
        {"the request", "Cannot allocate memory to reqMsg", false},
        {"its method", "Cannot Allocate Memory for tempArray Pointer", false},
        {"its target", "Cannot Allocate Memory for Message URI Pointer", false},
        {"its command", "Cannot Allocate Memory for tempArray Pointer", false},
        {"its version", "Cannot Allocate Memory for Message URI Pointer", false},
        {"a header's name", "Memory Allocation Failed", true},
        {"a header's value", "Memory Allocation Failed", true},
    };
    const std::string text = "POST /send/7/1 HTTP/1.1\r\nHost: a\r\n\r\n";
    CaptureLogger log;
    RtmpServer server = {};
    RtmpClient client = {};
    server.Logger = log.get();
    client.Server = &server;
    const auto parse = [&client, &text] {
        return ParseHttpReqMsg(&client, reinterpret_cast<const uint8_t *>(text.data()),
                               static_cast<uint32_t>(text.size()));
    };
    int number = 0;
    for (const HttpRow &row : rows) {
        SCOPED_TRACE(row.what);
        log.clear();
        HttpReqMsg *request = nullptr;
        {
            const FailingAllocation failing(++number);
            request = parse();
        }
        EXPECT_EQ(request != nullptr, row.isThere);
        EXPECT_EQ(log.lines(),
                  std::vector<std::string>{std::string("3 ERROR: ParseHttpReqMsg: ") + row.line});
        FreeHttpReqMsg(request);
    }
    const FailingAllocation counted(0);
    HttpReqMsg *request = parse();
    EXPECT_EQ(counted.seen(), number);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->headerCount, 1);
    FreeHttpReqMsg(request);
}
