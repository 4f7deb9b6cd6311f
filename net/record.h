// Records come zero-filled from the calloc family: hosts make and free some of them too.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

template <typename Record> Record *NewRecord()
{
    return static_cast<Record *>(calloc(1, sizeof(Record)));
}

template <typename Element> Element *NewArray(uint64_t count)
{
    // NOLINTNEXTLINE(bugprone-sizeof-expression): an array of pointers has elements of a pointer's size
    return static_cast<Element *>(calloc(count > 0 ? count : 1, sizeof(Element)));
}

// CopyOfText returns a heap copy of `length` bytes with a terminator behind them.
inline char *CopyOfText(const char *text, uint64_t length)
{
    char *copy = NewArray<char>(length + 1);
    if (copy != nullptr && length > 0) {
        memcpy(copy, text, length);
    }
    return copy;
}

// FailCreate tells the host, if it asks, why it gets no record.
inline decltype(nullptr) FailCreate(int code, int *err)
{
    if (err != nullptr) {
        *err = code;
    }
    return nullptr;
}
