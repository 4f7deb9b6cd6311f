// live_host's options, as parseOptions and the help go through them.
#pragma once

#include "common/option.h"

std::vector<Option> optionTable();
