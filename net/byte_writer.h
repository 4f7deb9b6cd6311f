// A cursor over a buffer of known size. Writes beyond the end are dropped and leave Overrun set, so that
// the writer of a layout compares once, at the end, what it wrote with what it had computed.
#pragma once

#include <stdint.h>
#include <string.h>

struct ByteWriter {
    uint8_t *Next;
    uint8_t *End;
    bool Overrun;
};

inline ByteWriter WriterOver(uint8_t *buffer, uint64_t length)
{
    return {buffer, buffer + length, false};
}

inline uint64_t RoomIn(const ByteWriter *out)
{
    return static_cast<uint64_t>(out->End - out->Next);
}

inline void PutBytes(ByteWriter *out, const void *bytes, uint64_t count)
{
    if (count > RoomIn(out)) {
        out->Overrun = true;
        return;
    }
    if (count > 0) {
        memcpy(out->Next, bytes, count);
        out->Next += count;
    }
}

inline void PutU8(ByteWriter *out, uint32_t value)
{
    const uint8_t byte = static_cast<uint8_t>(value);
    PutBytes(out, &byte, 1);
}

inline void PutU16Be(ByteWriter *out, uint32_t value)
{
    PutU8(out, value >> 8);
    PutU8(out, value);
}

inline void PutU24Be(ByteWriter *out, uint32_t value)
{
    PutU8(out, value >> 16);
    PutU16Be(out, value);
}

inline void PutU32Be(ByteWriter *out, uint32_t value)
{
    PutU16Be(out, value >> 16);
    PutU16Be(out, value);
}

inline void PutU32Le(ByteWriter *out, uint32_t value)
{
    PutU8(out, value);
    PutU8(out, value >> 8);
    PutU8(out, value >> 16);
    PutU8(out, value >> 24);
}

inline void PutU64Be(ByteWriter *out, uint64_t value)
{
    PutU32Be(out, static_cast<uint32_t>(value >> 32));
    PutU32Be(out, static_cast<uint32_t>(value));
}
