// What the library asks of its host and live_host answers itself; the rest comes from the defaults.
#pragma once

#include "console.h"

#include <atomic>
#include <cstdint>

struct HostFunctions {
    Console *console = nullptr;
    std::atomic<int32_t> wantedBitrate = 0; // bit/s, the last one asked for; 0: none since it was taken
};

// The library's host functions are plain C: there is one set for the process.
extern HostFunctions hostFunctions;
