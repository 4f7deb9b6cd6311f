// What the main procedures of the reference hosts have in common.
#pragma once

#include "console.h"
#include "options.h"
#include "source.h"
#include "supervisor.h"

#include <cstdint>
#include <functional>
#include <string>

enum ExitCode { kOk = 0, kFailed = 1, kBadUsage = 2, kRefused = 3 };

struct HostProgram {
    const char *name;
    Options (*parse)(int argc, char **argv);                   // throws OptionError
    std::string (*help)();                                     // what --help prints
    ExitCode (*run)(const Options &options, Console &console); // what it throws is shown: kFailed
};

// From the command line to the exit code.
int hostMain(const HostProgram &program, int argc, char **argv);

// What the source has, and what of it the library does not take as it is.
void describe(const MediaDescription &media, Console &console);

// sendFrames, until the flag is raised; from then on the supervisor expects the clean stop.
void sendUntilStopped(FrameSource &source,
                      const std::function<void(const Frame &frame, uint64_t timestamp)> &deliver,
                      Console &console, const StopFlag &stop, Supervisor &supervisor);
