// How many failures were injected, by exported function and kind of call: what scripts/failures.sh makes its
// table of.
#pragma once

#include <string>

namespace every_call {

void CountWay(const std::string &function); // a way of it was gone through
void CountFailure(const std::string &function, const std::string &kind);

} // namespace every_call
