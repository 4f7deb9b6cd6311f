#include "host_main.h"

#include "host_functions.h"

#include <cstdio>
#include <exception>

int hostMain(const HostProgram &program, int argc, char **argv)
{
    prepareSignals();
    Options options;
    try {
        options = program.parse(argc, argv);
    } catch (const OptionError &error) {
        fprintf(stderr, "%s: %s\n%s --help shows all options.\n", program.name, error.what(), program.name);
        return kBadUsage;
    }
    if (options.help) {
        fputs(program.help().c_str(), stdout);
        return kOk;
    }
    Console console(program.name, logLevelOf(options));
    hostFunctions.console = &console;
    try {
        return program.run(options, console);
    } catch (const std::exception &error) {
        console.fail(error.what());
        return kFailed;
    }
}

void describe(const MediaDescription &media, Console &console)
{
    console.say(media.summary);
    for (const std::string &warning : media.warnings) {
        console.warn(warning);
    }
}

void sendUntilStopped(FrameSource &source,
                      const std::function<void(const Frame &frame, uint64_t timestamp)> &deliver,
                      Console &console, const StopFlag &stop, Supervisor &supervisor)
{
    try {
        sendFrames(source, deliver, console, stop);
    } catch (const SourceError &) {
        supervisor.sendingIsOver();
        if (!stop.raised()) {
            throw; // else a read was interrupted, as it should be
        }
    }
    supervisor.sendingIsOver();
    console.endStatus();
}
