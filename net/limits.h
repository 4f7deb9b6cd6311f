// The library's limits and fixed numbers that more than one room goes by, or that a reader would look for:
// what is announced, how much is held, how far something may go. What only one algorithm knows stays with it.
#pragma once

#include <stdint.h>

// ----------------------------------------------------------------------------------------- on the wire

constexpr uint32_t kProtocolChunkSize = 128;      // RTMP 1.0, 5.4.1: both directions, until Set Chunk Size
constexpr uint32_t kDefaultChunkSize = 4096;      // outgoing, where the host has configured none
constexpr uint32_t kControlChunkStreamId = 2;     // RTMP 1.0, 5.4
constexpr uint32_t kCommandChunkStreamId = 3;     // where commands of the connection go by custom
constexpr uint32_t kFirstStatusChunkStreamId = 4; // status, data and video
constexpr uint32_t kDataChunkStreamId = 8;        // a publisher's data: its video's clock stays as it is
constexpr uint32_t kBaseBandwidth = 6000000;      // bit/s
constexpr uint32_t kPeerBandwidthMargin = 500000; // bit/s: what players are told, above the base
constexpr uint32_t kVideoCodecAvc = 7;            // FLV, E.4.3.1
constexpr uint32_t kAudioCodecAac = 10;           // FLV, E.4.2.1
constexpr uint32_t kStereoChannels = 2;

// AMF0 objects and arrays within one another; one more is refused like any corrupted value. A level costs
// little enough stack that this many fit a thread of 256 KiB.
constexpr int32_t kDeepestAmf = 1024;

// KEPT: FreeAmfObject frees no list of more values than this, neither at the top nor nested. Required.
constexpr int32_t kLongestFreedList = 65534;

// ------------------------------------------------------------------------------------------ connections

constexpr int kListenBacklog = 10;
constexpr uint64_t kInfoFieldSize = 1024; // bytes of a text in PublishCtx, its terminator included
constexpr int kStatisticTextMost = 4095;  // bytes of a key or value of "moduleInfo" that are looked at
constexpr uint32_t kHttpHeadersMost = 16; // of a request of the tunnel

// ------------------------------------------------------------------------------------- the steady road

// Defaults of RtmpServiceLimits.
constexpr uint32_t kRingMilliseconds = 8000;
constexpr uint32_t kRingBytes = 16 << 20;
constexpr uint32_t kStallMilliseconds = 15000;
constexpr uint32_t kReplyBytes = 64 << 10;
constexpr uint32_t kSoundWaitMilliseconds = 500;
constexpr uint32_t kMostClients = 1000;
constexpr uint32_t kMostClientsPerAddress = 100;
constexpr uint32_t kHandshakeMilliseconds = 10000;
constexpr uint32_t kPlayMilliseconds = 30000;
constexpr uint32_t kAssemblyBytes = 256 << 10;
constexpr uint32_t kChunkStreams = 64;
constexpr uint32_t kTunnelMilliseconds = 10000;

// ---------------------------------------------------------------------------------------------- senders

constexpr uint32_t kFramePrefixSize = 1024; // bytes in front of a frame: tag header, captions
// Vectors per sendmsg, far below the kernel's 1024. Replies come from serve threads, whose stacks are
// resident memory once for every player: they make do with few.
constexpr uint32_t kVectorsOfReply = 16;
constexpr uint32_t kVectorsOfFrame = 256;
constexpr int64_t kClockJumpMs = 10000;        // between two frames: more, and the host's clock has been set
constexpr uint64_t kLongestFrameMs = 1000;     // what a frame behind a pause adds to a player's media time
constexpr uint32_t kMonitorAudioSlots = 240;   // parked audio frames
constexpr uint32_t kMonitorStatsSamples = 100; // video frames of the packet monitor's statistics
constexpr uint32_t kMostRingSlots = 1U << 24;  // days of video; the slots alone would take a gigabyte
constexpr uint32_t kMostWindowSamples = 1U << 20; // of 2 GiB each: a thousand times their sum fits 64 bits
constexpr int32_t kAlmostEmptyRing = 5;           // frames: "Buffer is empty" is reported below
constexpr int32_t kFramesBetweenBurnins = 30;
