// A small AMF0 writer for what players send and for what they expect to read.
#pragma once

#include "support/wire_bytes.h"

#include <bit>
#include <string>

namespace wire {

// Amf().string("play").number(0).null().string("cam").bytes
struct Amf {
    Bytes bytes;

    Amf &number(double value)
    {
        return put(0x00).put(std::bit_cast<uint64_t>(value), 8);
    }
    Amf &boolean(bool value)
    {
        return put(0x01).put(value ? 1 : 0);
    }
    Amf &string(const std::string &value)
    {
        return put(0x02).name(value);
    }
    Amf &null()
    {
        return put(0x05);
    }
    Amf &object()
    {
        return put(0x03);
    }
    // A member's name, or a string's length and text.
    Amf &name(const std::string &value)
    {
        put(value.size(), 2);
        bytes.insert(bytes.end(), value.begin(), value.end());
        return *this;
    }
    Amf &member(const std::string &key, const std::string &value)
    {
        return name(key).string(value);
    }
    Amf &member(const std::string &key, const char *value)
    {
        return name(key).string(value);
    }
    Amf &member(const std::string &key, double value)
    {
        return name(key).number(value);
    }
    Amf &member(const std::string &key, bool value)
    {
        return name(key).boolean(value);
    }
    Amf &end()
    {
        return put(0x000009, 3);
    }
    Amf &put(uint64_t value, size_t width = 1)
    {
        Append(bytes, Number(value, width));
        return *this;
    }
};

} // namespace wire
