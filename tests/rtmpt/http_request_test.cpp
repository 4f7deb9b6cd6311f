#include "rtmpt/http_request.h"

#include "support/capture_logger.h"
#include "support/host_fakes.h"
#include "support/produced.h"

#include <cstring>
#include <functional>
#include <memory>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace std::string_literals;

namespace {

struct RequestDeleter {
    void operator()(HttpReqMsg *reqMsg) const
    {
        FreeHttpReqMsg(reqMsg);
    }
};
using Request = std::unique_ptr<HttpReqMsg, RequestDeleter>;

class HttpRequest : public testing::Test {
  protected:
    void SetUp() override
    {
        server_.Logger = log_.get();
        client_.Server = &server_;
    }
    // The copy ends where the request ends, for the address sanitizer to watch.
    Request parse(const std::string &text)
    {
        produced::Note("request", text);
        const std::vector<uint8_t> exact(text.begin(), text.end());
        return Request(ParseHttpReqMsg(&client_, exact.data(), static_cast<uint32_t>(exact.size())));
    }
    // How many headers are read where the first, of that length, leaves a second line of 8 bytes.
    template <size_t Count> void expectHeaders(const std::pair<const char *, int> (&rows)[Count])
    {
        for (const auto &[length, headers] : rows) {
            const Request request =
                parse("POST /open/1 HTTP/1.1\r\nContent-Length: " + std::string(length) + "\r\nAb: cd\r\n");
            ASSERT_NE(request, nullptr);
            EXPECT_EQ(request->headerCount, headers) << length;
        }
    }
    CaptureLogger log_;
    RtmpServer server_ = {};
    RtmpClient client_ = {};
};

const std::vector<std::string> kInvalidMethod = {
    "3 ERROR: ParseHttpReqMsg: Invalid Method received from client"};

std::string Repeat(int times, const std::function<std::string(int)> &line)
{
    std::string out;
    for (int i = 0; i < times; i++) {
        out += line(i);
    }
    return out;
}

uint32_t Find(const char *text, char wanted, char stop, int32_t len)
{
    return FindCharInBuffer(reinterpret_cast<const uint8_t *>(text), static_cast<uint8_t>(wanted),
                            static_cast<uint8_t>(stop), len);
}

} // namespace

TEST(IdentifyMethod, ComparesPrefixes)
{
    EXPECT_EQ(IdentifyMethod("open"), 0U);
    EXPECT_EQ(IdentifyMethod("opened"), 0U);
    EXPECT_EQ(IdentifyMethod("idle"), 1U);
    EXPECT_EQ(IdentifyMethod("idleX"), 1U);
    EXPECT_EQ(IdentifyMethod("send"), 2U);
    EXPECT_EQ(IdentifyMethod("close"), 3U);
    EXPECT_EQ(IdentifyMethod("closed"), 3U);
    EXPECT_EQ(IdentifyMethod("clos"), 4U);
    EXPECT_EQ(IdentifyMethod(""), 4U);
    EXPECT_EQ(IdentifyMethod("Open"), 4U);
    EXPECT_EQ(IdentifyMethod("fcs"), 4U);
}

TEST(FindCharInBuffer, ReturnsThePositionOrZero)
{
    EXPECT_EQ(Find("abc", 'b', '\r', 3), 1U);
    EXPECT_EQ(Find("abc", 'c', '\r', 3), 2U);
    EXPECT_EQ(Find("abc", 'c', '\r', 2), 0U); // beyond the length
    EXPECT_EQ(Find("a\rc", 'c', '\r', 3), 0U);
    EXPECT_EQ(Find("abc", 'a', '\r', 3), 0U); // the same as not found
    EXPECT_EQ(Find("abc", 'x', '\r', 3), 0U);
    EXPECT_EQ(Find("\r\r", '\r', '\r', 2), 0U);
}

TEST(FindCharInBuffer, LooksAtTheFirstByteWhateverTheLength)
{
    const uint8_t one[1] = {'a'};
    EXPECT_EQ(FindCharInBuffer(one, 'a', 'b', 0), 0U);
    EXPECT_EQ(FindCharInBuffer(one, 'x', 'a', 0), 0U);
    EXPECT_EQ(FindCharInBuffer(one, 'x', 'y', -5), 0U);
}

TEST_F(HttpRequest, AnIdleRequestIsParsedWhole)
{
    const Request request = parse(std::string("POST /idle/42/7 HTTP/1.1\r\nContent-Length: 1\r\n\r\n\0", 49));
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->command, 1U);
    EXPECT_EQ(request->sessionId, 42U);
    EXPECT_STREQ(request->uri, "/idle/42/7");
    EXPECT_STREQ(request->version, "HTTP/1.1");
    ASSERT_EQ(request->headerCount, 1);
    EXPECT_STREQ(request->headers[0].name, "Content-Length");
    EXPECT_STREQ(request->headers[0].value, "1");
    EXPECT_EQ(request->headers[1].name, nullptr);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HttpRequest, EveryCommandIsKnown)
{
    const std::pair<const char *, uint32_t> rows[] = {
        {"/open/1", 0}, {"/idle/1/2", 1}, {"/send/1/2", 2}, {"/close/1/2", 3}, {"/opened/1", 0}};
    for (const auto &[target, command] : rows) {
        const Request request = parse("POST " + std::string(target) + " HTTP/1.1\r\n\r\n");
        ASSERT_NE(request, nullptr) << target;
        EXPECT_EQ(request->command, command);
        EXPECT_EQ(request->sessionId, 1U);
        EXPECT_EQ(request->headerCount, 0);
    }
}

TEST_F(HttpRequest, OnlyPostIsAccepted)
{
    EXPECT_EQ(parse("GET /open/1 HTTP/1.1\r\n\r\n"), nullptr);
    EXPECT_EQ(log_.lines(), kInvalidMethod);
    log_.clear();
    EXPECT_EQ(parse("POS /open/1 HTTP/1.1\r\n\r\n"), nullptr);
    EXPECT_EQ(log_.lines(), kInvalidMethod);
    log_.clear();
    EXPECT_NE(parse("POSTED /open/1 HTTP/1.1\r\n\r\n"), nullptr); // four bytes are compared
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HttpRequest, ATargetWithoutACompleteCommandIsAnInvalidMethod)
{
    for (const char *target : {"/open", "/", "x", "open", "//1", "/fcs/ident2", "/clos/1"}) {
        log_.clear();
        EXPECT_EQ(parse("POST " + std::string(target) + " HTTP/1.1\r\n\r\n"), nullptr) << target;
        EXPECT_EQ(log_.lines(), kInvalidMethod) << target;
    }
    log_.clear();
    EXPECT_EQ(parse(std::string("POST /open\0/1 HTTP/1.1\r\n\r\n", 26)), nullptr);
    EXPECT_EQ(log_.lines(), kInvalidMethod);
}

TEST_F(HttpRequest, TheSessionIdIsReadAsAtoiWould)
{
    const std::pair<const char *, uint32_t> rows[] = {{"/idle/123/4", 123},
                                                      {"/idle/0042", 42},
                                                      {"/idle/7x/4", 7},
                                                      {"/idle//4", 0},
                                                      {"/idle/", 0},
                                                      {"/idle/-1/0", 0xFFFFFFFF},
                                                      {"/idle/4294967297/0", 1},
                                                      {"/idle/99999999999999999999999/0", 0xFFFFFFFF}};
    for (const auto &[target, id] : rows) {
        const Request request = parse("POST " + std::string(target) + " HTTP/1.1\r\n\r\n");
        ASSERT_NE(request, nullptr) << target;
        EXPECT_EQ(request->sessionId, id) << target;
    }
}

TEST_F(HttpRequest, ARequestLineThatIsCutEndsSilently)
{
    for (const char *text : {"", " ", "POST", "POST\r\n", "POST ", "POST  /open/1 HTTP/1.1\r\n",
                             "POST /open/1", "POST /open/1\r\n", "POST /open/1 ", "POST /open/1 HTTP/1.1",
                             "POST /open/1 HTTP/1.1\n", "POST /open/1 \r\n", " POST /open/1 HTTP/1.1\r\n"}) {
        EXPECT_EQ(parse(text), nullptr) << text;
        EXPECT_TRUE(log_.lines().empty()) << text;
    }
}

TEST_F(HttpRequest, HeadersKeepTheirOrderAndTheBodyIsNoHeader)
{
    const Request request = parse("POST /send/9/1 HTTP/1.1\r\n"
                                  "User-Agent: Shockwave Flash\r\n"
                                  "Content-Length: 12\r\n"
                                  "Host: a:b\r\n"
                                  "\r\n"
                                  "Not: header\r");
    ASSERT_NE(request, nullptr);
    ASSERT_EQ(request->headerCount, 3);
    EXPECT_STREQ(request->headers[0].name, "User-Agent");
    EXPECT_STREQ(request->headers[0].value, "Shockwave Flash");
    EXPECT_STREQ(request->headers[2].name, "Host");
    EXPECT_STREQ(request->headers[2].value, "a:b");
}

TEST_F(HttpRequest, AHeaderWithoutASpaceLosesTheFirstByteOfItsValue)
{
    const Request two = parse("POST /open/1 HTTP/1.1\r\nContent-Length:57\r\nA: b\r\n\r\n");
    ASSERT_NE(two, nullptr);
    ASSERT_EQ(two->headerCount, 2);
    EXPECT_STREQ(two->headers[0].value, "7");
    const Request one = parse("POST /open/1 HTTP/1.1\r\nContent-Length:5\r\nA: b\r\n\r\n");
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one->headerCount, 0); // nothing is left of the value, and the reading ends
    EXPECT_EQ(one->headers[0].name, nullptr);
}

TEST_F(HttpRequest, AHeaderLineThatCannotBeReadEndsTheReading)
{
    for (const char *line : {"no colon\r\n", ": v\r\n", "A: \r\n", "A:\r\n", "A: v\n", "A: v", "A:", "A"}) {
        const Request request = parse("POST /open/1 HTTP/1.1\r\nFirst: 1\r\n" + std::string(line));
        ASSERT_NE(request, nullptr) << line;
        EXPECT_EQ(request->headerCount, 1) << line;
        EXPECT_EQ(request->headers[1].name, nullptr) << line;
        EXPECT_EQ(request->headers[1].value, nullptr) << line;
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HttpRequest, TheNameContentLengthIsCaseSensitive)
{
    // With its length known, the seven bytes behind it would be the body.
    const char *rest = "Ab: cd\r\n";
    const Request exact = parse("POST /open/1 HTTP/1.1\r\nContent-Length: 8\r\n" + std::string(rest));
    ASSERT_NE(exact, nullptr);
    EXPECT_EQ(exact->headerCount, 1);
    const Request other = parse("POST /open/1 HTTP/1.1\r\ncontent-length: 8\r\n" + std::string(rest));
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->headerCount, 2);
}

TEST_F(HttpRequest, TwoBytesMoreThanThereAreCountAsLeft)
{
    // 8 bytes are left and 10 count: 8 + 2 stops, 7 + 2 does not. Counted exactly, 6 + 2 would stop too.
    const std::pair<const char *, int> rows[] = {{"8", 1}, {"7", 2},  {"6", 2},
                                                 {"0", 2}, {"-9", 2}, {"99", 1}};
    expectHeaders(rows);
}

// As atoi of the C library has it: what does not fit 64 bits stays at their end, and 32 bits of it count.
TEST_F(HttpRequest, AHugeContentLengthCountsByItsLow32Bits)
{
    const std::pair<const char *, int> rows[] = {
        {"2147483647", 1},
        {"2147483648", 2}, // 2^31: less than none
        {"4294967295", 2},
        {"4294967296", 2}, // 2^32: none
        {"4294967303", 2},
        {"4294967304", 1},           // 2^32 + 8
        {"9223372036854775807", 2},  // 2^63 - 1: -1
        {"99999999999999999999", 2}, // the same
        {"-2147483648", 2},
        {"-2147483649", 1},           // 2^31 - 1
        {"-99999999999999999999", 2}, // -2^63: none
    };
    expectHeaders(rows);
}

TEST_F(HttpRequest, ANulEndsTheTextThatItStandsIn)
{
    const Request line = parse("POST\0x /idle/4\0002/7 HTTP/1.1\0x\r\n\r\n"s);
    ASSERT_NE(line, nullptr);
    EXPECT_STREQ(line->uri, "/idle/4");
    EXPECT_EQ(line->sessionId, 4U);
    EXPECT_STREQ(line->version, "HTTP/1.1");
    const Request header = parse("POST /open/1 HTTP/1.1\r\nA\0b: c\0d\r\nE: f\r\n"s);
    ASSERT_NE(header, nullptr);
    ASSERT_EQ(header->headerCount, 2);
    EXPECT_STREQ(header->headers[0].name, "A");
    EXPECT_STREQ(header->headers[0].value, "c");
    EXPECT_STREQ(header->headers[1].name, "E");
    // 8 bytes are left behind each, as above.
    const std::pair<std::string, int> rows[] = {
        {"Content-Length\0x: 8"s, 1}, {"Content-Length: 8\0"s, 1}, {"Content-Length: \0008"s, 2}};
    for (const auto &[length, headers] : rows) {
        const Request request = parse("POST /open/1 HTTP/1.1\r\n" + length + "\r\nAb: cd\r\n");
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->headerCount, headers) << length;
    }
    EXPECT_TRUE(log_.lines().empty());
    EXPECT_EQ(parse("PO\0T /open/1 HTTP/1.1\r\n\r\n"s), nullptr);
    EXPECT_EQ(log_.lines(), kInvalidMethod);
}

TEST_F(HttpRequest, OfTwoContentLengthsEachCountsWhereItStands)
{
    // As above: 99 ends the reading in front of the last header, 0 does not.
    const struct {
        const char *first, *second;
        int headers;
    } rows[] = {{"0", "99", 2}, {"99", "0", 1}, {"0", "0", 3}, {"-1", "-2147483648", 3}};
    for (const auto &[first, second, headers] : rows) {
        const Request request = parse("POST /open/1 HTTP/1.1\r\nContent-Length: " + std::string(first) +
                                      "\r\nContent-Length: " + second + "\r\nAb: cd\r\n");
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->headerCount, headers) << first << ", " << second;
    }
}

TEST_F(HttpRequest, TheSeventeenthHeaderEndsTheReading)
{
    const auto line = [](int i) { return "H" + std::to_string(i) + ": " + std::to_string(i) + "\r\n"; };
    for (const int lines : {15, 16, 17, 18, 1000, 10000}) {
        const Request request = parse("POST /open/1 HTTP/1.1\r\n" + Repeat(lines, line) + "\r\n");
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->headerCount, lines < 16 ? lines : 16);
        EXPECT_STREQ(request->headers[14].name, "H14");
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HttpRequest, CutAtEveryByteNothingIsReadBehindTheEnd)
{
    const std::string whole = "POST /send/42/7 HTTP/1.1\r\nContent-Type: x\r\nContent-Length: 3\r\n\r\nabc";
    const size_t requestLine = whole.find("\r\n") + 1; // its CR is there
    for (size_t length = 0; length <= whole.size(); length++) {
        const Request request = parse(whole.substr(0, length));
        EXPECT_EQ(request != nullptr, length >= requestLine) << length;
        if (request != nullptr) {
            const size_t first = whole.find("\r\n", requestLine + 1) + 1;
            const size_t second = whole.find("\r\n", first + 1) + 1;
            EXPECT_EQ(request->headerCount, length < first ? 0 : length < second ? 1 : 2) << length;
        }
    }
}

TEST_F(HttpRequest, HostileBytesAreSurvived)
{
    const std::string whole = "POST /idle/42/7 HTTP/1.1\r\nContent-Length: 1\r\nA: b\r\n\r\nx";
    const char bytes[] = {'\0', '\r', '\n', ' ', ':', '/', '\x7f', '\xff', '9'};
    for (size_t i = 0; i < whole.size(); i++) {
        for (const char byte : bytes) {
            std::string changed = whole;
            changed[i] = byte;
            const Request request = parse(changed);
            if (request != nullptr) {
                EXPECT_LE(request->headerCount, 16);
                EXPECT_LT(request->command, 4U);
            }
        }
    }
    for (const char byte : bytes) {
        parse(std::string(100000, byte));
        parse("POST " + std::string(100000, byte));
        parse("POST /open/1 HTTP/1.1\r\n" + std::string(100000, byte));
        parse("POST /open/1 HTTP/1.1\r\nContent-Length: 999999999999999999999\r\n" + std::string(1000, byte));
    }
}

// ------------------------------------------------------------------------------------------- reading

namespace {

class HttpReader : public HttpRequest {
  protected:
    void SetUp() override
    {
        HttpRequest::SetUp();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0);
        client_.Socket = ends_[0];
    }
    void TearDown() override
    {
        close(ends_[0]);
        hangUp();
    }
    void write(const std::string &text)
    {
        ASSERT_EQ(::write(ends_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void hangUp()
    {
        if (ends_[1] != -1) {
            close(ends_[1]);
        }
        ends_[1] = -1;
    }
    int ends_[2] = {-1, -1};
};

} // namespace

TEST_F(HttpReader, StopsAtTheEmptyLineAndGivesTheIndexOfItsLastByte)
{
    write("POST /open/1 HTTP/1.1\r\nA: b\r\n\r\nbody");
    uint8_t buf[64] = {};
    uint32_t length = 0;
    ASSERT_EQ(ReadHttpMessage(&client_, buf, &length), 0);
    EXPECT_EQ(length, 30U); // 31 bytes
    EXPECT_EQ(buf[30], '\n');
    char rest[5] = {};
    EXPECT_EQ(read(ends_[0], rest, 4), 4);
    EXPECT_STREQ(rest, "body");
}

TEST_F(HttpReader, DoesNotSeeAnEmptyLineWithinTheFirstFiveBytes)
{
    write("x\r\n\r\n");
    write("\r\n\r\n"); // bytes 3 to 6 are CR LF CR LF too
    uint8_t buf[16] = {};
    uint32_t length = 0;
    ASSERT_EQ(ReadHttpMessage(&client_, buf, &length), 0);
    EXPECT_EQ(length, 6U);
}

TEST_F(HttpReader, SeesOneThatEndsAtTheSixthByte)
{
    write("xy\r\n\r\n");
    uint8_t buf[16] = {};
    uint32_t length = 0;
    ASSERT_EQ(ReadHttpMessage(&client_, buf, &length), 0);
    EXPECT_EQ(length, 5U);
}

TEST_F(HttpReader, APeerThatLeavesEndsTheReading)
{
    write("POST /open/1 HTTP/1.1\r\n");
    hangUp();
    uint8_t buf[64] = {};
    uint32_t length = 77;
    EXPECT_EQ(ReadHttpMessage(&client_, buf, &length), -1);
    EXPECT_EQ(length, 77U);
    EXPECT_EQ(log_.lines(), (std::vector<std::string>{"6 INFO: RtmpReadBytes: Connection was closed by peer",
                                                      "3 ERROR: ReadHttpMessage: Rtmp read bytes failed"}));
}

// The buffer is as long as what comes: nothing is written behind it.
TEST_F(HttpReader, ABlockWithoutEndIsReadUntilThePeerLeaves)
{
    const std::string block = "POST /open/1 HTTP/1.1\r\n" +
                              Repeat(10000, [](int i) { return "A: " + std::to_string(i % 10) + "\r\n"; });
    write(block);
    hangUp();
    std::vector<uint8_t> buf(block.size());
    uint32_t length = 77;
    EXPECT_EQ(ReadHttpMessage(&client_, buf.data(), &length), -1);
    EXPECT_EQ(length, 77U);
    EXPECT_EQ(std::string(buf.begin(), buf.end()), block);
    EXPECT_EQ(log_.lines(), (std::vector<std::string>{"6 INFO: RtmpReadBytes: Connection was closed by peer",
                                                      "3 ERROR: ReadHttpMessage: Rtmp read bytes failed"}));
    const Request request(ParseHttpReqMsg(&client_, buf.data(), static_cast<uint32_t>(buf.size())));
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->headerCount, 16);
}

TEST_F(HttpRequest, AClosedConnectionOverTlsAsksItsHandleNothingMore)
{
    int asked = 0;
    HostFakes::get().reset();
    HostFakes::get().sslRead = [&](void *, void *, int) {
        ++asked;
        return -1;
    };
    client_.Tls = &asked;
    client_.SocketClosed = 1;
    uint8_t buf[10];
    uint32_t length = 0;
    EXPECT_EQ(ReadHttpMessage(&client_, buf, &length), -1);
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(log_.lines(), (std::vector<std::string>{
                                "3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)",
                                "3 ERROR: ReadHttpMessage: Rtmp read bytes failed"}));
}

TEST_F(HttpRequest, NoRequestIsFreed)
{
    FreeHttpReqMsg(nullptr);
}
