/*
 * The shortest complete host. It streams a raw H.264 file, video only, 30 frames a second, over and over:
 *
 *   ffmpeg -i examples/media/clip.mp4 -map 0:v -c copy -bsf:v h264_mp4toannexb clip.h264
 *   minimal_host clip.h264
 *   rtmpdump -r rtmp://127.0.0.1:1935/live/stream -w $(printf '%064d' 0) -x 1 -o - | ffplay -
 */
#define _GNU_SOURCE /* memmem */
#include <rtmpcast/rtmpcast.h>

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

enum { NAL_IDR = 5, NAL_SEI = 6, NAL_SPS = 7, NAL_PPS = 8, NAL_DELIMITER = 9 };

static uint8_t file[64 << 20];
static const uint8_t *fileEnd;
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

/* Registers the media. What players are told first: SPS and PPS, each behind 00 00 00 01. */
static int describe(RtmpSession *session)
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
static const uint8_t *sendFrame(RtmpSession *session, const uint8_t *at, uint64_t milliseconds)
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
        /* Players are shown a key frame by its first NAL unit: SPS, PPS or IDR slice. */
        if (type != NAL_DELIMITER && type != NAL_SEI && size < sizeof frame - 4 - (uint32_t)length) {
            const uint8_t prefix[4] = {(uint8_t)(size >> 24), (uint8_t)(size >> 16), (uint8_t)(size >> 8),
                                       (uint8_t)size};
            memcpy(frame + length, prefix, 4);
            memcpy(frame + length + 4, nal, size);
            length += 4 + (int32_t)size;
        }
        slices += isSlice;
    }
    if (length > 0) { /* RTMP_ERR_NO_CLIENT says that nobody watches; the others missed a frame: go on */
        (void)RtmpSendData(session, frame, length, 0, 0, milliseconds, RTMP_FRAME_VIDEO);
    }
    return nal != NULL ? nal - 3 : file;
}

int main(int argc, char **argv)
{
    FILE *input = argc == 2 ? fopen(argv[1], "rb") : NULL;
    if (input == NULL) {
        fprintf(stderr, "Usage: minimal_host FILE.h264\n");
        return 2;
    }
    fileEnd = file + fread(file, 1, sizeof file, input);
    fclose(input);

    const struct sigaction action = {.sa_handler = onSignal}; /* without SA_RESTART */
    sigaction(SIGUSR1, &action, NULL);
    sigaction(SIGINT, &action, NULL);

    RtmpServer *server = RtmpServerCreate(NULL, "any", 1935, 0, 0, 4096, NULL);
    RtmpPlayerSettings(server, RTMP_PLAYERS_ALL); /* ffmpeg, VLC, mpv and the others of today */
    RtmpSession *session = server != NULL ? RtmpSessionCreate(server, "stream", NULL) : NULL;
    if (session == NULL) {
        return 1; /* without a logger the library says why on standard output */
    }
    RtmpSenderSettings(session, 0, 0, 0, 1, 2, 5, 0, 0); /* packet monitor; encoder 1; no captions */
    const int described = describe(session);
    const uint8_t *at = file;
    struct timespec due;
    clock_gettime(CLOCK_MONOTONIC, &due);
    for (uint64_t count = 0; described == RTMP_OK && !stop; ++count) {
        at = sendFrame(session, at, 1000 + count * 1000 / 30);
        due.tv_nsec += 1000000000 / 30;
        due.tv_sec += due.tv_nsec / 1000000000;
        due.tv_nsec %= 1000000000;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, NULL);
    }
    return RtmpServerDestroy(server) == RTMP_OK && described == RTMP_OK ? 0 : 1;
}
