// A client with its server and session, and command messages written out byte by byte.
#pragma once

#include "command/command.h"
#include "rtmpcast/server.h"
#include "state/client.h"
#include "state/client_list.h"
#include "support/calls/wrapped_calls.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace received {

// AMF0 bytes, and the lengths to which they may be cut so that only whole values are left.
struct Amf {
    std::string bytes;
    std::vector<size_t> wholeAt;
};

Amf Number(double value);
Amf Boolean(bool value); // as on the wire
Amf String(const std::string &text);
Amf Null();
Amf Object(std::initializer_list<std::pair<std::string, Amf>> members);
Amf EcmaArray(std::initializer_list<std::pair<std::string, Amf>> members);
Amf StrictArray(std::initializer_list<Amf> elements);
Amf Message(std::initializer_list<Amf> values);

struct Parsed {
    int result;
    uint32_t kind;  // kUntouched when it was left alone
    int32_t values; // attached to the packet; -1: none were
    uint16_t event; // user control
    uint32_t eventValue;
};
constexpr uint32_t kUntouched = 777;

// IsZero tells whether nothing was stored in a publish context.
bool IsZero(const PublishCtx &context);

class CommandFixture : public testing::Test {
  protected:
    CommandFixture();
    ~CommandFixture() override;

    void withContext(); // gives the client a publish context, as a publishing host does
    void joinSession(); // makes the client a member of "live"

    // Each parses a payload that lies in a buffer of exactly its size.
    Parsed parse(const std::string &payload);
    Parsed parse(std::initializer_list<Amf> values);
    Parsed parseEvent(const std::string &payload);

    std::string sent(); // what has arrived at the peer, without waiting

    // "3 ERROR: ParseCmdMsgReq: <text>" and "6 INFO: ParseCmdMsgReq: <text>"
    static std::string error(const std::string &text);
    static std::string info(const std::string &text);

    CaptureLogger log;
    RtmpServer server = {};
    RtmpSession session = {};
    RtmpClient *client = nullptr;
    PublishCtx *context = nullptr;
    int peer = -1;

  private:
    Parsed run(const std::string &payload, uint32_t type);
    std::unique_ptr<PublishCtx> contextStorage_;
};

} // namespace received
