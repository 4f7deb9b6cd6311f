// What a soak leaves behind: a line a second (soak.csv), and a page (soak.md).
#pragma once

#include "soak/company.h"
#include "soak/growth.h"
#include "soak/host_process.h"

#include <cstdio>

namespace soak {

struct Sample {
    double seconds = 0;
    bool isEbb = false;
    long residentKiB = 0;
    int descriptors = 0, threads = 0, players = 0;
    double lagMs = 0; // the longest way of a picture to a steady player since the line before
    uint64_t restarts = 0;
    Figures figures;
};

class CurveFile {
  public:
    explicit CurveFile(const std::string &path);
    ~CurveFile();
    CurveFile(const CurveFile &) = delete;
    CurveFile &operator=(const CurveFile &) = delete;
    void write(const Sample &sample);

  private:
    FILE *file_;
};

struct Outcome {
    double minutes = 0;
    uint32_t seed = 0;
    std::string preset;
    std::vector<Sample> samples;
    std::vector<Ebb> ebbs;
    std::vector<std::pair<std::string, uint64_t>> recordings; // who, how many frames
    Audience audience;                                        // until the end began
    std::vector<std::string> failures;
    uint64_t swept = 0; // descriptors that the exact road left open
    double hostCpu = 0, playersCpu = 0;
};

void WritePage(const std::string &path, const Outcome &outcome, const Company &company);

} // namespace soak
