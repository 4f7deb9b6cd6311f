// Captions of a publisher: the examples' source of them, the library's messages, and what the service reads.
#include "publisher_fixture.h"

#include "examples/captions/caption_calls.h"

#include <fstream>

#include <unistd.h>

using namespace amf0;
using namespace publisher;
using namespace wire;

namespace {

constexpr uint64_t kCaptionBegin = 5000;
constexpr uint64_t kCaptionPicture = 40; // ms
constexpr uint64_t kCaptionShown = 1000; // since the first picture
constexpr uint64_t kCaptionErased = 2000;

struct CaptionRoad {
    const char *name;
    bool steady;
    bool threaded;
};

// "Hi" from 1 s to 2 s, for the one session of a rig.
class PublishedCaptions : public testing::TestWithParam<CaptionRoad> {
  protected:
    PublishedCaptions() : rig({.steady = GetParam().steady, .threaded = GetParam().threaded})
    {
        HostFakes &fakes = HostFakes::get();
        fakes.findCaptionPlace = placeCaption;
        fakes.getSei = takeCaption;
        fakes.captionMessage = makeCaptionInfo;
        rig.session->CcGen->Handle = captions;
    }

    ~PublishedCaptions() override
    {
        rig.service->socket.leave();
        (void)rig.result();
        rig.destroyPublisher();
        rig.destroyServer();
        endCaptions(captions);
    }

    void begin(uint8_t mode)
    {
        rig.session->CcGen->Mode = mode;
        source->addTo(rig.session);
        rig.startAndServe();
        rig.serviceUpTo(Step::Frames);
    }

    // Sends a picture, and reads up to it. Returns what came in front of it.
    std::vector<Message> picture(uint64_t number, Message &read)
    {
        const uint64_t time = kCaptionBegin + kCaptionPicture * number;
        source->pictureAt(time);
        EXPECT_EQ(SendVideo(rig.session, VideoFrame(300, number % 25 == 0 ? 0x65 : 0x41), time), 0);
        std::vector<Message> before;
        for (read = rig.service->read(); read.type != RTMP_TYPE_VIDEO; read = rig.service->read()) {
            before.push_back(read);
        }
        return before;
    }

    static std::string writeCues()
    {
        char name[] = "/tmp/rtmpcast-cues-XXXXXX";
        close(mkstemp(name));
        std::ofstream(name) << "1\n00:00:01,000 --> 00:00:02,000\nHi\n";
        return name;
    }

    static std::unique_ptr<CaptionSource> makeSource()
    {
        const std::string file = writeCues();
        std::unique_ptr<CaptionSource> made = std::make_unique<CaptionSource>(file);
        unlink(file.c_str());
        return made;
    }

    Rig rig;
    std::unique_ptr<CaptionSource> source = makeSource();
    uint64_t captions = makeCaptions();
};

INSTANTIATE_TEST_SUITE_P(
    On, PublishedCaptions,
    testing::Values(CaptionRoad{"Exact", false, false}, CaptionRoad{"ExactThreaded", false, true},
                    CaptionRoad{"Steady", true, false}, CaptionRoad{"SteadyThreaded", true, true}),
    [](const testing::TestParamInfo<CaptionRoad> &row) { return std::string(row.param.name); });

// 00 00 00 06 C1 FF FC <pair> FF in base64.
Bytes CaptionInfoBody(const std::string &data)
{
    return Values({String("onCaptionInfo"), Object({{"type", String("708")}, {"data", String(data)}})}).bytes;
}

const std::vector<std::string> kHiInfos = {
    "AAAABsH//JQg/w==", "AAAABsH//JQg/w==", // RCL: 94 20
    "AAAABsH//JSu/w==", "AAAABsH//JSu/w==", // ENM: 94 AE
    "AAAABsH//JRw/w==", "AAAABsH//JRw/w==", // row 15: 94 70
    "AAAABsH//Mjp/w==",                     // Hi: C8 E9
    "AAAABsH//JQv/w==", "AAAABsH//JQv/w==", // EOC: 94 2F
    "AAAABsH//JQs/w==", "AAAABsH//JQs/w=="  // EDM: 94 2C
};
constexpr size_t kFlipInfo = 7;
constexpr size_t kEraseInfo = 9;

} // namespace

// Each stands in front of its picture, at the media time of the one before; the video's clock does not
// notice.
TEST_P(PublishedCaptions, AreMessagesOnAChunkStreamOfTheirOwn)
{
    begin(1);
    std::vector<uint64_t> flips;
    size_t next = 0;
    for (uint64_t i = 0; i < 60; i++) {
        Message video;
        for (const Message &info : picture(i, video)) {
            ASSERT_LT(next, kHiInfos.size());
            EXPECT_TRUE(Same(info.payload, CaptionInfoBody(kHiInfos[next])));
            EXPECT_EQ(info.type, 18);
            EXPECT_EQ(info.chunkStream, 30U);
            EXPECT_EQ(info.stream, 1U);
            EXPECT_EQ(info.timestamp, i == 0 ? 0 : (i - 1) * kCaptionPicture);
            if (next == kFlipInfo || next == kEraseInfo) {
                flips.push_back(i * kCaptionPicture);
            }
            next++;
        }
        EXPECT_EQ(video.timestamp, i * kCaptionPicture);
        EXPECT_EQ(video.payload.size(), 305U) << "nothing is put into the picture";
    }
    EXPECT_EQ(next, kHiInfos.size());
    EXPECT_EQ(flips, (std::vector<uint64_t>{kCaptionShown, kCaptionErased}));
}

TEST_P(PublishedCaptions, AreInEveryPicture)
{
    begin(0);
    std::vector<std::string> pairs;
    for (uint64_t i = 0; i < 60; i++) {
        Message video;
        EXPECT_TRUE(picture(i, video).empty());
        const Bytes &body = video.payload;
        ASSERT_EQ(body.size(), 327U);
        EXPECT_TRUE(Same(Slice(body, 5, 17), Hex("00000012 06 04 0E B5 0031 47413934 03 C1 FF")));
        EXPECT_TRUE(Same(Slice(body, 22, 1), Hex("FC")));
        EXPECT_TRUE(Same(Slice(body, 25, 2), Hex("FF 80")));
        EXPECT_TRUE(Same(Slice(body, 27, 300), VideoFrame(300, i % 25 == 0 ? 0x65 : 0x41)));
        if (ToHex(Slice(body, 23, 2)) != ToHex(Hex("80 80"))) {
            pairs.push_back(ToHex(Slice(body, 23, 2)));
        }
    }
    const std::vector<std::string> hi = {"9420", "9420", "94AE", "94AE", "9470", "9470",
                                         "C8E9", "942F", "942F", "942C", "942C"};
    std::vector<std::string> expected;
    for (const std::string &pair : hi) {
        expected.push_back(ToHex(Hex(pair)));
    }
    EXPECT_EQ(pairs, expected);
}
