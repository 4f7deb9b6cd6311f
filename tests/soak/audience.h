// Whether those who come and go are served: viewers must see pictures, and few visits may end before their
// time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace soak {

// Viewers of the sessions that stay, on one road.
struct Viewers {
    uint64_t came = 0;
    uint64_t sawNothing = 0; // no picture, however long they waited, or the host ended the connection first
    uint64_t sawNothingInARow = 0, mostInARow = 0;

    void add(bool sawPicture);
};

struct Audience {
    uint64_t visits = 0;
    uint64_t endedByHost = 0; // before the visitor had done what it came for
    Viewers exact, steady;
};

// What was kept from them, one sentence each.
std::vector<std::string> WhatTheAudienceMissed(const Audience &audience);

// A twentieth, and three more, may see nothing: time limits are short, and a machine may stand still for
// longer; on the exact road a player that joins while another leaves may get no frames. Not ten in a row.
constexpr uint64_t kMostInARow = 10;
constexpr uint64_t MostThatSawNothing(uint64_t came)
{
    return came / 20 + 3;
}
// Garbage, whoever says one byte a second, and those in a session that is destroyed: few of them are in the
// middle of saying something.
constexpr uint64_t MostEndedByHost(uint64_t visits)
{
    return visits / 10 + 10;
}

} // namespace soak
