// What a benchmark runs beside others: something that brings frames to players.
#pragma once

#include "clip.h"
#include "player_process.h"

struct Cost {
    double cpu = 0;
    double gigabytes = 0;
    uint64_t frames = 0;
    uint64_t allocations = 0;
    double perGb() const
    {
        return cpu / gigabytes;
    }
};

struct Contender {
    explicit Contender(uint32_t howMany) : players(howMany) {}
    virtual ~Contender() = default;
    virtual void send(const Turn &turn) = 0; // to every player; timestamps count from `epoch`

    const uint32_t players;
    uint64_t epoch = 0; // ms
    pid_t worker = 0;   // the process whose CPU time counts; 0: this one
    Cost cost;
};

// RunSeconds has each send the clip `seconds` times, taking turns picture by picture, so that whatever else
// the machine does meets all of them. Frames come one picture at a time, as from an encoder: nobody's socket
// is full when the next one is due. What the calling thread spends on waiting for the players is not counted.
void RunSeconds(const std::vector<Contender *> &contenders, PlayerProcess &process, int seconds);
