// What the kernel knows of a connection (Linux: tcp(7)).
#pragma once

#include <cstdint>

// Bytes that the peer has acknowledged; 0 without a connection.
uint64_t bytesTaken(int socket);

// Bytes that it has not acknowledged yet, sent or not.
uint64_t bytesWaiting(int socket);
