// What is to be read on the screen, and when.
#pragma once

#include <cstdint>
#include <string>

struct Cue {
    int64_t start = 0; // milliseconds since the first picture
    int64_t end = 0;
    std::string text; // UTF-8, its lines apart by \n
};
