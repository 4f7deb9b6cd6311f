/*
 * The shortest complete publisher. It sends a raw H.264 file, video only, 30 frames a second, to a streaming
 * service, and ends with the file:
 *
 *   ffmpeg -i examples/media/clip.mp4 -map 0:v -c copy -bsf:v h264_mp4toannexb clip.h264
 *   ffmpeg -listen 1 -i rtmp://127.0.0.1:1935/live/key -c copy recording.flv &
 *   minimal_publisher clip.h264 127.0.0.1 1935 live key
 */
#define _GNU_SOURCE /* memmem */
#include <rtmpcast/rtmpcast.h>

#include <netdb.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { NAL_IDR = 5, NAL_SEI = 6, NAL_SPS = 7, NAL_PPS = 8, NAL_DELIMITER = 9 };

static uint8_t file[64 << 20];
static const uint8_t *fileEnd;
static RtmpSession *session;
static volatile sig_atomic_t stop;

static void onSignal(int number)
{
    stop = stop || number == SIGINT; /* SIGUSR1 is the library's: it only has to end a blocked read */
}

/* The NAL unit behind the next start code (00 00 01) and where it ends; null: there is none. */
static const uint8_t *findNal(const uint8_t *at, const uint8_t **end)
{
    const uint8_t *code = memmem(at, (size_t)(fileEnd - at), "\0\0\1", 3);
    const uint8_t *next = code != NULL ? memmem(code + 3, (size_t)(fileEnd - code - 3), "\0\0\1", 3) : NULL;
    *end = next != NULL ? next : fileEnd;
    while (code != NULL && *end > code + 4 && (*end)[-1] == 0) {
        --*end; /* zeros belong to the next start code, or trail */
    }
    return code != NULL ? code + 3 : NULL;
}

/* Registers the media. What the service is told first: SPS and PPS, each behind 00 00 00 01. */
static int describe(void)
{
    static uint8_t config[1024];
    int32_t length = 0, wanted = NAL_SPS;
    const uint8_t *end, *nal = findNal(file, &end);
    for (; nal != NULL && wanted <= NAL_PPS; nal = findNal(end, &end)) {
        if ((nal[0] & 0x1F) == wanted && end - nal < 500) {
            memcpy(config + length, "\0\0\0\1", 4);
            memcpy(config + length + 4, nal, (size_t)(end - nal));
            length += 4 + (int32_t)(end - nal);
            ++wanted;
        }
    }
    memcpy(config + length, "\0\0\0\1", 4); /* ends the PPS */
    const VideoMediaInfo video = {.codecId = 7, .configLen = length + 4, .configData = config};
    return RtmpAddMediaInfo(session, &video, NULL);
}

/* Sends the next frame: its NAL units, each behind a 4-byte length. Returns where the one after it begins. */
static const uint8_t *sendFrame(const uint8_t *at, uint64_t milliseconds)
{
    static uint8_t frame[4 << 20];
    int32_t length = 0, slices = 0;
    const uint8_t *end, *nal = findNal(at, &end);
    for (; nal != NULL; nal = findNal(end, &end)) {
        const int type = nal[0] & 0x1F, isSlice = type >= 1 && type <= NAL_IDR;
        const uint32_t size = (uint32_t)(end - nal);
        /* Behind a slice, whatever is no slice begins a new frame, and so does macroblock 0. */
        if (slices > 0 && (!isSlice || (size > 1 && nal[1] >= 0x80))) {
            break;
        }
        if (type != NAL_DELIMITER && type != NAL_SEI && size < sizeof frame - 4 - (uint32_t)length) {
            const uint8_t prefix[4] = {(uint8_t)(size >> 24), (uint8_t)(size >> 16), (uint8_t)(size >> 8),
                                       (uint8_t)size};
            memcpy(frame + length, prefix, 4);
            memcpy(frame + length + 4, nal, size);
            length += 4 + (int32_t)size;
        }
        slices += isSlice;
    }
    if (length > 0) { /* a failure is logged; what the connection has come to, RtmpPublisherServe says */
        (void)RtmpSendData(session, frame, length, 0, 0, milliseconds, RTMP_FRAME_VIDEO);
    }
    return nal != NULL ? nal - 3 : NULL;
}

/* The encoder's thread: the frames of the file in time, then the good-bye. */
static void *encode(void *publisher)
{
    const uint8_t *at = file;
    struct timespec due;
    clock_gettime(CLOCK_MONOTONIC, &due);
    for (uint64_t count = 0; at != NULL && !stop; ++count) {
        at = sendFrame(at, 1000 + count * 1000 / 30);
        due.tv_nsec += 1000000000 / 30;
        due.tv_sec += due.tv_nsec / 1000000000;
        due.tv_nsec %= 1000000000;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, NULL);
    }
    RtmpPublisherStop(publisher);
    return NULL;
}

static int connectTo(const char *host, const char *port)
{
    const struct addrinfo hints = {.ai_socktype = SOCK_STREAM};
    struct addrinfo *found = NULL;
    int fd = -1;
    if (getaddrinfo(host, port, &hints, &found) == 0) {
        fd = socket(found->ai_family, SOCK_STREAM, 0);
        if (fd >= 0 && connect(fd, found->ai_addr, found->ai_addrlen) != 0) {
            close(fd);
            fd = -1;
        }
        freeaddrinfo(found);
    }
    return fd;
}

/* From the first byte to the last. 0: everything was sent, and the service has heard the good-bye. */
static int publish(RtmpPublisher *publisher)
{
    pthread_t encoder;
    int result = RtmpPublisherStart(publisher, session);
    if (result == RTMP_OK && pthread_create(&encoder, NULL, encode, publisher) == 0) {
        result = RtmpPublisherServe(publisher);
        stop = 1;
        pthread_join(encoder, NULL);
    }
    if (result == RTMP_ERR_REFUSED) {
        const PublishCtx *answers = RtmpPublisherAnswers(publisher);
        fprintf(stderr, "the service refused: %s%s %s%s\n", answers->ErrorCode, answers->ErrorDescription,
                answers->StatusCode, answers->StatusDescription);
    }
    return result;
}

/* A socket that is closed while the service still sends resets the connection, and the service loses what it
 * has not read yet. So: nothing more comes from here; what it still says is read away, two seconds for each
 * piece; then the end. Over TLS, SSL_shutdown comes first. */
static void endConnection(int fd)
{
    const struct timeval patience = {.tv_sec = 2};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    shutdown(fd, SHUT_WR);
    for (int pieces = 0; pieces < 100 && read(fd, file, sizeof file) > 0; ++pieces) {
    }
    close(fd);
}

int main(int argc, char **argv)
{
    FILE *input = argc == 6 ? fopen(argv[1], "rb") : NULL;
    const int fd = input != NULL ? connectTo(argv[2], argv[3]) : -1;
    if (fd < 0) {
        fprintf(stderr, "Usage: minimal_publisher FILE.h264 HOST PORT APP KEY\n");
        return 2;
    }
    fileEnd = file + fread(file, 1, sizeof file, input);
    fclose(input);

    const struct sigaction action = {.sa_handler = onSignal}; /* without SA_RESTART */
    sigaction(SIGUSR1, &action, NULL);
    sigaction(SIGINT, &action, NULL);

    char url[1024];
    snprintf(url, sizeof url, "rtmp://%s:%s/%s", argv[2], argv[3], argv[4]);
    const RtmpPublisherTarget target = {.App = argv[4], .TcUrl = url, .Key = argv[5]};
    RtmpServer *server = RtmpServerCreate(NULL, "any", 0, 0, 0, 4096, NULL); /* without ports: nobody plays */
    RtmpServiceSettings(server, NULL);                                       /* frames wait for nobody */
    session = RtmpSessionCreate(server, "stream", NULL);
    if (session == NULL) {
        return 1; /* without a logger the library says why on standard output */
    }
    RtmpSenderSettings(session, 0, 0, 0, 1, 2, 5, 0, 0); /* packet monitor; encoder 1; no captions */
    RtmpPublisher *publisher =
        describe() == RTMP_OK ? RtmpPublisherCreate(server, fd, NULL, &target, NULL) : NULL;
    const int result = publisher != NULL ? publish(publisher) : RTMP_FAILED;
    RtmpPublisherDestroy(publisher); /* in front of its session */
    endConnection(fd);
    return RtmpServerDestroy(server) == RTMP_OK && result == RTMP_OK ? 0 : 1;
}
