// Tests that share a process find the host's side as the first one found it.
#include "support/host_fakes.h"

#include <gtest/gtest.h>

namespace {

class FreshFakes : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo &) override
    {
        HostFakes::get().reset();
    }
};

[[maybe_unused]] const bool areFresh = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new FreshFakes); // which owns it
    return true;
}();

} // namespace
