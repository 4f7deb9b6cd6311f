// Above fuzz_input.h: the bytes of an input as a value, copies that end where the bytes end, checks that end
// the process, and a logger that counts.
#pragma once

#include "fuzz_input.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

// FUZZ_CHECK ends the process where a model and the library differ: the fuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                                \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);                          \
            abort();                                                                                         \
        }                                                                                                    \
    } while (false)

using FuzzBytes = std::vector<uint8_t>;

// At most `count` bytes from the front of the input, and all that are left.
inline FuzzBytes Take(FuzzInput *in, size_t count)
{
    const FuzzInput part = in->part(count);
    return FuzzBytes(part.data(), part.data() + part.size());
}

inline FuzzBytes Rest(FuzzInput *in)
{
    return Take(in, in->size());
}

// A heap block of exactly these bytes: the address sanitizer sees one byte too far.
class ExactCopy {
  public:
    explicit ExactCopy(const FuzzBytes &bytes) : bytes_(new uint8_t[bytes.size()]), size_(bytes.size())
    {
        if (!bytes.empty()) {
            memcpy(bytes_.get(), bytes.data(), bytes.size());
        }
    }
    uint8_t *data() const
    {
        return bytes_.get();
    }
    uint32_t size() const
    {
        return static_cast<uint32_t>(size_);
    }
    // Whether `length` bytes at `start` lie within the block.
    bool holds(const void *start, size_t length) const
    {
        const uint8_t *at = static_cast<const uint8_t *>(start);
        return at >= bytes_.get() && at + length <= bytes_.get() + size_;
    }

  private:
    std::unique_ptr<uint8_t[]> bytes_;
    size_t size_;
};

// Formats every line, so that its arguments are read as a host's logger reads them, counts it and forgets it.
class CountingLog {
  public:
    RtmpLogger *get()
    {
        return &logger_;
    }
    size_t takeCount()
    {
        const size_t count = lines_;
        lines_ = 0;
        return count;
    }

  private:
    static void Log(void *context, uint8_t, const char *format, va_list arguments)
    {
        char line[512]; // longer ones are read to their end as well
        vsnprintf(line, sizeof line, format, arguments);
        static_cast<CountingLog *>(context)->lines_++;
    }
    size_t lines_ = 0;
    RtmpLogger logger_ = {Log, this};
};
