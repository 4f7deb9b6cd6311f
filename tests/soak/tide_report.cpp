#include "soak/tide_report.h"

#include <algorithm>
#include <ctime>
#include <stdexcept>

namespace soak {
namespace {

using Number = unsigned long long;

// A row of the curves: first, last, least and most of what `value` picks, over all seconds.
template <typename Value> void WriteCurve(FILE *page, const char *name, const Outcome &outcome, Value value)
{
    double least = 1e300, most = -1e300;
    for (const Sample &each : outcome.samples) {
        least = std::min(least, static_cast<double>(value(each)));
        most = std::max(most, static_cast<double>(value(each)));
    }
    fprintf(page, "| %s | %.0f | %.0f | %.0f | %.0f |\n", name,
            static_cast<double>(value(outcome.samples.front())),
            static_cast<double>(value(outcome.samples.back())), least, most);
}

void WriteEbbs(FILE *page, const Outcome &outcome)
{
    std::vector<int64_t> resident, inUse, lag;
    for (const Ebb &each : BehindWarmUp(outcome.ebbs)) {
        resident.push_back(each.residentKiB);
        inUse.push_back(each.inUseKiB);
        lag.push_back(each.lagMs);
    }
    const Ebb &first = outcome.ebbs.front(), &last = outcome.ebbs.back();
    fprintf(
        page,
        "\nAt ebb, %zu times, all but the steady players had left. Median of the last third of the ebbs "
        "against that of the first third, of %zu behind the warm-up: memory in use %+lld KiB, resident "
        "%+lld KiB, longest way of a picture in the tide before %+lld ms. Descriptors %d at the first ebb, "
        "%d at the last; threads %d, %d.\n",
        outcome.ebbs.size(), inUse.size(), static_cast<long long>(GrowthOf(inUse)),
        static_cast<long long>(GrowthOf(resident)), static_cast<long long>(GrowthOf(lag)), first.descriptors,
        last.descriptors, first.threads, last.threads);
}

void WriteVisits(FILE *page, const Outcome &outcome, const Company &company)
{
    fprintf(page, "\n| who came | times |\n|---|---|\n");
    for (int each = 0; each < kManners; ++each) {
        fprintf(page, "| %s | %llu |\n", kNameOfManner[each], static_cast<Number>(company.visits[each]));
    }
    const Audience &audience = outcome.audience;
    fprintf(
        page,
        "\nOf them to the steady road %llu, over TLS %llu; ended by the host, until all was destroyed, "
        "%llu. Of %llu viewers of the exact road's sessions that stay %llu saw no picture, of %llu of the "
        "steady road's %llu.\n",
        static_cast<Number>(company.toSteadyRoad), static_cast<Number>(company.overTls),
        static_cast<Number>(audience.endedByHost), static_cast<Number>(audience.exact.came),
        static_cast<Number>(audience.exact.sawNothing), static_cast<Number>(audience.steady.came),
        static_cast<Number>(audience.steady.sawNothing));
}

void WriteHead(FILE *page, const Outcome &outcome)
{
    char date[32] = "";
    const time_t now = time(nullptr);
    tm broken = {};
    strftime(date, sizeof date, "%Y-%m-%d %H:%M", localtime_r(&now, &broken));
    fprintf(page, "# Soak\n\n%s, `scripts/soak.sh %g --preset %s --seed %u`.\n", date, outcome.minutes,
            outcome.preset.c_str(), outcome.seed);
}

void WriteSums(FILE *page, const Outcome &outcome, const Company &company)
{
    const Sample &last = outcome.samples.back();
    uint64_t came = 0;
    for (const std::atomic<uint64_t> &each : company.visits) {
        came += each;
    }
    fprintf(page, "\n| what | times |\n|---|---|\n");
    const std::pair<const char *, uint64_t> rows[] = {
        {"visits, fifty at a time", came},
        {"frames handed over", last.figures.frames},
        {"sessions made", last.figures.sessions},
        {"services killed", last.restarts},
        {"services published to, from the first command to frames", last.figures.published},
        {"viewers of the steady road that the host was told of", last.figures.accepted},
        {"descriptors that the exact road leaves open, swept up", outcome.swept},
        {"seconds of processor time, host and rtmpdumps", static_cast<uint64_t>(outcome.hostCpu)},
        {"seconds of processor time, players", static_cast<uint64_t>(outcome.playersCpu)},
    };
    for (const std::pair<const char *, uint64_t> &row : rows) {
        fprintf(page, "| %s | %llu |\n", row.first, static_cast<Number>(row.second));
    }
}

void WriteCurves(FILE *page, const Outcome &outcome)
{
    fprintf(page, "\n![soak](soak.png)\n\n| curve | first | last | least | most |\n|---|---|---|---|---|\n");
    WriteCurve(page, "resident memory, KiB", outcome, [](const Sample &s) { return s.residentKiB; });
    WriteCurve(page, "memory in use, KiB", outcome, [](const Sample &s) { return s.figures.inUse / 1024; });
    WriteCurve(page, "descriptors", outcome, [](const Sample &s) { return s.descriptors; });
    WriteCurve(page, "threads", outcome, [](const Sample &s) { return s.threads; });
    WriteCurve(page, "players beside the steady ones", outcome, [](const Sample &s) { return s.players; });
    WriteCurve(page, "longest way of a picture to a steady player, ms", outcome,
               [](const Sample &s) { return s.lagMs; });
    WriteCurve(page, "frames dropped for slow players", outcome,
               [](const Sample &s) { return s.figures.dropped; });
}

void WriteRecordings(FILE *page, const Outcome &outcome)
{
    fprintf(page, "\n| who recorded, without a hole | frames |\n|---|---|\n");
    for (const std::pair<std::string, uint64_t> &each : outcome.recordings) {
        fprintf(page, "| %s | %llu |\n", each.first.c_str(), static_cast<Number>(each.second));
    }
    fprintf(page, "\nThe services between one restart and the next, all others from the first to the last "
                  "moment.\n");
}

void WriteVerdict(FILE *page, const Outcome &outcome)
{
    fprintf(page, "\n%s\n",
            outcome.failures.empty()
                ? "Verdict: passed. Nothing grew, no recording has a hole, and viewers saw pictures."
                : "Verdict: FAILED.");
    for (const std::string &each : outcome.failures) {
        fprintf(page, "- %s\n", each.c_str());
    }
}

} // namespace

CurveFile::CurveFile(const std::string &path) : file_(fopen(path.c_str(), "w"))
{
    if (file_ == nullptr) {
        throw std::runtime_error(path + " cannot be written");
    }
    fprintf(file_,
            "seconds,ebb,resident_kib,in_use_kib,descriptors,threads,players,lag_ms,dropped_frames,frames,"
            "service_restarts,sessions\n");
}

CurveFile::~CurveFile()
{
    fclose(file_);
}

void CurveFile::write(const Sample &sample)
{
    fprintf(file_, "%.1f,%d,%ld,%llu,%d,%d,%d,%.1f,%llu,%llu,%llu,%llu\n", sample.seconds,
            sample.isEbb ? 1 : 0, sample.residentKiB, static_cast<Number>(sample.figures.inUse / 1024),
            sample.descriptors, sample.threads, sample.players, sample.lagMs,
            static_cast<Number>(sample.figures.dropped), static_cast<Number>(sample.figures.frames),
            static_cast<Number>(sample.restarts), static_cast<Number>(sample.figures.sessions));
    fflush(file_);
}

void WritePage(const std::string &path, const Outcome &outcome, const Company &company)
{
    FILE *page = fopen(path.c_str(), "w");
    if (page == nullptr) {
        throw std::runtime_error(path + " cannot be written");
    }
    WriteHead(page, outcome);
    if (!outcome.samples.empty() && !outcome.ebbs.empty()) {
        WriteSums(page, outcome, company);
        WriteCurves(page, outcome);
        WriteEbbs(page, outcome);
        WriteVisits(page, outcome, company);
        WriteRecordings(page, outcome);
    }
    WriteVerdict(page, outcome);
    fclose(page);
}

} // namespace soak
