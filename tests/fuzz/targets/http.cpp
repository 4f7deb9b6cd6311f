// Requests of the second listener: the header block read from a socket pair, whole or from many writes, and
// the request parsed; both against a second reader over strings.
//
//   choices:8  [piece:8]  text
//
// max_len: 4096
#include "rtmpt/http_request.h"
#include "support/checked_input.h"

#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

enum Choice : uint8_t { FROM_SOCKET = 1, IN_PIECES = 2, WITHOUT_LAST_BYTE = 4 };

constexpr size_t kMostHeaders = 16;
constexpr size_t kSocketTakes = 60000; // without anybody reading

// ------------------------------------------------------------------------------------------- the second
// reader

class RequestModel {
  public:
    explicit RequestModel(std::string text) : text_(std::move(text))
    {
        isParsed = readRequestLine();
        while (isParsed && headers.size() < kMostHeaders && left() > contentLength_ && readHeader()) {
        }
    }

    bool isParsed;
    bool isInvalidMethod = false; // which is logged
    std::string uri, version;
    uint32_t command = 4;
    uint32_t sessionId = 0;
    struct Header {
        std::string name, value;
    };
    std::vector<Header> headers;

    // As atoi: blanks, a sign, digits; what does not fit 64 bits stays at their end, and 32 bits of it count.
    static int32_t numberIn(const std::string &text)
    {
        size_t at = text.find_first_not_of(" \t\n\v\f\r");
        if (at == std::string::npos) {
            return 0;
        }
        const bool isNegative = text[at] == '-';
        at += isNegative || text[at] == '+' ? 1 : 0;
        __int128 number = 0;
        for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; at++) {
            number = number * 10 + (text[at] - '0');
            number = number > (__int128{1} << 64) ? __int128{1} << 64 : number;
        }
        const __int128 most = (__int128{1} << 63) - 1;
        number = isNegative ? -number : number;
        number = number > most ? most : number;
        number = number < -most - 1 ? -most - 1 : number;
        return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(number)));
    }

    static uint32_t commandOf(const std::string &segment)
    {
        const char *names[] = {"open", "idle", "send", "close"};
        for (uint32_t i = 0; i < 4; i++) {
            if (segment.rfind(names[i], 0) == 0) {
                return i;
            }
        }
        return 4;
    }

  private:
    int64_t left() const
    {
        return static_cast<int64_t>(text_.size()) - static_cast<int64_t>(at_);
    }
    // The text up to `wanted`, or nothing where `stop` or the end comes first; steps `behind` bytes over it.
    bool token(char wanted, char stop, size_t behind, std::string *out)
    {
        const size_t end = text_.find_first_of(std::string({wanted, stop}), at_);
        if (end == std::string::npos || text_[end] != wanted || end == at_) {
            return false;
        }
        *out = text_.substr(at_, end - at_);
        at_ = end + behind < text_.size() ? end + behind : text_.size();
        return true;
    }
    bool readRequestLine()
    {
        std::string method;
        if (!token(' ', '\r', 1, &method)) {
            return false;
        }
        isInvalidMethod = method.rfind("POST", 0) != 0;
        if (isInvalidMethod || !token(' ', '\r', 1, &uri)) {
            return false;
        }
        isInvalidMethod = !readPath();
        return !isInvalidMethod && token('\r', '\n', 2, &version);
    }
    bool readPath()
    {
        const std::string path = uri.c_str() + 1; // up to a zero byte, as a text of C
        const size_t slash = path.find('/');
        if (slash == std::string::npos) {
            return false;
        }
        command = commandOf(path.substr(0, slash));
        sessionId = static_cast<uint32_t>(numberIn(path.substr(slash + 1)));
        return command < 4;
    }
    bool readHeader()
    {
        Header header;
        if (!token(':', '\r', 2, &header.name) || !token('\r', '\n', 2, &header.value)) {
            return false;
        }
        header = {header.name.c_str(), header.value.c_str()};
        if (header.name == "Content-Length") {
            contentLength_ = numberIn(header.value);
        }
        headers.push_back(header);
        return true;
    }

    const std::string text_;
    size_t at_ = 0;
    int64_t contentLength_ = 0;
};

// ---------------------------------------------------------------------------------------------- the
// comparison

void CheckRequest(const HttpReqMsg &request, const RequestModel &model)
{
    FUZZ_CHECK(request.command == model.command && request.sessionId == model.sessionId);
    FUZZ_CHECK(strcmp(request.uri, model.uri.c_str()) == 0);
    FUZZ_CHECK(strcmp(request.version, model.version.c_str()) == 0);
    FUZZ_CHECK(request.headerCount == static_cast<int32_t>(model.headers.size()));
    for (size_t i = 0; i < kMostHeaders; i++) {
        const HttpHeader &header = request.headers[i];
        if (i >= model.headers.size()) {
            FUZZ_CHECK(header.name == nullptr && header.value == nullptr);
            continue;
        }
        FUZZ_CHECK(model.headers[i].name == header.name && model.headers[i].value == header.value);
    }
}

void CheckParsing(RtmpClient *client, CountingLog *log, const FuzzBytes &bytes)
{
    const ExactCopy text(bytes);
    const RequestModel model(std::string(bytes.begin(), bytes.end()));
    HttpReqMsg *request = ParseHttpReqMsg(client, text.data(), text.size());
    FUZZ_CHECK((request != nullptr) == model.isParsed);
    FUZZ_CHECK(log->takeCount() == (model.isInvalidMethod ? 1 : 0));
    if (request != nullptr) {
        CheckRequest(*request, model);
    }
    FreeHttpReqMsg(request);
}

// ------------------------------------------------------------------------------------------------ the reader

struct SocketEnds {
    SocketEnds()
    {
        FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, of) == 0);
    }
    SocketEnds(const SocketEnds &) = delete;
    ~SocketEnds()
    {
        close(of[0]);
        close(of[1]);
    }
    // All of it, then no more.
    void send(const FuzzBytes &bytes, size_t piece)
    {
        for (size_t at = 0; at < bytes.size();) {
            const size_t length = bytes.size() - at < piece ? bytes.size() - at : piece;
            const ssize_t sent = write(of[1], bytes.data() + at, length);
            FUZZ_CHECK(sent > 0);
            at += static_cast<size_t>(sent);
        }
        FUZZ_CHECK(shutdown(of[1], SHUT_WR) == 0);
    }
    int of[2];
};

// The bytes of the header block: the first four of them at least, and then as far as the first empty line
// that ends behind the fifth; nothing where there is none.
size_t LengthOfBlock(const FuzzBytes &bytes)
{
    for (size_t i = 5; i < bytes.size(); i++) {
        if (memcmp(bytes.data() + i - 3, "\r\n\r\n", 4) == 0) {
            return i + 1;
        }
    }
    return 0;
}

void CheckReading(RtmpClient *client, CountingLog *log, const FuzzBytes &bytes, size_t piece)
{
    SocketEnds ends;
    ends.send(bytes, piece);
    client->Socket = ends.of[0];
    const size_t expected = LengthOfBlock(bytes);
    const ExactCopy room(FuzzBytes(expected > 0 ? expected : bytes.size() + 1));
    uint32_t last = 12345;
    const int status = ReadHttpMessage(client, room.data(), &last);
    FUZZ_CHECK(status == (expected > 0 ? 0 : -1));
    FUZZ_CHECK(last == (expected > 0 ? expected - 1 : 12345));
    FUZZ_CHECK(log->takeCount() == (expected > 0 ? 0 : 2)); // the end of the stream, and the failed read
    const size_t read = expected > 0 ? expected : bytes.size();
    FUZZ_CHECK(read == 0 || memcmp(room.data(), bytes.data(), read) == 0);
    if (expected > 0) {
        CheckParsing(client, log, FuzzBytes(room.data(), room.data() + expected));
    }
}

// Every byte value as wanted and as stop, over a range that may be empty.
void CheckFinding(const FuzzBytes &bytes, uint8_t wanted, uint8_t stop)
{
    if (bytes.empty()) {
        return;
    }
    const ExactCopy text(bytes);
    uint32_t expected = 0;
    for (uint32_t i = 0; i < text.size(); i++) {
        if (bytes[i] == wanted || bytes[i] == stop) {
            expected = bytes[i] == wanted ? i : 0;
            break;
        }
    }
    FUZZ_CHECK(FindCharInBuffer(text.data(), wanted, stop, static_cast<int32_t>(text.size())) == expected);
    FUZZ_CHECK(FindCharInBuffer(text.data(), wanted, stop, 0) == 0);
    FUZZ_CHECK(FindCharInBuffer(text.data(), wanted, stop, -1) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    CountingLog log;
    RtmpServer server = {};
    server.Logger = log.get();
    RtmpClient client = {};
    client.Server = &server;
    FuzzInput in(data, size);
    const uint8_t choices = in.byte();
    const size_t piece = (choices & IN_PIECES) != 0 ? in.byte() + 1U : kSocketTakes;
    FuzzBytes text = Rest(&in);
    if ((choices & WITHOUT_LAST_BYTE) != 0 && !text.empty()) {
        text.pop_back();
    }
    if ((choices & FROM_SOCKET) != 0 && text.size() <= kSocketTakes && text.size() / piece < 100) {
        CheckReading(&client, &log, text, piece);
    }
    CheckParsing(&client, &log, text);
    CheckFinding(text, static_cast<uint8_t>(choices >> 3), '\r');
    FUZZ_CHECK(IdentifyMethod(std::string(text.begin(), text.end()).c_str()) ==
               RequestModel::commandOf(std::string(text.begin(), text.end()).c_str()));
    return 0;
}
