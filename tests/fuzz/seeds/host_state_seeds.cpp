// Programs of the target host_state by name, in the language of targets/support/host_ops.h.
#include "seed_folder.h"

#include "rtmpcast/rtmpcast.h"
#include "support/host_ops.h"

namespace {

// A program is its operations one behind the other: p(HostOp::SendVideo, 0, 10, 1, 0, 0).
class Program {
  public:
    template <typename... Arguments> Program &operator()(HostOp op, Arguments... arguments)
    {
        bytes_.push_back(static_cast<uint8_t>(op));
        (bytes_.push_back(static_cast<uint8_t>(arguments)), ...);
        return *this;
    }
    Program &text(const Bytes &bytes) // of the operation in front of it
    {
        bytes_.push_back(static_cast<uint8_t>(bytes.size()));
        Append(bytes_, bytes);
        return *this;
    }
    Program &then(const Program &other)
    {
        Append(bytes_, other.bytes_);
        return *this;
    }
    const Bytes &bytes() const
    {
        return bytes_;
    }

  private:
    Bytes bytes_;
};

using enum HostOp;

constexpr uint8_t kNobody = 255;
constexpr uint8_t kNoListener = 0, kOnePort = 1, kTwoPorts = 2;
constexpr uint8_t kCallsBack = 1 << 2, kIsSlow = 2 << 2, kIsNowhere = 3 << 2, kNoLogger = 5 << 2;
constexpr uint8_t kMonitor = 0, kThreadedMode = 1;
constexpr uint8_t kKey = 1, kInter = 0;
constexpr uint8_t kPair = 0, kTunnel = 1, kPlayerOfRtmp = 3, kSigned = 4, kNoHandshake = 8;
constexpr uint8_t kCreated = 3 << 2; // of a pair: behind createStream
constexpr uint8_t kGoodService = 3, kSlowAnswers = 0xF0;
constexpr uint8_t kSomeSize = 10, kLargeSize = 13, kHugeSize = 15;
constexpr uint8_t kForward = 0;

template <typename E> uint8_t Number(E value)
{
    return static_cast<uint8_t>(value);
}

Program ServerAndSession(uint8_t how, uint8_t mode, bool steady = false)
{
    Program p;
    p(ServerCreate, how, 0);
    if (steady) {
        p(ServiceSettings, 0, 0);
    }
    p(SessionCreate, 0, 0)(SenderSettings, 0, mode, 0, 1, 0, 0)(AddMedia, 0, 0, 0);
    return p;
}

Program PairThatPlays(uint8_t name = 0)
{
    Program p;
    p(PlayerJoins, 0, kPair | kCreated)(PlayerSays, 0, Number(HostSaid::Play), name)(AwaitPlaying, 0);
    return p;
}

Program PlayerOfToday()
{
    Program p;
    p(PlayerJoins, 0, kPlayerOfRtmp | kSigned)(PlayerSays, 0, Number(HostSaid::Connect), 0);
    p(PlayerSays, 0, Number(HostSaid::CreateStream), 0)(PlayerSays, 0, Number(HostSaid::Play),
                                                        0)(AwaitPlaying, 0);
    return p;
}

Program SomeFrames()
{
    Program p;
    for (int i = 0; i < 3; i++) {
        p(SendVideo, 0, kSomeSize, kKey, kForward, 0)(SendAudio, 0, 7, kInter, kForward, 0);
        p(SendVideo, 0, kLargeSize, kInter, kForward, 0);
    }
    return p;
}

void WriteBothRoadsAndModes(SeedFolder &folder)
{
    for (const bool steady : {false, true}) {
        for (const uint8_t mode : {kMonitor, kThreadedMode}) {
            const std::string name =
                std::string(steady ? "steady" : "exact") + (mode == 1 ? "_threaded" : "_monitor");
            Program pair = ServerAndSession(kNoListener, mode, steady);
            pair.then(PairThatPlays()).then(SomeFrames());
            folder.write(name, pair.bytes());
            Program wire = ServerAndSession(kOnePort, mode, steady);
            wire.then(PlayerOfToday()).then(SomeFrames())(PlayerSays, 0, Number(HostSaid::Pause), 0);
            wire(PlayerSays, 0, Number(HostSaid::Unpause), 0)(Figures, 0).then(SomeFrames());
            wire(PlayerLeaves, 0, 1)(SessionDestroy, 0)(ServerDestroy, 0);
            folder.write(name + "_over_loopback", wire.bytes());
        }
    }
}

void WriteLoggers(SeedFolder &folder)
{
    const std::pair<const char *, uint8_t> loggers[] = {{"calls_back", kCallsBack},
                                                        {"is_slow", kIsSlow},
                                                        {"has_no_function", kIsNowhere},
                                                        {"is_null", kNoLogger}};
    for (const auto &[name, how] : loggers) {
        Program p = ServerAndSession(kOnePort | how, kThreadedMode);
        p.then(PairThatPlays()).then(SomeFrames())(LogAndSignal, 0)(SessionDestroy, 0);
        folder.write(std::string("logger_that_") + name, p.bytes());
    }
}

void WriteSettings(SeedFolder &folder)
{
    Program twice = ServerAndSession(kNoListener, kThreadedMode);
    for (int i = 0; i < 2; i++) {
        twice(SenderSettings, 0, 1 - i, i, 3, 4, 4)(BandwidthSettings, 0, 1, i)(DebugSettings, 0, 7, 0, 1);
        twice(BitrateSettings, 0, 1, 5, 2, 3, 4, 5, 6, 0, 1, 2, 3, 4, 5)
            .then(PairThatPlays())
            .then(SomeFrames());
        twice(AddMedia, 0, 0, 0)(QueueReset, 0)(QueueClose, 0).then(SomeFrames())(QueueReset, 0);
    }
    folder.write("settings_twice", twice.bytes());

    Program order;
    order(SenderSettings, kNobody, 1, 0, 0, 0, 0)(BandwidthSettings, kNobody, 1, 0)(QueueReset, kNobody);
    order(ServerCreate, kOnePort, 63)(SessionCreate, 0, 0)(BandwidthSettings, 0, 1, 0)(DebugSettings, 0, 7, 0,
                                                                                       1);
    order(BitrateSettings, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0)(QueueClose, 0)(QueueReset, 0);
    order(SendVideo, 0, kSomeSize, kKey, kForward, 0)(ServiceSettings, 0, 0)(PlayerSettings, 0, 7, 255);
    order(AddMedia, 0, 0, 0).then(PairThatPlays()).then(SomeFrames())(SenderSettings, 0, 1, 1, 1, 0, 0);
    order.then(SomeFrames());
    folder.write("settings_in_the_wrong_order", order.bytes());

    Program service;
    service(ServerCreate, kTwoPorts, 0)(ServiceSettings, 0, 5, 1, 2, 3, 4, 5, 1, 1, 2, 3)(ServiceSettings, 0,
                                                                                          8);
    service(SessionCreate, 0, 0)(ServiceSettings, 0, 8)(AddMedia, 0, 0, 0)
        .then(PlayerOfToday())
        .then(SomeFrames());
    service(PlayerJoins, 0, kTunnel)(PlayerSendsBytes, 1).text(Hex("474554202F6F70656E2F312048545450"));
    folder.write("service_with_limits", service.bytes());
    for (uint32_t flag = 0; flag < 12; flag++) {
        const uint32_t flags = flag < 11 ? 1U << flag : uint32_t{RTMP_PLAYERS_ALL};
        Program players;
        players(ServerCreate, kOnePort, 0)(PlayerSettings, 0, flags >> 8, flags)(SessionCreate, 0, 0);
        players(SenderSettings, 0, 0, 0, 1, 0, 0)(AddMedia, 0, 0, 0).then(PlayerOfToday()).then(SomeFrames());
        players(PlayerSays, 0, Number(HostSaid::Seek), 0)(PlayerSays, 0, Number(HostSaid::Publish), 0);
        folder.write("players_" + std::to_string(flags), players.bytes());
    }
}

// Where a trace may be asked for (FolderOf), with frames that are traced.
void WriteTraces(SeedFolder &folder)
{
    const char *const folders[] = {"a_folder", "dev_full", "proc", "a_name_that_is_cut",
                                   "a_folder_that_is_not_there"};
    for (uint8_t which = 0; which < std::size(folders); which++) {
        Program p = ServerAndSession(kNoListener, kThreadedMode);
        p(DebugSettings, 0, 5, which, 1).then(PairThatPlays()).then(SomeFrames())(QueueReset, 0);
        folder.write(std::string("trace_in_") + folders[which], p.then(SomeFrames()).bytes());
    }
}

// How far a player has come when its session, or its server, goes.
void WriteDestroys(SeedFolder &folder)
{
    const std::vector<std::pair<const char *, Program>> phases = {
        {"connected", Program()(PlayerJoins, 0, kPlayerOfRtmp | kNoHandshake)},
        {"shaken_hands", Program()(PlayerJoins, 0, kPlayerOfRtmp | kSigned)},
        {"created", Program()(PlayerJoins, 0, kPair | kCreated)},
        {"half_a_message",
         Program()(PlayerJoins, 0, kPair | kCreated)(PlayerSays, 0, Number(HostSaid::HalfAMessage), 20)},
        {"joining", Program()(PlayerJoins, 0, kPair | kCreated)(PlayerSays, 0, Number(HostSaid::Play), 0)},
        {"playing", PairThatPlays()},
        {"paused", PairThatPlays()(PlayerSays, 0, Number(HostSaid::Pause), 0)},
        {"playing_again", PairThatPlays()(PlayerSays, 0, Number(HostSaid::Play), 0)},
        {"deleted", PairThatPlays()(PlayerSays, 0, Number(HostSaid::DeleteStream), 0)},
        {"takes_nothing", PairThatPlays()(PlayerStopsReading, 0)(SendVideo, 0, kHugeSize, kKey, kForward, 0)},
        {"pings", PairThatPlays()(PlayerStopsReading, 0)(PlayerSays, 0, Number(HostSaid::PingRequest), 0)},
        {"frames_beside", PairThatPlays()(SendBeside, 0, 31)},
        {"frames_beside_a_stopped_one", PairThatPlays()(PlayerStopsReading, 0)(SendBeside, 0, 31)},
        {"reset", PairThatPlays()(PlayerLeaves, 0, 1)},
    };
    for (const auto &[name, phase] : phases) {
        for (const bool steady : {false, true}) {
            for (const bool threaded : {false, true}) {
                for (const HostOp end : {SessionDestroy, ServerDestroy}) {
                    Program p = ServerAndSession(kOnePort, threaded ? kThreadedMode : kMonitor, steady);
                    p.then(phase)(end, 0)(PlayerLeaves, 0, 0);
                    folder.write(std::string(end == SessionDestroy ? "session" : "server") + "_goes_" + name +
                                     (steady ? "_steady" : "") + (threaded ? "_threaded" : ""),
                                 p.bytes());
                }
            }
        }
    }
}

void WriteFrames(SeedFolder &folder)
{
    for (const uint8_t mode : {kMonitor, kThreadedMode}) {
        Program files = ServerAndSession(kNoListener, mode);
        files.then(PairThatPlays());
        for (uint8_t kind = 1; kind <= 5; kind++) {
            files(SendVideo, 0, kLargeSize, kKey, kForward, kind)(SendAudio, 0, 7, kInter, kForward, kind);
            files(QueueReset, 0);
        }
        folder.write(mode == 0 ? "files_monitor" : "files_threaded", files.bytes());
        Program odd = ServerAndSession(kNoListener, mode);
        odd(SendOdd, kNobody)(SendOdd, 0).then(PairThatPlays());
        for (uint8_t i = 0; i < 16; i++) {
            odd(SendVideo, 0, i, i & 1, i, 0)(SendAudio, 0, 15 - i, 0, i, 0);
        }
        folder.write(mode == 0 ? "sizes_and_times_monitor" : "sizes_and_times_threaded", odd.bytes());
        Program captions = ServerAndSession(kNoListener, mode);
        captions(Captions, 0, 1, 4)(SenderSettings, 0, mode, 1, 1, 0, 0)
            .then(PairThatPlays())
            .then(SomeFrames());
        captions(SenderSettings, 0, mode, 0, 1, 0, 0)(Captions, 0, 1, 1)
            .then(SomeFrames())(Captions, 0, 1, 3);
        folder.write(mode == 0 ? "captions_monitor" : "captions_threaded",
                     captions.then(SomeFrames()).bytes());
    }
}

void WriteClients(SeedFolder &folder)
{
    Program p = ServerAndSession(kNoListener, kMonitor);
    p(ClientDestroy, kNobody)(ClientCreate, 0, 0)(ClientDestroy, 0)(ClientCreate, 0, 3);
    p(ClientHears, 0, 2, Number(HostSaid::Connect), 0)(ClientSends, 0, RTMP_MSG_CONNECT, 0);
    p(ClientHears, 0, 2, Number(HostSaid::CreateStream), 0)(ClientHears, 0, 2, Number(HostSaid::PingRequest),
                                                            0);
    p(ClientSends, 0, RTMP_MSG_PING_RESPONSE, 1)(ClientReceiveList, 0, 0, 3)(ClientSendList, 0, 1, 2);
    p(ClientJoins, 0, 0, 1).then(SomeFrames())(ClientSendsMedia, 0, 1, 0, 4, 9)(SessionDestroy, 0);
    folder.write("client_of_the_host", p.bytes());
    Program every = ServerAndSession(kNoListener, kThreadedMode, true);
    every(ClientCreate, 0, 2)(ClientHears, 0, 2, Number(HostSaid::Play), 0);
    for (uint8_t kind = 0; kind < 60; kind++) {
        every(ClientSends, 0, kind, kind & 1);
    }
    folder.write("client_sends_every_kind", every.bytes());
    Program answers = ServerAndSession(kNoListener, kMonitor);
    answers(ClientCreate, 0, 2);
    for (const HostSaid said : {HostSaid::Result, HostSaid::Status, HostSaid::Pong, HostSaid::Seek}) {
        answers(ClientHears, 0, 2, Number(said), 1);
    }
    answers(ClientReceiveList, 0, 3, 9)(ClientReceiveList, 0, 1, 9)(ClientReceiveList, 0, 2, 0);
    answers(ClientHears, 0, 1, 0, 0).text(Hex("03 000000 000004 14 00000000 02"));
    folder.write("client_hears_a_service", answers.bytes());
}

void WriteAmf(SeedFolder &folder)
{
    Program p;
    for (uint8_t what = 0; what < 7; what++) {
        for (uint8_t name = 0; name < 6; name++) {
            p(AmfWrite, kNobody, what, name, name);
        }
        p(AmfRead, 0, 0, what)(AmfRead, 0, 1, 255);
        if (what % 3 == 2) {
            p(AmfFree, 0);
        }
    }
    folder.write("amf_written", p.bytes());
    Program decoded;
    decoded(AmfDecode, 1)
        .text(Hex("02 0004 'play' 00 0000000000000000 05 03 0001 'a' 0101 000009 0A 00000001 05"));
    decoded(AmfRead, 1, 0, 255)(AmfRead, 1, 0, 2)(AmfFree, 1)(AmfDecode, 0).text(Hex("0001 'b' 05 000009"));
    folder.write("amf_decoded", decoded.bytes());
}

void WritePublishers(SeedFolder &folder)
{
    for (const bool steady : {false, true}) {
        const std::string road = steady ? "_steady" : "_exact";
        Program lives = ServerAndSession(kNoListener, kMonitor, steady);
        lives(PublisherCreate, 0, kGoodService | kSlowAnswers)
            .text({})(PublisherLives, 0, 0)(AwaitPlaying, 0);
        lives(AwaitPlaying, 0)(AwaitPlaying, 0).then(SomeFrames());
        lives(PublisherSends, 0, 0).text({})(PublisherSends, 0, 1).text(Hex("02 0001 'x'"));
        Program stopped = lives, sessionGoes = lives, serverGoes = lives;
        folder.write("publisher_stops" + road, stopped(PublisherStops, 0)(PublisherDestroy, 0).bytes());
        folder.write("publisher_whose_session_goes" + road, sessionGoes(SessionDestroy, 0).bytes());
        folder.write("publisher_whose_server_goes" + road, serverGoes(ServerDestroy, 0).bytes());
        Program steps = ServerAndSession(kNoListener, kThreadedMode, steady);
        steps(PublisherCreate, 0, kGoodService).text({})(PublisherStep, 0, 0, 0, 0);
        for (uint8_t command = 0; command < 10; command++) {
            steps(PublisherStep, 0, 1, command, 0);
        }
        steps(PublisherStep, 0, 2, 1, 0)(PublisherStep, 0, 2, 4, 0)(PublisherStep, 0, 2, 0, 0);
        steps(PublisherStops, 0)(PublisherDestroy, 0)(PublisherDestroy, kNobody);
        folder.write("publisher_step_by_step" + road, steps.bytes());
        Program starts = ServerAndSession(kNoListener, kThreadedMode, steady);
        starts(PublisherCreate, 0, kGoodService | kSlowAnswers)
            .text({})(PublisherStep, 0, 3, 0, 0)
            .then(SomeFrames());
        folder.write("publisher_starts" + road, starts(SessionDestroy, 0).bytes());
    }
}

} // namespace

void Seeds_host_state(SeedFolder &folder)
{
    WriteBothRoadsAndModes(folder);
    WriteLoggers(folder);
    WriteSettings(folder);
    WriteTraces(folder);
    WriteDestroys(folder);
    WriteFrames(folder);
    WriteClients(folder);
    WriteAmf(folder);
    WritePublishers(folder);
    Program lookUps;
    lookUps(LookUp, kNobody)(Figures, kNobody)(ServerCreate, 255, 0)
        .then(ServerAndSession(kNoListener, kMonitor));
    lookUps(SessionCreate, 0, 0)(SessionCreate, 0, 3)(SessionCreate, kNobody, 0)(LookUp, 0)(LookUp,
                                                                                            1)(Figures, 0);
    lookUps(SessionDestroy, kNobody)(ServerDestroy, kNobody);
    folder.write("look_ups", lookUps.bytes());
}
