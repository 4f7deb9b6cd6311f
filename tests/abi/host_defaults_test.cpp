// What a host gets that defines no host function: no captions, no TLS, every viewer welcome, and nothing
// said.
#include "rtmpcast/rtmpcast.h"

#include <gtest/gtest.h>

namespace {

struct ssl_st *const kNoTls = nullptr;

TEST(HostDefaults, ThereAreNoCaptions)
{
    EXPECT_EQ(cc_gen_init(), 0U);
    cc_gen_close(0);
    const uint8_t frame[] = {0, 0, 0, 1, 0x65};
    int32_t position = 77;
    EXPECT_EQ(find_cc_insertion_place_in_h264_of_qbox(frame, sizeof frame, &position), -1);
    EXPECT_EQ(position, 0);
    uint8_t byte = 0;
    uint8_t *sei = &byte;
    int32_t length = 77;
    get_sei_packet(0, &sei, &length, 40);
    EXPECT_EQ(sei, nullptr);
    EXPECT_EQ(length, 0);
}

TEST(HostDefaults, AFrameKeepsTheSizeOfItsNalUnits)
{
    uint8_t frame[] = {0, 0, 0, 1, 0x65};
    increase_nal_size(frame, 0, 100);
    EXPECT_EQ(frame[3], 1);
}

TEST(HostDefaults, NoTlsIsReadWrittenOrAccepted)
{
    uint8_t byte = 77;
    EXPECT_EQ(SSL_read(kNoTls, &byte, 1), -1);
    EXPECT_EQ(SSL_write(kNoTls, &byte, 1), -1);
    EXPECT_EQ(byte, 77);
    EXPECT_EQ(rtmpTlsOwesRenewal(kNoTls), 0);
    EXPECT_EQ(rtmpTlsAccept(nullptr, -1, "127.0.0.1"), nullptr);
    rtmpTlsEnd(kNoTls);
    TLS_print_error(nullptr, nullptr, -1);
}

TEST(HostDefaults, EveryViewerIsWelcome)
{
    const RtmpViewer viewer = {};
    EXPECT_EQ(rtmpViewerAccepted(&viewer), 0);
    EXPECT_EQ(rtmpViewerConnects(&viewer), 0);
    EXPECT_EQ(rtmpViewerPlays(&viewer), 0);
    rtmpViewerLeft(&viewer);
}

TEST(HostDefaults, WhatAHostMayHearOfIsPassedOver)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(PublishGeneratePeriodicRTMPMsg(nullptr, 0, 0), nullptr);
    publishChangeState(nullptr, 1);
    PublishUstreamRecord(nullptr, "start");
    rtmpStatusMessage(nullptr, "key", "value", "description");
    rtmpSendZandBitrate(nullptr, 1000);
    rtmpKeyFrameWanted(nullptr);
    KelvoraSyslog("RTMP", "%s %d", "a line of the system's log", 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace
