/*
 * A host in C that takes every host function from the defaults: makes a server on a free loopback port and a
 * session, sees that the port answers and that a frame without media is refused, and takes all down again.
 */
#define _POSIX_C_SOURCE 200809L
#include <rtmpcast/rtmpcast.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

/* Lines of this process. Threads of the library write here too. */
static int createdLines;

static void countLine(void *context, uint8_t level, const char *format, va_list arguments)
{
    char line[512];

    vsnprintf(line, sizeof line, format, arguments);
    if (level == RTMP_LOG_INFO && strstr(line, "Session Created with name 'stream'\n") != NULL) {
        ++*(int *)context; /* only the thread that creates the session */
    }
}

static void wakeUp(int number)
{
    (void)number;
}

static struct sockaddr_in loopback(uint16_t port)
{
    struct sockaddr_in address;

    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/* A port that nobody used a moment ago; 0: none. */
static uint16_t freePort(void)
{
    struct sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    int found = bind(probe, (struct sockaddr *)&address, length) == 0 &&
                getsockname(probe, (struct sockaddr *)&address, &length) == 0;

    close(probe);
    return found ? ntohs(address.sin_port) : 0;
}

/* A server on a port that was still free when it was bound. */
static RtmpServer *createServer(RtmpLogger *logger, uint16_t *port)
{
    RtmpServer *server = NULL;
    int error = RTMP_ERR_BIND;

    for (int tries = 0; tries < 20 && server == NULL && error == RTMP_ERR_BIND; ++tries) {
        *port = freePort();
        server = *port != 0 ? RtmpServerCreate(logger, "lo", *port, 0, 0, 4096, &error) : NULL;
    }
    return server;
}

static int answers(uint16_t port)
{
    struct sockaddr_in address = loopback(port);
    int peer = socket(AF_INET, SOCK_STREAM, 0);
    int connected = connect(peer, (struct sockaddr *)&address, sizeof address) == 0;

    close(peer);
    return connected;
}

int main(void)
{
    static const uint8_t frame[] = {0, 0, 0, 1, 0x65};
    RtmpLogger logger = {countLine, &createdLines};
    struct sigaction action;
    uint16_t port = 0;
    int error = 0;

    memset(&action, 0, sizeof action);
    action.sa_handler = wakeUp;
    sigaction(SIGUSR1, &action, NULL);

    RtmpServer *server = createServer(&logger, &port);
    RtmpSession *session = server != NULL ? RtmpSessionCreate(server, "stream", NULL) : NULL;
    if (session == NULL) {
        return 1;
    }
    RtmpSession *second = RtmpSessionCreate(server, "stream", &error);
    printf("lines %d, second %d, exists %d, answers %d, frame %d\n", createdLines,
           second == NULL ? error : RTMP_OK, IsSessionNameExists(server, "stream"), answers(port),
           RtmpSendData(session, frame, sizeof frame, 0, 0, 0, RTMP_FRAME_VIDEO));
    printf("session %d\n", RtmpSessionDestroy(session));
    printf("server %d\n", RtmpServerDestroy(server));
    return 0;
}
