// A mutator that knows chunks (RTMP 1.0, 5.3): whole ones are doubled, dropped and swapped, and their headers
// changed.
#pragma once

#include <cstddef>
#include <cstdint>

// As LLVMFuzzerCustomMutator; the first `head` bytes of an input are not chunks. Every other time the
// fuzzer's own mutations are made instead.
size_t MutateChunks(uint8_t *data, size_t size, size_t most, size_t head, unsigned seed);
