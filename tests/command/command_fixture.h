// A client with its server and session, and parsers that are given command messages byte by byte.
#pragma once

#include "command/command.h"
#include "rtmpcast/player.h"
#include "rtmpcast/server.h"
#include "state/client.h"
#include "state/client_list.h"
#include "support/amf_bytes.h"
#include "support/calls.h"
#include "support/host_fakes.h"
#include "support/produced.h"
#include "support/records.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace received {

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

class CommandFixture : public testing::Test, protected Records {
  protected:
    CommandFixture();
    ~CommandFixture() override;

    void withContext(); // gives the client a publish context, as a publishing host does
    void joinSession(); // makes the client a member of "live"

    // Each parses a payload that lies in a buffer of exactly its size.
    Parsed parse(const Bytes &payload);
    Parsed parse(std::initializer_list<amf0::Value> values);
    Parsed parseEvent(const Bytes &payload);

    Bytes sent(); // what has arrived at the peer, without waiting

    // "3 ERROR: ParseCmdMsgReq: <text>" and "6 INFO: ParseCmdMsgReq: <text>"
    static std::string error(const std::string &text);
    static std::string info(const std::string &text);

    RtmpClient *client = nullptr;
    PublishCtx *context = nullptr;
    int peer = -1;

  private:
    Parsed run(const Bytes &payload, uint32_t type);
    std::unique_ptr<PublishCtx> contextStorage_;
};

} // namespace received
