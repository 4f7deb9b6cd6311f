// Where a stream is published: rtmp[s]://[USER:PASSWORD@]HOST[:PORT]/APP/KEY. In user and password %XX
// stands for any byte.
#pragma once

#include <cstdint>
#include <string>

struct ServiceUrl {
    bool tls = false;
    std::string user; // of a challenge login; empty: none
    std::string password;
    std::string host; // a DNS name or an IPv4 address
    uint16_t port = 0;
    std::string app;
    std::string key; // with its query; a secret with most services

    // rtmp[s]://HOST[:PORT]/APP, for people and for the service: without password and key.
    std::string connectUrl() const;
};

// Throws OptionError.
ServiceUrl parseServiceUrl(const std::string &text);
