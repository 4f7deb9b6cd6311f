// The parts of publish_host that need no network: URLs, logins, verdicts, pauses.
#include "common/bitrate_wishes.h"
#include "common/options.h"
#include "publish_host/backoff.h"
#include "publish_host/login.h"
#include "publish_host/options.h"
#include "publish_host/service_url.h"
#include "publish_host/verdict.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

struct UrlRow {
    const char *text;
    ServiceUrl url;
    const char *shown;
};

const UrlRow kUrls[] = {
    {"rtmp://a.example/live/key", {false, "", "", "a.example", 1935, "live", "key"}, "rtmp://a.example/live"},
    {"rtmps://a.example/app/k?x=1/2",
     {true, "", "", "a.example", 443, "app", "k?x=1/2"},
     "rtmps://a.example/app"},
    {"rtmp://10.0.0.1:19350/one/two/key",
     {false, "", "", "10.0.0.1", 19350, "one/two", "key"},
     "rtmp://10.0.0.1:19350/one/two"},
    {"rtmps://a.example:1935/a/b", {true, "", "", "a.example", 1935, "a", "b"}, "rtmps://a.example:1935/a"},
    {"rtmp://me:p%40ss%2fw:d@a.example/app/k",
     {false, "me", "p@ss/w:d", "a.example", 1935, "app", "k"},
     "rtmp://a.example/app"},
    {"rtmp://me@a.example/app/k%20",
     {false, "me", "", "a.example", 1935, "app", "k%20"},
     "rtmp://a.example/app"},
    {"rtmp://a.example/app?auth=1/key",
     {false, "", "", "a.example", 1935, "app?auth=1", "key"},
     "rtmp://a.example/app?auth=1"},
};

PublishCtx refusal(const char *code, const char *description)
{
    PublishCtx answers = {};
    answers.ResultTransactionId = 1;
    strcpy(answers.StatusLevel, "error");
    strcpy(answers.StatusCode, code);
    strcpy(answers.StatusDescription, description);
    return answers;
}

Verdict::Kind kindOf(const char *code, const char *description, bool wasTaken = false)
{
    return judge(RTMP_ERR_REFUSED, refusal(code, description), wasTaken).kind;
}

Options parse(std::vector<std::string> words)
{
    words.insert(words.begin(), "publish_host");
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    return parsePublishOptions(static_cast<int>(argv.size()), argv.data());
}

} // namespace

TEST(ServiceUrl, HasItsParts)
{
    for (const UrlRow &row : kUrls) {
        SCOPED_TRACE(row.text);
        const ServiceUrl url = parseServiceUrl(row.text);
        EXPECT_EQ(url.tls, row.url.tls);
        EXPECT_EQ(url.user, row.url.user);
        EXPECT_EQ(url.password, row.url.password);
        EXPECT_EQ(url.host, row.url.host);
        EXPECT_EQ(url.port, row.url.port);
        EXPECT_EQ(url.app, row.url.app);
        EXPECT_EQ(url.key, row.url.key);
        EXPECT_EQ(url.connectUrl(), row.shown);
    }
}

TEST(ServiceUrl, WhatIsNoneIsRefused)
{
    for (const char *text : {"", "rtmp://", "rtmp:///live/key", "http://a/live/key", "rtmp://a", "rtmp://a/",
                             "rtmp://a/live", "rtmp://a/live/", "rtmp://a//key", "rtmp://a:0/live/key",
                             "rtmp://a:70000/live/key", "rtmp://a:/live/key", "rtmp://a:1x/live/key",
                             "rtmp://[::1]/live/key", "rtmp://a b/live/key", "rtmp://a/live/key\n"}) {
        EXPECT_THROW((void)parseServiceUrl(text), OptionError) << text;
    }
}

// The digests are worked out with another implementation of MD5 and base64.
TEST(ChallengeLogin, ProvesThePasswordInTwoSteps)
{
    EXPECT_EQ(loginQuery("[ AccessManager.Reject ] : [ code=403 need auth; authmod=adobe ] : ", "pat",
                         "secret word", "01234567"),
              "?authmod=adobe&user=pat");
    EXPECT_EQ(
        loginQuery("[ AccessManager.Reject ] : [ authmod=adobe ] : ?reason=needauth&user=pat&salt=c2FsdA=="
                   "&challenge=Y2hhbGxlbmdl&opaque=b3BhcXVl",
                   "pat", "secret word", "01234567"),
        "?authmod=adobe&user=pat&challenge=01234567&response=n5Zk53iBE4cGJK9TUg7qhg==&opaque=b3BhcXVl");
    EXPECT_EQ(loginQuery("[ authmod=adobe ] : ?reason=needauth&user=pat&salt=c2FsdA==&challenge=Y2hhbGxlbmdl",
                         "pat", "secret word", "01234567"),
              "?authmod=adobe&user=pat&challenge=01234567&response=dr6KO2vVNL/gdXjORF5xCw==");
}

TEST(ChallengeLogin, WhatCannotBeAnsweredIsNot)
{
    EXPECT_EQ(loginQuery("[ code=403 need auth; authmod=llnw ]", "pat", "word", "01234567"), "");
    EXPECT_EQ(loginQuery("[ authmod=adobe ] : ?reason=authfailed", "pat", "word", "01234567"), "");
    EXPECT_EQ(loginQuery("[ code=403 need auth; authmod=adobe ]", "", "", "01234567"), "");
    EXPECT_EQ(loginQuery("", "pat", "word", "01234567"), "");
}

TEST(ServiceVerdict, ARefusalIsForGood)
{
    EXPECT_EQ(kindOf("NetStream.Publish.BadName", "no such key"), Verdict::Kind::GiveUp);
    EXPECT_EQ(kindOf("NetConnection.Connect.Rejected", "no such application"), Verdict::Kind::GiveUp);
    EXPECT_EQ(kindOf("NetConnection.Connect.InvalidApp", ""), Verdict::Kind::GiveUp);
    EXPECT_EQ(kindOf("NetStream.Publish.Denied", ""), Verdict::Kind::GiveUp);
    EXPECT_EQ(kindOf("", ""), Verdict::Kind::GiveUp);
}

TEST(ServiceVerdict, WhatPassesIsTriedAgain)
{
    EXPECT_EQ(kindOf("NetStream.Publish.BadName", "Already publishing"), Verdict::Kind::Retry);
    EXPECT_EQ(kindOf("NetStream.Publish.BadName", "no such key", true), Verdict::Kind::Retry);
    EXPECT_EQ(kindOf("NetConnection.Connect.AppShutdown", ""), Verdict::Kind::Retry);
    EXPECT_EQ(kindOf("NetStream.Failed", ""), Verdict::Kind::Retry);
    const PublishCtx nothing = {};
    EXPECT_EQ(judge(RTMP_ERR_NO_ANSWER, nothing, false).kind, Verdict::Kind::Retry);
    EXPECT_EQ(judge(RTMP_ERR_CONNECTION, nothing, true).kind, Verdict::Kind::Retry);
}

TEST(ServiceVerdict, TheServicesOwnWordsAreSaidOnOneLine)
{
    const PublishCtx answers = refusal("NetStream.Publish.BadName", "no\nkey\x1b[1m");
    EXPECT_EQ(judge(RTMP_ERR_REFUSED, answers, false).why,
              "it refuses: NetStream.Publish.BadName (\"no?key?[1m\")");
}

TEST(Pauses, GrowFromASecondToAMinute)
{
    Backoff backoff;
    for (const int64_t most : {2'000, 4'000, 8'000, 16'000, 32'000, 60'000, 60'000}) {
        const int64_t pause = backoff.next().count();
        EXPECT_GE(pause, most / 2);
        EXPECT_LE(pause, most);
    }
    backoff.reset();
    EXPECT_LE(backoff.next().count(), 2'000);
}

TEST(Wishes, OfAServiceThatIsAwayAreNotHeeded)
{
    BitrateWishes wishes;
    const int one = 0;
    const int other = 0;
    wishes.wish(&one, 500);
    wishes.wish(&other, 900);
    EXPECT_EQ(wishes.take(), 500);
    wishes.heed(&one, false);
    EXPECT_EQ(wishes.take(), 900);
    wishes.heed(&one, false);
    EXPECT_EQ(wishes.take(), 0); // nothing new
    wishes.heed(&other, false);
    EXPECT_EQ(wishes.take(), 0); // nobody is left
    wishes.heed(&one, true);
    EXPECT_EQ(wishes.take(), 500);
}

TEST(PublishOptions, TheEncoderFollowsUnlessItIsToStay)
{
    const std::string to = "rtmp://a/live/key";
    EXPECT_TRUE(parse({"--to", to, "--encode"}).adaptive.enabled);
    EXPECT_EQ(parse({"--to", to, "--encode"}).adaptive.minBitrate, 300'000u);
    EXPECT_EQ(parse({"--to", to, "--encode", "--abr-min-bitrate", "1000"}).adaptive.minBitrate, 1000u);
    EXPECT_FALSE(parse({"--to", to, "--encode", "--fixed-bitrate"}).adaptive.enabled);
    EXPECT_FALSE(parse({"--to", to}).adaptive.enabled); // a file cannot follow
    EXPECT_EQ(parse({"--to", to}).sender.mode, uint32_t{RTMP_SENDER_THREADED});
    EXPECT_THROW(parse({"--encode"}), OptionError);
}
