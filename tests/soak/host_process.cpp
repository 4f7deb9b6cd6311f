#include "soak/host_process.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <new>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace soak {

HostProcess::HostProcess(const std::string &program, uint32_t seed)
{
    const int shared = memfd_create("progress", MFD_CLOEXEC);
    int ends[2];
    if (ftruncate(shared, sizeof(Progress)) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error("no way to the host");
    }
    void *memory = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED, shared, 0);
    progress_ = new (memory) Progress;
    for (std::atomic<uint64_t> &each : progress_->pictures) {
        each = kNotRecording;
    }
    const std::string seedText = std::to_string(seed);
    pid_ = fork();
    if (pid_ == 0) { // above the two numbers first, so that neither covers the other
        const int control = dup(dup(dup(ends[1]))), memoryFile = dup(dup(shared));
        dup2(control, kControlDescriptor);
        dup2(memoryFile, kProgressDescriptor);
        closefrom(kProgressDescriptor + 1);
        execl(program.c_str(), program.c_str(), seedText.c_str(), nullptr);
        _exit(127);
    }
    close(ends[1]);
    close(shared);
    control_ = ends[0];
    const timeval patience = {300, 0};
    setsockopt(control_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
}

HostProcess::~HostProcess()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    munmap(progress_, sizeof(Progress));
    if (control_ >= 0) {
        close(control_);
    }
}

std::string HostProcess::ask(const std::string &line)
{
    const std::lock_guard<std::mutex> held(mutex_);
    const std::string question = line + "\n";
    send(control_, question.data(), question.size(), MSG_NOSIGNAL);
    std::string answer;
    char byte = 0;
    ssize_t got = recv(control_, &byte, 1, 0);
    for (; got == 1 && byte != '\n'; got = recv(control_, &byte, 1, 0)) {
        answer += byte;
    }
    if (got != 1) {
        throw std::runtime_error("the host does not answer: " + line + (got == 0 ? howItEnded() : ""));
    }
    return answer;
}

std::string HostProcess::howItEnded()
{
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = 0;
    return WIFSIGNALED(status) ? ", for signal " + std::to_string(WTERMSIG(status)) + " ended it"
                               : ", for it ended with " + std::to_string(WEXITSTATUS(status));
}

Figures HostProcess::figures()
{
    unsigned long long value[7] = {};
    sscanf(ask("figures").c_str(), "%llu %llu %llu %llu %llu %llu %llu", &value[0], &value[1], &value[2],
           &value[3], &value[4], &value[5], &value[6]);
    return {value[0], value[1], value[2], value[3], value[4], value[5], value[6]};
}

long HostProcess::residentKiB() const
{
    FILE *file = fopen(("/proc/" + std::to_string(pid_) + "/statm").c_str(), "r");
    long size = 0, resident = 0;
    if (file == nullptr || fscanf(file, "%ld %ld", &size, &resident) != 2) {
        resident = 0;
    }
    if (file != nullptr) {
        fclose(file);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int HostProcess::entries(const char *folder) const
{
    DIR *directory = opendir(("/proc/" + std::to_string(pid_) + folder).c_str());
    int count = 0;
    while (const dirent *entry = directory != nullptr ? readdir(directory) : nullptr) {
        count += entry->d_name[0] != '.';
    }
    if (directory != nullptr) {
        closedir(directory);
    }
    return count;
}

int HostProcess::descriptors() const
{
    return entries("/fd");
}

int HostProcess::threads() const
{
    return entries("/task");
}

int HostProcess::finish()
{
    close(control_);
    control_ = -1;
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

} // namespace soak
