#include "soak/publication.h"

#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace soak {
namespace {

// -1: the service is not there.
int ConnectToService(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The service has read everything, or has had a second for it.
void CloseBehindLastWords(int fd)
{
    const timeval second = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
    shutdown(fd, SHUT_WR);
    char bytes[4096];
    while (recv(fd, bytes, sizeof bytes, 0) > 0) {
    }
    close(fd);
}

} // namespace

Publication::Publication(BusyServer &server, RtmpSession *session, uint16_t servicePort)
    : server_(server), session_(session), servicePort_(servicePort), thread_([this] { run(); })
{
}

Publication::~Publication()
{
    endWithSession();
    thread_.join();
}

void Publication::endWithSession()
{
    const std::lock_guard<std::mutex> held(mutex_);
    stop_ = true;
    stopped_.notify_all();
}

void Publication::stop()
{
    const std::lock_guard<std::mutex> held(mutex_);
    stop_ = true;
    stopped_.notify_all();
    if (current_ != nullptr) {
        RtmpPublisherStop(current_);
    }
}

// False: there is to be no further connection. Between two of them stands a moment.
bool Publication::mayGoOn()
{
    std::unique_lock<std::mutex> held(mutex_);
    stopped_.wait_for(held, std::chrono::milliseconds(200), [this] { return stop_; });
    return !stop_;
}

void Publication::run()
{
    while (mayGoOn()) {
        const int fd = ConnectToService(servicePort_);
        if (fd >= 0) {
            publish(fd);
            CloseBehindLastWords(fd);
        }
    }
}

void Publication::publish(int socket)
{
    const RtmpPublisherTarget target = {"live", "rtmp://127.0.0.1/live", "key", nullptr, "127.0.0.1", 10000,
                                        0};
    RtmpPublisher *publisher = RtmpPublisherCreate(server_.server, socket, nullptr, &target, nullptr);
    {
        const std::lock_guard<std::mutex> held(mutex_);
        current_ = publisher;
        if (stop_) {
            RtmpPublisherStop(publisher);
        }
    }
    if (RtmpPublisherStart(publisher, session_) == 0) {
        ++connections;
        (void)RtmpPublisherServe(publisher); // whyever it ended, there is a next one
    }
    {
        const std::lock_guard<std::mutex> held(mutex_);
        current_ = nullptr;
    }
    RtmpPublisherDestroy(publisher);
}

} // namespace soak
