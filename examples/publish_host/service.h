// One service: a session of its own, and a thread that keeps it connected.
#pragma once

#include "backoff.h"
#include "connection.h"
#include "service_url.h"
#include "verdict.h"

#include "captions/caption_source.h"
#include "common/console.h"
#include "common/frame_source.h"
#include "common/options.h"
#include "common/pacer.h"

#include <rtmpcast/rtmpcast.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

class Service {
  public:
    enum class State { Connecting, Publishing, Waiting, GivenUp };

    // Makes the session; nothing is connected yet. `captions` null: none. Throws HostError. What is given
    // must outlive the service.
    Service(const ServiceUrl &url, const Options &options, const MediaDescription &media,
            const ServiceTrust &trust, CaptionSource *captions, Console &console);

    // Stops, and ends thread, session and server.
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // Connects, and again whenever the connection ends, on a thread of its own.
    void start();

    // Says good-bye, and has the thread end. Any thread.
    void stop();

    // Until the thread has ended. One thread.
    void wait();

    // Offers a frame. One thread.
    void send(const Frame &frame, uint64_t timestamp);

    RtmpSession *session() const
    {
        return session_;
    }
    State state() const
    {
        return state_;
    }

    // Whether frames wait, and the service has taken nothing for two seconds. As of the last status.
    bool isStalled() const
    {
        return isStalled_;
    }

    // "HOST/APP out 4012 kbit/s queue 12 KiB lag 30 ms dropped 0 reconnects 0", of the time since the last
    // call.
    std::string status();

  private:
    static void writeLine(void *service, uint8_t level, const char *format, va_list arguments);
    void makeSession(const Options &options, const MediaDescription &media);
    void end();
    void run();
    Verdict connectOnce();
    Verdict publishOver(const Connection &connection);
    bool become(RtmpPublisher *publisher, int socket);
    void letGo();
    bool logIn(const Verdict &verdict);
    bool pause(const std::string &why);
    void giveUp(const std::string &why);
    double outKbps(uint64_t bytes);
    void noteStall(uint64_t bytes, uint64_t waiting);

    const ServiceUrl url_;
    const std::string name_; // for people
    const bool isExact_;
    const ServiceTrust &trust_;
    Console &console_;
    CaptionSource *const captions_; // null: none
    RtmpLogger logger_;
    RtmpServer *server_ = nullptr;
    RtmpSession *session_ = nullptr;

    std::thread thread_;
    StopFlag stop_;
    std::atomic<State> state_ = State::Connecting;
    std::atomic<uint32_t> connections_ = 0; // that published
    std::atomic<uint64_t> dropped_ = 0;     // frames that the session did not take
    std::atomic<bool> senderEnded_ = false; // the library's thread, after a write that failed
    std::atomic<bool> isStalled_ = false;
    std::mutex mutex_;                   // of the next two
    RtmpPublisher *publisher_ = nullptr; // null: there is none now
    int socket_ = -1;

    // The thread's own.
    Backoff backoff_;
    std::string login_; // query of a challenge login
    int logins_ = 0;    // steps of it, in a row

    // Of the status line.
    uint64_t bytesShown_ = 0;
    std::chrono::steady_clock::time_point shown_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point moved_ = shown_; // it took something, or nothing waited
};
