// What a test with real players needs: the reference host on a port of its own, rtmpdump as a player, and a
// look into what was recorded.
#pragma once

#include "process.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

// Below the range that the kernel hands out to connecting sockets. It may be taken.
uint16_t SomePort();

// A directory that goes with its test.
class Directory {
  public:
    Directory();
    ~Directory();
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;
    std::string path(const std::string &name) const
    {
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

// live_host on the loopback interface, with its log.
class LiveHost {
  public:
    explicit LiveHost(const std::vector<std::string> &options = {});

    std::string url(const std::string &session = "stream") const;
    uint16_t port() const
    {
        return port_;
    }
    bool waitForLog(const std::string &text)
    {
        return process_->waitForText(text);
    }
    // Until it has said this so many times more, from now on.
    bool waitForMore(const std::string &text, size_t times);
    std::string output() const
    {
        return process_->output();
    }
    std::optional<Exit> stop(int signal); // sends it and waits for the end

  private:
    std::unique_ptr<Process> process_;
    uint16_t port_ = 0;
};

// Starts rtmpdump, and once more when it leaves because of a first byte of 8 or 9 in the server's handshake:
// it takes that for encryption, and a server that answers as the library does by default sends any byte up to
// 127. The process that is returned has shaken hands, or has ended for another reason.
std::unique_ptr<Process> StartRtmpdump(const std::vector<std::string> &words);

// Whether a player of librtmp, by what it said, left for that reason.
bool TookForEncryption(const std::string &output);

// The hash and size of an imaginary program: they switch the signed handshake on.
extern const std::vector<std::string> kSigned;

// rtmpdump, which signs its handshake unless other options are given.
class Recorder {
  public:
    Recorder(const std::string &url, const std::string &file, std::vector<std::string> options = kSigned);

    bool waitForSeconds(double seconds); // the player says that it has so much
    void signal(int number)
    {
        process_->signal(number);
    }
    void stop(); // as Ctrl-C does; the file is whole afterwards
    void kill();
    std::optional<Exit> wait()
    {
        return process_->wait();
    }
    std::string output() const
    {
        return process_->output();
    }
    double seconds() const; // the player's time, of the last it has got

  private:
    std::unique_ptr<Process> process_;
};

// One packet of a file, as ffprobe sees it.
struct Packet {
    int64_t time; // milliseconds
    int64_t size;
    bool key;
    std::string hash;
};

std::vector<Packet> PacketsOf(const std::string &file, char stream); // 'v' or 'a'; empty: there are none

// Whether `recorded` is what a player gets that joins the clip anywhere: each packet is the one that follows
// in the clip, over and over, and each comes later than the one before, by `least` to `most` milliseconds.
testing::AssertionResult Follows(const std::vector<Packet> &recorded, const std::vector<Packet> &clip,
                                 int64_t least, int64_t most);

// How often `recorded` goes from the end of the clip to its start.
size_t RoundsOf(const std::vector<Packet> &recorded, const std::vector<Packet> &clip);

// Whether ffmpeg decodes the file without a word, from its first key frame on: a player that joins between
// two of them has pictures in front of it that refer to what it never got.
testing::AssertionResult Decodes(const std::string &file, const Directory &work);

// Whether a recording of the default clip has two seconds and more of pictures and of sound, nothing else,
// from a key frame on, in step with each other and decoded by ffmpeg without a word. `asTheyWere`: the
// packets are the clip's, one behind the other; otherwise the container or the recorder writes them anew.
testing::AssertionResult Plays(const std::string &file, const Directory &work, bool asTheyWere = true);

// "codec_name=h264,width=..." of the first stream of this kind.
std::string Describe(const std::string &file, const std::string &stream, const std::string &entries);

// The default clip, cut or stripped by ffmpeg: `options` stand in front of the output file.
std::string MakeClip(const Directory &work, const std::string &name, const std::vector<std::string> &options);
