// What the benchmarks measure with: CPU seconds, resident memory, heap allocations.
#pragma once

#include <cstdint>
#include <functional>
#include <sys/types.h>
#include <vector>

double CpuSeconds();              // of all threads of this process
double ThreadCpuSeconds();        // of the calling thread
double CpuSecondsOf(pid_t other); // of another process' first thread
double ResidentKiB();
uint64_t Allocations(); // calls of malloc, calloc and realloc since the program began

uint64_t NowNanoseconds(); // CLOCK_MONOTONIC, the same in every process

// The value that `share` of them do not exceed.
double Percentile(std::vector<double> values, double share);

// Each row has a process of its own: memory that one leaves behind is not the next one's.
void InOwnProcess(const std::function<void()> &work);

// As many descriptors as the system allows.
void AllowManyDescriptors();

uint16_t FreePort();
