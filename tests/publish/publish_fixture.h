// A publishing host and the streaming service that it publishes to, joined by a socket pair.
#pragma once

#include "publishing_host.h"
#include "support/calls.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"
#include "support/wire_replies.h"

#include <gtest/gtest.h>

namespace wire {

using Lines = std::vector<std::string>;

constexpr uint64_t kStart = 1000000; // the clock when the client record is made

class PublishFixture : public testing::Test {
  protected:
    PublishFixture();
    ~PublishFixture() override;

    // The session "cam" with its media; the modes as in RtmpSenderSettings.
    RtmpSession *makeSession(uint8_t captionMode = 2, uint32_t senderMode = 0);
    // Up to the point where frames go out; the service reads everything that comes before them.
    void startFrames();
    void endClient(); // at most once; the destructor does it otherwise

    // One command from the service, handled by the host on this thread.
    Handled fromService(const amf0::Value &command);

    // What the service has not read yet must be nothing.
    void expectSilence();

    // "6 INFO: ParseCmdMsgReq: <text>"
    static std::string info(const std::string &text)
    {
        return "6 INFO: ParseCmdMsgReq: " + text;
    }

    CaptureLogger log;
    PublishCtx context = {};
    RtmpServer *server = nullptr;
    RtmpClient *client = nullptr;
    RtmpSession *session = nullptr;
    int socket = -1; // the host's end
    ScriptedPeer service;

  private:
    Connected makePair();
};

} // namespace wire
