// The first line of the sender thread under the policies that an ordinary account may not have: the system's
// answer is the test's.
#include "sender/scripted_fan_out.h"

#include <pthread.h>

namespace {

constexpr int kOwnPolicy = -1;
std::atomic<int> shownPolicy = kOwnPolicy;

struct PolicyRow {
    int policy;
    const char *line;
};

class SenderThreadPolicy : public testing::TestWithParam<PolicyRow> {};

} // namespace

extern "C" int __real_pthread_getschedparam(pthread_t thread, int *policy, sched_param *parameters);

extern "C" int __wrap_pthread_getschedparam(pthread_t thread, int *policy, sched_param *parameters)
{
    const int result = __real_pthread_getschedparam(thread, policy, parameters);
    if (shownPolicy != kOwnPolicy) {
        *policy = shownPolicy;
        parameters->sched_priority = 7;
    }
    return result;
}

TEST_P(SenderThreadPolicy, IsNamedWithItsPriority)
{
    SenderRig rig;
    shownPolicy = GetParam().policy;
    EXPECT_EQ(rig.audio("one", 1000), 0);
    EXPECT_TRUE(rig.log.waitFor("Sender Thread Started"));
    shownPolicy = kOwnPolicy;
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{GetParam().line});
}

INSTANTIATE_TEST_SUITE_P(
    RealTime, SenderThreadPolicy,
    testing::Values(PolicyRow{SCHED_FIFO, "6 INFO: RtmpSenderThread :Sender Thread Started: SCHED_FIFO:7"},
                    PolicyRow{SCHED_RR, "6 INFO: RtmpSenderThread :Sender Thread Started: SCHED_RR:7"}));
