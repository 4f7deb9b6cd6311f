// The ways of a frame.
#include "failing/every_call_rig.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace every_call {
namespace {

// A video or audio frame, in memory or in a file.
struct Way {
    HostSetup setup = {};
    int64_t kind = RTMP_FRAME_VIDEO;
    bool overTls = false;
    bool inFile = false;
    bool traced = false;
    bool withSound = false; // that waits in front of it
};

const Bytes kPicture = Hex("00000020 65") + Counting(31);

// A frame at the beginning of a file of memory.
struct FileFrame {
    FileFrame() : fd(memfd_create("frame", MFD_CLOEXEC))
    {
        EXPECT_EQ(write(fd, kPicture.data(), kPicture.size()), static_cast<ssize_t>(kPicture.size()));
        bytes = static_cast<uint8_t *>(mmap(nullptr, kPicture.size(), PROT_READ, MAP_SHARED, fd, 0));
    }
    ~FileFrame()
    {
        munmap(bytes, kPicture.size());
        close(fd);
    }
    int fd;
    uint8_t *bytes;
};

class Sending {
  public:
    Sending(Trial &trial, const Way &way) : host(trial, way.setup), way_(way)
    {
        host.joined(CLIENT_STATE_PLAY_DONE, way.overTls);
        if (way.traced) {
            EXPECT_EQ(RtmpBWMSettings(host.session, 1, 30), 0);
            EXPECT_EQ(RtmpDebugSettings(host.session, 1, 1, 1, "/proc/self/nowhere", 1), 0);
            EXPECT_EQ(
                RtmpAdaptiveBitrateSettings(host.session, 1, 0, 0, 100, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
        }
        if (way.withSound) {
            EXPECT_EQ(RtmpSendData(host.session, kPicture.data(), 20, 0, 0, time_, RTMP_FRAME_AUDIO), 0);
        }
    }
    int send()
    {
        time_ += 40;
        const int32_t length = static_cast<int32_t>(kPicture.size());
        return way_.inFile ? RtmpSendData(host.session, file_.bytes, length, file_.fd,
                                          reinterpret_cast<uintptr_t>(file_.bytes), time_, way_.kind)
                           : RtmpSendData(host.session, kPicture.data(), length, 0, 0, time_, way_.kind);
    }
    // The connection may have ended with the frame: the next one goes to another player.
    int sendToAnother()
    {
        host.joined(CLIENT_STATE_PLAY_DONE, way_.overTls);
        (void)send(); // to both
        return 0;
    }
    Host host;

  private:
    const Way way_;
    FileFrame file_;
    uint64_t time_ = 1000;
};

void Send(Trial &trial, const Way &way)
{
    Sending sending(trial, way);
    trial.run([&] { return sending.send(); }, [&] { return sending.sendToAnother(); });
}

} // namespace

std::vector<Scenario> FrameScenarios()
{
    std::vector<Scenario> all;
    const auto add = [&](const char *name, const Way &way) {
        all.push_back({"RtmpSendData", name, {RTMP_ERR_LOCK, -1}, [way](Trial &trial) { Send(trial, way); }});
    };
    add("packet monitor, a picture", {});
    add("packet monitor, a picture behind sound", {.withSound = true});
    add("packet monitor, sound", {.kind = RTMP_FRAME_AUDIO});
    add("packet monitor, a picture in a file", {.inFile = true});
    add("packet monitor, a picture over TLS", {.overTls = true});
    add("packet monitor, a picture, every rule", {.setup = kEveryRule});
    add("threaded sender, a picture", {.setup = kThreaded});
    add("threaded sender, a picture, with a trace", {.setup = kThreaded, .traced = true});
    add("threaded sender, sound", {.setup = kThreaded, .kind = RTMP_FRAME_AUDIO});
    add("steady road, a picture", {.setup = kSteady});
    add("steady road, a picture behind sound", {.setup = kSteady, .withSound = true});
    add("steady road, sound", {.setup = kSteady, .kind = RTMP_FRAME_AUDIO});
    add("steady road, a picture over TLS", {.setup = kSteady, .overTls = true});
    add("steady road, threaded, a picture", {.setup = kSteadyThreaded});
    return all;
}

} // namespace every_call
