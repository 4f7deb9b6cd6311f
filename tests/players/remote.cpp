#include "remote.h"

#include "process.h"
#include "support/wait.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// -1: nobody listens there.
int Connect(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

} // namespace

Remote::Remote(const std::string &path)
{
    const bool connected = WaitUntil(
        [&] {
            socket_ = Connect(path);
            return socket_ >= 0;
        },
        kDeadlineMs);
    if (!connected) {
        throw std::runtime_error("nobody listens on " + path);
    }
}

Remote::~Remote()
{
    close(socket_);
}

void Remote::tell(const std::string &line)
{
    (void)!send(socket_, (line + "\n").data(), line.size() + 1, MSG_NOSIGNAL);
}

std::string Remote::ask(const std::string &line, const std::string &end)
{
    tell(line);
    while (true) {
        const size_t found = unread_.find(end);
        const size_t lineEnd = found != std::string::npos ? unread_.find('\n', found) : found;
        if (lineEnd != std::string::npos) {
            const std::string said = unread_.substr(0, lineEnd + 1);
            unread_.erase(0, lineEnd + 1);
            return said;
        }
        pollfd ready = {socket_, POLLIN, 0};
        char bytes[4096];
        const ssize_t got = poll(&ready, 1, kDeadlineMs) == 1 ? recv(socket_, bytes, sizeof bytes, 0) : 0;
        if (got <= 0) {
            return unread_;
        }
        unread_.append(bytes, static_cast<size_t>(got));
    }
}

double MpvNumber(Remote &mpv, const std::string &property)
{
    const std::string said =
        "\n" +
        mpv.ask(R"({"command":["get_property",")" + property + R"("],"request_id":7})", R"("request_id":7)");
    const size_t answer = said.rfind('\n', said.size() - 2); // events stand in front of it
    const size_t data = said.find(R"("data":)", answer != std::string::npos ? answer : 0);
    return data != std::string::npos ? atof(said.c_str() + data + strlen(R"("data":)")) : NAN;
}

void MpvCommand(Remote &mpv, const std::string &words)
{
    mpv.ask(R"({"command":[)" + words + R"(],"request_id":8})", R"("request_id":8)");
}

long VlcCount(Remote &vlc, const std::string &what)
{
    const std::string said = vlc.ask("stats", "stats: returned");
    const size_t at = said.rfind("| " + what);
    const size_t colon = at != std::string::npos ? said.find(':', at) : at;
    return colon != std::string::npos ? atol(said.c_str() + colon + 1) : -1;
}
