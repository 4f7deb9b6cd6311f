// A server with a capturing logger and one session, and configurations worked out by hand.
#pragma once

#include "media/media_info.h"
#include "net/platform.h"
#include "support/records.h"
#include "tests/media/bits.h"

using Lines = std::vector<std::string>;

const Bytes kStartCode = {0, 0, 0, 1};

// Baseline, level 3.1, 1280x720:
// 1 1 011 010 0  0000001010000 (79)  00000101101 (44)  1 | 1 0 0 1
const Bytes kSps720 = {0x67, 0x42, 0xC0, 0x1F, 0xDA, 0x01, 0x40, 0x16, 0xE4};

// x264's, Baseline 1280x720, 25 bytes.
const Bytes kSps25 = {0x67, 0x42, 0xC0, 0x1F, 0xD9, 0x00, 0x50, 0x05, 0xBB, 0x01, 0x10, 0x00, 0x00,
                      0x03, 0x00, 0x10, 0x00, 0x00, 0x03, 0x03, 0x20, 0xF1, 0x83, 0x24, 0x80};

const Bytes kPps4 = {0x68, 0xCE, 0x3C, 0x80};
const Bytes kPps5 = {0x68, 0xCE, 0x3C, 0x80, 0x11};

const Bytes kConfig720 = kStartCode + kSps720 + kStartCode + kPps4;
const Bytes kStereo44 = {0x12, 0x10};

inline VideoMediaInfo VideoOf(const ExactBytes &config, uint32_t bitrate = 0)
{
    return {7, bitrate, {11, 22, 33}, config.size(), config.data()};
}

inline AudioMediaInfo AudioOf(const ExactBytes &config)
{
    return {10, 44, config.size(), config.data()};
}

class MediaTest : public testing::Test, protected Records {
  protected:
    MediaTest()
    {
        server.BaseBandwidth = 6000000;
        server.PeerBandwidth = 6500000;
        session.MediaKind = RTMP_MEDIA_NONE;
    }
    ~MediaTest() override
    {
        FreeCodecInfo(session.CodecInfo);
        FreeCodecInfo(session.RetiredCodecInfo);
    }
    // The list lock is free again.
    bool lockIsFree()
    {
        const bool taken = pthread_mutex_trylock(&server.LiveSessionListLock) == 0;
        return taken && RtmpMutexUnlock(&server.LiveSessionListLock) == 0;
    }
};
