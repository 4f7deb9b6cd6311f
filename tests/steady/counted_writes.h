// How often the library has called sendmsg.
#pragma once

#include <cstdint>

namespace wire {

uint64_t Writes();
uint64_t WritesOfThisThread();

} // namespace wire
