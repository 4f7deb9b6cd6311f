#include "soak/audience.h"

#include <algorithm>

namespace soak {
namespace {

void AddMissed(std::vector<std::string> &found, const char *road, const Viewers &viewers)
{
    if (viewers.sawNothing > MostThatSawNothing(viewers.came)) {
        found.push_back(std::to_string(viewers.sawNothing) + " of " + std::to_string(viewers.came) +
                        " viewers of the " + road + " road saw no picture");
    }
    if (viewers.mostInARow > kMostInARow) {
        found.push_back(std::to_string(viewers.mostInARow) + " viewers of the " + road +
                        " road in a row saw no picture");
    }
}

} // namespace

void Viewers::add(bool sawPicture)
{
    ++came;
    sawNothing += sawPicture ? 0 : 1;
    sawNothingInARow = sawPicture ? 0 : sawNothingInARow + 1;
    mostInARow = std::max(mostInARow, sawNothingInARow);
}

std::vector<std::string> WhatTheAudienceMissed(const Audience &audience)
{
    std::vector<std::string> found;
    AddMissed(found, "exact", audience.exact);
    AddMissed(found, "steady", audience.steady);
    if (audience.endedByHost > MostEndedByHost(audience.visits)) {
        found.push_back("the host ended " + std::to_string(audience.endedByHost) + " of " +
                        std::to_string(audience.visits) + " visits");
    }
    return found;
}

} // namespace soak
