#include "relay.h"

#include "support/wait.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

std::string Configuration(uint16_t port, const std::string &from, const std::string &directory)
{
    std::ostringstream text;
    text << "load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\n"
         << "daemon off;\nmaster_process off;\npid " << directory << "/pid;\n"
         << "error_log stderr info;\n"
         << "events { worker_connections 64; }\n"
         << "rtmp { access_log off; server { listen 127.0.0.1:" << port << ";\n"
         << "application edge { live on; wait_key on; wait_video on; pull " << from
         << " name=stream static;\n"
         << "hls on; hls_path " << directory << "/hls; hls_fragment 1s; } } }\n";
    return text.str();
}

size_t SegmentsIn(const std::string &playlist)
{
    std::ifstream file(playlist);
    size_t segments = 0;
    for (std::string line; std::getline(file, line);) {
        segments += line.starts_with("#EXTINF");
    }
    return segments;
}

} // namespace

Relay::Relay(const LiveHost &host, const Directory &work) : playlist_(work.path("hls/stream.m3u8"))
{
    std::filesystem::create_directory(work.path("hls"));
    do {
        port_ = SomePort();
        std::ofstream(work.path("nginx.conf")) << Configuration(port_, host.url(), work.path(""));
        process_ = std::make_unique<Process>(std::vector<std::string>{
            "nginx", "-e", "stderr", "-p", work.path(""), "-c", work.path("nginx.conf")});
        process_->waitForText("getrlimit(RLIMIT_NOFILE)"); // it listens, or has ended
    } while (process_->output().find("could not bind") != std::string::npos);
}

std::string Relay::url() const
{
    return "rtmp://127.0.0.1:" + std::to_string(port_) + "/edge/stream";
}

bool Relay::waitForHls()
{
    return WaitUntil([this] { return SegmentsIn(playlist_) >= 2; }, kDeadlineMs / 4);
}
