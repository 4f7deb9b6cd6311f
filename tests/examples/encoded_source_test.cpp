#include "common/encoded_source.h"

#include "common/decoded_file.h"
#include "common/test_pattern.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <gtest/gtest.h>

namespace {

constexpr int32_t kMegabit = 1'000'000;

std::unique_ptr<RawSource> pattern()
{
    return std::make_unique<TestPattern>(RawFormat{.width = 320,
                                                   .height = 180,
                                                   .rateNumerator = 30,
                                                   .rateDenominator = 1,
                                                   .sampleRate = 44'100,
                                                   .name = "test pattern"});
}

EncodedSource encoder(int32_t bitrate, std::unique_ptr<RawSource> raw = pattern())
{
    return {std::move(raw), {.videoBitrate = bitrate, .audioBitrate = 96'000, .preset = "ultrafast"}};
}

int firstNalType(const Frame &frame)
{
    return frame.data[4] & 0x1F;
}

// bit/s of the video over so many seconds.
double measure(EncodedSource &source, int seconds)
{
    size_t bytes = 0;
    for (int pictures = 0; pictures < 30 * seconds;) {
        const Frame frame = source.next();
        if (frame.type == MediaType::Video) {
            bytes += frame.data.size();
            ++pictures;
        }
    }
    return static_cast<double>(bytes) * 8 / seconds;
}

// What a decoder makes of every picture, fed as it comes.
class Decoder {
  public:
    explicit Decoder(const std::vector<uint8_t> &config)
        : codec_(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))), frame_(makeFrame()),
          packet_(makePacket())
    {
        quietLibav();
        feed(config);
        codec_->err_recognition = AV_EF_EXPLODE;
        EXPECT_EQ(avcodec_open2(codec_.get(), nullptr, nullptr), 0);
    }

    // True when exactly this picture came out, whole.
    bool decode(std::span<const uint8_t> accessUnit)
    {
        std::vector<uint8_t> stream = config_;
        for (size_t at = 0; at + 4 <= accessUnit.size();) { // lengths become start codes
            const size_t length = static_cast<size_t>(accessUnit[at]) << 24 | accessUnit[at + 1] << 16 |
                                  accessUnit[at + 2] << 8 | accessUnit[at + 3];
            stream.insert(stream.end(), {0, 0, 0, 1});
            stream.insert(stream.end(), accessUnit.begin() + static_cast<ptrdiff_t>(at) + 4,
                          accessUnit.begin() + static_cast<ptrdiff_t>(at + 4 + length));
            at += 4 + length;
        }
        av_new_packet(packet_.get(), static_cast<int>(stream.size()));
        std::copy(stream.begin(), stream.end(), packet_->data);
        const bool decoded = avcodec_send_packet(codec_.get(), packet_.get()) == 0 &&
                             avcodec_receive_frame(codec_.get(), frame_.get()) == 0;
        av_packet_unref(packet_.get());
        return decoded && frame_->decode_error_flags == 0;
    }

    const AVFrame &picture() const
    {
        return *frame_;
    }

  private:
    void feed(const std::vector<uint8_t> &config)
    {
        config_.assign(config.begin(), config.end() - 4); // without the start code at its end
        codec_->flags |= AV_CODEC_FLAG_LOW_DELAY;
        codec_->thread_count = 1;
    }

    CodecPtr codec_;
    FramePtr frame_;
    PacketPtr packet_;
    std::vector<uint8_t> config_;
};

} // namespace

TEST(EncodedSource, ItDescribesItself)
{
    const EncodedSource source = encoder(kMegabit);
    const MediaDescription &media = source.description();
    EXPECT_EQ(media.audioConfig, (std::vector<uint8_t>{0x12, 0x10})); // AAC LC, 44,100 Hz, stereo
    ASSERT_GT(media.videoConfig.size(), 12u);
    EXPECT_EQ(media.videoConfig[4] & 0x1F, 7);
    EXPECT_EQ(media.videoBitrate, 1'000'000u);
    EXPECT_EQ(media.summary, "test pattern: encoding H.264 320x180, 30 frames/s, 1000 kbit/s, AAC 44100 Hz, "
                             "2 channels");
}

TEST(EncodedSource, AKeyFrameComesEverySecondAndTimeRunsAtTheFrameRate)
{
    EncodedSource source = encoder(kMegabit);
    int64_t last = INT64_MIN;
    for (int pictures = 0; pictures < 95;) {
        const Frame frame = source.next();
        EXPECT_GE(frame.time, last);
        last = frame.time;
        if (frame.type == MediaType::Video) {
            EXPECT_NEAR(static_cast<double>(frame.time), pictures * 1e6 / 30, 1);
            EXPECT_EQ(firstNalType(frame) != 1, pictures % 30 == 0) << pictures;
            ++pictures;
        }
    }
}

TEST(EncodedSource, EveryPictureDecodesAtOnceAndTheClockMoves)
{
    EncodedSource source = encoder(kMegabit);
    Decoder decoder(source.description().videoConfig);
    std::vector<uint8_t> before;
    for (int pictures = 0; pictures < 60;) {
        const Frame frame = source.next();
        if (frame.type != MediaType::Video) {
            continue;
        }
        ASSERT_TRUE(decoder.decode(frame.data)) << pictures;
        ASSERT_EQ(decoder.picture().width, 320);
        const uint8_t *clock = decoder.picture().data[0] + 20 * decoder.picture().linesize[0];
        const std::vector<uint8_t> row(clock, clock + 320);
        EXPECT_NE(row, before) << pictures;
        before = row;
        ++pictures;
    }
}

TEST(EncodedSource, TheRateFollowsWhatIsAskedForWhileItRuns)
{
    EncodedSource source = encoder(2 * kMegabit);
    measure(source, 1); // the first key frame may take more
    EXPECT_NEAR(measure(source, 4), 2.0 * kMegabit, 0.2 * kMegabit);

    source.setBitrate(kMegabit / 2);
    measure(source, 2);
    EXPECT_NEAR(measure(source, 4), 0.5 * kMegabit, 0.05 * kMegabit);

    source.setBitrate(2 * kMegabit);
    measure(source, 10); // it recovers slower than it gives way
    EXPECT_NEAR(measure(source, 4), 2.0 * kMegabit, 0.2 * kMegabit);
}

TEST(EncodedSource, ItStillDecodesAfterTheRateHasChanged)
{
    EncodedSource source = encoder(2 * kMegabit);
    Decoder decoder(source.description().videoConfig);
    for (int pictures = 0; pictures < 90;) {
        const Frame frame = source.next();
        if (frame.type == MediaType::Video) {
            ASSERT_TRUE(decoder.decode(frame.data)) << pictures;
            ++pictures;
            source.setBitrate(pictures % 2 == 0 ? kMegabit / 4 : 2 * kMegabit);
        }
    }
}

TEST(EncodedSource, SoundKeepsUpWithThePicture)
{
    EncodedSource source = encoder(kMegabit);
    int sounds = 0;
    for (Frame frame; frame.time < 10'000'000;) {
        frame = source.next();
        sounds += frame.type == MediaType::Audio ? 1 : 0;
    }
    EXPECT_NEAR(sounds, 10 * 44'100 / 1024, 1);
}

TEST(EncodedSource, AFileIsDecodedScaledAndGoesOnWhereItEnds)
{
    RawFormat wanted = {.width = 320, .height = 180, .rateNumerator = 10, .rateDenominator = 1, .name = ""};
    EncodedSource source = encoder(kMegabit, std::make_unique<DecodedFile>(CLIP_PATH, wanted));
    Decoder decoder(source.description().videoConfig);
    int pictures = 0;
    int sounds = 0;
    for (Frame frame; frame.time < 14'000'000;) { // the clip lasts 6 s
        frame = source.next();
        if (frame.type == MediaType::Audio) {
            ++sounds;
            continue;
        }
        ASSERT_TRUE(decoder.decode(frame.data)) << pictures;
        ++pictures;
    }
    EXPECT_EQ(pictures, 141);
    EXPECT_NEAR(sounds, 14 * 44'100 / 1024, 1);
}

TEST(EncodedSource, WhatIsNoMediaIsRefused)
{
    const auto refusal = [](const std::string &path) -> std::string {
        try {
            DecodedFile file(path, RawFormat());
        } catch (const SourceError &error) {
            return error.what();
        }
        return "accepted";
    };
    EXPECT_EQ(refusal("/nowhere/clip.mp4"),
              "/nowhere/clip.mp4: cannot be opened as media: No such file or directory");
    EXPECT_EQ(refusal("/"), "/: cannot be opened as media: Is a directory");
}
