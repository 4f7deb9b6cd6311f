#include "status_line.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

using std::chrono::duration_cast;
using std::chrono::seconds;
using std::chrono::steady_clock;

StatusLine::StatusLine(const Options &options, const Counters &counters, const SessionWatch &watch,
                       LineFile *stats, Console &console)
    : options_(options), counters_(counters), watch_(watch), stats_(stats), console_(console)
{
    if (!options.trace.directory.empty()) {
        for (const std::string &directory : traceDirectories(options)) {
            traces_.emplace_back(directory);
        }
    }
}

// What went in and out since the last time.
Second StatusLine::sinceShown(const Look &look)
{
    const steady_clock::time_point now = steady_clock::now();
    const double kilobits = 8.0 / 1000 / std::chrono::duration<double>(now - shown_).count();
    const uint64_t bytes = counters_.bytes;
    const uint64_t sent = std::max(look.bytes(), sentShown_);
    const Second second = {.unixTime = time(nullptr),
                           .uptime = static_cast<long>(duration_cast<seconds>(now - start_).count()),
                           .inKbps = static_cast<double>(bytes - bytesShown_) * kilobits,
                           .outKbps = static_cast<double>(sent - sentShown_) * kilobits};
    bytesShown_ = bytes;
    sentShown_ = sent;
    shown_ = now;
    return second;
}

// In: what the library took. Out: what viewers were sent, or with --exact what the library measured. Target:
// what the encoder was told.
void StatusLine::show()
{
    const Look look = watch_.look(stats_ != nullptr); // nothing with --exact
    const Second second = sinceShown(look);
    const long up = second.uptime;
    const uint32_t viewers =
        options_.exact ? static_cast<uint32_t>(counters_.viewers.load()) : look.viewers();
    char line[80];
    snprintf(line, sizeof line, "viewers %u  up %02ld:%02ld:%02ld  in %4.0f", viewers, up / 3600,
             up / 60 % 60, up % 60, second.inKbps);
    console_.status(line + rates(second) + (options_.exact ? losses() : lag(look)));
    writeStats(second, look);
}

void StatusLine::writeStats(const Second &second, const Look &look)
{
    if (stats_ != nullptr && !stats_->append(jsonLine(second, look))) {
        console_.warn("--stats-json: a line could not be written");
    }
}

std::string StatusLine::rates(const Second &second) const
{
    std::string text;
    const int32_t measured = counters_.measuredKbps;
    if (!options_.exact) {
        text += " out " + std::to_string(static_cast<long>(second.outKbps));
    } else if (measured >= 0) {
        text += " out " + std::to_string(measured);
    }
    if (const int32_t target = counters_.targetBitrate; target >= 0) {
        text += " target " + std::to_string(target / 1000);
    }
    return text + " kbit/s";
}

// Of several sessions the one with the fullest ring; what they dropped is summed up.
std::optional<TraceLine> StatusLine::fullest(uint64_t &dropped) const
{
    std::optional<TraceLine> found;
    for (const TraceTail &trace : traces_) {
        const std::optional<TraceLine> line = trace.newest();
        dropped += line ? static_cast<uint64_t>(line->dropped) : 0;
        if (line && (!found || line->queued > found->queued)) {
            found = line;
        }
    }
    return found;
}

std::string StatusLine::queue(const TraceLine &line) const
{
    const uint32_t slots = options_.sender.videoQueue + 1;
    const uint32_t queued = static_cast<uint32_t>(std::max(line.queued, 0));
    return "  queue " + std::to_string((queued * 100 + slots / 2) / slots) + "% (" + std::to_string(queued) +
           "/" + std::to_string(slots) + ")";
}

std::string StatusLine::sent() const
{
    return "  sent " + std::to_string(counters_.sent) + "  unwatched " + std::to_string(counters_.unwatched);
}

/*
 * The library tells how full a ring is in its trace alone. The trace also counts the frames of a flushed
 * ring; the one that found it full is not among them. Without a trace only the flushes can be counted.
 */
std::string StatusLine::losses() const
{
    const uint64_t flushes = counters_.flushes;
    uint64_t dropped = counters_.dropped;
    std::string text;
    if (const std::optional<TraceLine> line = fullest(dropped)) {
        text += queue(*line);
        dropped += flushes;
    } else if (flushes > 0) {
        text += "  flushes " + std::to_string(flushes);
    }
    return text + "  dropped " + std::to_string(dropped) + sent();
}

// The same of the steady road, where each viewer has losses of its own.
std::string StatusLine::lag(const Look &look) const
{
    uint64_t traced = 0;
    const std::optional<TraceLine> line = fullest(traced);
    return (line ? queue(*line) : std::string()) + "  dropped " +
           std::to_string(counters_.dropped + look.droppedFrames()) + "  lag " +
           std::to_string(look.slowestMilliseconds()) + " ms" + sent();
}
