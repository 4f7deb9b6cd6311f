#include "support/chunk_check.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace {

struct WrittenMessage {
    uint32_t length = 0, left = 0, type = 0;
    bool isTimeExtended = false;
};

struct CutHere {};

class WrittenChunks {
  public:
    WrittenChunks(const uint8_t *bytes, size_t size, uint32_t chunkSize)
        : bytes_(bytes), size_(size), chunkSize_(chunkSize)
    {
    }

    void check()
    {
        try {
            while (at_ < size_) {
                checkOne();
            }
        } catch (const CutHere &) {
        }
    }

  private:
    uint32_t number(size_t bytes)
    {
        if (bytes > size_ - at_) {
            throw CutHere();
        }
        uint32_t value = 0;
        for (; bytes > 0; bytes--) {
            value = value << 8 | bytes_[at_++];
        }
        return value;
    }
    [[noreturn]] void fail(const char *reason) const
    {
        fprintf(stderr, "not a chunk at byte %zu of %zu: %s\n", at_, size_, reason);
        for (size_t i = begin_; i < std::min(size_, begin_ + 64); i++) {
            fprintf(stderr, "%02X ", bytes_[i]);
        }
        abort();
    }

    uint32_t chunkStream(uint32_t first)
    {
        const uint32_t id = first & 63;
        if (id >= 2) {
            return id;
        }
        const uint32_t low = number(1) + 64;
        return id == 0 ? low : low + number(1) * 256;
    }

    void checkOne()
    {
        begin_ = at_;
        const uint32_t first = number(1);
        const uint32_t id = chunkStream(first);
        const bool isKnown = messages_.count(id) > 0;
        WrittenMessage message = isKnown ? messages_[id] : WrittenMessage();
        const uint32_t type = first >> 6;
        if (!isKnown && type != 0) {
            fail("the first one of its chunk stream has a short header");
        }
        if (message.left > 0 && type != 3) {
            fail("a message begins within another of its chunk stream");
        }
        readHeader(&message, type);
        if (message.left == 0) {
            message.left = message.length;
        }
        readPayload(&message);
        messages_[id] = message;
    }

    void readHeader(WrittenMessage *message, uint32_t type)
    {
        if (type == 3) {
            (void)number(message->isTimeExtended ? 4 : 0);
            return;
        }
        message->isTimeExtended = number(3) == 0xFFFFFF;
        if (type < 2) {
            message->length = number(3);
            message->type = number(1);
        }
        (void)number(type == 0 ? 4 : 0);
        (void)number(message->isTimeExtended ? 4 : 0);
        static const uint8_t sent[] = {1, 2, 3, 4, 5, 6, 8, 9, 18, 20};
        if (memchr(sent, static_cast<int>(message->type), sizeof sent) == nullptr) {
            fail("a message type that is never sent");
        }
        if (message->length == 0 && message->type != 20) { // a service's own ping is answered by a bare one
            fail("an empty message");
        }
    }

    void readPayload(WrittenMessage *message)
    {
        const uint32_t here = std::min(message->left, chunkSize_);
        if (here > size_ - at_) {
            throw CutHere();
        }
        if (message->type == 1) {
            chunkSize_ = message->length == 4 ? number(4) : 0;
            if (chunkSize_ == 0 || chunkSize_ > 0x7FFFFFFF) {
                fail("a chunk size that cannot be");
            }
        } else {
            at_ += here;
        }
        message->left -= here;
    }

    const uint8_t *bytes_;
    size_t size_;
    size_t at_ = 0, begin_ = 0;
    uint32_t chunkSize_;
    std::map<uint32_t, WrittenMessage> messages_;
};

} // namespace

void ExpectChunks(const uint8_t *bytes, size_t size, uint32_t chunkSize)
{
    WrittenChunks(bytes, size, chunkSize).check();
}
