// Real services that are published to: nginx with its RTMP module, which records, and ffmpeg, which listens.
// All that is sent is in the recording, in time and in step.
#include "net/client_state.h"
#include "net/scope.h"
#include "nginx_service.h"
#include "stage.h"

#include "rtmpcast/rtmpcast.h"
#include "support/bytes.h"
#include "support/capture_logger.h"
#include "support/test_server.h"
#include "support/wait.h"

#include <arpa/inet.h>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Frame {
    Bytes data;
    uint64_t time; // ms on the host's clock
    bool video;
};

Bytes ReadFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

constexpr uint64_t kBase = 5000000;         // where the host's clock is
constexpr uint64_t kFirstSound = kBase + 5; // sound that leaves in front of the first picture goes to nobody

// Access units of a raw file in which each begins with a delimiter; the sets go to `sets`.
std::vector<Frame> Pictures(const Bytes &file, Bytes *sets)
{
    std::vector<Frame> frames;
    const auto code = [&file](size_t at) {
        while (at + 3 < file.size() && !(file[at] == 0 && file[at + 1] == 0 && file[at + 2] == 1)) {
            at++;
        }
        return at + 3 < file.size() ? at + 3 : file.size();
    };
    for (size_t at = code(0), next; at < file.size(); at = next) {
        next = code(at);
        size_t end = next < file.size() ? next - 3 : next;
        while (end > at && file[end - 1] == 0) {
            end--;
        }
        const int type = file[at] & 0x1F;
        const Bytes nal = Slice(file, at, end - at);
        if (type == 9) {
            frames.push_back({{}, kBase + frames.size() * 1000 / 30, true});
        } else if (!frames.empty() && type != 6) {
            Append(frames.back().data, Join({BigEndian(nal.size(), 4), nal}));
        }
        if ((type == 7 || type == 8) && frames.size() == 1) {
            Append(*sets, Join({Hex("00000001"), nal}));
        }
    }
    Append(*sets, Hex("00000001"));
    return frames;
}

std::vector<Frame> Sound(const Bytes &file) // ADTS
{
    std::vector<Frame> frames;
    for (size_t at = 0; at + 7 < file.size();) {
        const size_t length = (file[at + 3] & 3U) << 11 | file[at + 4] << 3 | file[at + 5] >> 5;
        frames.push_back(
            {Slice(file, at + 7, length - 7), kFirstSound + frames.size() * 1024 * 1000 / 44100, false});
        at += length;
    }
    return frames;
}

// What an encoder hands over: the default clip, up to its last picture, in order.
struct Clip {
    explicit Clip(const Directory &work)
    {
        const std::string h264 = work.path("clip.h264"), adts = work.path("clip.aac");
        EXPECT_EQ(RunToEnd({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", CLIP_PATH, "-map", "0:v", "-c",
                            "copy", "-bsf:v", "h264_mp4toannexb,h264_metadata=aud=insert", h264, "-map",
                            "0:a", "-c", "copy", adts})
                      .exit,
                  (Exit{0, 0}));
        frames = Pictures(ReadFile(h264), &sets);
        pictures = frames.size();
        const uint64_t last = frames.empty() ? 0 : frames.back().time;
        for (Frame &sound : Sound(ReadFile(adts))) {
            if (sound.time + 40 <= last) { // what comes later waits for a picture
                frames.push_back(std::move(sound));
            }
        }
        std::stable_sort(frames.begin(), frames.end(), [](const Frame &left, const Frame &right) {
            return left.time < right.time || (left.time == right.time && left.video > right.video);
        });
    }
    size_t sounds() const
    {
        return frames.size() - pictures;
    }
    std::vector<Frame> frames;
    Bytes sets;
    size_t pictures = 0;
};

void ReturnAtOnce(int) {}

int ConnectTo(uint16_t port)
{
    int fd = -1;
    EXPECT_TRUE(WaitUntil([&fd, port] {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
            return true;
        }
        close(fd);
        return false;
    }));
    return fd;
}

// As the manual says: the service may still be reading, and talking.
void EndConnection(int fd)
{
    shutdown(fd, SHUT_WR);
    Bytes away(4096);
    while (recv(fd, away.data(), away.size(), 0) > 0) {
    }
    close(fd);
}

struct ServiceRoad {
    bool steady, threaded, isSigned;
};

// A host that publishes the clip to a port of loopback.
class Host {
  public:
    Host(const ServiceRoad &road, const Clip &clip) : clip_(clip), road_(road)
    {
        struct sigaction action = {};
        action.sa_handler = ReturnAtOnce;
        sigaction(SIGUSR1, &action, nullptr);
        server_ = RtmpServerCreate(log_.get(), "ANY", 0, 0, 0, 4096, nullptr);
        if (road.steady) {
            EXPECT_EQ(RtmpServiceSettings(server_, nullptr), 0);
        }
        session_ = RtmpSessionCreate(server_, "cam", nullptr);
        EXPECT_EQ(
            RtmpSenderSettings(session_, road.threaded ? RTMP_SENDER_THREADED : 0, 0, 0, 1, 2, 5, 1000, 1000),
            0);
        const Bytes config = Hex("1210");
        const VideoMediaInfo video = {
            7, 2500000, {0, 0, 0}, static_cast<int32_t>(clip.sets.size()), clip.sets.data()};
        const AudioMediaInfo audio = {10, 0, 2, config.data()};
        EXPECT_EQ(RtmpAddMediaInfo(session_, &video, &audio), 0);
    }
    ~Host()
    {
        EXPECT_EQ(RtmpServerDestroy(server_), 0);
    }

    // Every frame of the clip, the good-bye, and the end of the connection.
    void publish(uint16_t port)
    {
        const std::string url = "rtmp://127.0.0.1:" + std::to_string(port) + "/live";
        const RtmpPublisherTarget target = {"live",      url.c_str(), "key",         nullptr,
                                            "127.0.0.1", 30000,       road_.isSigned};
        const int fd = ConnectTo(port);
        RtmpPublisher *publisher = RtmpPublisherCreate(server_, fd, nullptr, &target, nullptr);
        ASSERT_NE(publisher, nullptr);
        std::thread encoder;
        const int32_t started = RtmpPublisherStart(publisher, session_);
        EXPECT_EQ(started, 0) << RtmpPublisherAnswers(publisher)->StatusCode
                              << RtmpPublisherAnswers(publisher)->ErrorDescription;
        if (started == 0) {
            encoder = std::thread([this, publisher] { encode(publisher); });
            EXPECT_EQ(RtmpPublisherServe(publisher), 0);
            encoder.join();
        }
        RtmpPublisherDestroy(publisher);
        EndConnection(fd);
    }

  private:
    void encode(RtmpPublisher *publisher)
    {
        for (const Frame &frame : clip_.frames) {
            EXPECT_EQ(frame.video ? wire::SendVideo(session_, frame.data, frame.time)
                                  : wire::SendAudio(session_, frame.data, frame.time),
                      0);
            if (road_.steady && &frame == &clip_.frames.front()) {
                EXPECT_TRUE(WaitUntil([this] { return hasBegun(); })); // or it begins with the last key frame
            }
        }
        RtmpClient *client = RtmpPublisherClient(publisher);
        const uint64_t last = clip_.frames.back().time - clip_.frames.front().time;
        EXPECT_TRUE(WaitUntil([client, last] {
            UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client); // as whoever writes it
            return client->TimelineTime >= last;
        }));
        RtmpPublisherStop(publisher);
    }
    bool hasBegun()
    {
        RtmpClientFigures figures = {};
        return RtmpClientStatistics(session_, &figures, 1) == 1 && figures.Frames > 0;
    }

    const Clip &clip_;
    const ServiceRoad road_;
    CaptureLogger log_;
    RtmpServer *server_;
    RtmpSession *session_;
};

// Every packet at the time that the encoder gave it, counted from the first.
testing::AssertionResult IsWhole(const std::string &recording, const Clip &clip)
{
    for (const bool video : {true, false}) {
        const std::vector<Packet> packets = PacketsOf(recording, video ? 'v' : 'a');
        const size_t sent = video ? clip.pictures : clip.sounds();
        if (packets.size() != sent) {
            return testing::AssertionFailure()
                   << packets.size() << " of " << sent << (video ? " pictures" : " frames of sound");
        }
        size_t at = 0;
        for (const Frame &frame : clip.frames) {
            if (frame.video != video) {
                continue;
            }
            const int64_t time = static_cast<int64_t>(frame.time - clip.frames.front().time);
            if (std::abs(packets[at].time - time) > (at == 0 ? 1 : 20)) { // 40 ms between the two, at most
                return testing::AssertionFailure() << "packet " << at << " at " << packets[at].time
                                                   << " ms instead of " << time << (video ? " v" : " a");
            }
            at++;
        }
    }
    const Finished decoded =
        RunToEnd({"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", recording, "-f", "null", "-"});
    if (decoded.exit != Exit{0, 0} || !decoded.output.empty()) {
        return testing::AssertionFailure() << "ffmpeg complains: " << decoded.output;
    }
    return testing::AssertionSuccess();
}

class Services : public testing::TestWithParam<ServiceRoad> {
  protected:
    Directory work;
    const Clip clip{work};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Roads, Services,
                         testing::Values(ServiceRoad{false, false, false}, ServiceRoad{false, true, true},
                                         ServiceRoad{true, false, true}, ServiceRoad{true, true, false}),
                         [](const testing::TestParamInfo<ServiceRoad> &info) {
                             return std::string(info.param.steady ? "Steady" : "Exact") +
                                    (info.param.threaded ? "Threaded" : "Monitor") +
                                    (info.param.isSigned ? "Signed" : "Plain");
                         });

TEST_P(Services, NginxRecordsEveryFrame)
{
    Nginx nginx(work);
    Host host(GetParam(), clip);
    host.publish(nginx.port);
    const std::string recording = work.path("recordings/key.flv");
    EXPECT_TRUE(nginx.process->waitForText("deleteStream")) << nginx.process->output();
    nginx.process->signal(SIGINT);
    (void)nginx.process->wait();
    EXPECT_TRUE(IsWhole(recording, clip)) << nginx.process->output();
}

TEST_P(Services, FfmpegTakesEveryFrame)
{
    const std::string recording = work.path("recording.flv");
    const uint16_t port = SomePort();
    Process ffmpeg({"ffmpeg", "-nostdin", "-y", "-listen", "1", "-i",
                    "rtmp://127.0.0.1:" + std::to_string(port) + "/live/key", "-copyts", "-c", "copy",
                    recording});
    Host host(GetParam(), clip);
    host.publish(port);
    EXPECT_TRUE(ffmpeg.wait().has_value());
    EXPECT_TRUE(IsWhole(recording, clip)) << ffmpeg.output();
}

TEST(MinimalPublisher, SendsEveryPictureOfAFile)
{
    const Directory work;
    const Clip clip(work);
    Nginx nginx(work);
    const Finished publisher = RunToEnd(
        {MINIMAL_PUBLISHER, work.path("clip.h264"), "127.0.0.1", std::to_string(nginx.port), "live", "key"});
    EXPECT_EQ(publisher.exit, (Exit{0, 0})) << publisher.output;
    EXPECT_TRUE(nginx.process->waitForText("deleteStream")) << nginx.process->output();
    nginx.process->signal(SIGINT);
    (void)nginx.process->wait();
    const std::string recording = work.path("recordings/key.flv");
    EXPECT_EQ(PacketsOf(recording, 'v').size(), clip.pictures);
    EXPECT_EQ(
        RunToEnd({"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", recording, "-f", "null", "-"}).output,
        "");
}

TEST(MinimalPublisher, SaysThatThereIsNoService)
{
    const Directory work;
    const Clip clip(work);
    EXPECT_EQ(RunToEnd({MINIMAL_PUBLISHER, work.path("clip.h264"), "127.0.0.1", "1", "live", "key"}).exit,
              (Exit{2, 0}));
}
