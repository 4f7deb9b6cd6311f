#include "support/socket_client.h"

#include <cstdlib>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

void SetDeadline(int socket)
{
    const timeval deadline = {20, 0};
    if (setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline) != 0) {
        throw std::runtime_error("setsockopt");
    }
}

} // namespace

SocketClient::SocketClient() : client_(static_cast<RtmpClient *>(calloc(1, sizeof(RtmpClient))))
{
    int pair[2];
    if (client_ == nullptr || socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        throw std::runtime_error("socketpair");
    }
    SetDeadline(pair[0]);
    SetDeadline(pair[1]);
    client_->Server = &records_.server;
    client_->Socket = pair[0];
    client_->InChunkSize = 128;
    pthread_mutex_init(&client_->RecvStrmListLock, nullptr);
    pthread_mutex_init(&client_->SendStrmListLock, nullptr);
    pthread_mutex_init(&client_->WriteLock, nullptr);
    peer_ = pair[1];
}

SocketClient::~SocketClient()
{
    if (client_->RecvPktHead != nullptr) {
        (void)RemoveRecvPkt(client_, nullptr); // a failure shows as a leak
    }
    closePeer();
    close(client_->Socket);
    pthread_mutex_destroy(&client_->RecvStrmListLock);
    pthread_mutex_destroy(&client_->SendStrmListLock);
    pthread_mutex_destroy(&client_->WriteLock);
    free(client_);
}

void SocketClient::send(const Bytes &bytes)
{
    went_.note(bytes.data(), bytes.size());
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = ::send(peer_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) {
            throw std::runtime_error("the client's end of the pair is gone");
        }
        done += static_cast<size_t>(sent);
    }
}

Bytes SocketClient::receive(size_t count)
{
    Bytes out(count);
    size_t done = 0;
    while (done < count) {
        const ssize_t got = recv(peer_, out.data() + done, count - done, 0);
        if (got <= 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    out.resize(done);
    came_.note(out.data(), out.size());
    return out;
}

void SocketClient::endOfInput()
{
    shutdown(peer_, SHUT_WR);
}

void SocketClient::closePeer()
{
    if (peer_ >= 0) {
        close(peer_);
        peer_ = -1;
    }
}

std::vector<std::string> SocketClient::takeLines()
{
    std::vector<std::string> out = log.lines();
    log.clear();
    return out;
}
