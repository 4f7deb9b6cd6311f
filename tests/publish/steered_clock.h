// The library's clock, set by the test: timestamps and client ids become bytes that can be written down.
#pragma once

#include <cstdint>

void SetClock(uint64_t milliseconds);
