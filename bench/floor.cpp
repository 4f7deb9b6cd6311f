#include "floor.h"

#include "measure.h"
#include "rtmpcast/rtmpcast.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t kMessageHeader = 8;

[[noreturn]] void Fail(const char *what)
{
    perror(what);
    exit(1);
}

int Listener(uint16_t port)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, 4096) != 0) {
        Fail("listen");
    }
    return listener;
}

// What a server sets for strangers as viewers, and the steady road does.
void SetOptions(int fd)
{
    const auto set = [fd](int level, int option, int value) {
        setsockopt(fd, level, option, &value, sizeof value);
    };
    set(IPPROTO_TCP, TCP_NODELAY, 1);
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_USER_TIMEOUT, 30000);
}

size_t TagOf(const Frame &frame)
{
    return frame.type == RTMP_FRAME_VIDEO ? 5 : 2;
}

} // namespace

struct Floor::Laid {
    const Turn *turn;
    std::vector<std::vector<uint8_t>> bytes; // what the pieces point to, where they are not the frame's own
    std::vector<std::vector<iovec>> calls;   // the pieces of each sendmsg
    std::vector<size_t> lengths;             // of each sendmsg
};

Floor::Floor(PlayerProcess &process, uint32_t count, FloorWay way, size_t chunkSize)
    : Contender(count), way_(way), chunkSize_(chunkSize)
{
    const uint16_t port = FreePort();
    const int listener = Listener(port);
    process.connectPlain(port, count);
    for (uint32_t i = 0; i < count; i++) {
        sockets_.push_back(accept(listener, nullptr, nullptr));
        if (way_ == FloorWay::PerPicture) {
            SetOptions(sockets_.back());
        }
    }
    close(listener);
    if (way_ == FloorWay::File) {
        writeFile();
    }
}

Floor::~Floor()
{
    for (int fd : sockets_) {
        close(fd);
    }
    close(file_);
}

void Floor::writeFile()
{
    file_ = memfd_create("frames", 0);
    for (const Turn &turn : OneSecond()) {
        for (const Frame &frame : turn) {
            if (write(file_, frame.bytes.data(), frame.bytes.size()) !=
                static_cast<ssize_t>(frame.bytes.size())) {
                Fail("memfd");
            }
        }
    }
}

// Header, tag header, payload, separators between: as the exact road has them.
void Floor::layOutPieces(const Frame &frame, Laid &laid) const
{
    static uint8_t separator = 0xC5;
    std::vector<uint8_t> &header = laid.bytes.emplace_back(kMessageHeader + TagOf(frame), uint8_t{0x45});
    std::vector<iovec> &pieces = laid.calls.emplace_back();
    pieces.push_back({header.data(), kMessageHeader});
    pieces.push_back({header.data() + kMessageHeader, TagOf(frame)});
    size_t room = chunkSize_ - TagOf(frame);
    for (size_t at = 0; at < frame.bytes.size();) {
        const size_t length = std::min(room, frame.bytes.size() - at);
        if (at > 0) {
            pieces.push_back({&separator, 1});
        }
        pieces.push_back({const_cast<uint8_t *>(frame.bytes.data()) + at, length});
        at += length;
        room = chunkSize_;
    }
}

const Floor::Laid &Floor::laidOut(const Turn &turn)
{
    for (const std::unique_ptr<Laid> &laid : laid_) {
        if (laid->turn == &turn) {
            return *laid;
        }
    }
    Laid &laid = *laid_.emplace_back(std::make_unique<Laid>());
    laid.turn = &turn;
    for (const Frame &frame : turn) {
        if (way_ == FloorWay::PerMessage) {
            layOutPieces(frame, laid);
            continue;
        }
        laid.bytes.push_back(OnTheWire(frame, chunkSize_));
    }
    if (way_ != FloorWay::PerMessage) {
        laid.calls.emplace_back();
        for (std::vector<uint8_t> &bytes : laid.bytes) {
            laid.calls.back().push_back({bytes.data(), bytes.size()});
        }
    }
    for (const std::vector<iovec> &call : laid.calls) {
        size_t length = 0;
        for (const iovec &piece : call) {
            length += piece.iov_len;
        }
        laid.lengths.push_back(length);
    }
    return laid;
}

void Floor::sendCalls(const Laid &laid, int socket) const
{
    for (size_t i = 0; i < laid.calls.size(); i++) {
        msghdr header = {};
        header.msg_iov = const_cast<iovec *>(laid.calls[i].data());
        header.msg_iovlen = laid.calls[i].size();
        if (sendmsg(socket, &header, MSG_NOSIGNAL | MSG_DONTWAIT) != static_cast<ssize_t>(laid.lengths[i])) {
            Fail("the floor's write ended short");
        }
    }
}

void Floor::sendFromFile(const Turn &turn, int socket) const
{
    static const std::vector<uint8_t> filler(kMessageHeader + 5, 0x45);
    for (const Frame &frame : turn) {
        size_t between = kMessageHeader + TagOf(frame);
        size_t room = chunkSize_ - TagOf(frame);
        off_t at = static_cast<off_t>(frame.place);
        for (size_t left = frame.bytes.size(); left > 0;) {
            const size_t length = std::min(room, left);
            if (::send(socket, filler.data(), between, MSG_MORE) != static_cast<ssize_t>(between) ||
                sendfile(socket, file_, &at, length) != static_cast<ssize_t>(length)) {
                Fail("sendfile");
            }
            left -= length;
            between = 1;
            room = chunkSize_;
        }
    }
}

void Floor::send(const Turn &turn)
{
    if (way_ == FloorWay::File) {
        for (int socket : sockets_) {
            sendFromFile(turn, socket);
        }
        return;
    }
    const Laid &laid = laidOut(turn);
    for (int socket : sockets_) {
        sendCalls(laid, socket);
    }
}
