#include "net/log.h"

#include "net/atomic.h"

#include <pthread.h>
#include <sched.h>
#include <stdio.h>

namespace {

__attribute__((format(printf, 3, 0))) void WriteLine(RtmpLogger *logger, uint8_t level, const char *format,
                                                     va_list arguments)
{
    if (logger == nullptr) {
        // One line at a time, though it takes two calls.
        flockfile(stdout);
        printf("RTMPWriter: ");
        vprintf(format, arguments);
        funlockfile(stdout);
    } else if (logger->LogFunction != nullptr && logger->LogContext != nullptr) {
        // KEPT: no logger prints, half a logger is silent. Required; changes where log lines go.
        logger->LogFunction(logger->LogContext, level, format, arguments);
    }
}

RtmpLogger *LoggerBehindGate(RtmpServer *server)
{
    return __atomic_load_n(&server->Logger, __ATOMIC_SEQ_CST);
}

// EnterLogger returns the host's logger and counts the caller in LogReaders, or null. Lines for standard
// output are not counted: whoever closes the gate waits for the host's logger only. A reader counts itself
// first and looks again, so that either it sees the closed gate or the gate sees it.
RtmpLogger *EnterLogger(RtmpServer *server)
{
    if (LoggerBehindGate(server) == nullptr) {
        return nullptr;
    }
    __atomic_add_fetch(&server->LogReaders, 1, __ATOMIC_SEQ_CST);
    RtmpLogger *logger = LoggerBehindGate(server);
    if (logger == nullptr) {
        __atomic_sub_fetch(&server->LogReaders, 1, __ATOMIC_SEQ_CST);
    }
    return logger;
}

// The gate's LogFunction.
__attribute__((format(printf, 3, 0))) void WriteThroughGate(void *context, uint8_t level, const char *format,
                                                            va_list arguments)
{
    RtmpServer *server = static_cast<RtmpServer *>(context);
    RtmpLogger *logger = EnterLogger(server);
    WriteLine(logger, level, format, arguments);
    if (logger != nullptr) {
        __atomic_sub_fetch(&server->LogReaders, 1, __ATOMIC_SEQ_CST);
    }
}

} // namespace

void RtmpLogPrint(RtmpLogger *logger, uint8_t level, const char *format, ...)
{
    // The host's function may reach a cancellation point; a line is finished before a thread is cancelled.
    int previous;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    va_list arguments;
    va_start(arguments, format);
    WriteLine(logger, level, format, arguments);
    va_end(arguments);
    pthread_setcancelstate(previous, nullptr);
}

RtmpLogger *LoggerOf(RtmpServer *server)
{
    if (server == nullptr) {
        return nullptr;
    }
    // A record that a host made itself has no gate.
    return server->LogGate.LogFunction != nullptr ? &server->LogGate : LoadShared(&server->Logger);
}

void OpenLogGate(RtmpServer *server)
{
    server->LogGate.LogContext = server;
    server->LogGate.LogFunction = WriteThroughGate;
}

void CloseLogGate(RtmpServer *server)
{
    __atomic_store_n(&server->Logger, static_cast<RtmpLogger *>(nullptr), __ATOMIC_SEQ_CST);
    while (__atomic_load_n(&server->LogReaders, __ATOMIC_SEQ_CST) != 0) {
        sched_yield();
    }
}
