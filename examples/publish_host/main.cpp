// publish_host: a reference host. It publishes a media file, or what it encodes itself, to streaming
// services.
#include "options.h"
#include "service.h"

#include "common/console.h"
#include "common/host.h"
#include "common/host_functions.h"
#include "common/host_main.h"
#include "common/session_watch.h"
#include "common/source.h"
#include "common/supervisor.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Services = std::vector<std::unique_ptr<Service>>;

bool hasGivenUp(const std::unique_ptr<Service> &service)
{
    return service->state() == Service::State::GivenUp;
}

Services openServices(const Options &options, const MediaDescription &media, const ServiceTrust &trust,
                      CaptionSource *captions, Console &console)
{
    Services services;
    for (const std::string &url : options.publish.services) {
        services.push_back(
            std::make_unique<Service>(parseServiceUrl(url), options, media, trust, captions, console));
    }
    return services;
}

// Players beside the services: the encoder does not follow them.
std::unique_ptr<Host> openHost(const Options &options, const MediaDescription &media, Console &console,
                               Counters &counters, SessionWatch &watch, CaptionSource *captions)
{
    if (options.publish.servePort == 0) {
        return nullptr;
    }
    Options players = options;
    players.rtmpPort = options.publish.servePort;
    players.sessions = {"stream"};
    players.adaptive = {};
    players.bandwidthWindow = 0;
    console.say("serving rtmp://" + std::string(options.interfaceName == "lo" ? "127.0.0.1" : "HOST") + ":" +
                std::to_string(players.rtmpPort) + "/live/stream");
    return std::make_unique<Host>(players, media, console, counters, watch, captions);
}

bool isTaking(const std::unique_ptr<Service> &service)
{
    return service->state() == Service::State::Publishing && !service->isStalled();
}

bool isStalled(const std::unique_ptr<Service> &service)
{
    return service->state() == Service::State::Publishing && service->isStalled();
}

// The encoder's bitrate: what the library asked for meanwhile. A service that is away, or takes nothing at
// all, asks for nothing: it would only hold back the others. When none of those that are connected takes
// anything, the encoder waits at its lowest.
class Bitrate {
  public:
    Bitrate(FrameSource &source, Counters &counters, uint32_t lowest)
        : source_(source), counters_(counters), lowest_(static_cast<int32_t>(lowest))
    {
    }

    void follow(const Services &services)
    {
        BitrateWishes &wishes = hostFunctions.bitrates;
        for (const std::unique_ptr<Service> &service : services) {
            wishes.heed(service->session(), isTaking(service));
        }
        if (const int32_t bitrate = wishes.take(); bitrate > 0) {
            set(bitrate);
        } else if (std::ranges::any_of(services, isStalled) && std::ranges::none_of(services, isTaking)) {
            set(lowest_);
        }
    }

  private:
    void set(int32_t bitrate)
    {
        if (bitrate > 0 && counters_.targetBitrate != bitrate) {
            source_.setBitrate(bitrate);
            counters_.targetBitrate = bitrate;
        }
    }

    FrameSource &source_;
    Counters &counters_;
    const int32_t lowest_; // 0: it does not follow
};

// The status line, every second.
class Status {
  public:
    Status(const Counters &counters, Console &console) : counters_(counters), console_(console) {}

    void show(const Services &services)
    {
        const std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
        const long up = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
        const uint64_t bytes = bytes_;
        char text[80];
        snprintf(text, sizeof text, "up %02ld:%02ld:%02ld  in %4.0f", up / 3600, up / 60 % 60, up % 60,
                 static_cast<double>(bytes - bytesShown_) * 8 / 1000 /
                     std::chrono::duration<double>(now - shown_).count());
        bytesShown_ = bytes;
        shown_ = now;
        std::string line = text;
        if (const int32_t target = counters_.targetBitrate; target >= 0) {
            line += " target " + std::to_string(target / 1000);
        }
        line += " kbit/s";
        for (const std::unique_ptr<Service> &service : services) {
            line += "  | " + service->status();
        }
        console_.status(line);
    }

    void count(size_t bytes)
    {
        bytes_ += bytes;
    }

  private:
    const Counters &counters_;
    Console &console_;
    std::atomic<uint64_t> bytes_ = 0; // from the source
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point shown_ = start_;
    uint64_t bytesShown_ = 0;
};

// Each waits for its own service, all at once.
void stopAll(const Services &services)
{
    std::vector<std::jthread> farewells;
    for (const std::unique_ptr<Service> &service : services) {
        farewells.emplace_back([&service] {
            service->stop();
            service->wait();
        });
    }
}

ExitCode publish(const Options &options, Console &console)
{
    StopFlag stop;
    Counters counters;
    hostFunctions.counters = &counters;
    const ServiceTrust trust(options.publish.caFile, options.publish.insecure);
    const std::unique_ptr<FrameSource> source = openSource(options, DEFAULT_CLIP);
    describe(source->description(), console);
    const std::unique_ptr<CaptionSource> captions = openCaptions(options);
    SessionWatch watch;
    const std::unique_ptr<Host> host =
        openHost(options, source->description(), console, counters, watch, captions.get());
    const Services services = openServices(options, source->description(), trust, captions.get(), console);
    Status status(counters, console);
    Bitrate bitrate(*source, counters, options.adaptive.minBitrate);
    Supervisor supervisor(
        std::chrono::seconds(options.duration), [&] { status.show(services); }, console, stop);
    for (const std::unique_ptr<Service> &service : services) {
        service->start();
    }

    const auto deliver = [&](const Frame &frame, uint64_t timestamp) {
        if (captions != nullptr && frame.type == MediaType::Video) {
            captions->pictureAt(timestamp);
        }
        for (const std::unique_ptr<Service> &service : services) {
            service->send(frame, timestamp);
        }
        if (host != nullptr) {
            host->send(frame, timestamp);
        }
        status.count(frame.data.size());
        bitrate.follow(services);
        if (std::exchange(hostFunctions.keyFrameWanted, false)) {
            source->makeKeyFrame();
        }
        if (std::ranges::all_of(services, hasGivenUp)) {
            stop.raise();
        }
    };
    sendUntilStopped(*source, deliver, console, stop, supervisor);
    console.say("stopping");
    stopAll(services);
    return std::ranges::any_of(services, hasGivenUp) ? kRefused : kOk;
}

} // namespace

int main(int argc, char **argv)
{
    return hostMain({"publish_host", parsePublishOptions, publishHelpText, publish}, argc, argv);
}
