// Fields that threads share are plain record fields, read and written through these.
#pragma once

#include <stdint.h>

template <typename T> T LoadShared(const T *field)
{
    return __atomic_load_n(field, __ATOMIC_ACQUIRE);
}

template <typename T> void StoreShared(T *field, T value)
{
    __atomic_store_n(field, value, __ATOMIC_RELEASE);
}

template <typename T> T AddShared(T *field, T amount) // returns the new value
{
    return __atomic_add_fetch(field, amount, __ATOMIC_ACQ_REL);
}
