// A TLS handle that passes everything on as it is, and asks every few calls to be called again, as a real one
// does in the middle of a record. A write that comes back with other bytes is a finding.
#pragma once

#include "support/fuzz_peer.h"

class FuzzTls {
  public:
    explicit FuzzTls(FuzzPeer *peer); // host functions of TLS are its own from now on, for one handle
    ~FuzzTls();
    FuzzTls(const FuzzTls &) = delete;
    FuzzTls &operator=(const FuzzTls &) = delete;

    void *handle()
    {
        return this;
    }

  private:
    int read(void *bytes, int length);
    int write(const void *bytes, int length);
    bool asksAgain(uint32_t often);

    FuzzPeer *peer_;
    uint32_t calls_ = 0;
    bool isHalfOut_ = false;
    std::vector<uint8_t> half_;
};
