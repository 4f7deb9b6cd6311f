// A connected socket to a service, and TLS over it. Whatever is waited for, a stop ends the wait.
#pragma once

#include "service_url.h"

#include "common/pacer.h"

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>

struct ssl_ctx_st;
struct ssl_st;

// `isFinal`: it would be the same the next time.
class ConnectError : public std::runtime_error {
  public:
    ConnectError(const std::string &why, bool isFinal) : std::runtime_error(why), isFinal_(isFinal) {}
    bool isFinal() const
    {
        return isFinal_;
    }

  private:
    bool isFinal_;
};

// How services over TLS are trusted, once for all connections.
class ServiceTrust {
  public:
    // `caFile` empty: the system's store. `isInsecure`: nothing is checked. Throws std::runtime_error.
    ServiceTrust(const std::string &caFile, bool isInsecure);
    ~ServiceTrust();
    ServiceTrust(const ServiceTrust &) = delete;
    ServiceTrust &operator=(const ServiceTrust &) = delete;

    // A handle for one connection to that host.
    ssl_st *handleFor(int socket, const std::string &host) const;

  private:
    ssl_ctx_st *context_;
    bool isInsecure_;
};

class Connection {
  public:
    // Looks the name up, connects, and for rtmps: runs TLS's handshake, of which the certificate and its name
    // are a part. Throws ConnectError.
    Connection(const ServiceUrl &url, const ServiceTrust &trust, const StopFlag &stop);

    // Says that nothing more comes, gives the service a moment to read what it has been sent, and closes.
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int socket() const
    {
        return socket_;
    }
    ssl_st *tls() const
    {
        return tls_;
    }
    const std::string &address() const // dotted IPv4
    {
        return address_;
    }

  private:
    void connectTo(const ServiceUrl &url, const StopFlag &stop);
    bool tryAddress(const void *address, unsigned length, const StopFlag &stop);
    void beginTls(const ServiceUrl &url, const ServiceTrust &trust, const StopFlag &stop);
    void endTls(std::chrono::steady_clock::time_point limit);
    void setOptions() const;
    void setBlocking(bool isBlocking) const;
    void close();

    int socket_ = -1;
    ssl_st *tls_ = nullptr;
    std::string address_;
};
