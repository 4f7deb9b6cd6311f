// Every thread that the library starts in an executable of targets, known until it has been joined, or has
// ended and was detached. What nobody joins can be joined in the end, so that a campaign does not run out of
// stacks.
#pragma once

#include <cstddef>

namespace fuzz_threads {

size_t Running();

// Waits until none runs. False: some were not in time.
bool WaitForAll(int milliseconds);

// Joins those that have ended and that nobody has joined or detached; returns how many those were.
size_t JoinTheRest();

} // namespace fuzz_threads
