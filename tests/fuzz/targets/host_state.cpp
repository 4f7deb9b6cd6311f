// The host's side: programs of calls in any order, settings twice and in the wrong order, with players that
// come and go, clients of the host's own, and a publisher. What the public headers rule out is not done,
// whatever the input says; every status is one that they name, and at the end of an input no thread,
// descriptor, file or memory is left.
//
// max_len: 512
#include "support/host_world.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

using Operation = void (*)(host::World &, FuzzInput &);

constexpr Operation kOperations[] = {
#define HOST_OPERATION(name) host::name,
    HOST_OPERATIONS(HOST_OPERATION)
#undef HOST_OPERATION
};
static_assert(std::size(kOperations) == static_cast<size_t>(HostOp::Count_));

constexpr int kMostOperations = 96;

void ReturnFromSignal(int) {}

// A handler that returns, without SA_RESTART.
void InstallHandler()
{
    struct sigaction action = {};
    action.sa_handler = ReturnFromSignal;
    sigaction(SIGUSR1, &action, nullptr);
    (void)HandleSignal();
}

// What the library says on standard output, as of servers that have no logger any more, goes nowhere for as
// long as one lives.
class QuietOutput {
  public:
    QuietOutput()
    {
        static const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        static const int output = dup(STDOUT_FILENO);
        output_ = output;
        fflush(stdout);
        dup2(nowhere, STDOUT_FILENO);
    }
    ~QuietOutput()
    {
        fflush(stdout);
        dup2(output_, STDOUT_FILENO);
    }
    QuietOutput(const QuietOutput &) = delete;
    QuietOutput &operator=(const QuietOutput &) = delete;

  private:
    int output_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool isInstalled = (InstallHandler(), true);
    (void)isInstalled;
    const QuietOutput quiet;
    FuzzInput input(data, size);
    host::World world;
    for (int i = 0; i < kMostOperations && input.size() > 0; i++) {
        kOperations[input.byte() % std::size(kOperations)](world, input);
    }
    return 0;
}
