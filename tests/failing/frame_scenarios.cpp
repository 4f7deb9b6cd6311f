// The ways of a frame.
#include "failing/every_call_rig.h"
#include "support/host_fakes.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace every_call {
namespace {

// RtmpCaptionCtx.Mode
constexpr int kNoCaptions = -1;
constexpr int kInTheStream = 0;
constexpr int kAsMessages = 1;

// A video or audio frame, in memory or in a file.
struct Way {
    HostSetup setup = {};
    int64_t kind = RTMP_FRAME_VIDEO;
    bool overTls = false;
    bool inFile = false;
    bool traced = false;
    bool withSound = false; // that waits in front of it
    int pictures = 0;       // that have gone before
    bool isFull = false;    // the player's socket
    int captions = kNoCaptions;
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

// What the host makes is no call of the library's: not through calloc.
RtmpSendPkt *CaptionMessage(RtmpClient *, uint32_t kind, uint64_t)
{
    RtmpSendPkt *message =
        static_cast<RtmpSendPkt *>(aligned_alloc(alignof(RtmpSendPkt), sizeof(RtmpSendPkt)));
    *message = {};
    message->ChunkStreamId = 9;
    message->MsgTypeId = RTMP_TYPE_AMF0_DATA;
    message->MsgKind = kind;
    message->PayloadLength = 16;
    message->PayloadData = static_cast<uint8_t *>(aligned_alloc(16, 16));
    memset(message->PayloadData, 0, 16);
    return message;
}

void AddCaptions(RtmpSession *session, int mode)
{
    static Bytes sei = Counting(20);
    session->CcGen->Enabled = 1;
    session->CcGen->Mode = static_cast<uint8_t>(mode);
    HostFakes &fakes = HostFakes::get();
    fakes.findCaptionPlace = [](const uint8_t *, int32_t, int32_t *) { return 5; };
    fakes.getSei = [](uint64_t, uint8_t **bytes, int32_t *length, uint32_t) {
        *bytes = sei.data();
        *length = static_cast<int32_t>(sei.size());
    };
    fakes.captionMessage = CaptionMessage;
}

// Not through send, which may have to fail.
void Fill(int socket)
{
    const Bytes some(4096);
    while (sendto(socket, some.data(), some.size(), MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0) > 0) {
    }
}

class Sending {
    FileFrame file_; // stays as long as the sender may refer to it

  public:
    Sending(Trial &trial, const Way &way) : host(trial, way.setup), way_(way)
    {
        const Peer &peer = host.joined(CLIENT_STATE_PLAY_DONE, way.overTls);
        if (way.captions != kNoCaptions) {
            AddCaptions(host.session, way.captions);
        }
        if (way.isFull) {
            Fill(peer.ends[0]);
        }
        if (way.traced) {
            EXPECT_EQ(RtmpBWMSettings(host.session, 1, 30), 0);
            EXPECT_EQ(mkdtemp(folder_.data()), folder_.data());
            EXPECT_EQ(RtmpDebugSettings(host.session, 1, 1, 1, (folder_ + "/new").c_str(), 1), 0);
            EXPECT_EQ(
                RtmpAdaptiveBitrateSettings(host.session, 1, 0, 0, 100, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
        }
        for (int i = 0; i < way.pictures; i++) {
            EXPECT_EQ(send(), 0);
        }
        if (way.withSound) {
            EXPECT_EQ(RtmpSendData(host.session, kPicture.data(), 20, 0, 0, time_, RTMP_FRAME_AUDIO), 0);
        }
    }
    ~Sending()
    {
        if (way_.traced) {
            std::filesystem::remove_all(folder_);
        }
    }
    Sending(const Sending &) = delete;
    Sending &operator=(const Sending &) = delete;
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
    uint64_t time_ = 1000;
    std::string folder_ = testing::TempDir() + "trace.XXXXXX";
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
    add("packet monitor, a later picture", {.pictures = 2});
    add("packet monitor, a later picture behind sound", {.withSound = true, .pictures = 2});
    add("packet monitor, sound", {.kind = RTMP_FRAME_AUDIO});
    add("packet monitor, a picture in a file", {.inFile = true});
    add("packet monitor, a picture over TLS", {.overTls = true});
    add("packet monitor, a picture with captions", {.captions = kInTheStream});
    add("packet monitor, a picture with a message of captions", {.captions = kAsMessages});
    add("packet monitor, a picture, every rule", {.setup = kEveryRule});
    add("threaded sender, a picture", {.setup = kThreaded});
    add("threaded sender, a picture, with a trace", {.setup = kThreaded, .traced = true});
    add("threaded sender, a picture in a file", {.setup = kThreaded, .inFile = true});
    add("threaded sender, a picture over TLS", {.setup = kThreaded, .overTls = true});
    add("threaded sender, sound", {.setup = kThreaded, .kind = RTMP_FRAME_AUDIO});
    add("steady road, a picture", {.setup = kSteady});
    add("steady road, a picture behind sound", {.setup = kSteady, .withSound = true});
    add("steady road, sound", {.setup = kSteady, .kind = RTMP_FRAME_AUDIO});
    add("steady road, a picture over TLS", {.setup = kSteady, .overTls = true});
    add("steady road, a picture for a full socket", {.setup = kSteady, .isFull = true});
    add("steady road, a picture with captions", {.setup = kSteady, .captions = kInTheStream});
    add("steady road, a picture with a message of captions", {.setup = kSteady, .captions = kAsMessages});
    add("steady road, threaded, a picture", {.setup = kSteadyThreaded});
    return all;
}

} // namespace every_call
