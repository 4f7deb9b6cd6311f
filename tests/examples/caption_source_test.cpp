// Captions as a host hands them to the library: from files, from standard input, and for several sessions.
#include "captions/caption_calls.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

#include <rtmpcast/rtmpcast.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

// Standard input is the reading end of a pipe for as long as this lives.
class PipedInput {
  public:
    PipedInput() : saved_(dup(STDIN_FILENO))
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        writing_ = ends[1];
    }
    ~PipedInput()
    {
        dup2(saved_, STDIN_FILENO);
        close(saved_);
        end();
    }
    void type(const std::string &text) const
    {
        EXPECT_EQ(write(writing_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void end()
    {
        if (writing_ >= 0) {
            close(writing_);
        }
        writing_ = -1;
    }

  private:
    int saved_;
    int writing_ = -1;
};

std::string fileOf(const std::string &text)
{
    char name[] = "/tmp/rtmpcast-cues-XXXXXX";
    close(mkstemp(name));
    std::ofstream(name) << text;
    return name;
}

// The library's part of a session: the record of its captions.
struct Session {
    explicit Session(uint8_t mode)
    {
        captions.Handle = makeCaptions();
        captions.Mode = mode;
        session.CcGen = &captions;
    }
    ~Session()
    {
        endCaptions(captions.Handle);
    }
    // What the library is given for an access unit.
    std::vector<uint8_t> sei(const std::vector<uint8_t> &accessUnit, uint32_t delta = 40)
    {
        int32_t position = 0;
        place = placeCaption(accessUnit.data(), static_cast<int32_t>(accessUnit.size()), &position);
        uint8_t *bytes = nullptr;
        int32_t length = 0;
        takeCaption(captions.Handle, &bytes, &length, delta);
        return {bytes, bytes + length};
    }
    RtmpCaptionCtx captions = {};
    RtmpSession session = {};
    int32_t place = -2;
};

const std::vector<uint8_t> kSlice = {0, 0, 0, 2, 0x41, 0x9A};

// Parameter sets so long that a frame's beginning does not fit in front of a caption.
std::vector<uint8_t> sliceBehind(size_t length)
{
    std::vector<uint8_t> unit(length + kSlice.size(), 0x67);
    unit[0] = unit[1] = 0;
    unit[2] = static_cast<uint8_t>((length - 4) >> 8);
    unit[3] = static_cast<uint8_t>(length - 4);
    std::copy(kSlice.begin(), kSlice.end(), unit.begin() + static_cast<ptrdiff_t>(length));
    return unit;
}

} // namespace

TEST(CaptionSource, AFileWithoutTextIsRefused)
{
    EXPECT_THROW(CaptionSource("/nonexistent/cues.srt"), CaptionError);
    const std::string empty = fileOf("\n\n");
    EXPECT_THROW(CaptionSource{empty}, CaptionError);
    unlink(empty.c_str());
}

TEST(CaptionSource, StandardInputIsReadWhileTheHostRuns)
{
    PipedInput input;
    CaptionSource source("-");
    source.pictureAt(70000);
    source.pictureAt(75000);
    input.type("first\nsecond");
    ASSERT_TRUE(WaitUntil([&] { return source.cues().size() == 1; }));
    EXPECT_EQ(source.cues().at(0)->text, "first");
    EXPECT_EQ(source.cues().at(0)->start, 6000) << "a second behind the picture that is shown";
    input.end();
    ASSERT_TRUE(WaitUntil([&] { return source.cues().size() == 2; }));
    EXPECT_EQ(source.cues().at(1)->text, "second");
}

TEST(CaptionSource, EndsWhileStandardInputIsOpen)
{
    PipedInput input;
    CaptionSource source("-");
    input.type("first\nsec");
    EXPECT_TRUE(WaitUntil([&] { return source.cues().size() == 1; }));
}

TEST(CaptionSource, ASessionHasNoneBeforeItIsAdded)
{
    Session session(0);
    EXPECT_TRUE(session.sei(kSlice).empty());
    EXPECT_EQ(session.captions.Enabled, 0u);
}

TEST(CaptionSource, AFrameHasANalUnitInModeZeroAndTheMessageAloneInModeOne)
{
    const std::string file = fileOf("Hi\n");
    CaptionSource source(file);
    unlink(file.c_str());
    Session inVideo(0);
    Session asMessage(1);
    source.addTo(&inVideo.session);
    source.addTo(&asMessage.session);
    EXPECT_EQ(inVideo.captions.Enabled, 1u);
    source.pictureAt(5000);
    EXPECT_EQ(inVideo.sei(kSlice).size(), 22u);
    EXPECT_EQ(asMessage.sei(kSlice).size(), 16u);
}

// 5 bytes of tag header, the frame up to the place, and the 22 bytes must not exceed 1023.
TEST(CaptionSource, AFrameWhoseBeginningIsTooLongGoesWithoutAndLosesNoPair)
{
    const std::string file = fileOf("Hi\n");
    CaptionSource source(file);
    unlink(file.c_str());
    Session session(0);
    source.addTo(&session.session);
    source.pictureAt(5000);
    EXPECT_EQ(session.sei(sliceBehind(996)).size(), 22u);
    EXPECT_EQ(session.place, 996);
    source.pictureAt(5500); // the line is loaded from here on
    EXPECT_TRUE(session.sei(sliceBehind(997), 500).empty());
    EXPECT_EQ(session.place, 0) << "a place for nothing: the frame's time is told";
    source.pictureAt(5540);
    const std::vector<uint8_t> sei = session.sei(kSlice);
    ASSERT_EQ(sei.size(), 22u);
    EXPECT_EQ(sei[18], 0x94) << "RCL";
    EXPECT_EQ(sei[19], 0x20);
}

// A sender's thread that is behind goes by its own pictures; one that nobody watched, by the host's.
TEST(CaptionSource, TheClockIsThatOfThePicturesThatAreSent)
{
    const std::string file = fileOf("1\n00:00:10,000 --> 00:00:11,000\nHi\n");
    CaptionSource source(file);
    unlink(file.c_str());
    Session session(0);
    source.addTo(&session.session);
    const auto isSaid = [&](uint32_t delta) { return session.sei(kSlice, delta).at(18) != 0x80; };
    source.pictureAt(1000);
    EXPECT_FALSE(isSaid(0));
    source.pictureAt(10800); // 9.8 s: the line is being loaded, but not on the thread that is behind
    EXPECT_FALSE(isSaid(40));
    CaptionSource::pictureWasUnwatched(&session.session);
    EXPECT_TRUE(isSaid(40));
}
