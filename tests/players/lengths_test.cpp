// Frames of every length, as players record them: each arrives as it was, whatever lengths went before it,
// those of the sequence headers among them, and however many chunks it takes.
#include "stage.h"
#include "support/test_server.h"
#include "support/wait.h"

#include <algorithm>
#include <fstream>

namespace {

using wire::SendAudio;
using wire::SendVideo;

constexpr size_t kLongest = 300;
constexpr uint64_t kStart = 1000;
constexpr uint64_t kStep = 40; // milliseconds

// As many bytes, different from those of every other length. From five bytes on it is a NAL unit behind its
// length.
Bytes Picture(size_t length, uint8_t nalHeader = 0x41)
{
    if (length < 5) {
        return Bytes(length, 0x11);
    }
    return wire::VideoFrame(length, nalHeader, static_cast<uint8_t>(length));
}

Bytes Sound(size_t length)
{
    Bytes frame(length, 0x21);
    for (size_t i = 1; i < length; i++) {
        frame[i] = static_cast<uint8_t>(length + i * 5);
    }
    return frame;
}

// The frames in an FLV file, without what stands in front of them in their tags.
struct Recording {
    std::vector<Bytes> pictures;
    std::vector<Bytes> sounds;
};

size_t Number(const Bytes &bytes, size_t at, size_t count)
{
    size_t number = 0;
    for (size_t i = 0; i < count; i++) {
        number = number << 8 | bytes[at + i];
    }
    return number;
}

Recording Read(const std::string &path)
{
    constexpr size_t kFileHeader = 13;
    constexpr size_t kTagHeader = 11;
    std::ifstream file(path, std::ios::binary);
    const Bytes bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    Recording recording;
    for (size_t at = kFileHeader; at + kTagHeader < bytes.size();) {
        const size_t length = Number(bytes, at + 1, 3);
        const size_t body = at + kTagHeader;
        const bool whole = body + length <= bytes.size() && length >= 2;
        const bool isFrame = whole && bytes[body + 1] == 1; // 0 is a sequence header, 2 the end of a sequence
        const auto from = [&](size_t skipped) {
            return Bytes(bytes.begin() + static_cast<long>(body + skipped),
                         bytes.begin() + static_cast<long>(body + length));
        };
        if (isFrame && bytes[at] == 9 && length >= 5) {
            recording.pictures.push_back(from(5));
        } else if (isFrame && bytes[at] == 8) {
            recording.sounds.push_back(from(2));
        }
        at = body + length + 4;
    }
    return recording;
}

// A server with players of today, and a session "cam" that is fed by hand.
class Feed {
  public:
    explicit Feed(int chunkSize) : server_(chunkSize)
    {
        RtmpPlayerSettings(server_.server, RTMP_PLAYERS_ALL);
        session_ = server_.session();
    }
    std::string url() const
    {
        return "rtmp://127.0.0.1:" + std::to_string(server_.port) + "/live/cam";
    }
    // Until a connection plays: it gets what is sent from then on.
    bool waitForPlayer() const
    {
        return server_.log.waitFor([this] {
            const std::vector<std::string> lines = server_.log.lines();
            return std::any_of(lines.begin(), lines.end(), [](const std::string &line) {
                return line.find("Serving RTMP Client") != line.npos && line.ends_with(" : 9");
            });
        });
    }
    std::string log() const
    {
        std::string text;
        for (const std::string &line : server_.log.lines()) {
            text += line + "\n";
        }
        return text;
    }
    void send(const Bytes &picture, const Bytes &sound)
    {
        time_ += kStep;
        SendVideo(session_, picture, time_);
        SendAudio(session_, sound, time_ + kStep / 2);
    }
    // Every length; to begin with, a key frame.
    void sendAll()
    {
        send(Picture(20, 0x65), Sound(20));
        for (size_t length = 1; length <= kLongest; length++) {
            send(Picture(length), Sound(length));
        }
    }
    double seconds() const
    {
        return static_cast<double>(time_ - kStart) / 1000;
    }

  private:
    wire::TestServer server_;
    RtmpSession *session_ = nullptr;
    uint64_t time_ = kStart;
};

// The first frames of the recording are those that were sent, in order, and lack nothing.
void ExpectEveryLength(const Recording &recording)
{
    ASSERT_GT(recording.pictures.size(), kLongest);
    ASSERT_GT(recording.sounds.size(), kLongest);
    EXPECT_EQ(recording.pictures[0], Picture(20, 0x65));
    EXPECT_EQ(recording.sounds[0], Sound(20));
    for (size_t length = 1; length <= kLongest; length++) {
        ASSERT_EQ(recording.pictures[length], Picture(length)) << length;
        ASSERT_EQ(recording.sounds[length], Sound(length)) << length;
    }
}

class EveryLength : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(InChunksOf, EveryLength, testing::Values(128, 1001, 4096),
                         testing::PrintToStringParamName());

} // namespace

// More frames follow until the player has had enough: it buffers, and what it has is not yet what it wrote.
TEST_P(EveryLength, ArrivesAsItWasAtFfmpeg)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    const std::string frames = std::to_string(kLongest + 10); // it ends when there are so many of either
    Feed feed(GetParam());
    Process player({"ffmpeg", "-nostdin", "-i", feed.url(), "-c", "copy", "-frames:v", frames, "-frames:a",
                    frames, file});
    ASSERT_TRUE(feed.waitForPlayer()) << player.output() << feed.log();
    feed.sendAll();
    std::optional<Exit> exit;
    EXPECT_TRUE(WaitUntil([&] {
        feed.send(Picture(1000), Sound(1000));
        exit = player.wait(1);
        return exit.has_value();
    })) << player.output();
    EXPECT_EQ(exit, (Exit{0, 0})) << player.output();
    ExpectEveryLength(Read(file));
}

TEST_P(EveryLength, ArrivesAsItWasAtRtmpdump)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    Feed feed(GetParam());
    Recorder recorder(feed.url(), file, {});
    ASSERT_TRUE(feed.waitForPlayer()) << recorder.output() << feed.log();
    feed.sendAll();
    const double enough = feed.seconds() + 1;
    EXPECT_TRUE(WaitUntil([&] {
        feed.send(Picture(1000), Sound(1000));
        return recorder.seconds() >= enough;
    })) << recorder.output();
    recorder.stop();
    ExpectEveryLength(Read(file));
}
