// What players are told of the media with RTMP_PLAYERS_DESCRIPTION, against libav: the encoder knows the
// size, libavformat writes the same decoder configuration, and reads the metadata to the end.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include "common/libav.h"
#include "media/media_info.h"
#include "rtmpcast/rtmpcast.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

namespace {

struct EncoderRow {
    const char *what;
    AVPixelFormat format;
    int width, height;
    const char *options;
};

const EncoderRow kEncoders[] = {
    {"Baseline", AV_PIX_FMT_YUV420P, 1918, 1078, "cabac=0:8x8dct=0:weightp=0:bframes=0"},
    {"High", AV_PIX_FMT_YUV420P, 1920, 1080, "8x8dct=1"},
    {"interlaced High", AV_PIX_FMT_YUV420P, 1440, 1080, "8x8dct=1:interlaced=1"},
    {"High with its own matrices", AV_PIX_FMT_YUV420P, 322, 242, "8x8dct=1:cqm=jvt"},
    {"monochrome High", AV_PIX_FMT_GRAY8, 642, 362, "8x8dct=1"},
    {"High 10", AV_PIX_FMT_YUV420P10, 642, 362, "8x8dct=1"},
    {"High 4:2:2", AV_PIX_FMT_YUV422P10, 642, 362, "8x8dct=1"},
    {"interlaced High 4:2:2", AV_PIX_FMT_YUV422P, 642, 362, "8x8dct=1:interlaced=1"},
    {"High 4:4:4", AV_PIX_FMT_YUV444P, 643, 361, "8x8dct=1:cqm=jvt"},
};

// An encoder that is open: its extradata are parameter sets and an SEI, as x264 writes them.
CodecPtr OpenEncoder(const EncoderRow &row)
{
    const AVCodec *codec = avcodec_find_encoder_by_name("libx264");
    CodecPtr encoder(avcodec_alloc_context3(codec));
    encoder->width = row.width;
    encoder->height = row.height;
    encoder->pix_fmt = row.format;
    encoder->time_base = {1, 25};
    encoder->framerate = {25, 1};
    encoder->flags = AV_CODEC_FLAG_GLOBAL_HEADER;
    av_opt_set(encoder->priv_data, "x264-params", row.options, 0);
    av_opt_set(encoder->priv_data, "preset", "ultrafast", 0);
    const int status = avcodec_open2(encoder.get(), codec, nullptr);
    return status == 0 ? std::move(encoder) : nullptr;
}

// A session as records, with the media registered on a server that has the flag.
class AnnouncedMedia : public testing::TestWithParam<EncoderRow> {
  protected:
    AnnouncedMedia()
    {
        quietLibav();
        pthread_mutex_init(&server_.LiveSessionListLock, nullptr);
        server_.PlayerFlags = RTMP_PLAYERS_DESCRIPTION;
        session_.Server = &server_;
    }
    ~AnnouncedMedia() override
    {
        FreeCodecInfo(session_.CodecInfo);
        pthread_mutex_destroy(&server_.LiveSessionListLock);
    }
    int announce(const AVCodecContext &encoder)
    {
        const uint8_t aac[] = {0x11, 0x90}; // 48,000 Hz, stereo
        const VideoMediaInfo video = {7, 1000000, {}, encoder.extradata_size, encoder.extradata};
        const AudioMediaInfo audio = {10, 0, sizeof aac, aac};
        return RtmpAddMediaInfo(&session_, &video, &audio);
    }
    std::string metadata() const
    {
        const CodecInfo *info = session_.CodecInfo;
        return {reinterpret_cast<const char *>(info->PlayerMetaData), info->PlayerMetaDataLen};
    }
    std::string avcHeader() const
    {
        const CodecInfo *info = session_.CodecInfo;
        return {reinterpret_cast<const char *>(info->PlayerAvccBox), info->PlayerAvccBoxLen};
    }
    double number(const std::string &member) const
    {
        const std::string body = metadata();
        const size_t at = body.find(member) + member.size() + 1; // behind the marker
        uint64_t bits = 0;
        for (size_t i = at; i < at + 8; i++) {
            bits = bits << 8 | static_cast<uint8_t>(body.at(i));
        }
        double value;
        memcpy(&value, &bits, sizeof value);
        return value;
    }

  private:
    RtmpServer server_ = {};
    RtmpSession session_ = {};
};

// The AVC sequence header that libavformat writes into an FLV file of this encoder's stream.
std::string HeaderOfLibavformat(const AVCodecContext &encoder)
{
    AVFormatContext *made = nullptr;
    avformat_alloc_output_context2(&made, nullptr, "flv", nullptr);
    const std::unique_ptr<AVFormatContext, void (*)(AVFormatContext *)> flv(made, avformat_free_context);
    AVStream *stream = avformat_new_stream(flv.get(), nullptr);
    avcodec_parameters_from_context(stream->codecpar, &encoder);
    avio_open_dyn_buf(&flv->pb);
    EXPECT_GE(avformat_write_header(flv.get(), nullptr), 0);
    uint8_t *bytes = nullptr;
    const int length = avio_close_dyn_buf(flv->pb, &bytes);
    const std::string file(reinterpret_cast<const char *>(bytes), static_cast<size_t>(length));
    av_free(bytes);
    const size_t script = 13; // behind the file's header and the first back pointer
    const auto lengthAt = [&file](size_t tag) {
        return static_cast<size_t>(static_cast<uint8_t>(file.at(tag + 1)) << 16 |
                                   static_cast<uint8_t>(file.at(tag + 2)) << 8 |
                                   static_cast<uint8_t>(file.at(tag + 3)));
    };
    const size_t video = script + 11 + lengthAt(script) + 4;
    EXPECT_EQ(file.at(video), 9);
    return file.substr(video + 11, lengthAt(video));
}

std::string FlvTag(char type, const std::string &body)
{
    const auto bigEndian = [](size_t value) {
        return std::string{static_cast<char>(value >> 16), static_cast<char>(value >> 8),
                           static_cast<char>(value)};
    };
    return std::string(1, type) + bigEndian(body.size()) + std::string(7, '\0') + body + '\0' +
           bigEndian(body.size() + 11);
}

} // namespace

TEST_P(AnnouncedMedia, HasTheEncodersSize)
{
    const CodecPtr encoder = OpenEncoder(GetParam());
    ASSERT_NE(encoder, nullptr);
    ASSERT_EQ(announce(*encoder), 0);
    EXPECT_EQ(number("width"), GetParam().width);
    EXPECT_EQ(number("height"), GetParam().height);
}

TEST_P(AnnouncedMedia, HasTheDecoderConfigurationThatLibavformatWrites)
{
    const CodecPtr encoder = OpenEncoder(GetParam());
    ASSERT_NE(encoder, nullptr);
    ASSERT_EQ(announce(*encoder), 0);
    const std::string expected = HeaderOfLibavformat(*encoder);
    EXPECT_EQ(avcHeader().size(), expected.size());
    EXPECT_TRUE(avcHeader() == expected);
}

TEST_P(AnnouncedMedia, IsReadToItsEndByLibavformat)
{
    const CodecPtr encoder = OpenEncoder(GetParam());
    ASSERT_NE(encoder, nullptr);
    ASSERT_EQ(announce(*encoder), 0);
    const std::string path = testing::TempDir() + "announced_" + std::to_string(getpid()) + ".flv";
    std::ofstream(path, std::ios::binary)
        << std::string("FLV\x01\x05\0\0\0\x09\0\0\0\0", 13) << FlvTag(18, metadata())
        << FlvTag(9, avcHeader()) << FlvTag(9, std::string("\x17\x01\0\0\0\0\0\0\x02\x09\x10", 11));
    AVFormatContext *opened = nullptr;
    ASSERT_EQ(avformat_open_input(&opened, path.c_str(), nullptr, nullptr), 0);
    const FormatPtr flv(opened);
    const PacketPtr packet = makePacket();
    ASSERT_EQ(av_read_frame(flv.get(), packet.get()), 0);
    const AVDictionaryEntry *channels = av_dict_get(flv->metadata, "audiochannels", nullptr, 0);
    ASSERT_NE(channels, nullptr); // the last member but two that it keeps
    EXPECT_STREQ(channels->value, "2");
    const AVCodecParameters *video = flv->streams[packet->stream_index]->codecpar;
    EXPECT_EQ(video->codec_id, AV_CODEC_ID_H264);
    EXPECT_TRUE(std::string(reinterpret_cast<const char *>(video->extradata),
                            static_cast<size_t>(video->extradata_size)) == avcHeader().substr(5));
    remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(Encoders, AnnouncedMedia, testing::ValuesIn(kEncoders),
                         [](const testing::TestParamInfo<EncoderRow> &row) {
                             std::string name;
                             for (const char *c = row.param.what; *c != '\0'; c++) {
                                 if (isalnum(static_cast<unsigned char>(*c)) != 0) {
                                     name += *c;
                                 }
                             }
                             return name;
                         });
