// Who may watch, and what is said of viewers.
#include "common/viewers.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

RtmpViewer viewerOf(const char *app, const char *stream)
{
    RtmpViewer viewer = {};
    viewer.App = app;
    viewer.TcUrl = "";
    viewer.Stream = stream;
    strcpy(viewer.Figures.Address, "192.0.2.7");
    viewer.Figures.Port = 40112;
    return viewer;
}

} // namespace

TEST(Viewers, BringTheirTokenInTheQueryOfTheStream)
{
    EXPECT_TRUE(hasToken("stream?token=abc", "abc"));
    EXPECT_TRUE(hasToken("stream?first=1&token=abc&last=2", "abc"));
    EXPECT_TRUE(hasToken("?token=abc", "abc"));
    EXPECT_TRUE(hasToken("stream?&&token=abc", "abc"));
}

TEST(Viewers, BringNothingElse)
{
    for (const char *stream :
         {"", "stream", "token=abc", "stream?", "stream?token", "stream?token=", "stream?token=ab",
          "stream?token=abcd", "stream?token=ABC", "stream?xtoken=abc", "stream?Token=abc",
          "stream?a=token=abc", "stream?token=x&token=abc", "stream?token=abc?"}) {
        EXPECT_FALSE(hasToken(stream, "abc")) << stream;
    }
}

TEST(Viewers, WordsOfPeersAreShownWithoutControlCharacters)
{
    EXPECT_EQ(printable("live"), "live");
    EXPECT_EQ(printable("a\033[2Jb\nc\x7F"), "a?[2Jb?c?");
    EXPECT_EQ(printable(std::string(101, 'x')), std::string(100, 'x') + "...");
    EXPECT_EQ(printable(std::string(100, 'x')), std::string(100, 'x'));
}

TEST(Viewers, AreNamedWithoutTheirToken)
{
    RtmpViewer viewer = viewerOf("live", "stream?token=secret");
    EXPECT_EQ(asks(viewer), "viewer 192.0.2.7:40112 asks for live/stream");
    EXPECT_EQ(isRefused(viewer), "viewer 192.0.2.7:40112 is refused live/stream: it brings no valid token");
    viewer.Figures.IsTls = 1;
    viewer.Figures.Milliseconds = 62999;
    viewer.Figures.Bytes = 12'345'678;
    viewer.Figures.Frames = 1800;
    viewer.Figures.DroppedFrames = 7;
    EXPECT_EQ(
        leaves(viewer),
        "viewer over TLS 192.0.2.7:40112 leaves live/stream after 62 s: 12.3 MB, 1800 frames, 7 dropped");
}
