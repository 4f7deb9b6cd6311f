// What the targets share: an input that is taken from the front, and a logger that keeps nothing.
#pragma once

#include "rtmpcast/types.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

// The first bytes of an input choose what is done with the rest.
class FuzzInput {
  public:
    FuzzInput(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    size_t size() const
    {
        return size_;
    }
    const uint8_t *data() const
    {
        return data_;
    }
    // 0 when nothing is left.
    uint8_t byte()
    {
        const uint8_t first = size_ > 0 ? *data_ : uint8_t(0);
        skip(1);
        return first;
    }
    uint32_t number(int bytes)
    {
        uint32_t value = 0;
        for (; bytes > 0; bytes--) {
            value = value << 8 | byte();
        }
        return value;
    }
    // At most `count` bytes, which stay where they are.
    FuzzInput part(size_t count)
    {
        const FuzzInput front(data_, std::min(count, size_));
        skip(count);
        return front;
    }

  private:
    void skip(size_t count)
    {
        count = std::min(count, size_);
        data_ += count;
        size_ -= count;
    }
    const uint8_t *data_;
    size_t size_;
};

// Formats every line, so that the arguments are read, and forgets it.
RtmpLogger *QuietLogger();
