// nginx with its RTMP module as a streaming service.
#pragma once

#include "stage.h"

#include <filesystem>
#include <fstream>

// Records whatever is published to it.
class Nginx {
  public:
    explicit Nginx(const Directory &work)
    {
        std::filesystem::create_directory(work.path("recordings"));
        do {
            port = SomePort();
            std::ofstream(work.path("nginx.conf"))
                << "load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\ndaemon off;\nmaster_process "
                   "off;\n"
                << "user root;\npid " << work.path("pid") << ";\nerror_log stderr info;\n"
                << "events { worker_connections 64; }\nrtmp { access_log off; server { listen 127.0.0.1:"
                << port << ";\nchunk_size 128; ping 1s; application live { live on; record all; record_path "
                << work.path("recordings") << "; record_suffix .flv; } } }\n";
            process = std::make_unique<Process>(std::vector<std::string>{
                "nginx", "-e", "stderr", "-p", work.path(""), "-c", work.path("nginx.conf")});
            process->waitForText("getrlimit(RLIMIT_NOFILE)"); // it listens, or has ended
        } while (process->output().find("could not bind") != std::string::npos);
    }
    uint16_t port = 0;
    std::unique_ptr<Process> process;
};
