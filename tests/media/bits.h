// Bits written as ITU-T H.264 writes them, independently of the library's reader.
#pragma once

#include "support/bytes.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class BitWriter {
  public:
    BitWriter &text(const std::string &bits) // "01 1" : blanks are for the reader's eyes
    {
        for (const char bit : bits) {
            if (bit != ' ') {
                bits_.push_back(bit == '1');
            }
        }
        return *this;
    }
    BitWriter &u(int count, uint64_t value)
    {
        for (int i = count - 1; i >= 0; i--) {
            bits_.push_back((value >> i & 1) != 0);
        }
        return *this;
    }
    BitWriter &ue(uint64_t value)
    {
        int length = 0;
        while ((value + 1) >> (length + 1) != 0) {
            length++;
        }
        return u(length, 0).u(length + 1, value + 1);
    }
    BitWriter &se(int64_t value)
    {
        return value > 0 ? ue(2 * static_cast<uint64_t>(value) - 1) : ue(2 * static_cast<uint64_t>(-value));
    }
    size_t count() const
    {
        return bits_.size();
    }
    Bytes bytes() const // zero bits fill the last byte
    {
        Bytes out((bits_.size() + 7) / 8);
        for (size_t i = 0; i < bits_.size(); i++) {
            out[i / 8] = static_cast<uint8_t>(out[i / 8] | (bits_[i] ? 0x80 >> i % 8 : 0));
        }
        return out;
    }

  private:
    std::vector<bool> bits_;
};

// A NAL unit's bytes with emulation prevention bytes where they have to be (ITU-T H.264, 7.4.1).
inline Bytes Escaped(const Bytes &rbsp)
{
    Bytes nal;
    for (const uint8_t byte : rbsp) {
        const size_t n = nal.size();
        if (n >= 2 && nal[n - 1] == 0 && nal[n - 2] == 0 && byte <= 3) {
            nal.push_back(3);
        }
        nal.push_back(byte);
    }
    return nal;
}

// A heap copy of exactly this size: the address sanitizer sees a read of the byte behind it.
class ExactBytes {
  public:
    explicit ExactBytes(const Bytes &bytes) : size_(bytes.size()), data_(new uint8_t[bytes.size()])
    {
        for (size_t i = 0; i < size_; i++) {
            data_[i] = bytes[i];
        }
    }
    const uint8_t *data() const
    {
        return data_.get();
    }
    int32_t size() const
    {
        return static_cast<int32_t>(size_);
    }

  private:
    size_t size_;
    std::unique_ptr<uint8_t[]> data_;
};
