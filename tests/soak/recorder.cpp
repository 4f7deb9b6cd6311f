#include "soak/recorder.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace soak {

DumpRecorder::DumpRecorder(Recording &recording, uint16_t port, const std::string &name)
    : recording_(recording)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe");
    }
    const std::string url = "rtmp://127.0.0.1:" + std::to_string(port) + "/live/" + name;
    const char *words[] = {"rtmpdump", "-q", "-v", "-m", "600", "-o", "-", "-r", url.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    const int result = posix_spawnp(&pid_, words[0], &actions, nullptr, const_cast<char **>(words), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    pipe_ = ends[0];
    if (result != 0) {
        close(pipe_);
        throw std::runtime_error("rtmpdump cannot be started");
    }
    recording_.begin();
    thread_ = std::thread([this] { run(); });
}

DumpRecorder::~DumpRecorder()
{
    kill(pid_, SIGKILL);
    thread_.join();
    waitpid(pid_, nullptr, 0);
    close(pipe_);
    recording_.end();
}

bool DumpRecorder::readExactly(void *to, size_t length)
{
    uint8_t *at = static_cast<uint8_t *>(to);
    while (length > 0) {
        const ssize_t got = read(pipe_, at, length);
        if (got <= 0) {
            return false;
        }
        at += got;
        length -= static_cast<size_t>(got);
    }
    return true;
}

// FLV, E.4.1: type:8  length:24  timestamp:24, its upper 8 bits:8  stream id:24  body  length of the tag:32
bool DumpRecorder::readTag()
{
    uint8_t header[11], behind[4];
    if (!readExactly(header, sizeof header)) {
        return false;
    }
    const size_t length = size_t{header[1]} << 16 | size_t{header[2]} << 8 | header[3];
    const uint32_t timestamp =
        uint32_t{header[7]} << 24 | uint32_t{header[4]} << 16 | uint32_t{header[5]} << 8 | header[6];
    std::vector<uint8_t> body(length);
    if (!readExactly(body.data(), length) || !readExactly(behind, sizeof behind)) {
        return false;
    }
    recording_.take(header[0], timestamp, body.data(), length);
    return true;
}

void DumpRecorder::run()
{
    uint8_t header[13];
    bool goesOn = readExactly(header, sizeof header);
    while (goesOn) {
        goesOn = readTag();
    }
    ended_ = true;
}

std::string DumpRecorder::fault() const
{
    return ended_ ? "it has ended" : "";
}

} // namespace soak
