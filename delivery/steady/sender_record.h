// The record of a session's steady sender.
#pragma once

#include "delivery/steady/session_clock.h"
#include "delivery/steady/sound_order.h"
#include "net/platform.h"

#include <semaphore.h>

extern "C" {

// Everything is the host's thread's, which calls RtmpSendData, but for what is shared.
struct SteadySender {
    // The order of frames.
    SessionClock Clock;
    ParkedSound Sound;
    uint64_t LastPicture; // on the session's clock; until there is one, the first frame's; 0: no frame yet
    uint8_t HasPictures;
    uint8_t BeganWithSound; // players may have, while there was no picture
    uint8_t Closed;         // frames are dropped, until the next reset

    // The thread that writes, in sender mode 1.
    RtmpThread Thread;
    uint8_t HasThread;
    uint8_t IsAwake; // shared: it has been woken, and has not begun to write
    uint8_t Ends;    // shared
    sem_t Wake;

    // What it saw behind its last picture; shared.
    uint32_t PicturesBehind; // the slowest player that makes progress
    uint8_t IsAnyCounted;    // there is one
    uint64_t BytesTaken;     // by it, of pictures, since the host's thread last took them
    uint32_t FlushMicros;    // the last write to all players

    // What the host has been told.
    uint64_t KeyFrameAsked; // ms of RtmpGetSystemTime; 0: never, here and below
    uint64_t DropsTold;     // frames
    uint64_t DropsToldAt;
};
}
