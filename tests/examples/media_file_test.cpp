#include "common/media_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

namespace {

constexpr int64_t kClipLength = 6'000'000; // microseconds

std::string writeFile(const std::string &name, const std::string &content)
{
    const std::string path = testing::TempDir() + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::string refusal(const std::string &path)
{
    try {
        MediaFile file(path);
    } catch (const SourceError &error) {
        return error.what();
    }
    return "accepted";
}

int firstNalType(const Frame &frame)
{
    return frame.data[4] & 0x1F;
}

} // namespace

TEST(MediaFile, TheClipDescribesItself)
{
    const MediaFile file(CLIP_PATH);
    const MediaDescription &media = file.description();
    EXPECT_EQ(media.audioConfig, (std::vector<uint8_t>{0x12, 0x10})); // AAC LC, 44,100 Hz, stereo
    ASSERT_GT(media.videoConfig.size(), 12u);
    EXPECT_EQ(media.videoConfig[4], 0x67);
    EXPECT_GT(media.videoBitrate, 1'000'000u);
    EXPECT_TRUE(media.warnings.empty());
}

TEST(MediaFile, PicturesGoOnWithoutAGapWhereTheClipBeginsAgain)
{
    MediaFile file(CLIP_PATH);
    int64_t last = -1;
    for (int pictures = 0; pictures < 3 * 180;) {
        const Frame frame = file.next();
        if (frame.type != MediaType::Video) {
            continue;
        }
        if (pictures > 0) {
            EXPECT_NEAR(static_cast<double>(frame.time - last), 33'333, 2) << pictures;
        }
        EXPECT_EQ(firstNalType(frame) != 1, pictures % 30 == 0) << pictures; // a key frame every second
        last = frame.time;
        ++pictures;
    }
    EXPECT_NEAR(static_cast<double>(last), 3 * kClipLength - 33'333, 10);
}

TEST(MediaFile, SoundNeverStepsBackAndMissesLessThanOneFrameARound)
{
    MediaFile file(CLIP_PATH);
    int64_t last = INT64_MIN;
    int64_t time = 0;
    int sounds = 0;
    while (time < 3 * kClipLength) {
        const Frame frame = file.next();
        time = frame.time;
        if (frame.type != MediaType::Audio) {
            continue;
        }
        if (sounds++ > 0) {
            EXPECT_GT(frame.time - last, 11'000);
            EXPECT_LT(frame.time - last, 46'500);
        }
        last = frame.time;
    }
    EXPECT_GE(sounds, 3 * 257); // 6 s are 258.4 frames
}

TEST(MediaFile, FramesComeInTheOrderOfTime)
{
    MediaFile file(CLIP_PATH);
    int64_t last = INT64_MIN;
    for (int i = 0; i < 400; ++i) { // of one round
        const Frame frame = file.next();
        EXPECT_GE(frame.time, last);
        last = frame.time;
    }
}

TEST(MediaFile, WhatIsNoMediaIsRefused)
{
    const std::string text = writeFile("text.txt", "no media at all\n");
    EXPECT_EQ(refusal(text), text + ": cannot be opened as media: Invalid data found when processing input");
    const std::string empty = writeFile("empty.mp4", "");
    EXPECT_EQ(refusal(empty),
              empty + ": cannot be opened as media: Invalid data found when processing input");
    EXPECT_EQ(refusal("/nowhere/clip.mp4"),
              "/nowhere/clip.mp4: cannot be opened as media: No such file or directory");
}

TEST(MediaFile, AClipCutInTheMiddleIsServedAsFarAsItGoes)
{
    std::ifstream whole(CLIP_PATH, std::ios::binary);
    std::string bytes(700'000, '\0');
    whole.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    MediaFile file(writeFile("cut.mp4", bytes));
    int64_t last = INT64_MIN;
    for (int i = 0; i < 1000; ++i) { // several rounds
        const Frame frame = file.next();
        EXPECT_FALSE(frame.data.empty());
        if (frame.type == MediaType::Video) {
            EXPECT_GT(frame.time, last);
            last = frame.time;
        }
    }
}
