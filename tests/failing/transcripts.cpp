#include "failing/transcripts.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>

namespace every_call {

const std::vector<NamedCall> kKinds = {
    {Call::Calloc, "calloc"},
    {Call::Malloc, "malloc"},
    {Call::Realloc, "realloc"},
    {Call::MutexInit, "lock init"},
    {Call::MutexLock, "lock"},
    {Call::MutexUnlock, "unlock"},
    {Call::MutexDestroy, "lock destroy"},
    {Call::ThreadCreate, "thread create"},
    {Call::ThreadJoin, "thread join"},
    {Call::Hmac, "HMAC"},
    {Call::Socket, "socket"},
    {Call::SetSockOpt, "setsockopt"},
    {Call::GetSockOpt, "getsockopt"},
    {Call::Bind, "bind"},
    {Call::Listen, "listen"},
    {Call::Ioctl, "ioctl"},
    {Call::Shutdown, "shutdown"},
    {Call::Close, "close"},
    {Call::Fcntl, "fcntl"},
    {Call::Poll, "poll"},
    {Call::Recv, "recv"},
    {Call::Read, "read"},
    {Call::Send, "send"},
    {Call::SendMmsg, "sendmmsg"},
    {Call::SendMsg, "sendmsg"},
    {Call::SendFile, "sendfile"},
    {Call::Write, "write"},
    {Call::TlsRead, "SSL_read"},
    {Call::TlsWrite, "SSL_write"},
    {Call::EpollCreate, "epoll_create1"},
    {Call::EpollCtl, "epoll_ctl"},
    {Call::EventFd, "eventfd"},
    {Call::FileOpen, "fopen"},
    {Call::FilePrint, "fprintf"},
    {Call::MakeDirectory, "mkdir"},
};

namespace {

using Lines = std::vector<std::string>;

std::string Settled(const std::string &line)
{
    static const std::regex pointer("0x[0-9a-f]+"), descriptor("(Shutdown|Close) of [0-9]+");
    return std::regex_replace(std::regex_replace(line, pointer, "<p>"), descriptor, "$1 of <fd>");
}

std::string Numbers(int first, int last)
{
    return std::to_string(first) + (first == last ? "" : " to " + std::to_string(last));
}

// Lines, those left out with which the call begins also when nothing fails.
std::string Remaining(const Lines &lines, const Lines &good)
{
    const auto differing = std::mismatch(lines.begin(), lines.end(), good.begin(), good.end()).first;
    const auto before = differing - lines.begin();
    std::string text = before == 0 ? "" : "    (" + std::to_string(before) + " as above)\n";
    for (auto line = differing; line != lines.end(); ++line) {
        text += "    " + *line + "\n";
    }
    return text;
}

std::string Head(const std::string &what, int code)
{
    return what + ": " + std::to_string(code) + "\n";
}

// One row for a run of the same.
std::string Rows(const std::vector<Outcome> &outcomes, const Lines &good)
{
    std::string text;
    for (size_t i = 0; i < outcomes.size();) {
        const Outcome &first = outcomes[i];
        size_t end = i + 1;
        while (end < outcomes.size() && outcomes[end].kind == first.kind &&
               outcomes[end].code == first.code && outcomes[end].lines == first.lines) {
            end++;
        }
        text += Head(first.kind + " " + Numbers(first.number, outcomes[end - 1].number), first.code);
        text += Remaining(first.lines, good);
        i = end;
    }
    return text;
}

Lines Settled(const Lines &lines)
{
    Lines settled;
    for (const std::string &line : lines) {
        settled.push_back(Settled(line));
    }
    return settled;
}

// What stands under each heading, or under several; lines of a # are remarks.
std::map<std::string, std::string> ReadTable()
{
    std::map<std::string, std::string> table;
    std::ifstream file(RTMPCAST_TRANSCRIPTS);
    EXPECT_TRUE(file.is_open()) << RTMPCAST_TRANSCRIPTS;
    std::vector<std::string> headings;
    bool isHead = false;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const bool wasHead = isHead;
        isHead = line.rfind("== ", 0) == 0;
        if (isHead && !wasHead) {
            headings.clear();
        }
        if (isHead) {
            headings.push_back(line.substr(3));
            continue;
        }
        for (const std::string &heading : headings) {
            table[heading] += line + "\n";
        }
    }
    return table;
}

} // namespace

void ExpectTranscript(const std::string &heading, const std::vector<Outcome> &failures, const Outcome &good)
{
    static const std::map<std::string, std::string> table = ReadTable();
    std::vector<Outcome> settled = failures;
    for (Outcome &outcome : settled) {
        outcome.lines = Settled(outcome.lines);
    }
    const Lines goodLines = Settled(good.lines);
    const std::string rows =
        Head("no failure", good.code) + Remaining(goodLines, {}) + Rows(settled, goodLines);
    if (const char *path = std::getenv("RTMPCAST_NEW_TRANSCRIPTS")) {
        std::ofstream(path, std::ios::app) << "== " << heading << "\n" << rows << "\n";
    }
    const auto found = table.find(heading);
    EXPECT_EQ(rows, found != table.end() ? found->second : "") << "== " << heading;
}

} // namespace every_call
