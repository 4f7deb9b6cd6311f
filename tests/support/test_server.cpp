#include "support/test_server.h"

#include "support/amf_bytes.h"
#include "support/players_of_this_run.h"

#include <algorithm>
#include <csignal>
#include <dirent.h>
#include <random>
#include <regex>
#include <stdexcept>

namespace wire {
namespace {

void ReturnAtOnce(int) {}

void InstallSignalHandler()
{
    struct sigaction action = {};
    action.sa_handler = ReturnAtOnce; // no SA_RESTART: a blocked read must fail
    sigaction(SIGUSR1, &action, nullptr);
}

size_t CountEntries(const char *path)
{
    DIR *directory = opendir(path);
    size_t count = 0;
    while (const dirent *entry = readdir(directory)) {
        count += entry->d_name[0] != '.';
    }
    closedir(directory);
    return count;
}

} // namespace

TestServer::TestServer(int chunkSize, RtmpLogger *logger)
    : logger_(logger != nullptr ? logger : log.get()), relay_{&TestServer::Relay, this}
{
    InstallSignalHandler();
    int error = RTMP_ERR_BIND;
    while (server == nullptr && (error == RTMP_ERR_BIND || error == RTMP_ERR_LISTEN)) {
        log.clear();
        port = SomePort();
        server = RtmpServerCreate(&relay_, "lo", port, 0, 0, chunkSize, &error);
    }
    if (server == nullptr) {
        throw std::runtime_error("no server: " + std::to_string(error));
    }
    EXPECT_EQ(RtmpPlayerSettings(server, PlayersOfThisRun()), 0);
}

TestServer::~TestServer()
{
    if (server != nullptr) {
        EXPECT_TRUE(waitForClientsToEnd()) << "a serve thread never ended";
        EXPECT_EQ(destroy(), 0);
    }
}

void TestServer::Relay(void *context, uint8_t level, const char *format, va_list arguments)
{
    TestServer *self = static_cast<TestServer *>(context);
    const std::string_view text(format);
    const bool started = text.find("Serve RTMP client thread created") != text.npos;
    const bool ended = text.find("Exiting ServeRtmpClient thread") != text.npos ||
                       text.find("Exiting Server RtmpClient thread") != text.npos;
    self->logger_->LogFunction(self->logger_->LogContext, level, format, arguments);
    if (started || ended) {
        const std::lock_guard<std::mutex> held(self->mutex_);
        self->started_ += started;
        self->ended_ += ended;
        self->ended_one_.notify_all();
    }
}

int TestServer::destroy()
{
    RtmpServer *mine = server;
    server = nullptr;
    return RtmpServerDestroy(mine);
}

RtmpSession *NewSession(RtmpServer *server, const std::string &name, const SessionSetup &setup)
{
    int error = 0;
    RtmpSession *made = RtmpSessionCreate(server, name.c_str(), &error);
    if (made == nullptr) {
        throw std::runtime_error("no session: " + std::to_string(error));
    }
    if (setup.sender) {
        EXPECT_EQ(RtmpSenderSettings(made, setup.mode, 0, 0, 1, 0, 1, setup.queue, setup.queue), 0);
    }
    const Bytes sets = ParameterSets();
    const Bytes config = Hex("1210");
    const VideoMediaInfo video = {7, 2500000, {1, 2, 3}, static_cast<int32_t>(sets.size()), sets.data()};
    const AudioMediaInfo audio = {10, 4, static_cast<int32_t>(config.size()), config.data()};
    if (setup.media) {
        EXPECT_EQ(RtmpAddMediaInfo(made, setup.video ? &video : nullptr, setup.audio ? &audio : nullptr), 0);
    }
    return made;
}

RtmpSession *TestServer::session(const std::string &name, const SessionSetup &setup)
{
    return NewSession(server, name, setup);
}

bool TestServer::waitForClientsToEnd()
{
    std::unique_lock<std::mutex> held(mutex_);
    return ended_one_.wait_for(held, std::chrono::milliseconds(CaptureLogger::kDeadline),
                               [this] { return ended_ == started_; });
}

// SPS: profile 66, constraints C0, level 31, then sps id 0, log2_max_frame_num 4, picture order count type 2,
// one reference frame, 80 by 45 macroblocks, frames only, no cropping, no VUI.
Bytes ParameterSets()
{
    return Hex("00000001 67 42 C0 1F DA 01 40 16 E4  00000001 68 CE 3C 80");
}

Bytes AvcHeaderBody()
{
    return Hex("17 00 000000  01 42 C0 1F FF E1 0009 6742C01FDA014016E4 01 0004 68CE3C80");
}

Bytes AacHeaderBody()
{
    return Hex("AF 00 12 10");
}

// The member "stereo" is a name alone, and two zero bytes follow the object.
Bytes MetaDataBody(const SessionSetup &setup)
{
    Bytes body = Hex("02 000A 'onMetaData' 03");
    if (setup.video) {
        Append(body, Hex("0005 'width' 00 4094000000000000"
                         "0006 'height' 00 4086800000000000"
                         "000C 'videocodecid' 00 401C000000000000"
                         "0008 'avclevel' 00 403F000000000000"
                         "000A 'avcprofile' 00 4050800000000000"
                         "000D 'videodatarate' 00 40A3880000000000"));
    }
    if (setup.audio) {
        Append(body, Hex("000F 'audiosamplerate' 00 40E5888000000000"
                         "0006 'stereo'"
                         "000C 'audiocodecid' 00 4024000000000000"));
    }
    Append(body, Hex(setup.audio ? "000009 0000" : "000009"));
    return body;
}

Bytes VideoFrame(size_t length, uint8_t nalHeader, uint8_t fill)
{
    Bytes frame = BigEndian(length - 4, 4);
    frame.push_back(nalHeader);
    frame.resize(std::max<size_t>(length, 5));
    uint8_t *const bytes = frame.data(); // a call for each byte is what a sanitizer makes slow
    for (size_t i = 5; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(fill + i * 7);
    }
    return frame;
}

int SendVideo(RtmpSession *session, const Bytes &frame, uint64_t timestamp)
{
    return RtmpSendData(session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0, timestamp,
                        RTMP_FRAME_VIDEO);
}

int SendAudio(RtmpSession *session, const Bytes &frame, uint64_t timestamp)
{
    return RtmpSendData(session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0, timestamp,
                        RTMP_FRAME_AUDIO);
}

uint16_t SomePort()
{
    static std::mt19937 generator{std::random_device{}()};
    return static_cast<uint16_t>(std::uniform_int_distribution<int>(10000, 32000)(generator));
}

size_t OpenDescriptors()
{
    return CountEntries("/proc/self/fd") - 1; // the directory's own
}

size_t RunningThreads()
{
    return CountEntries("/proc/self/task");
}

std::vector<std::string> Transcript(const CaptureLogger &log, const std::vector<std::string> &without)
{
    static const std::regex pointer("0x[0-9a-f]+");
    std::vector<std::string> lines;
    for (const std::string &line : log.lines()) {
        const bool left = std::any_of(without.begin(), without.end(), [&line](const std::string &function) {
            return line.find(": " + function + ": ") != std::string::npos;
        });
        if (!left) {
            lines.push_back(std::regex_replace(line, pointer, "<p>"));
        }
    }
    return lines;
}

} // namespace wire
