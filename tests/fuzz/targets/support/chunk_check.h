// Whether bytes are chunks as RTMP 1.0, 5.3 has them; written without the library.
#pragma once

#include <cstddef>
#include <cstdint>

// Ends the process with a reason, which is a finding, unless `bytes` are chunks from the beginning of a
// connection on, of message types that the library sends. The last one may be cut anywhere. `chunkSize` holds
// until Set Chunk Size.
void ExpectChunks(const uint8_t *bytes, size_t size, uint32_t chunkSize);
