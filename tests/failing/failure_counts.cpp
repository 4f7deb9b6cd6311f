#include "failing/failure_counts.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <map>

namespace every_call {
namespace {

std::map<std::string, int> &Ways()
{
    static std::map<std::string, int> ways;
    return ways;
}

std::map<std::string, std::map<std::string, int>> &Failures()
{
    static std::map<std::string, std::map<std::string, int>> failures;
    return failures;
}

// With RTMPCAST_FAILURES in the environment, a line for each: function, tab, kind, tab, count; "ways" for the
// ways.
class Table : public testing::Environment {
  public:
    void TearDown() override
    {
        const char *path = std::getenv("RTMPCAST_FAILURES");
        if (path == nullptr) {
            return;
        }
        std::ofstream file(path, std::ios::app);
        for (const auto &[function, ways] : Ways()) {
            file << function << "\tways\t" << ways << "\n";
            for (const auto &[kind, count] : Failures()[function]) {
                file << function << "\t" << kind << "\t" << count << "\n";
            }
        }
    }
};

[[maybe_unused]] const testing::Environment *const kTable = testing::AddGlobalTestEnvironment(new Table);

} // namespace

void CountWay(const std::string &function)
{
    Ways()[function]++;
}

void CountFailure(const std::string &function, const std::string &kind)
{
    Failures()[function][kind]++;
}

} // namespace every_call
