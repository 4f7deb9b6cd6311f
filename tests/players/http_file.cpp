#include "http_file.h"

#include <arpa/inet.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

HttpFile::HttpFile(const std::string &body)
    : response_("HTTP/1.0 200 OK\r\nLast-Modified: Thu, 01 Jan 2015 00:00:00 GMT\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener_, reinterpret_cast<sockaddr *>(&address), size) != 0 || listen(listener_, 4) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size) != 0) {
        throw std::runtime_error("no HTTP server");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

HttpFile::~HttpFile()
{
    shutdown(listener_, SHUT_RDWR); // accept returns
    thread_.join();
    close(listener_);
}

std::string HttpFile::url() const
{
    return "http://127.0.0.1:" + std::to_string(port_) + "/player.swf";
}

void HttpFile::serve()
{
    for (int peer; (peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(peer)) {
        char request[2048];
        (void)!recv(peer, request, sizeof request, 0);
        (void)!send(peer, response_.data(), response_.size(), MSG_NOSIGNAL);
    }
}
