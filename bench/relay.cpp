#include "relay.h"

#include "measure.h"
#include "rtmpcast/rtmpcast.h"
#include "support/scripted_peer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *kModule = "/usr/lib/nginx/modules/ngx_rtmp_module.so";
constexpr const char *kProgram = "/usr/sbin/nginx";
constexpr uint32_t kPublishedChunk = 1 << 20; // it takes every frame in one chunk

void Configure(const std::string &directory, uint16_t port)
{
    std::ofstream(directory + "/nginx.conf")
        << "load_module " << kModule << ";\ndaemon off;\nmaster_process off;\npid " << directory << "/pid;\n"
        << "error_log stderr crit;\nworker_rlimit_nofile 16384;\nevents { worker_connections 8192; }\n"
        << "rtmp { access_log off; server { listen 127.0.0.1:" << port << "; chunk_size " << kChunkSize
        << ";\nmax_message 4M; application live { live on; } } }\n";
}

bool Accepts(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool accepts = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return accepts;
}

Bytes PublishCommand(const std::string &name)
{
    return amf0::Values({amf0::String("publish"), amf0::Number(3), amf0::Null(), amf0::String(name),
                         amf0::String("live")})
        .bytes;
}

wire::Outgoing MessageOf(const Frame &frame, uint64_t epoch)
{
    const bool isVideo = frame.type == RTMP_FRAME_VIDEO;
    const uint8_t keyOrInter = frame.bytes[4] == 0x65 ? 0x17 : 0x27;
    Bytes payload = isVideo ? Bytes{keyOrInter, 1, 0, 0, 0} : Bytes{0xAF, 1};
    Append(payload, frame.bytes);
    return {.payload = payload,
            .type = static_cast<uint8_t>(isVideo ? 9 : 8),
            .chunkStream = isVideo ? 6U : 4U,
            .stream = 1,
            .timestamp = static_cast<uint32_t>(epoch + frame.timestamp)};
}

} // namespace

struct Relay::Publisher {
    explicit Publisher(uint16_t port) : peer(port) {}
    wire::ScriptedPeer peer;
};

bool IsRelayInstalled()
{
    return access(kModule, R_OK) == 0 && access(kProgram, X_OK) == 0;
}

Relay::Relay(PlayerProcess &process, uint32_t count) : Contender(count)
{
    start();
    publish();
    process.connectRelayed(port_, count);
    send(OneSecond()[0]);
    process.waitUntilDrained(SizeOnTheWire(OneSecond()[0]) * count); // all of them play
}

Relay::~Relay()
{
    publisher_.reset();
    kill(worker, SIGTERM);
    waitpid(worker, nullptr, 0);
    std::filesystem::remove_all(directory_);
}

void Relay::start()
{
    char name[] = "/tmp/fan_out.XXXXXX";
    directory_ = mkdtemp(name);
    port_ = FreePort();
    Configure(directory_, port_);
    worker = fork();
    if (worker == 0) {
        const std::string file = directory_ + "/nginx.conf";
        execl(kProgram, kProgram, "-e", "stderr", "-p", directory_.c_str(), "-c", file.c_str(), nullptr);
        _exit(127);
    }
    while (!Accepts(port_)) {
        if (waitpid(worker, nullptr, WNOHANG) != 0) {
            fprintf(stderr, "nginx has ended\n");
            exit(1);
        }
        usleep(1000);
    }
}

void Relay::publish()
{
    publisher_ = std::make_unique<Publisher>(port_);
    wire::ScriptedPeer &peer = publisher_->peer;
    peer.handshake(wire::kPlainHandshake);
    peer.setChunkSize(kPublishedChunk);
    peer.command(wire::ConnectCommand("live"));
    peer.command(wire::CreateStreamCommand());
    peer.send({.payload = PublishCommand("live"), .chunkStream = 3, .stream = 1});
}

void Relay::send(const Turn &turn)
{
    for (const Frame &frame : turn) {
        publisher_->peer.send(MessageOf(frame, epoch));
    }
}
