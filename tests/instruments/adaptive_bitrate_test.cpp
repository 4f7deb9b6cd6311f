#include "instruments/adaptive_bitrate.h"

#include "support/capture_logger.h"
#include "support/host_fakes.h"

#include <memory>

namespace {

int g_context; // its address is passed to the host

constexpr int32_t kNoMonitor = -1;
constexpr uint64_t kNever = UINT64_MAX;

struct AbrDeleter {
    void operator()(RtmpQueueAdaptiveBitrate *abr) const
    {
        RtmpQueueAdaptiveBitrateDestroy(abr);
    }
};
using Controller = std::unique_ptr<RtmpQueueAdaptiveBitrate, AbrDeleter>;

struct Parameters {
    uint32_t minBitrate = 0;
    uint32_t startDelayMs = 0;
    uint32_t increaseFullness = 0;
    uint32_t increasePercent = 0;
    uint32_t increaseMinStep = 0;
    uint32_t increaseIntervalSec = 0;
    uint32_t decreaseFullness = 0;
    uint32_t decreasePercent = 0;
    uint32_t decreaseFullnessHigh = 0;
    uint32_t decreasePercentHigh = 0;
    uint32_t decreaseIntervalSec = 0;
};

Controller Make(const Parameters &p, RtmpLogger *logger)
{
    return Controller(RtmpQueueAdaptiveBitrateCreate(
        logger, p.minBitrate, p.startDelayMs, p.increaseFullness, p.increasePercent, p.increaseMinStep,
        p.increaseIntervalSec, p.decreaseFullness, p.decreasePercent, p.decreaseFullnessHigh,
        p.decreasePercentHigh, p.decreaseIntervalSec, 0));
}

class AdaptiveBitrate : public testing::Test {
  protected:
    void SetUp() override
    {
        HostFakes::get().reset();
    }
    std::vector<int32_t> targets() const
    {
        std::vector<int32_t> all;
        for (const auto &[context, bitrate] : HostFakes::get().bitrates()) {
            EXPECT_EQ(context, &g_context);
            all.push_back(bitrate);
        }
        return all;
    }
    CaptureLogger log_;
};

} // namespace

TEST_F(AdaptiveBitrate, ZeroesSelectTheDefaults)
{
    const Controller abr = Make({}, log_.get());
    EXPECT_EQ(abr->MinBitrate, 0);
    EXPECT_EQ(abr->StartDelayMs, 5000U);
    EXPECT_EQ(abr->IncreaseFullness, 200U);
    EXPECT_EQ(abr->IncreasePercent, 10U);
    EXPECT_EQ(abr->IncreaseMinStep, 10000U);
    EXPECT_EQ(abr->IncreaseIntervalSec, 10U);
    EXPECT_EQ(abr->DecreaseFullness, 500U);
    EXPECT_EQ(abr->DecreasePercent, 50U);
    EXPECT_EQ(abr->DecreaseFullnessHigh, 1000U);
    EXPECT_EQ(abr->DecreasePercentHigh, 110U);
    EXPECT_EQ(abr->DecreaseIntervalSec, 1U);
    EXPECT_EQ(abr->Spare, 10U);
    EXPECT_EQ(abr->MaxBitrate, -1);
    EXPECT_EQ(abr->CurrentBitrate, -1);
    EXPECT_EQ(abr->LastIncreaseTime, kNever);
    EXPECT_EQ(abr->LastDecreaseTime, kNever);
    EXPECT_EQ(abr->AtMinimum, 0);
    EXPECT_EQ(abr->StartTime, 0U);
}

TEST_F(AdaptiveBitrate, ValuesArePassedOnInTheirOrder)
{
    const Controller abr(RtmpQueueAdaptiveBitrateCreate(log_.get(), 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12));
    EXPECT_EQ(abr->MinBitrate, 1);
    EXPECT_EQ(abr->StartDelayMs, 2U);
    EXPECT_EQ(abr->IncreaseFullness, 3U);
    EXPECT_EQ(abr->IncreasePercent, 4U);
    EXPECT_EQ(abr->IncreaseMinStep, 5U);
    EXPECT_EQ(abr->IncreaseIntervalSec, 6U);
    EXPECT_EQ(abr->DecreaseFullness, 7U);
    EXPECT_EQ(abr->DecreasePercent, 8U);
    EXPECT_EQ(abr->DecreaseFullnessHigh, 9U);
    EXPECT_EQ(abr->DecreasePercentHigh, 10U);
    EXPECT_EQ(abr->DecreaseIntervalSec, 11U);
    EXPECT_EQ(abr->Spare, 12U);
    EXPECT_EQ(abr->Logger, log_.get());
}

TEST_F(AdaptiveBitrate, InitSetsCeilingAndTargetAndResetForgetsThem)
{
    const Controller abr = Make({.minBitrate = 5}, log_.get());
    EXPECT_EQ(RtmpQueueAdaptiveBitrateInit(abr.get(), 4000999), 0);
    EXPECT_EQ(abr->MaxBitrate, 4000999);
    EXPECT_EQ(abr->CurrentBitrate, 4000999);
    EXPECT_EQ(log_.lines(), std::vector<std::string>{
                                "6 INFO: RtmpQueueAdaptiveBitrateInit: Initial video bitrate: 4000 Kbps"});
    abr->AtMinimum = 1;
    abr->StartTime = 7;
    abr->LastIncreaseTime = 8;
    abr->LastDecreaseTime = 9;
    EXPECT_EQ(RtmpQueueAdaptiveBitrateReset(abr.get()), 0);
    EXPECT_EQ(abr->MaxBitrate, -1);
    EXPECT_EQ(abr->CurrentBitrate, -1);
    EXPECT_EQ(abr->AtMinimum, 0);
    EXPECT_EQ(abr->StartTime, 0U);
    EXPECT_EQ(abr->LastIncreaseTime, kNever);
    EXPECT_EQ(abr->LastDecreaseTime, kNever);
    EXPECT_EQ(abr->MinBitrate, 5);
}

TEST_F(AdaptiveBitrate, NoControllerIsAnswered)
{
    EXPECT_EQ(RtmpQueueAdaptiveBitrateReset(nullptr), 1);
    EXPECT_EQ(RtmpQueueAdaptiveBitrateInit(nullptr, 1), 1);
    EXPECT_EQ(RtmpQueueAdaptiveBitrateUpdate(nullptr, 1, 1, 1, &g_context, 1, nullptr), 1);
    RtmpQueueAdaptiveBitrateDestroy(nullptr);
    EXPECT_TRUE(targets().empty());
}

TEST_F(AdaptiveBitrate, TheDefaultsStayAtTheConfiguredRateAndNeverLower)
{
    const Controller abr = Make({}, log_.get());
    RtmpQueueAdaptiveBitrateInit(abr.get(), 4000000);
    log_.clear();
    for (uint64_t now = 1; now < 60000; now += 33) {
        const int32_t queued = static_cast<int32_t>(now % 62); // 0 to 100 %
        EXPECT_EQ(RtmpQueueAdaptiveBitrateUpdate(abr.get(), 100, queued, 61, &g_context, now, nullptr), 0);
    }
    EXPECT_EQ(abr->CurrentBitrate, 4000000);
    EXPECT_TRUE(log_.lines().empty());
    EXPECT_TRUE(targets().empty());
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
}

TEST_F(AdaptiveBitrate, TheFirstEvaluationOnlyNotesTheTimeAndTheDelayAppliesOnce)
{
    const Controller abr = Make({.startDelayMs = 3000}, log_.get());
    RtmpQueueAdaptiveBitrateInit(abr.get(), 4000000);
    abr->CurrentBitrate = 1000000;
    RtmpQueueAdaptiveBitrateUpdate(abr.get(), 100, 0, 10, &g_context, 50000, nullptr);
    EXPECT_EQ(abr->StartTime, 50000U);
    RtmpQueueAdaptiveBitrateUpdate(abr.get(), 100, 0, 10, &g_context, 52999, nullptr);
    EXPECT_TRUE(targets().empty());
    RtmpQueueAdaptiveBitrateUpdate(abr.get(), 100, 0, 10, &g_context, 53000, nullptr);
    EXPECT_EQ(targets(), std::vector<int32_t>{1300000});
    EXPECT_EQ(abr->StartTime, 50000U);
    abr->LastIncreaseTime = kNever;
    RtmpQueueAdaptiveBitrateUpdate(abr.get(), 100, 0, 10, &g_context, 53001, nullptr);
    EXPECT_EQ(targets().size(), 2U);
}

// ----------------------------------------------------------------------- decisions, worked out by hand

namespace {

struct Case {
    const char *sentence;
    Parameters parameters;
    int32_t max, current;
    uint8_t atMinimum;
    uint64_t lastIncrease, lastDecrease; // ms
    uint64_t now;
    int32_t kbps, queued, slots;
    int32_t expected;
    std::vector<std::string> log;
    std::vector<std::string> status;
};

const std::string kIn = "6 INFO: RtmpQueueAdaptiveBitrateUpdate: ";

std::vector<std::string> Line(const char *verb, int kbps, const char *fullness)
{
    return {kIn + verb + " Bitrate to " + std::to_string(kbps) + " Kbps", kIn + "  Fullness: " + fullness};
}

const Parameters kLowering = {.minBitrate = 500000,
                              .increaseFullness = 20,
                              .decreaseFullness = 50,
                              .decreasePercent = 50,
                              .decreaseFullnessHigh = 80,
                              .decreasePercentHigh = 110};

const std::vector<std::string> kRecovering = {"rtmpLowBitrate 0 Bitrate is recovering"};
const std::vector<std::string> kAtMinimum = {"rtmpLowBitrate 1 Bitrate is at minimum"};

std::vector<Case> Cases()
{
    Parameters gain110 = kLowering;
    gain110.decreaseFullnessHigh = 50;
    Parameters largest = kLowering;
    largest.minBitrate = 0xFFFFFFFF;
    Parameters hugeGain = kLowering;
    hugeGain.decreasePercent = 0xFFFFFFFF;
    Parameters hugeRaise = kLowering;
    hugeRaise.increasePercent = 0xFFFFFFFF;
    Parameters hugeStep = kLowering;
    hugeStep.increaseMinStep = 0xFFFFFFFF;
    Parameters noMinimum = kLowering;
    noMinimum.minBitrate = 0;
    noMinimum.decreasePercent = 200;
    const std::vector<std::string> none;
    return {
        // raising: 19 % is below 20 %
        {"a tenth of the headroom", kLowering, 4000000, 2000000, 0, 0, 0, 11000, 900, 19, 100, 2200000,
         Line("Increasing", 2200, "19% (19/100)"), none},
        {"at least the smallest step", kLowering, 4000000, 3950000, 0, 0, 0, 11000, 900, 0, 100, 3960000,
         Line("Increasing", 3960, "0% (0/100)"), none},
        {"at most the ceiling", kLowering, 4000000, 3995000, 0, 0, 0, 11000, 900, 0, 100, 4000000,
         Line("Increasing", 4000, "0% (0/100)"), none},
        {"1001 bit/s of headroom are enough", kLowering, 4000000, 3998999, 0, 0, 0, 11000, 900, 0, 100,
         4000000, Line("Increasing", 4000, "0% (0/100)"), none},
        {"1000 are not", kLowering, 4000000, 3999000, 0, 0, 0, 11000, 900, 0, 100, 3999000, none, none},
        {"ten seconds are not more than ten", kLowering, 4000000, 2000000, 0, 1000, 0, 11999, 900, 0, 100,
         2000000, none, none},
        {"eleven are", kLowering, 4000000, 2000000, 0, 1000, 0, 12000, 900, 0, 100, 2200000,
         Line("Increasing", 2200, "0% (0/100)"), none},
        {"the first raise waits for no timer", kLowering, 4000000, 2000000, 0, kNever, 0, 2, 900, 0, 100,
         2200000, Line("Increasing", 2200, "0% (0/100)"), none},
        {"at the raising threshold nothing is raised", kLowering, 4000000, 2000000, 0, 0, 0, 20000, 900, 20,
         100, 2000000, none, none},
        {"without a monitor it raises all the same", kLowering, 4000000, 2000000, 0, 0, 0, 11000, kNoMonitor,
         0, 100, 2200000, Line("Increasing", 2200, "0% (0/100)"), none},
        {"above one and a half times the minimum it recovers", kLowering, 4000000, 700000, 1, 0, 0, 11000,
         900, 0, 100, 1030000, Line("Increasing", 1030, "0% (0/100)"), kRecovering},
        {"at exactly that it does not", kLowering, 1250000, 694445, 1, 0, 0, 11000, 900, 0, 100, 750000,
         Line("Increasing", 750, "0% (0/100)"), none},
        {"a percentage beyond reason ends at the ceiling", hugeRaise, 2000000000, 1000, 0, 0, 0, 11000, 900,
         0, 100, 2000000000, Line("Increasing", 2000000, "0% (0/100)"), none},
        {"and so does a step beyond reason", hugeStep, 2000000000, 1000, 0, 0, 0, 11000, 900, 0, 100,
         2000000000, Line("Increasing", 2000000, "0% (0/100)"), none},

        // lowering
        {"half way towards the measured rate", kLowering, 4000000, 3000000, 0, 0, 0, 2000, 1000, 60, 100,
         2000000, Line("Decreasing", 2000, "60% (60/100)"), none},
        {"beyond it where the ring is nearly full", kLowering, 4000000, 3000000, 0, 0, 0, 2000, 1000, 81, 100,
         800000, Line("Decreasing", 800, "81% (81/100)"), none},
        {"at the high threshold the plain gain still holds", kLowering, 4000000, 3000000, 0, 0, 0, 2000, 1000,
         80, 100, 2000000, Line("Decreasing", 2000, "80% (80/100)"), none},
        {"at the lowering threshold nothing is lowered", kLowering, 4000000, 3000000, 0, 0, 0, 2000, 1000, 50,
         100, 3000000, none, none},
        {"one second is not more than one", kLowering, 4000000, 3000000, 0, 0, 1000, 2999, 1000, 60, 100,
         3000000, none, none},
        {"two are", kLowering, 4000000, 3000000, 0, 0, 1000, 3000, 1000, 60, 100, 2000000,
         Line("Decreasing", 2000, "60% (60/100)"), none},
        {"the first lowering waits for no timer", kLowering, 4000000, 3000000, 0, 0, kNever, 2, 1000, 60, 100,
         2000000, Line("Decreasing", 2000, "60% (60/100)"), none},
        {"a measured rate above the target lowers nothing", kLowering, 4000000, 3000000, 0, 0, 0, 2000, 3001,
         60, 100, 3000000, none, none},
        {"nor does one that equals it", kLowering, 4000000, 3000000, 0, 0, 0, 2000, 3000, 60, 100, 3000000,
         none, none},
        {"nor a difference that the gain makes nothing of", kLowering, 4000000, 3000001, 0, 0, 0, 2000, 3000,
         60, 100, 3000001, none, none},
        {"without a monitor nothing is lowered", kLowering, 4000000, 3000000, 0, 0, 0, 2000, kNoMonitor, 100,
         100, 3000000, none, none},
        {"nor where 32 bits would overflow", kLowering, 2000000000, 2000000000, 0, 0, 0, 2000, kNoMonitor,
         100, 100, 2000000000, none, none},
        {"nor close above the minimum", kLowering, 4000000, 500100, 0, 0, 0, 2000, kNoMonitor, 100, 100,
         500100, none, none},
        {"a measured rate that 32 bits do not hold in bit/s", kLowering, 2000000000, 2000000000, 0, 0, 0,
         2000, 2147484, 60, 100, 2000000000, none, none},
        {"it stops at the minimum and says so", kLowering, 4000000, 700000, 0, 0, 0, 2000, 100, 81, 100,
         500000, Line("Decreasing", 500, "81% (81/100)"), kAtMinimum},
        {"it says so once", kLowering, 4000000, 600000, 1, 0, 0, 2000, 100, 60, 100, 500000,
         Line("Decreasing", 500, "60% (60/100)"), none},
        {"below one and a quarter of the minimum counts", kLowering, 4000000, 1249998, 0, 0, 0, 2000, 0, 60,
         100, 624999, Line("Decreasing", 624, "60% (60/100)"), kAtMinimum},
        {"exactly that does not", kLowering, 4000000, 1250000, 0, 0, 0, 2000, 0, 60, 100, 625000,
         Line("Decreasing", 625, "60% (60/100)"), none},
        {"at the minimum nothing is lowered", kLowering, 4000000, 500000, 0, 0, 0, 2000, 0, 100, 100, 500000,
         none, none},
        {"a gain beyond reason ends at the minimum", hugeGain, 2147483647, 2147483647, 0, 0, 0, 2000, 0, 60,
         100, 500000, Line("Decreasing", 500, "60% (60/100)"), kAtMinimum},
        {"without a minimum it ends at nothing", noMinimum, 4000000, 3000000, 0, 0, 0, 2000, 0, 60, 100, 0,
         Line("Decreasing", 0, "60% (60/100)"), kAtMinimum},
        {"a minimum beyond the type lowers nothing", largest, 4000000, 3000000, 0, 0, 0, 2000, 0, 60, 100,
         3000000, none, none},

        // fullness, to the nearest percent
        {"20 of 61 are 33 %", gain110, 4000000, 3000000, 0, 0, 0, 2000, 1000, 20, 61, 3000000, none, none},
        {"31 of 61 are 51 %", gain110, 4000000, 3000000, 0, 0, 0, 2000, 1000, 31, 61, 800000,
         Line("Decreasing", 800, "51% (31/61)"), none},
        {"101 of 200 are 51 %", kLowering, 4000000, 3000000, 0, 0, 0, 2000, 1000, 101, 200, 2000000,
         Line("Decreasing", 2000, "51% (101/200)"), none},
        {"30 million of 40 million are 75 %", kLowering, 4000000, 3000000, 0, 0, 0, 2000, 1000, 30000000,
         40000000, 2000000, Line("Decreasing", 2000, "75% (30000000/40000000)"), none},
        {"a full ring is 100 %", kLowering, 4000000, 3000000, 0, 0, 0, 2000, 1000, 61, 61, 800000,
         Line("Decreasing", 800, "100% (61/61)"), none},
    };
}

} // namespace

TEST_F(AdaptiveBitrate, DecidesAsWorkedOutByHand)
{
    for (const Case &one : Cases()) {
        SCOPED_TRACE(one.sentence);
        HostFakes::get().reset();
        log_.clear();
        const Controller abr = Make(one.parameters, log_.get());
        abr->MaxBitrate = one.max;
        abr->CurrentBitrate = one.current;
        abr->AtMinimum = one.atMinimum;
        abr->LastIncreaseTime = one.lastIncrease;
        abr->LastDecreaseTime = one.lastDecrease;
        abr->StartTime = one.now > 50000 ? 1 : one.now - 1;
        abr->StartDelayMs = 1;

        EXPECT_EQ(RtmpQueueAdaptiveBitrateUpdate(abr.get(), one.kbps, one.queued, one.slots, &g_context,
                                                 one.now, nullptr),
                  0);
        EXPECT_EQ(abr->CurrentBitrate, one.expected);
        EXPECT_EQ(log_.lines(), one.log);
        std::vector<std::string> status;
        for (const StatusReport &report : HostFakes::get().statusReports()) {
            EXPECT_EQ(report.context, &g_context);
            status.push_back(report.key + " " + report.value + " " + report.description);
        }
        EXPECT_EQ(status, one.status);

        const bool changed = one.expected != one.current;
        const bool lowered = one.expected < one.current;
        EXPECT_EQ(targets(), changed ? std::vector<int32_t>{one.expected} : std::vector<int32_t>{});
        EXPECT_EQ(abr->LastIncreaseTime, changed ? one.now : one.lastIncrease);
        EXPECT_EQ(abr->LastDecreaseTime, lowered ? one.now : one.lastDecrease);
        if (!one.status.empty()) {
            EXPECT_EQ(abr->AtMinimum, lowered ? 1 : 0);
        } else {
            EXPECT_EQ(abr->AtMinimum, one.atMinimum);
        }
    }
}

TEST_F(AdaptiveBitrate, ALoweringRestartsTheRaiseTimer)
{
    const Controller abr = Make(kLowering, log_.get());
    RtmpQueueAdaptiveBitrateInit(abr.get(), 4000000);
    abr->StartTime = 1;
    const auto update = [&](int32_t queued, uint64_t now) {
        RtmpQueueAdaptiveBitrateUpdate(abr.get(), 1000, queued, 100, &g_context, now, nullptr);
        return abr->CurrentBitrate;
    };
    EXPECT_EQ(update(60, 100000), 2500000);
    EXPECT_EQ(update(0, 110999), 2500000);
    EXPECT_EQ(update(0, 111000), 2650000);
    EXPECT_EQ(update(0, 121999), 2650000);
    EXPECT_EQ(update(60, 121999), 1825000); // a raise holds back no lowering
}

TEST_F(AdaptiveBitrate, ADecisionRefreshesTheRateOfTheBurnIn)
{
    RtmpQueueDebug debug = {};
    debug.BurninEnable = 1;
    debug.Elapsed = 7000;
    const Controller abr = Make(kLowering, log_.get());
    RtmpQueueAdaptiveBitrateInit(abr.get(), 4000000);
    abr->StartTime = 1;
    RtmpQueueAdaptiveBitrateUpdate(abr.get(), 1000, 60, 100, &g_context, 100000, &debug);
    EXPECT_STREQ(debug.RateText, "7:1000 2500");
    EXPECT_STREQ(debug.QueueText, "");
    RtmpQueueAdaptiveBitrateUpdate(abr.get(), 1100, 0, 100, &g_context, 200000, &debug);
    EXPECT_STREQ(debug.RateText, "7:1100 2650");
}

TEST_F(AdaptiveBitrate, ARingWithoutSlotsDecidesNothing)
{
    const Controller abr = Make({}, log_.get());
    RtmpQueueAdaptiveBitrateInit(abr.get(), 4000000);
    EXPECT_EQ(RtmpQueueAdaptiveBitrateUpdate(abr.get(), 1000, 0, 0, &g_context, 1, nullptr), 0);
    EXPECT_EQ(abr->CurrentBitrate, 4000000);
}
