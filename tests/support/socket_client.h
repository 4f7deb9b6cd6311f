// A client record on one end of a socket pair; the test is the peer on the other. The record is made here,
// so that tests of single rooms need no others.
#pragma once

#include "rtmpcast/publish.h"
#include "support/bytes.h"
#include "support/produced.h"
#include "support/records.h"

class SocketClient {
  public:
    SocketClient();
    ~SocketClient();
    SocketClient(const SocketClient &) = delete;
    SocketClient &operator=(const SocketClient &) = delete;

    RtmpClient *get()
    {
        return client_;
    }
    RtmpClient *operator->()
    {
        return client_;
    }
    RtmpServer *server()
    {
        return &records_.server;
    }

    // The peer's side.
    void send(const Bytes &bytes);
    Bytes receive(size_t count); // what came before the end or the deadline, `count` at most
    void endOfInput();           // nothing more comes; answers are still read
    void closePeer();

    std::vector<std::string> takeLines(); // the log so far, then an empty one

  private:
    Records records_;

  public:
    CaptureLogger &log = records_.log;

  private:
    RtmpClient *client_;
    int peer_ = -1;
    produced::Texts came_{"wire"};
    produced::Texts went_{"sent"};
};
