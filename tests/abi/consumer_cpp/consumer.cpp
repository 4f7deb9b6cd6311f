// A host in C++ that brings three host functions itself and hides its names: the library must find these
// three, and the defaults for the rest.
#include <rtmpcast/rtmpcast.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

static std::vector<std::string> systemLog; // no listener, so only this thread writes
static std::vector<uint64_t> closed;

void KelvoraSyslog(const char *tag, const char *, ...)
{
    systemLog.push_back(tag);
}

uint64_t cc_gen_init()
{
    return 77;
}

void cc_gen_close(uint64_t handle)
{
    closed.push_back(handle);
}

static void Swallow(void *, uint8_t, const char *, va_list) {}

int main()
{
    RtmpLogger logger{Swallow, &logger};
    int error = 0;
    RtmpServer *server = RtmpServerCreate(&logger, "any", 0, 0, 0, 4096, &error);
    RtmpSession *session = server != nullptr ? RtmpSessionCreate(server, "stream", &error) : nullptr;
    if (session == nullptr) {
        return 1;
    }
    std::printf("settings %d\n", RtmpSenderSettings(session, RTMP_SENDER_THREADED, 0, 0, 1, 2, 5, 30, 30));
    std::printf("valid %d\n", ValidateRtmpSessionHandle(server, session));

    AmfObject list{};
    const bool written = WriteAmfString(server, &list, nullptr, "onStatus") == RTMP_OK;
    uint8_t *bytes = EncodeAmfBuffer(server, static_cast<int32_t>(GetAmfEncBuffSize(server, &list)), &list);
    std::printf("string %d, length byte %d\n", written, bytes != nullptr ? bytes[2] : -1);
    std::free(bytes);
    FreeAmfObject(server, &list, 1);

    std::printf("session %d\n", RtmpSessionDestroy(session));
    std::printf("server %d\n", RtmpServerDestroy(server));
    std::printf("syslog %zu %s, closed %zu %d\n", systemLog.size(), systemLog.front().c_str(), closed.size(),
                static_cast<int>(closed.front()));
    return 0;
}
