// What a player may send behind its handshake, one seed for each class of message and of chunk; each for both
// roads, and for the exact rules and all of RTMP_PLAYERS_ALL. The first three bytes are those of
// targets/serve_loop.cpp.
#include "seed_folder.h"
#include "support/scripted_peer.h"

using namespace amf0;
using namespace wire;

namespace {

constexpr uint8_t kSteadyRoad = 8;

enum class Said { Nothing, Connect, CreateStream, Play };

class ServeSeeds {
  public:
    explicit ServeSeeds(SeedFolder *folder) : folder_(folder) {}

    // With a session that has media and a sender, and frames in between; the roads and rules take turns.
    void write(const std::string &name, Said said, const Bytes &bytes)
    {
        const uint8_t rules = turn_ & 1 ? 0xFF : 0;
        const uint8_t road = turn_ & 2 ? kSteadyRoad : 0;
        const uint8_t middle =
            static_cast<uint8_t>((rules & 7) | road | static_cast<uint8_t>(said) << 4 | 3 << 6);
        folder_->write(name, Bytes{rules, middle, static_cast<uint8_t>(0x48 | (turn_ >> 2 & 7))} + bytes);
        turn_++;
    }
    // The same over TLS, on the exact road or the steady one.
    void writeOverTls(const std::string &name, bool isSteady, const Bytes &bytes)
    {
        const uint8_t middle = static_cast<uint8_t>(7 | (isSteady ? kSteadyRoad : 0) | 3 << 6);
        folder_->write(name, Bytes{0xFF, middle, 0xCB} + bytes);
    }
    // In all four.
    void writeAll(const std::string &name, Said said, const Bytes &bytes)
    {
        for (const char *suffix : {"_1", "_2", "_3", "_4"}) {
            write(name + suffix, said, bytes);
        }
    }

  private:
    SeedFolder *folder_;
    uint32_t turn_ = 0;
};

Bytes Control(uint8_t type, const Bytes &payload)
{
    return Chunks({.payload = payload, .type = type, .chunkStream = 2});
}

Bytes Command(const Bytes &payload)
{
    return Chunks({.payload = payload, .stream = 1});
}

// Behind every prefix of what it should have: 0 to 5 bytes, or 0 to 9 of an event.
void ControlSeeds(ServeSeeds *seeds)
{
    const Bytes number = Hex("00000080 00");
    for (const uint8_t type : {1, 2, 3, 5, 6}) {
        Bytes all;
        for (size_t length = 1; length <= number.size(); length++) {
            all = all + Control(type, Slice(number, 0, length));
        }
        seeds->writeAll("control_" + std::to_string(type), Said::Connect, all);
    }
    Bytes events;
    for (uint32_t event = 0; event <= 32; event++) {
        events = events + Control(4, BigEndian(event, 2) + Counting(8));
    }
    seeds->writeAll("events", Said::Play, events);
    for (size_t length = 0; length <= 9; length++) {
        seeds->write("event_of_" + std::to_string(length), Said::Play,
                     Control(4, Slice(Hex("0006 00000001 00000002"), 0, length)));
    }
    seeds->writeAll("pings", Said::Play, Repeated(Control(4, Hex("0006 01020304")), 40));
}

void ChunkSizeSeeds(ServeSeeds *seeds)
{
    for (const uint32_t size : {0U, 1U, 2U, 127U, 128U, 65536U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFEDU, ~0U}) {
        const Bytes set = Control(1, BigEndian(size, 4));
        const Bytes long_ = Chunks({.payload = ConnectCommand()}, 128);
        const size_t two = 12 + 128 + 1 + 128;
        seeds->writeAll("chunk_size_" + std::to_string(size), Said::Nothing,
                        set + Slice(long_, 0, two) + set + Slice(long_, two, long_.size()));
    }
    seeds->writeAll("chunks_of_one", Said::Nothing,
                    Control(1, BigEndian(1, 4)) + Chunks({.payload = ConnectCommand()}, 1));
}

void HeaderSeeds(ServeSeeds *seeds)
{
    Bytes all;
    for (const int basic : {1, 2, 3}) {
        const uint32_t id = basic == 1 ? 5 : basic == 2 ? 70 : 500;
        for (int type = 0; type < 4; type++) {
            for (const uint32_t time : {0x10U, 0xFFFFFFU, 0x1000000U}) {
                all = all + Chunks({.payload = Hex("00000001"),
                                    .type = 3,
                                    .chunkStream = id,
                                    .headerType = type,
                                    .basicForm = basic,
                                    .timestamp = type < 3 ? time : 0});
            }
        }
    }
    seeds->writeAll("headers", Said::Connect, all);
    seeds->writeAll("fresh_short_header", Said::Connect, Hex("C7 0000"));
    seeds->writeAll("folded_ids", Said::Connect,
                    Hex("13 000000 000100 03 00000000 01 03 000000 000004 03 00000000 00000001 93 000001"));
    seeds->writeAll("length_of_0", Said::Connect, Hex("05 000000 000000 03 00000000"));
    Bytes begun;
    for (uint8_t id = 3; id < 60; id++) { // messages that end nowhere
        begun = begun + Bytes{id} + Hex("000000 FFFFFF 14 00000000") + Bytes(128, 2);
    }
    seeds->writeAll("begun_messages", Said::Nothing, begun);
    const Bytes connect = Chunks({.payload = ConnectCommand()});
    seeds->writeAll("lengths_that_differ", Said::Nothing,
                    Slice(connect, 0, 140) + Hex("43 000000 000040 14") + Bytes(64, 3) + Hex("C3 00"));
    for (const size_t length : {127U, 128U, 129U, 255U, 256U, 257U, 384U}) {
        seeds->write(
            "payload_of_" + std::to_string(length), Said::Connect,
            Command(
                Values({String("play"), Number(0), Null(), String(std::string(length - 16, 'a'))}).bytes));
    }
}

void MessageTypeSeeds(ServeSeeds *seeds)
{
    for (const Said said : {Said::Nothing, Said::Connect, Said::CreateStream, Said::Play}) {
        const std::string state = std::to_string(static_cast<int>(said));
        for (int type = 0; type < 25; type++) {
            seeds->write("type_" + std::to_string(type) + "_" + state, said,
                         Chunks({.payload = Hex("00 00 00 01 00 00"), .type = static_cast<uint8_t>(type)}) +
                             Command(CreateStreamCommand()));
        }
    }
}

void CommandSeeds(ServeSeeds *seeds)
{
    const Bytes play = Command(PlayCommand("stream"));
    const Bytes pause = Command(PauseCommand(true));
    const Bytes goOn = Command(PauseCommand(false));
    const Bytes end = Command(DeleteStreamCommand());
    const Bytes connect = Command(ConnectCommand());
    seeds->writeAll("pause_and_on", Said::Play, pause + goOn + pause + goOn + end);
    seeds->writeAll("play_again", Said::Play, play + play + Command(PlayCommand("mp4:stream?token=1")));
    seeds->writeAll("order", Said::Nothing, play + pause + end + connect + connect);
    seeds->writeAll("unknown_name", Said::CreateStream, Command(PlayCommand("%s%n\n")));
    seeds->writeAll("empty_name", Said::CreateStream, Command(PlayCommand("")));
    for (const char *name :
         {"seek", "publish", "releaseStream", "FCPublish", "FCSubscribe", "_checkbw", "getStreamLength",
          "closeStream", "receiveAudio", "_result", "_error", "onStatus", "onFCSubscribe", "setChallenge",
          "onClientLogin", "play2", "connec"}) {
        const Bytes payload =
            Values({String(name), Number(5), Null(), Number(1000), String("stream"), Number(-2)}).bytes;
        seeds->write(std::string("command_") + name, Said::Play, Command(payload) + goOn);
        seeds->write(std::string("early_") + name, Said::Connect, Command(payload));
    }
    seeds->writeAll("odd_values", Said::Nothing,
                    Command(Values({String("connect"), Number(1e300),
                                    Object({{"app", Number(1)},
                                            {"app", String("live")},
                                            {"", Null()},
                                            {"videoCodecs", Number(-1)},
                                            {"list", StrictArray({Number(1), Null()})},
                                            {"map", EcmaArray({{"a", Boolean(true)}})}})})
                                .bytes));
    seeds->writeAll(
        "deep", Said::Nothing,
        Command(Text("") + Hex("02 0007 'connect' 00 3FF0000000000000") + Repeated(Hex("03 0001 'a'"), 70)));
    seeds->writeAll(
        "data", Said::Play,
        Chunks({.payload = Values({String("@setDataFrame"), String("onMetaData")}).bytes, .type = 18}) +
            Chunks({.payload = Hex("00") + PlayCommand("stream"), .type = 17}));
}

} // namespace

void Seeds_serve_loop(SeedFolder &folder)
{
    ServeSeeds seeds(&folder);
    ControlSeeds(&seeds);
    ChunkSizeSeeds(&seeds);
    HeaderSeeds(&seeds);
    MessageTypeSeeds(&seeds);
    CommandSeeds(&seeds);
    seeds.writeAll("nothing", Said::Play, {});
    const Bytes session = Command(ConnectCommand()) + Command(CreateStreamCommand()) +
                          Command(PlayCommand("stream")) + Command(PauseCommand(true)) +
                          Command(PauseCommand(false)) + Command(DeleteStreamCommand());
    seeds.writeOverTls("tls_exact", false, session);
    seeds.writeOverTls("tls_steady", true, session);
}
