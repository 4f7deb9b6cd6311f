#include "measure.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::atomic<uint64_t> g_allocations;

uint64_t Nanoseconds(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1000000000 + static_cast<uint64_t>(time.tv_nsec);
}

} // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *old, size_t size);

void *__wrap_malloc(size_t size)
{
    g_allocations++;
    return __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    g_allocations++;
    return __real_calloc(count, size);
}

void *__wrap_realloc(void *old, size_t size)
{
    g_allocations++;
    return __real_realloc(old, size);
}
}

double CpuSeconds()
{
    return static_cast<double>(Nanoseconds(CLOCK_PROCESS_CPUTIME_ID)) / 1e9;
}

double ThreadCpuSeconds()
{
    return static_cast<double>(Nanoseconds(CLOCK_THREAD_CPUTIME_ID)) / 1e9;
}

double CpuSecondsOf(pid_t other)
{
    const std::string path = "/proc/" + std::to_string(other) + "/schedstat";
    uint64_t onCpu = 0;
    FILE *file = fopen(path.c_str(), "r");
    if (file == nullptr || fscanf(file, "%" SCNu64, &onCpu) != 1) {
        fprintf(stderr, "no %s\n", path.c_str());
        exit(1);
    }
    fclose(file);
    return static_cast<double>(onCpu) / 1e9;
}

double ResidentKiB()
{
    long pages = 0;
    FILE *file = fopen("/proc/self/statm", "r");
    if (file == nullptr || fscanf(file, "%*s %ld", &pages) != 1) {
        exit(1);
    }
    fclose(file);
    return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

uint64_t Allocations()
{
    return g_allocations;
}

uint64_t NowNanoseconds()
{
    return Nanoseconds(CLOCK_MONOTONIC);
}

double Percentile(std::vector<double> values, double share)
{
    std::sort(values.begin(), values.end());
    const size_t at = static_cast<size_t>(share * static_cast<double>(values.size()));
    return values[std::min(at, values.size() - 1)];
}

void InOwnProcess(const std::function<void()> &work)
{
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        work();
        fflush(stdout);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0) {
        fprintf(stderr, "a row failed\n");
        exit(1);
    }
}

void AllowManyDescriptors()
{
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
}

uint16_t FreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        perror("bind");
        exit(1);
    }
    close(fd);
    return ntohs(address.sin_port);
}
