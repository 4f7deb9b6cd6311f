// What the library asks of its host and the reference hosts answer themselves; the rest comes from the
// defaults.
#pragma once

#include "bitrate_wishes.h"
#include "console.h"
#include "host.h"
#include "tls_context.h"

struct HostFunctions {
    Console *console = nullptr;
    Counters *counters = nullptr;
    BitrateWishes bitrates;
    TlsContext *tls = nullptr; // null: no viewers over TLS
    std::string token;         // what viewers must bring; empty: nothing

    bool keyFrameWanted = false; // by a player; the thread's that sends
};

// The library's host functions are plain C: there is one set for the process.
extern HostFunctions hostFunctions;
