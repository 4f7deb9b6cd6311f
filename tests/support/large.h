// What is too large for every run, asked for by RTMPCAST_TEST_LARGE=1 in the environment: gigabytes, or
// minutes.
#pragma once

#include <cstddef>
#include <cstdlib>

inline size_t UnlessLarge(size_t usual, size_t large)
{
    return std::getenv("RTMPCAST_TEST_LARGE") != nullptr ? large : usual;
}
