// A connection's thread detaches itself and ends after its last line in the log. One that is still on its way
// when the process ends cannot give back what the cipher library keeps for each thread, or meets what the
// library has cleared away: the sanitizers report it, and a busy machine shows it.
#include "support/test_server.h"
#include "support/wait.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <thread>

namespace {

// Some tests leave a thread behind that never ends: there the wait is in vain, and short.
class LastThreads : public testing::Environment {
    void SetUp() override
    {
        (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); // for those that are later still
        std::thread([] {}).join(); // with the first one begins the sanitizer's own
        threads_ = wire::RunningThreads();
    }
    void TearDown() override
    {
        WaitUntil([this] { return wire::RunningThreads() <= threads_; }, 300);
    }
    size_t threads_ = 0; // the sanitizer's own among them
};

[[maybe_unused]] const testing::Environment *const g_last_threads =
    testing::AddGlobalTestEnvironment(new LastThreads);

} // namespace
