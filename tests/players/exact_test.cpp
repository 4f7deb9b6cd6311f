// Every player in front of a host that is as strict as the library by default: the log says why it has no
// picture.
#include "clients.h"
#include "http_file.h"
#include "relay.h"

#include <algorithm>

namespace {

struct RefusedPlayer {
    const char *name;
    std::vector<std::string> words;
    const char *line;
};

const char *const kUnsigned = "ERROR: PerformHandshake: Cannot varify the client digest";
const char *const kLength = "INFO: ParseCmdMsgReq: Unsupported command message: getStreamLength";
const char *const kSubscribes = "INFO: ParseCmdMsgReq: Unsupported command message: FCSubscribe";

const RefusedPlayer kRows[] = {
    {"FfmpegOfAnything", Ffmpeg({"-rtmp_live", "any"}), kLength},
    {"FfmpegOfTheRecorded", Ffmpeg({"-rtmp_live", "recorded"}), kLength},
    {"FfmpegOfTheLive", Ffmpeg({"-rtmp_live", "live"}), kSubscribes},
    {"RtmpdumpPlain", {"rtmpdump", "-o", "FILE", "-r", "URL"}, kUnsigned},
    {"RtmpdumpThatSubscribes", {"rtmpdump", "-v", "-o", "FILE", "-r", "URL"}, kUnsigned},
    {"RtmpdumpThatSignsAndSubscribes", Join(Join({"rtmpdump", "-v"}, kSigned), {"-o", "FILE", "-r", "URL"}),
     kSubscribes},
    {"GstreamerRtmpsrc", Gstreamer("rtmpsrc", "URL", 170), kUnsigned},
    {"GstreamerRtmp2src", Gstreamer("rtmp2src", "URL", 240), kUnsigned},
};

class Exact : public testing::TestWithParam<RefusedPlayer> {};

INSTANTIATE_TEST_SUITE_P(Of, Exact, testing::ValuesIn(kRows),
                         [](const auto &row) { return std::string(row.param.name); });

void PrintTo(const RefusedPlayer &row, std::ostream *out)
{
    *out << row.name;
}

// A connection ended without having joined the session, for this reason.
void ExpectRefusal(LiveHost &host, const std::string &line)
{
    EXPECT_TRUE(host.waitForLog("\n" + line + "\n")) << host.output();
    EXPECT_TRUE(host.waitForLog("ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread")) << host.output();
    EXPECT_EQ(host.output().find("Adding client"), std::string::npos) << host.output();
}

} // namespace

TEST_P(Exact, RefusesIt)
{
    Directory work;
    LiveHost host({"--exact"});
    const std::vector<std::string> words = Words(GetParam().words, host, work);
    const bool signs = std::ranges::find(words, "-x") != words.end();
    const std::unique_ptr<Process> player = signs ? StartRtmpdump(words) : std::make_unique<Process>(words);
    ExpectRefusal(host, GetParam().line);
}

TEST(Exact, RefusesFfplay)
{
    LiveHost host({"--exact"});
    FfplayInFront ffplay(host);
    ExpectRefusal(host, kLength);
}

TEST(Exact, RefusesMpv)
{
    Directory work;
    LiveHost host({"--exact"});
    MpvInFront mpv(host, work);
    ExpectRefusal(host, kLength);
}

TEST(Exact, RefusesVlc)
{
    Directory work;
    LiveHost host({"--exact"});
    VlcInFront vlc(host, work);
    ExpectRefusal(host, kLength);
}

TEST(Exact, RefusesANginxRelay)
{
    Directory work;
    LiveHost host({"--exact"});
    Relay relay(host, work);
    ExpectRefusal(host, "ERROR: PerformHandshake: Cannot read C2 packet from client");
    EXPECT_TRUE(relay.waitForText("handshake: unexpected RTMP version: ")) << relay.output(); // of S0
}

TEST(Exact, AdmitsRtmpdumpThatSigns)
{
    Directory work;
    LiveHost host({"--exact"});
    const std::string file = work.path("recording.flv");
    Recorder recorder(host.url(), file);
    EXPECT_TRUE(recorder.waitForSeconds(2.2)) << recorder.output() << host.output();
    recorder.stop();
    EXPECT_GE(PacketsOf(file, 'v').size(), 50U);
    EXPECT_GE(PacketsOf(file, 'a').size(), 70U);
    EXPECT_TRUE(Decodes(file, work));
}

TEST(Exact, AdmitsGstreamersRtmpsrcThatSigns)
{
    Directory work;
    LiveHost host({"--exact"});
    HttpFile program("FWS, any bytes: they are hashed");
    const std::vector<std::string> words =
        Words(Gstreamer("rtmpsrc", "URL swfUrl=" + program.url() + " swfVfy=1", 170), host, work);
    Finished player;
    do {
        player = RunToEnd(Join({"env", "GST_DEBUG=rtmp:2", "HOME=" + work.path("")}, words), kPatienceMs);
    } while (TookForEncryption(player.output));
    EXPECT_EQ(player.exit, (Exit{0, 0})) << player.output << host.output();
    const std::string file = work.path("recording.mkv");
    EXPECT_GE(PacketsOf(file, 'v').size(), 50U) << player.output << host.output();
    EXPECT_GE(PacketsOf(file, 'a').size(), 70U);
    EXPECT_TRUE(Decodes(file, work));
}
