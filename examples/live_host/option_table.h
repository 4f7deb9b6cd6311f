// Every option of the command line: its name, what the help says of it, and what it does.
#pragma once

#include "options.h"

#include <span>

struct Option {
    const char *name;     // null: the help's heading of those that follow; "": more help for the one before
    const char *argument; // what the help calls it; null: a switch
    const char *help;
    void (*apply)(Options &options, const Option &self, const std::string &value); // null: no option
    uint32_t low = 0;                                                              // of numbers
    uint32_t high = UINT32_MAX;
};

std::span<const Option> optionTable();
