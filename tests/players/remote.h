// Players that are told what to do while they play: over a socket of theirs.
#pragma once

#include <string>

// A program that listens on a socket of this path, or will in a moment.
class Remote {
  public:
    explicit Remote(const std::string &path);
    ~Remote();
    Remote(const Remote &) = delete;
    Remote &operator=(const Remote &) = delete;

    void tell(const std::string &line);

    // What it says from now on, up to the line that holds `end`. Shorter: it fell silent, or the deadline
    // passed.
    std::string ask(const std::string &line, const std::string &end);

  private:
    int socket_ = -1;
    std::string unread_;
};

// A number that mpv tells over its IPC: "time-pos", "video-params/w". NaN: it has none now.
double MpvNumber(Remote &mpv, const std::string &property);
void MpvCommand(Remote &mpv, const std::string &words); // as in JSON, without the brackets

// A number of VLC's statistics: "frames displayed". -1: it is not among them.
long VlcCount(Remote &vlc, const std::string &what);
