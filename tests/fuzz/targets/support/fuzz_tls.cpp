#include "support/fuzz_tls.h"

#include "support/host_fakes.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

FuzzTls::FuzzTls(FuzzPeer *peer) : peer_(peer)
{
    HostFakes &fakes = HostFakes::get();
    fakes.sslRead = [this](void *, void *bytes, int length) { return read(bytes, length); };
    fakes.sslWrite = [this](void *, const void *bytes, int length) { return write(bytes, length); };
}

FuzzTls::~FuzzTls()
{
    HostFakes::get().sslRead = nullptr;
    HostFakes::get().sslWrite = nullptr;
}

bool FuzzTls::asksAgain(uint32_t often)
{
    if (++calls_ % often != 0) {
        return false;
    }
    errno = EAGAIN;
    return true;
}

int FuzzTls::read(void *bytes, int length)
{
    constexpr uint32_t often = 13;
    return asksAgain(often) ? -1 : static_cast<int>(peer_->readAsItIs(bytes, static_cast<size_t>(length)));
}

int FuzzTls::write(const void *bytes, int length)
{
    constexpr uint32_t often = 7;
    const uint8_t *from = static_cast<const uint8_t *>(bytes);
    const size_t count = static_cast<size_t>(length);
    if (isHalfOut_ && (count != half_.size() || memcmp(from, half_.data(), count) != 0)) {
        abort(); // "bad write retry" of a real one
    }
    isHalfOut_ = !isHalfOut_ && asksAgain(often);
    if (isHalfOut_) {
        half_.assign(from, from + count);
        errno = EAGAIN;
        return -1;
    }
    return static_cast<int>(send(peer_->socket(), bytes, count, MSG_NOSIGNAL));
}
