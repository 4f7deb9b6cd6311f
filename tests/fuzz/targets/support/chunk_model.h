// A reader of what one player is sent (RTMP 1.0, 5.3): by default as the library writes it, which shortens a
// header against the first message of its chunk stream; or by the standard, against the last.
#pragma once

#include "checked_input.h"

#include <map>

namespace chunk_model {

struct Message {
    uint32_t chunkStream = 0;
    uint32_t type = 0;
    FuzzBytes payload;
};

class Parser {
  public:
    Parser(const FuzzBytes &bytes, size_t chunkSize, bool isStandard)
        : bytes_(bytes), chunkSize_(chunkSize), isStandard_(isStandard)
    {
    }
    // All of them: nothing but whole messages may be there. The chunk streams of earlier bytes are kept in
    // `lanes`.
    struct Lane {
        uint32_t length = 0, type = 0; // that shorter headers have
        bool isKnown = false;
        bool isTimeExtended = false;
    };
    std::vector<Message> all(std::map<uint32_t, Lane> *lanes)
    {
        std::vector<Message> out;
        while (at_ < bytes_.size()) {
            out.push_back(next(lanes));
        }
        return out;
    }

  private:
    uint32_t number(size_t width)
    {
        uint32_t value = 0;
        for (; width > 0; width--) {
            FUZZ_CHECK(at_ < bytes_.size());
            value = value << 8 | bytes_[at_++];
        }
        return value;
    }
    // Basic headers of one byte: players are sent frames on low chunk streams.
    Message next(std::map<uint32_t, Lane> *lanes)
    {
        Message message;
        const uint32_t first = number(1);
        message.chunkStream = first & 63;
        FUZZ_CHECK(message.chunkStream >= 2);
        Lane *lane = &(*lanes)[message.chunkStream];
        const uint32_t length = readHeader(first >> 6, lane, &message);
        readBody(length, first & 63, *lane, &message);
        return message;
    }
    uint32_t readHeader(uint32_t form, Lane *lane, Message *message)
    {
        FUZZ_CHECK(form == 0 || lane->isKnown);
        Lane read = *lane;
        const uint32_t time = form < 3 ? number(3) : 0;
        if (form < 2) {
            read.length = number(3);
            read.type = number(1);
        }
        if (form == 0) {
            (void)number(4);
        }
        if (form < 3) {
            read.isTimeExtended = time == 0xFFFFFF;
        }
        if (read.isTimeExtended && (form < 3 || isStandard_)) {
            (void)number(4);
        }
        message->type = read.type;
        read.isKnown = true;
        if (isStandard_ || !lane->isKnown) {
            *lane = read;
        }
        return read.length;
    }
    void readBody(uint32_t length, uint32_t chunkStream, const Lane &lane, Message *message)
    {
        for (;;) {
            const size_t left = length - message->payload.size();
            const size_t piece = left < chunkSize_ ? left : chunkSize_;
            FUZZ_CHECK(piece <= bytes_.size() - at_);
            const auto start = bytes_.begin() + static_cast<std::ptrdiff_t>(at_);
            message->payload.insert(message->payload.end(), start,
                                    start + static_cast<std::ptrdiff_t>(piece));
            at_ += piece;
            if (message->payload.size() == length) {
                return;
            }
            FUZZ_CHECK(number(1) == (0xC0 | chunkStream));
            if (isStandard_ && lane.isTimeExtended) {
                (void)number(4);
            }
        }
    }

    const FuzzBytes &bytes_;
    const size_t chunkSize_;
    const bool isStandard_;
    size_t at_ = 0;
};

} // namespace chunk_model
