#include "failing/failing_memory.h"

#include <cstddef>

namespace {

thread_local bool counting = false;
thread_local int seenSoFar = 0;
thread_local int failAt = 0;

bool MustFail()
{
    return counting && ++seenSoFar == failAt;
}

} // namespace

extern "C" {

void *__real_calloc(size_t count, size_t size);
void *__real_malloc(size_t size);
void *__real_realloc(void *memory, size_t size);

void *__wrap_calloc(size_t count, size_t size)
{
    return MustFail() ? nullptr : __real_calloc(count, size);
}

void *__wrap_malloc(size_t size)
{
    return MustFail() ? nullptr : __real_malloc(size);
}

void *__wrap_realloc(void *memory, size_t size)
{
    return MustFail() ? nullptr : __real_realloc(memory, size);
}
}

FailingAllocation::FailingAllocation(int number)
{
    seenSoFar = 0;
    failAt = number;
    counting = true;
}

FailingAllocation::~FailingAllocation()
{
    counting = false;
}

int FailingAllocation::seen() const
{
    return seenSoFar;
}
