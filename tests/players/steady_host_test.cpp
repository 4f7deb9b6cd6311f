// The reference host on the steady road, with strangers in mind: who may watch, over TLS, and what it says of
// them, in front of real players.
#include "stage.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const Exit kCleanEnd = {0, 0};

std::vector<std::string> FfmpegRecords(const std::string &url, const std::string &file)
{
    return {"ffmpeg", "-nostdin", "-i", url, "-map", "0", "-c", "copy", "-t", "3", file};
}

// A port that nobody listens on: live_host takes a second one beside its own.
uint16_t FreePort()
{
    while (true) {
        const uint16_t port = SomePort();
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool isFree = bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0;
        close(fd);
        if (isFree) {
            return port;
        }
    }
}

// live_host with a certificate of its own.
struct TlsHost {
    TlsHost()
    {
        const Finished made = RunToEnd({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days",
                                        "2", "-subj", "/CN=live", "-keyout", key, "-out", certificate});
        EXPECT_EQ(made.exit, kCleanEnd) << made.output;
        host = std::make_unique<LiveHost>(std::vector<std::string>{
            "--rtmps-port", std::to_string(port), "--tls-cert", certificate, "--tls-key", key});
    }
    std::string url() const
    {
        return "rtmps://127.0.0.1:" + std::to_string(port) + "/live/stream";
    }
    Directory work;
    const std::string key = work.path("key.pem");
    const std::string certificate = work.path("cert.pem");
    const uint16_t port = FreePort();
    std::unique_ptr<LiveHost> host;
};

size_t LinesOf(const std::string &file)
{
    std::ifstream in(file);
    return static_cast<size_t>(
        std::count(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), '\n'));
}

} // namespace

// ------------------------------------------------------------------------------------------------- tokens

TEST(SteadyHost, SaysWhoComesAndWhatItGot)
{
    Directory work;
    LiveHost host;
    const Finished player = RunToEnd(FfmpegRecords(host.url(), work.path("recording.flv")));
    EXPECT_EQ(player.exit, kCleanEnd) << player.output;
    EXPECT_TRUE(host.waitForLog(" leaves live/stream after ")) << host.output();
    EXPECT_NE(host.output().find("viewer 127.0.0.1:"), std::string::npos);
    EXPECT_NE(host.output().find(" asks for live/stream\n"), std::string::npos);
    EXPECT_NE(host.output().find(" frames, 0 dropped\n"), std::string::npos);
    EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
}

TEST(SteadyHost, ServesWhoBringsTheToken)
{
    Directory work;
    LiveHost host({"--token", "Se-cret.1"});
    EXPECT_TRUE(host.waitForLog("/live/stream?token=Se-cret.1\n"));
    const std::string url = host.url("stream?token=Se-cret.1");
    const std::string file = work.path("recording.flv");
    const Finished player = RunToEnd(FfmpegRecords(url, file));
    EXPECT_EQ(player.exit, kCleanEnd) << player.output << host.output();
    EXPECT_TRUE(Plays(file, work)) << host.output();

    Recorder recorder(url, work.path("rtmpdump.flv"), {});
    EXPECT_TRUE(recorder.waitForSeconds(1)) << recorder.output() << host.output();
    recorder.stop();
}

TEST(SteadyHost, RefusesWhoBringsNoTokenOrAWrongOne)
{
    Directory work;
    LiveHost host({"--token", "secret"});
    Recorder watching(host.url("stream?token=secret"), work.path("watching.flv"), {});
    ASSERT_TRUE(watching.waitForSeconds(1)) << watching.output() << host.output();
    for (const char *name : {"stream", "stream?token=", "stream?token=secre", "stream?token=secrets",
                             "stream?Token=secret", "stream?nottoken=secret"}) {
        const Finished player = RunToEnd(FfmpegRecords(host.url(name), work.path("refused.flv")));
        EXPECT_NE(player.exit, kCleanEnd) << name;
        EXPECT_NE(player.exit, (Exit{127, 0})) << "not installed";
        EXPECT_NE(player.output.find("Stream not found"), std::string::npos) << name << player.output;
    }
    EXPECT_TRUE(host.waitForLog(" is refused live/stream: it brings no valid token\n"));
    EXPECT_EQ(host.output().find(" asks for live/stream"), host.output().rfind(" asks for live/stream"))
        << "one has been admitted";
    EXPECT_TRUE(watching.waitForSeconds(watching.seconds() + 1)) << "others do not notice";
    watching.stop();
    EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
}

// --------------------------------------------------------------------------------------------------- TLS

TEST(SteadyHost, ServesFfmpegOverTls)
{
    TlsHost tls;
    const std::string file = tls.work.path("recording.flv");
    const Finished player = RunToEnd(FfmpegRecords(tls.url(), file));
    EXPECT_EQ(player.exit, kCleanEnd) << player.output << tls.host->output();
    EXPECT_TRUE(Plays(file, tls.work)) << player.output << tls.host->output();
    EXPECT_TRUE(tls.host->waitForLog(" leaves live/stream after ")) << tls.host->output();
    EXPECT_NE(tls.host->output().find("viewer over TLS 127.0.0.1:"), std::string::npos);
    EXPECT_EQ(tls.host->output().find("viewer 127.0.0.1:"), std::string::npos) << "it is over TLS to its end";
    EXPECT_EQ(tls.host->stop(SIGTERM), kCleanEnd) << tls.host->output();
}

TEST(SteadyHost, ServesRtmpdumpOverTlsBesideAPlayerInTheClear)
{
    TlsHost tls;
    Recorder clear(tls.host->url(), tls.work.path("clear.flv"), {});
    Recorder recorder(tls.url(), tls.work.path("recording.flv"), {});
    EXPECT_TRUE(recorder.waitForSeconds(2.5)) << recorder.output() << tls.host->output();
    EXPECT_TRUE(clear.waitForSeconds(2.5)) << clear.output() << tls.host->output();
    recorder.stop();
    clear.stop();
    EXPECT_TRUE(Plays(tls.work.path("recording.flv"), tls.work)) << tls.host->output();
    EXPECT_TRUE(Plays(tls.work.path("clear.flv"), tls.work)) << tls.host->output();
    EXPECT_EQ(tls.host->stop(SIGTERM), kCleanEnd) << tls.host->output();
}

TEST(SteadyHost, TurnsAwayWhoSpeaksNoTlsThere)
{
    TlsHost tls;
    const std::string url = "rtmp" + tls.url().substr(strlen("rtmps"));
    const Finished player = RunToEnd(FfmpegRecords(url, tls.work.path("refused.flv")));
    EXPECT_NE(player.exit, kCleanEnd);
    EXPECT_TRUE(tls.host->waitForLog("viewer over TLS 127.0.0.1 fails in its handshake: "))
        << tls.host->output();
    EXPECT_EQ(tls.host->stop(SIGTERM), kCleanEnd) << tls.host->output();
}

// ----------------------------------------------------------------------------------------------- figures

TEST(SteadyHost, WritesALineOfJsonEverySecond)
{
    Directory work;
    const std::string stats = work.path("stats.json");
    {
        LiveHost host({"--stats-json", stats, "--session", "one", "--session", "t\"wo"});
        Recorder recorder(host.url("one"), work.path("recording.flv"), {});
        ASSERT_TRUE(recorder.waitForSeconds(1)) << recorder.output() << host.output();
        ASSERT_TRUE(host.waitForMore("viewers 1", 2)) << host.output();
        recorder.stop();
        EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
    }
    ASSERT_GE(LinesOf(stats), 2U);
    const Finished read = RunToEnd({"python3", "-c", R"(
import json, sys
lines = [json.loads(line) for line in open(sys.argv[1])]
watched = [line for line in lines if line['viewers'] == 1]
assert len(watched) >= 2, lines
last = watched[-1]
assert [each['name'] for each in last['sessions']] == ['one', 't"wo'], last
one, two = last['sessions']
client, = one['clients']
assert client['address'] == '127.0.0.1' and client['state'] == 'playing' and client['tls'] is False, client
assert 0 < one['bytes'] <= client['bytes'] and 0 < one['frames'] <= client['frames'], one # looked at later
assert one['viewers'] == one['viewers_in_all'] == 1 and two['clients'] == [], last
assert last['out_kbit_s'] > 100 and client['round_trip_micros'] > 0, last
times = [line['uptime'] for line in lines]
assert times == sorted(times), times
print('well')
)",
                                    stats});
    EXPECT_EQ(read.output, "well\n");
}

TEST(SteadyHost, IsNotWhatExactAsksFor)
{
    Directory work;
    LiveHost host({"--exact"});
    Recorder recorder(host.url(), work.path("recording.flv"));
    ASSERT_TRUE(recorder.waitForSeconds(1)) << recorder.output() << host.output();
    ASSERT_TRUE(host.waitForMore("viewers 1", 1));
    recorder.stop();
    EXPECT_EQ(host.output().find("viewer 127.0.0.1"), std::string::npos) << "nobody is told of";
    EXPECT_EQ(host.output().find("  lag "), std::string::npos);
    EXPECT_EQ(host.output().find("LeaveSteadily"), std::string::npos);
    EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
}
