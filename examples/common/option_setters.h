// What the rows of an option table do: set a field of Options.
#pragma once

#include "option.h"

namespace setters {

// number<&Options::rtmpPort>, number<&Options::sender, &SenderOptions::flag>: a number into that field.
template <auto Field> void number(Options &options, const Option &self, const std::string &value)
{
    options.*Field = readNumber(self, value);
}

template <auto Group, auto Field> void number(Options &options, const Option &self, const std::string &value)
{
    options.*Group.*Field = readNumber(self, value);
}

inline void refuseEmpty(const Option &self, const std::string &value, const char *wanted)
{
    if (value.empty()) {
        refuseOption(self, value, wanted);
    }
}

template <auto Field> void text(Options &options, const Option &self, const std::string &value)
{
    refuseEmpty(self, value, "a name");
    options.*Field = value;
}

template <auto Field> void file(Options &options, const Option &self, const std::string &value)
{
    refuseEmpty(self, value, "a file");
    options.*Field = value;
}

template <auto Group, auto Field> void file(Options &options, const Option &self, const std::string &value)
{
    refuseEmpty(self, value, "a file");
    options.*Group.*Field = value;
}

template <auto Field> void turnOn(Options &options, const Option &, const std::string &)
{
    options.*Field = true;
}

template <auto Group, auto Field> void turnOn(Options &options, const Option &, const std::string &)
{
    options.*Group.*Field = true;
}

} // namespace setters
