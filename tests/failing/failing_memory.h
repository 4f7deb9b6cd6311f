// Allocations of the library that fail on demand. What the tests themselves allocate through C++ is not
// touched.
#pragma once

// While it lives, counts the allocations of the calling thread and fails the one of the given number, from 1
// on; 0 fails none.
class FailingAllocation {
  public:
    explicit FailingAllocation(int number);
    FailingAllocation(const FailingAllocation &) = delete;
    ~FailingAllocation();
    int seen() const;
};
