// Rows that the option tables of the hosts have in common.
#pragma once

#include "option.h"

std::span<const Option> encoderRows();
std::span<const Option> adaptiveRows();
std::span<const Option> captionRows();
std::span<const Option> saidRows();
