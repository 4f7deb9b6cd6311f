#include "session_watch.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

namespace {

// A string in JSON (RFC 8259, 7). Bytes that are no UTF-8 would be the user's own, in the name of a session.
std::string quoted(const std::string &text)
{
    std::string out = "\"";
    for (const char each : text) {
        if (each == '"' || each == '\\') {
            out += '\\';
        }
        if (static_cast<unsigned char>(each) < 0x20) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(each));
            out += escape;
        } else {
            out += each;
        }
    }
    return out + "\"";
}

std::string pair(const char *name, const std::string &value)
{
    return "\"" + std::string(name) + "\":" + value;
}

std::string pair(const char *name, uint64_t value)
{
    return pair(name, std::to_string(value));
}

// "{...}" or "[...]" of what is given.
std::string enclosed(char open, const std::vector<std::string> &items, char close)
{
    std::string out(1, open);
    for (size_t i = 0; i < items.size(); i++) {
        out += (i > 0 ? "," : "") + items[i];
    }
    return out + close;
}

const char *stateOf(const RtmpClientFigures &viewer)
{
    switch (viewer.State) {
    case CLIENT_STATE_PLAY_DONE:
        return "playing";
    case CLIENT_STATE_PAUSE_DONE:
        return "paused";
    default:
        return "between"; // has joined, or has been told to leave
    }
}

std::string viewerAsJson(const RtmpClientFigures &viewer)
{
    return enclosed('{',
                    {pair("address", quoted(viewer.Address)), pair("port", viewer.Port),
                     pair("tls", viewer.IsTls != 0 ? "true" : "false"),
                     pair("state", quoted(stateOf(viewer))), pair("milliseconds", viewer.Milliseconds),
                     pair("bytes", viewer.Bytes), pair("frames", viewer.Frames),
                     pair("dropped_frames", viewer.DroppedFrames), pair("restarts", viewer.Restarts),
                     pair("lag_milliseconds", viewer.LagMilliseconds),
                     pair("lag_pictures", viewer.LagPictures), pair("waiting_bytes", viewer.WaitingBytes),
                     pair("round_trip_micros", viewer.RoundTripMicros)},
                    '}');
}

std::string sessionAsJson(const SessionLook &look)
{
    const RtmpSessionFigures &figures = look.figures;
    std::vector<std::string> viewers;
    std::ranges::transform(look.viewers, std::back_inserter(viewers), viewerAsJson);
    return enclosed(
        '{',
        {pair("name", quoted(look.name)), pair("viewers", figures.Viewers),
         pair("viewers_in_all", figures.ViewersInAll), pair("bytes", figures.Bytes),
         pair("frames", figures.Frames), pair("dropped_frames", figures.DroppedFrames),
         pair("ring_messages", figures.RingMessages), pair("ring_milliseconds", figures.RingMilliseconds),
         pair("ring_bytes", figures.RingBytes), pair("slowest_milliseconds", figures.SlowestMilliseconds),
         pair("slowest_pictures", figures.SlowestPictures), pair("clients", enclosed('[', viewers, ']'))},
        '}');
}

// The session is there, and on the steady road: nothing fails.
SessionLook lookAt(const std::string &name, RtmpSession *session, bool atViewers)
{
    SessionLook look = {name, {}, {}};
    (void)RtmpSessionStatistics(session, &look.figures);
    if (!atViewers) {
        return look;
    }
    const int32_t count = RtmpClientStatistics(session, nullptr, 0);
    look.viewers.resize(static_cast<size_t>(std::max(count, 0)));
    const int32_t found =
        RtmpClientStatistics(session, look.viewers.data(), static_cast<uint32_t>(look.viewers.size()));
    look.viewers.resize(std::min(look.viewers.size(), static_cast<size_t>(std::max(found, 0))));
    return look;
}

} // namespace

uint32_t Look::viewers() const
{
    uint32_t sum = 0;
    for (const SessionLook &each : sessions) {
        sum += each.figures.Viewers;
    }
    return sum;
}

uint64_t Look::bytes() const
{
    uint64_t sum = 0;
    for (const SessionLook &each : sessions) {
        sum += each.figures.Bytes;
    }
    return sum;
}

uint64_t Look::droppedFrames() const
{
    uint64_t sum = 0;
    for (const SessionLook &each : sessions) {
        sum += each.figures.DroppedFrames;
    }
    return sum;
}

uint32_t Look::slowestMilliseconds() const
{
    uint32_t most = 0;
    for (const SessionLook &each : sessions) {
        most = std::max(most, each.figures.SlowestMilliseconds);
    }
    return most;
}

void SessionWatch::add(const std::string &name, RtmpSession *session)
{
    const std::lock_guard<std::mutex> held(mutex_);
    sessions_.push_back({name, session});
}

void SessionWatch::clear()
{
    const std::lock_guard<std::mutex> held(mutex_);
    sessions_.clear();
}

Look SessionWatch::look(bool atViewers) const
{
    Look look;
    const std::lock_guard<std::mutex> held(mutex_);
    for (const Watched &each : sessions_) {
        look.sessions.push_back(lookAt(each.name, each.session, atViewers));
    }
    return look;
}

std::string jsonLine(const Second &second, const Look &look)
{
    std::vector<std::string> sessions;
    std::ranges::transform(look.sessions, std::back_inserter(sessions), sessionAsJson);
    return enclosed('{',
                    {pair("time", std::to_string(second.unixTime)),
                     pair("uptime", std::to_string(second.uptime)), pair("viewers", look.viewers()),
                     pair("in_kbit_s", static_cast<uint64_t>(second.inKbps)),
                     pair("out_kbit_s", static_cast<uint64_t>(second.outKbps)),
                     pair("dropped_frames", look.droppedFrames()),
                     pair("slowest_milliseconds", look.slowestMilliseconds()),
                     pair("sessions", enclosed('[', sessions, ']'))},
                    '}') +
           "\n";
}

LineFile::LineFile(const std::string &path)
    : file_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644))
{
    if (file_ < 0) {
        throw std::runtime_error("--stats-json: '" + path + "': " + strerror(errno));
    }
}

LineFile::~LineFile()
{
    close(file_);
}

bool LineFile::append(const std::string &line)
{
    return write(file_, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}
