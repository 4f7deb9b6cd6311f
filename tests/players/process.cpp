#include "process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

constexpr int kNoSuchProgram = 127;

// Starts the program with its output in `pipe`. -1: it could not be started.
pid_t Spawn(const std::vector<std::string> &words, int pipe)
{
    std::vector<char *> arguments;
    for (const std::string &word : words) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipe, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipe, STDERR_FILENO);
    pid_t pid = -1;
    if (posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

std::chrono::steady_clock::time_point In(int milliseconds)
{
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
}

} // namespace

Process::Process(const std::vector<std::string> &words)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe");
    }
    pipe_ = ends[0];
    pid_ = Spawn(words, ends[1]);
    close(ends[1]);
    exit_.code = pid_ < 0 ? kNoSuchProgram : -1;
    reader_ = std::thread([this] { collect(); });
}

Process::~Process()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    reader_.join();
    close(pipe_);
}

void Process::signal(int number)
{
    if (pid_ > 0) {
        kill(pid_, number);
    }
}

void Process::collect()
{
    char bytes[4096];
    ssize_t got;
    while ((got = read(pipe_, bytes, sizeof bytes)) > 0 || (got < 0 && errno == EINTR)) {
        const std::lock_guard<std::mutex> held(mutex_);
        output_.append(bytes, got > 0 ? static_cast<size_t>(got) : 0);
        changed_.notify_all();
    }
    const std::lock_guard<std::mutex> held(mutex_);
    closed_ = true;
    changed_.notify_all();
}

std::string Process::output() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return output_;
}

bool Process::waitForOutput(const std::function<bool(const std::string &)> &wanted, int deadlineMs)
{
    std::unique_lock<std::mutex> held(mutex_);
    const auto deadline = In(deadlineMs);
    while (!wanted(output_)) {
        if (closed_ || changed_.wait_until(held, deadline) == std::cv_status::timeout) {
            return wanted(output_);
        }
    }
    return true;
}

bool Process::waitForText(const std::string &text, int deadlineMs)
{
    return waitForOutput(
        [&text](const std::string &output) { return output.find(text) != std::string::npos; }, deadlineMs);
}

std::optional<Exit> Process::wait(int deadlineMs)
{
    {
        std::unique_lock<std::mutex> held(mutex_);
        if (!changed_.wait_until(held, In(deadlineMs), [this] { return closed_; })) {
            return std::nullopt;
        }
    }
    if (pid_ > 0) {
        int status = 0;
        waitpid(pid_, &status, 0); // it has closed its output, and these programs do so only at their end
        pid_ = -1;
        exit_.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        exit_.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    return exit_;
}

Finished RunToEnd(const std::vector<std::string> &words, int deadlineMs)
{
    Process process(words);
    const std::optional<Exit> exit = process.wait(deadlineMs);
    return {exit.value_or(Exit{}), process.output()};
}
