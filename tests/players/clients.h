// Players besides rtmpdump: their command lines, and how those that only show are asked what they show.
#pragma once

#include "remote.h"
#include "stage.h"

constexpr int kPatienceMs = 30000; // with players that would never end

std::vector<std::string> Join(std::vector<std::string> words, const std::vector<std::string> &more);

// In the words of players, "URL" stands for the host's stream and "FILE" for the recording.
std::vector<std::string> Words(std::vector<std::string> words, const LiveHost &host, const Directory &work);

// Records all there is, for three seconds.
std::vector<std::string> Ffmpeg(const std::vector<std::string> &options, const std::string &url = "URL");

// Its own elements take the stream apart; what they understood is put together again.
std::vector<std::string> Gstreamer(const std::string &source, const std::string &location, int buffers);

// Each of these decodes, shows and sounds into nothing, and counts.
class FfplayInFront : public Process {
  public:
    explicit FfplayInFront(const LiveHost &host);
    bool goesOnFor(double seconds); // since its first picture with sound
};

class MpvInFront : public Process {
  public:
    MpvInFront(const LiveHost &host, const Directory &work);
    bool plays();                              // there are pictures of the right size, and sound
    bool goesOnFor(double seconds);            // from now
    double number(const std::string &property) // NaN: it has none now
    {
        return MpvNumber(remote_, property);
    }
    void command(const std::string &words) // as in JSON, without the brackets
    {
        MpvCommand(remote_, words);
    }

  private:
    Remote remote_;
};

class VlcInFront : public Process {
  public:
    VlcInFront(const LiveHost &host, const Directory &work);
    bool goesOnFor(double seconds); // from now
    void tell(const std::string &line)
    {
        remote_.tell(line);
    }
    long pictures()
    {
        return VlcCount(remote_, "frames displayed");
    }
    long sounds()
    {
        return VlcCount(remote_, "buffers played");
    }

  private:
    Remote remote_;
};
