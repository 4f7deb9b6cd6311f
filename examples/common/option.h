// An option of a command line: its name, what the help says of it, and what it does.
#pragma once

#include "options.h"

#include <span>
#include <vector>

struct Option {
    const char *name;     // null: the help's heading of those that follow; "": more help for the one before
    const char *argument; // what the help calls it; null: a switch
    const char *help;
    void (*apply)(Options &options, const Option &self, const std::string &value); // null: no option
    uint32_t low = 0;                                                              // of numbers
    uint32_t high = UINT32_MAX;
};

// One table behind the other.
std::vector<Option> joined(std::initializer_list<std::span<const Option>> tables);

// Applies the words of a command line in their order. Throws OptionError.
Options readOptions(int argc, char **argv, std::span<const Option> table, const Options &defaults = {});

// "  --name ARGUMENT      what it does", a line for each.
std::string optionsHelp(std::span<const Option> table);

[[noreturn]] void refuseOption(const Option &option, const std::string &value, const std::string &wanted);
uint32_t readNumber(const Option &option, const std::string &value);

// What --encode takes, and needs: the bitrate it starts with.
void checkEncoding(Options &options);
