// A connection's thread detaches itself and ends after its last line in the log. One that is still on its way
// when the process ends cannot give back what the cipher library keeps for each thread, which the leak check
// then reports.
#include "support/test_server.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__)
namespace {

// Some tests leave a thread behind that never ends: there the wait is in vain, and short.
class LastThreads : public testing::Environment {
    void TearDown() override
    {
        WaitUntil([] { return wire::RunningThreads() == 1; }, 300);
    }
};

[[maybe_unused]] const testing::Environment *const g_last_threads =
    testing::AddGlobalTestEnvironment(new LastThreads);

} // namespace
#endif
